#include "db/admins.h"

#include "db/dbcommon_internal.h"

using namespace mfadb;

namespace {

using AdminRecord = Owned<adminData, destroyAdminData>;

// An administrator from columns uid, name, rights, suspended (0 to 3).
adminData *adminRecord(const Session &session, int row) {
  AdminRecord admin(newRecord<adminData>("admindef"));
  if (!admin || !session.copyTo(&admin->unixuid, row, 0) || !session.copyTo(&admin->name, row, 1))
    return nullptr;
  admin->adminrights = session.integer(row, 2);
  admin->suspended = session.integer(row, 3);
  return admin.release();
}

} // namespace

extern "C" {

int qn_db_administratorAddUpdate(dbctx *context, const char *unixuid, int adminrights) {
  Session session(context);
  Escaped uid;
  if (int status = session.connect({{uid, unixuid}}))
    return status;
  // The bitwise or makes this an upsert that can widen rights only.
  return session.execFormatted(Expect::Command, kInsertFailed,
                               "insert into qmx_adminuser(unixuid, adminrights) values('%s',%d) "
                               "on conflict(unixuid) do update set "
                               "adminrights=qmx_adminuser.adminrights|excluded.adminrights",
                               uid.get(), adminrights);
}

int qn_db_administratorGetInfo(dbctx *context, const char *unixuid, int *adminrights,
                               int *suspended) {
  if (adminrights == nullptr || suspended == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  Escaped uid;
  if (int status = session.connect({{uid, unixuid}}))
    return status;
  if (int status = session.execParams("select adminrights,suspended from QMX_AdminUser where "
                                      "unixuid=$1",
                                      Expect::Tuples, kSelectFailed, {uid.get()}))
    return status;
  if (int status = session.requireRows("No data returned\n"))
    return status;
  *adminrights = session.integer(0, 0);
  *suspended = session.integer(0, 1);
  return 0;
}

int qn_db_administratorRemove(dbctx *context, const char *unixuid, const char *) {
  Session session(context);
  if (int status = session.connect())
    return status;
  Escaped uid = session.escape(unixuid);
  if (!uid) {
    session.report("quotedDuplicateString returned NULL\n");
    return QN_DB_BAD_PARAMETERS;
  }
  if (int status = session.execParams(
          "delete from qmx_adminuser where unixuid=$1", Expect::Command,
          {QN_DB_DELETE_FAILED, "delete admin_user failed: %s\n", Reason::Result}, {uid.get()}))
    return status;
  return session.requireChanged("No admin_users deleted.\n");
}

int qn_db_administratorList(dbctx *context, int *count, adminData ***admins) {
  if (count == nullptr || admins == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.exec("select unixuid, name, adminrights, suspended from qmx_adminuser "
                                "order by unixuid asc",
                                Expect::Tuples, kSelectFailed))
    return status;
  // An empty table is reported by status alone.
  if (session.rows() == 0)
    return QN_DB_NOT_FOUND;
  return collectGroups(
      session, kEachRow, "admindefarray", [&](int row, int) { return adminRecord(session, row); },
      destroyAdminData, count, admins);
}

} // extern "C"
