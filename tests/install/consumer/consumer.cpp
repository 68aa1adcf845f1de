// A C++ program built against an installed libmfa through find_package:
// prints the LDAP factor tags of the user named on the command line.
#include <iostream>
#include <memory>

#include <mfadata/dbctx.h>
#include <mfadata/factordata.h>
#include <mfadata/usermfadata.h>
// Not used here: they include libpq's and p11-kit's headers, whose
// directories the package must supply as well.
#include <crypto/pkcs11.h>
#include <db/dbcommon.h>

int main(int argc, char **argv) {
  if (argc != 2) {
    std::cerr << "usage: " << argv[0] << " USERID\n";
    return 2;
  }
  dbctx *rawContext = nullptr;
  if (int status = qn_db_createDBCtx(&rawContext, nullptr, nullptr); status != 0) {
    std::cerr << "qn_db_createDBCtx: " << status << '\n';
    return 1;
  }
  std::unique_ptr<dbctx, decltype(&qn_db_destroyDbCtx)> context(rawContext, qn_db_destroyDbCtx);
  factorData *rawFactor = nullptr;
  int status = kfactor_get_UserFactorData(context.get(), argv[1], "QMXLDAP1", &rawFactor);
  std::unique_ptr<factorData, decltype(&kfactor_factorData_destroy)> factor(
      rawFactor, kfactor_factorData_destroy);
  if (status != 0 || !factor) {
    std::cerr << "kfactor_get_UserFactorData: " << status << '\n';
    return 1;
  }
  for (const factorTag *tag = factor->tags; tag != nullptr; tag = tag->next)
    std::cout << tag->tagName << '=' << (tag->tagValue ? tag->tagValue : "") << '\n';
  return 0;
}
