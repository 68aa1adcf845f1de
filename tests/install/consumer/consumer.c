/* A C11 program built against an installed libmfa through pkg-config: prints
   the LDAP factor tags of the user named on the command line. */
#include <stdio.h>

#include <mfadata/dbctx.h>
#include <mfadata/factordata.h>
#include <mfadata/usermfadata.h>

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s USERID\n", argv[0]);
    return 2;
  }
  dbctx *context = NULL;
  int status = qn_db_createDBCtx(&context, NULL, NULL);
  if (status != 0) {
    fprintf(stderr, "qn_db_createDBCtx: %d\n", status);
    return 1;
  }
  factorData *factor = NULL;
  status = kfactor_get_UserFactorData(context, argv[1], "QMXLDAP1", &factor);
  if (status == 0 && factor != NULL) {
    for (const factorTag *tag = factor->tags; tag != NULL; tag = tag->next)
      printf("%s=%s\n", tag->tagName, tag->tagValue != NULL ? tag->tagValue : "");
  } else {
    fprintf(stderr, "kfactor_get_UserFactorData: %d\n", status);
  }
  kfactor_factorData_destroy(factor);
  qn_db_destroyDbCtx(context);
  return status == 0 && factor != NULL ? 0 : 1;
}
