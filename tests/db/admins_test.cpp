#include "db/admins.h"

#include <gtest/gtest.h>

#include <string>

#include "db/dbcommon_internal.h"
#include "support/pgtest.h"

namespace {

using AdminsTest = mfatest::PgTest;

TEST_F(AdminsTest, AddReadRemoveAndList) {
  // "rights/suspended"
  auto info = [&](const char *uid) {
    return [=, this](int &status) {
      int rights = -1, suspended = -1;
      status = qn_db_administratorGetInfo(ctx, uid, &rights, &suspended);
      return std::to_string(rights) + "/" + std::to_string(suspended);
    };
  };
  // "count:" then " uid|name|rights|suspended" per record.
  auto list = [&](int &status) {
    int count = -1;
    adminData **admins = nullptr;
    status = qn_db_administratorList(ctx, &count, &admins);
    std::string text = std::to_string(count) + ":";
    for (int i = 0; i < (status == 0 ? count : 0); i++)
      text += std::string(" ") + admins[i]->unixuid + "|" + admins[i]->name + "|" +
              std::to_string(admins[i]->adminrights) + "|" + std::to_string(admins[i]->suspended);
    mfadb::destroyArray(admins, status == 0 ? count : 0, destroyAdminData);
    return text;
  };
  const char *noData = "MFADB:No data returned\n";
  mfatest::runSteps({
      {"an empty table lists nothing, silently", list, 80105, "-1:", ""},
      {"an unknown uid has no rights", info("bob"), 80105, "-1/-1", noData},
      // Rights are or-ed in and never taken away.
      MFA_CALL(0, "", qn_db_administratorAddUpdate(ctx, "bob", 1)),
      MFA_CALL(0, "", qn_db_administratorAddUpdate(ctx, "bob", 4)),
      MFA_CALL(0, "", qn_db_administratorAddUpdate(ctx, "bob", 1)),
      {"read back", info("bob"), 0, "5/0", ""},
      // The uid is kept as given.
      MFA_CALL(0, "", qn_db_administratorAddUpdate(ctx, "Alice", 2)),
      {"so its lower case is unknown", info("alice"), 80105, "-1/-1", noData},
      MFA_CALL(0, "", qn_db_administratorAddUpdate(ctx, "o'neil", 8)),
      {"listed in uid order", list, 0, "3: Alice||2|0 bob||5|0 o'neil||8|0", ""},
      // Removing twice is an error.
      MFA_CALL(0, "", qn_db_administratorRemove(ctx, "bob", nullptr)),
      MFA_CALL(80105, "MFADB:No admin_users deleted.\n",
               qn_db_administratorRemove(ctx, "bob", nullptr)),
      MFA_CALL(80106, "MFADB:quotedDuplicateString returned NULL\n",
               qn_db_administratorRemove(ctx, nullptr, nullptr)),
      MFA_CALL(80106, "", qn_db_administratorAddUpdate(ctx, nullptr, 1)),
      {"name and suspended flag come from their own columns",
       [&](int &status) {
         sql("update qmx_adminuser set name='Alice A', suspended=1 where unixuid='Alice'");
         return list(status);
       },
       0, "2: Alice|Alice A|2|1 o'neil||8|0", ""},
  });
}

} // namespace
