#include "db/yubikey.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base/alloc.h"
#include "support/pgtest.h"

namespace {

// The upsert with both values empty: a record fits its 2,048-byte buffer
// while this, the public id and the escaped text leave room for the
// terminator.
constexpr const char *kEmptyUpsert = "insert into QMX_YubiRecords(PubId,CSV) values('', '') on "
                                     "conflict(PubId) do update set CSV=excluded.CSV";

using YubiKeyTest = mfatest::PgTest;

TEST_F(YubiKeyTest, StoreFindAndDelete) {
  const char *id = "cccjgjgkhcbb";
  auto store = [&](const std::string &csv) {
    return qn_db_yubi_AddUpdateRecord(ctx, id, csv.c_str());
  };
  auto find = [&](int &status) {
    char *csv = nullptr;
    status = qn_db_yubi_FindRecord(ctx, id, &csv);
    std::string text = csv ? csv : "";
    freeString(csv);
    return text;
  };
  const std::string odd = "it's,\"quoted\",back\\slash,\\',caf\xc3\xa9,\xe2\x82\xac";
  const std::string fits(2047 - strlen(kEmptyUpsert) - strlen(id), 'x');
  const std::string tooLong = "MFADB:statement too long: 2048 bytes do not fit a buffer of 2048\n";
  mfatest::runSteps({
      {"an unknown public id", find, 80105, "", "MFADB:PubId not found"},
      MFA_CALL(0, "", store("1,a")),
      MFA_CALL(0, "", store("2,b")),
      {"one row with the second text", find, 0, "2,b", ""},
      MFA_CALL(0, "", store(odd)),
      {"read back byte for byte", find, 0, odd, ""},
      MFA_CALL(0, "", qn_db_yubi_DeleteRecord(ctx, id)),
      {"then not found", find, 80105, "", "MFADB:PubId not found"},
      MFA_CALL(0, "", qn_db_yubi_DeleteRecord(ctx, id)),
      MFA_CALL(0, "", store(fits)),
      MFA_CALL(80106, tooLong, store(fits + "x")),
      // A quote takes two bytes once escaped.
      MFA_CALL(80106, tooLong, store("'" + fits.substr(1))),
      {"the stored record is unchanged", find, 0, fits, ""},
      MFA_CALL(80106, "", qn_db_yubi_AddUpdateRecord(ctx, id, nullptr)),
  });
  EXPECT_EQ(value("select count(*) from QMX_YubiRecords"), "1");
}

} // namespace
