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
  auto store = [&](std::string csv) {
    return mfatest::writes([=, this] { return qn_db_yubi_AddUpdateRecord(ctx, id, csv.c_str()); });
  };
  auto remove = mfatest::writes([&] { return qn_db_yubi_DeleteRecord(ctx, id); });
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
      {"stored", store("1,a"), 0, "", ""},
      {"replaced", store("2,b"), 0, "", ""},
      {"one row with the second text", find, 0, "2,b", ""},
      {"quotes, backslashes and UTF-8", store(odd), 0, "", ""},
      {"read back byte for byte", find, 0, odd, ""},
      {"deleted", remove, 0, "", ""},
      {"then not found", find, 80105, "", "MFADB:PubId not found"},
      {"deleting an unknown id succeeds", remove, 0, "", ""},
      {"the longest text that fits", store(fits), 0, "", ""},
      {"one byte more is refused", store(fits + "x"), 80106, "", tooLong},
      // A quote takes two bytes once escaped.
      {"as is a text that fits only unescaped", store("'" + fits.substr(1)), 80106, "", tooLong},
      {"the stored record is unchanged", find, 0, fits, ""},
      {"a null text is refused",
       mfatest::writes([&] { return qn_db_yubi_AddUpdateRecord(ctx, id, nullptr); }), 80106, "",
       ""},
  });
  EXPECT_EQ(value("select count(*) from QMX_YubiRecords"), "1");
}

} // namespace
