#include "db/users.h"

#include <cctype>
#include <string>

#include "base/textutils.h"
#include "db/dbcommon_internal.h"

using namespace mfadb;

namespace {

using UserRecord = Owned<userData, destroyUserData>;
using UserFactor = Owned<MFAAdminFactorData, destroyMFAAdminFactorData>;
using Connection = Owned<orlinClientUserData, destroyOrlinClientUserData>;

// The single-column setters and counters build their statements in 512
// bytes, as they always have.
constexpr std::size_t kSetterSize = 512;

constexpr Failure kReadFailed{QN_DB_SELECT_FAILED, "select failed: %s\n", Reason::Result};
constexpr Failure kSuspendFailed{QN_DB_UPDATE_FAILED, "User suspend update failed: %s\n",
                                 Reason::Result};
// The blank before the line end is part of the text both counters log.
constexpr Failure kIncrementFailed{QN_DB_UPDATE_FAILED, "User failcount update failed: %s \n",
                                   Reason::Result};

// Connects and runs a one-column update by uid; format takes the value, then
// the escaped uid.
int setByUid(Session &session, const char *unixuid, const Failure &failure, const char *format,
             int value) {
  Escaped uid;
  if (int status = session.connect({{uid, unixuid}}))
    return status;
  return session.execFormattedIn(kSetterSize, Expect::Command, failure, format, value, uid.get());
}

// The same by id; format takes the value, then the id.
int setById(dbctx *context, const Failure &failure, const char *format, int value, int userid) {
  Session session(context);
  if (int status = session.connect())
    return status;
  return session.execFormattedIn(kSetterSize, Expect::Command, failure, format, value, userid);
}

// The first column of the first row of a select by escaped uid ($1).
int readByUid(dbctx *context, const char *unixuid, const char *sql, const char *notFound,
              int *value) {
  if (value == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  Escaped uid;
  if (int status = session.connect({{uid, unixuid}}))
    return status;
  if (int status = session.execParams(sql, Expect::Tuples, kReadFailed, {uid.get()}))
    return status;
  if (int status = session.requireRows(notFound))
    return status;
  *value = session.integer(0, 0);
  return 0;
}

// An increment with "returning": the new count from its row.
int incrementByUid(dbctx *context, const char *unixuid, const char *format, int *count) {
  Session session(context);
  Escaped uid;
  if (int status = session.connect({{uid, unixuid}}))
    return status;
  if (int status = session.execFormattedIn(kSetterSize, Expect::Either, kIncrementFailed, format, uid.get()))
    return status;
  if (int status = session.requireRows("increment count failed\n"))
    return status;
  if (count != nullptr)
    *count = session.integer(0, 0);
  return 0;
}

// One entry per row into count and array; a result without rows is only
// noted, leaving both as they are.
template <typename T, typename Make, typename Destroy>
int collectRows(Session &session, const char *none, const char *label, Make make, Destroy destroy,
                int *count, T ***array) {
  if (session.rows() == 0) {
    session.report("%s", none);
    return 0;
  }
  return collectGroups(session, kEachRow, label, make, destroy, count, array);
}

// A user's factor from columns name, tags, active flag and note (0 to 3),
// with the two ids from idColumn and the one after it unless it is negative.
MFAAdminFactorData *userFactor(const Session &session, int row, int idColumn) {
  UserFactor factor(newRecord<MFAAdminFactorData>("factordef"));
  if (!factor || !session.copyTo(&factor->factorname, row, 0) ||
      !session.copyTo(&factor->factortags, row, 1) || !session.copyTo(&factor->factornote, row, 3))
    return nullptr;
  factor->isactive = session.integer(row, 2);
  if (idColumn >= 0) {
    factor->factorid = session.integer(row, idColumn);
    factor->userfactorid = session.integer(row, idColumn + 1);
  }
  return factor.release();
}

// A user's policy from columns id, name, note and link id (0 to 3).
MFAAdminPolicyData *userPolicy(const Session &session, int row) {
  Owned<MFAAdminPolicyData, destroyMFAAdminPolicyData> policy(
      newRecord<MFAAdminPolicyData>("policy"));
  if (!policy || !session.copyTo(&policy->policyname, row, 1) ||
      !session.copyTo(&policy->policynote, row, 2))
    return nullptr;
  policy->policyid = session.integer(row, 0);
  policy->userpolicyid = session.integer(row, 3);
  return policy.release();
}

// The profiles of one user on one client host from size rows starting at
// first: profile id, client id, remote user id, status, host name (0 to 4).
orlinClientUserData *hostProfiles(const Session &session, int userid, int first, int size) {
  Connection connection(newRecord<orlinClientUserData>("orlinclientuser"));
  if (!connection || !session.copyTo(&connection->name, first, 4))
    return nullptr;
  connection->userid = userid;
  connection->clientid = session.integer(first, 1);
  if ((connection->profiles = newArray<clientUserProfile>(size, "userprofiles array")) == nullptr)
    return nullptr;
  connection->numProfiles = size;
  for (int i = 0; i < size; i++) {
    auto *profile = newRecord<clientUserProfile>("userprofile");
    if ((connection->profiles[i] = profile) == nullptr ||
        !session.copyTo(&profile->remoteuserid, first + i, 2))
      return nullptr;
    profile->userorlinclientid = session.integer(first + i, 0);
    profile->remoteuserstatus = session.integer(first + i, 3);
  }
  return connection.release();
}

// The user's client profiles, one connection record per host. Having none
// is no failure.
int readHostProfiles(Session &session, userData &user) {
  int status = session.execFormatted(
      Expect::Tuples, kSelectFailed,
      "select userorlinclientid, aui.clientid, remoteuserid, remoteuserstatus, clienthostname, "
      "count(*) over (partition by aui.clientid) from qmx_userorlinclient aui,qmx_orlinclients "
      "aic where aui.clientid=aic.clientid and userid=%d order by aui.clientid, "
      "userorlinclientid",
      user.userid);
  if (status == 0 && session.rows() == 0) {
    session.report("No Orlin Client connections for this user.\n");
    return 0;
  }
  if (status == 0)
    status = collectGroups(
        session, 5, "orlinclientarray",
        [&](int first, int size) { return hostProfiles(session, user.userid, first, size); },
        destroyOrlinClientUserData, &user.numOrlinClients, &user.orlinClients);
  if (status != 0)
    session.report("Failure while retrieving orlin connections for user: %d\n", status);
  return status;
}

} // namespace

extern "C" {

int qn_db_userAdd(dbctx *context, const char *unixuid, const char *name, int passwordFallback,
                  const char *ssoid, int *userid) {
  Session session(context);
  if (int status = session.connect())
    return status;
  Escaped uid = session.escape(unixuid), escapedName = session.escape(name);
  Escaped sso = session.escape(ssoid);
  if (!uid || !escapedName || (ssoid != nullptr && !sso)) {
    session.report("error escaping userid or name\n");
    return QN_DB_NOT_FOUND;
  }
  // Stored in lower case; white space is refused before anything is sent.
  std::string folded = uid.get();
  for (char &c : folded) {
    if (isspace(static_cast<unsigned char>(c))) {
      session.report("No spaces allowed in UserID field.\n");
      return QN_DB_BAD_PARAMETERS;
    }
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  constexpr Failure kUserInsertFailed{QN_DB_INSERT_FAILED, "user insert failed: %s\n",
                                      Reason::Result};
  int status =
      ssoid != nullptr
          ? session.execFormatted(Expect::Either, kUserInsertFailed,
                                  "insert into qmx_user(unixuid,name,PasswordFallback,ssoid)  "
                                  "values('%s', '%s',%d,'%s') returning userid",
                                  folded.c_str(), escapedName.get(), passwordFallback, sso.get())
          : session.execFormatted(Expect::Either, kUserInsertFailed,
                                  "insert into qmx_user(unixuid,name,PasswordFallback)  "
                                  "values('%s', '%s',%d) returning userid",
                                  folded.c_str(), escapedName.get(), passwordFallback);
  if (status == QN_DB_INSERT_FAILED &&
      !stringsNotEqual(PQresultErrorField(session.result(), PG_DIAG_SQLSTATE), "23505")) {
    session.report("User ID specified already exists.\n");
    return QN_DB_USER_EXISTS;
  }
  if (status != 0)
    return status;
  if (userid != nullptr && session.rows() > 0)
    *userid = session.integer(0, 0);
  return 0;
}

int qn_db_userRemoveById(dbctx *context, int userid) {
  Session session(context);
  if (int status = session.connect())
    return status;
  constexpr Session::IdStep steps[] = {
      {"delete from qmx_userpolicy where userid = %d",
       {QN_DB_DELETE_FAILED, "delete failed for userpolicy: %s\n", Reason::Result}},
      {"delete from qmx_userfactor where userid = %d",
       {QN_DB_DELETE_FAILED, "delete failed for userfactor: %s\n", Reason::Result}},
      {"delete from qmx_usermfapassword where userid = %d",
       {QN_DB_DELETE_FAILED, "delete failed for usermfapassword: %s\n", Reason::Result}},
      {"delete from qmx_userorlinclient where userid = %d",
       {QN_DB_DELETE_FAILED, "delete failed for qmx_userorlinclient: %s\n", Reason::Result}},
      {"delete from qmx_user where userid = %d",
       {QN_DB_DELETE_FAILED, "delete failed for user: %s\n", Reason::Result}},
  };
  return session.transactionById(steps, userid);
}

int qn_db_userRemove(dbctx *context, const char *unixuid) {
  Session session(context);
  Escaped uid;
  if (int status = session.connect({{uid, unixuid}}))
    return status;
  // The client profiles are not deleted here; the database removes them
  // with the user. Failures carry the insert code, as callers expect.
  return session.transaction([&] {
    for (const char *sql : {"delete from qmx_userpolicy where userid = (select userid from "
                            "qmx_user where unixuid=$1)",
                            "delete from qmx_userfactor where userid = (select userid from "
                            "qmx_user where unixuid=$1)",
                            "delete from qmx_usermfapassword where userid = (select userid from "
                            "qmx_user where unixuid=$1)",
                            "delete from qmx_user where unixuid=$1"})
      if (int status = session.execParams(
              sql, Expect::Command, {QN_DB_INSERT_FAILED, "delete failed: %s\n", Reason::Result},
              {uid.get()}))
        return status;
    return 0;
  });
}

int qn_db_userIsFallback(dbctx *context, const char *unixuid, int *fallback) {
  return readByUid(context, unixuid, "select passwordfallback from qmx_user where unixuid=$1",
                   "user not found\n", fallback);
}

int qn_db_userGetSuspended(dbctx *context, const char *unixuid, int *suspended) {
  return readByUid(context, unixuid, "select suspended from qmx_user where unixuid=$1",
                   "User not found\n", suspended);
}

int qn_db_userGetFailcount(dbctx *context, const char *unixuid, int *count) {
  return readByUid(context, unixuid, "select ctcfailurecount from qmx_user where unixuid=$1",
                   "User not found\n", count);
}

int qn_db_userUpdateById(dbctx *context, int userid, int passwordFallback, int suspended,
                         const char *ssoid) {
  Session session(context);
  Escaped sso;
  if (int status = ssoid != nullptr ? session.connect({{sso, ssoid}}) : session.connect())
    return status;
  constexpr Failure kFailed{QN_DB_UPDATE_FAILED, "update user failed: %s\n", Reason::Result};
  if (ssoid == nullptr)
    return session.execFormattedIn(kSetterSize, Expect::Command, kFailed,
                      "update qmx_user set passwordfallback=%d, suspended=%d where userid=%d",
                      passwordFallback, suspended, userid);
  return session.execFormattedIn(kSetterSize, Expect::Command, kFailed,
                    "update qmx_user set passwordfallback=%d, suspended=%d, ssoid='%s' where "
                    "userid=%d",
                    passwordFallback, suspended, sso.get(), userid);
}

int qn_db_userSetFallback(dbctx *context, const char *unixuid, int fallback) {
  Session session(context);
  return setByUid(session, unixuid, {QN_DB_UPDATE_FAILED, "update failed: %s\n", Reason::Result},
                  "update qmx_user set passwordfallback=%d where unixuid='%s'", fallback);
}

int qn_db_userSetFallbackById(dbctx *context, int userid, int fallback) {
  return setById(context,
                 {QN_DB_UPDATE_FAILED, "User fallback update failed: %s\n", Reason::Result},
                 "update qmx_user set passwordfallback=%d where userid=%d", fallback, userid);
}

int qn_db_userSetSSOIdById(dbctx *context, int userid, const char *ssoid) {
  Session session(context);
  Escaped sso;
  if (int status = session.connect({{sso, ssoid}}))
    return status;
  return session.execFormattedIn(kSetterSize, Expect::Command,
                    {QN_DB_UPDATE_FAILED, "User sso ID update failed: %s\n", Reason::Result},
                    "update qmx_user set ssoid='%s' where userid=%d", sso.get(), userid);
}

int qn_db_userSetSuspended(dbctx *context, const char *unixuid, int suspended) {
  Session session(context);
  return setByUid(session, unixuid, kSuspendFailed,
                  "update qmx_user set suspended=%d where unixuid='%s'", suspended);
}

int qn_db_userSetSuspendedById(dbctx *context, int userid, int suspended) {
  return setById(context, kSuspendFailed, "update qmx_user set suspended=%d where userid=%d",
                 suspended, userid);
}

int qn_db_userSetFailcount(dbctx *context, const char *unixuid, int count) {
  Session session(context);
  return setByUid(session, unixuid,
                  {QN_DB_UPDATE_FAILED, "User failcount update failed: %s\n", Reason::Result},
                  "update qmx_user set ctcfailurecount=%d where unixuid='%s'", count);
}

int qn_db_userIncrementFailcount(dbctx *context, const char *unixuid, int *count) {
  return incrementByUid(context, unixuid,
                        "update qmx_user set ctcfailurecount=ctcfailurecount+1 where "
                        "unixuid='%s' returning ctcfailurecount",
                        count);
}

int qn_db_administratorSetSuspended(dbctx *context, const char *unixuid, int suspended) {
  Session session(context);
  if (int status = setByUid(session, unixuid, kSuspendFailed,
                            "update QMX_AdminUser set suspended=%d where unixuid='%s'", suspended))
    return status;
  // Only the administrator setter tells an unknown uid apart.
  return session.requireChanged("No users unsuspended.\n");
}

int qn_db_administratorGetSuspended(dbctx *context, const char *unixuid, int *suspended) {
  return readByUid(context, unixuid, "select suspended from QMX_AdminUser where unixuid=$1",
                   "Admin userid not found\n", suspended);
}

int qn_db_administratorIncrementFailcount(dbctx *context, const char *unixuid, int *count) {
  return incrementByUid(context, unixuid,
                        "update QMX_AdminUser set failurecount=failurecount+1 where UnixUid='%s' "
                        "returning failurecount",
                        count);
}

int qn_db_administratorSetFailcount(dbctx *context, const char *unixuid, int count) {
  Session session(context);
  return setByUid(
      session, unixuid,
      {QN_DB_UPDATE_FAILED, "Administrator failcount update failed: %s\n", Reason::Result},
      "update QMX_AdminUser set failurecount=%d where UnixUid='%s'", count);
}

int qn_db_administratorGetFailcount(dbctx *context, const char *unixuid, int *count) {
  return readByUid(context, unixuid, "select failurecount from QMX_AdminUser where UnixUid=$1",
                   "Administrator not found\n", count);
}

int qn_db_userGetById(dbctx *context, int userid, userData **user) {
  if (user == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select name, passwordfallback,passwordhash,ctcfailurecount,suspended,unixuid  from "
          "qmx_user au  left join qmx_usermfapassword ap on au.userid=ap.userid  where "
          "au.userid=%d",
          userid))
    return status;
  if (int status = session.requireRows("user not found\n"))
    return status;
  UserRecord read(newRecord<userData>("userdef"));
  if (!read || !session.copyTo(&read->name, 0, 0) || !session.copyTo(&read->unixuid, 0, 5))
    return MFADATA_OUT_OF_MEMORY;
  read->userid = userid;
  read->passwordfallback = session.integer(0, 1);
  read->hasPassword = !session.isNull(0, 2);
  read->ctcfailurecount = session.integer(0, 3);
  read->suspended = session.integer(0, 4);

  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select ap.policyid,ap.policyname,ap.policynote, aup.userpolicyid from qmx_user "
          "au,qmx_policy ap,qmx_userpolicy aup  where au.userid=aup.userid and "
          "ap.policyid=aup.policyid and au.userid=%d",
          userid))
    return status;
  if (int status = collectRows(
          session, "INFO : NO POLICIES\n", "policies array",
          [&](int row, int) { return userPolicy(session, row); }, destroyMFAAdminPolicyData,
          &read->numPolicies, &read->policies))
    return status;

  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select factorname,factortags,isactive,factornote,af.factorid, auf.userfactorid from "
          "qmx_user au,qmx_factor af,qmx_userfactor auf  where au.userid=auf.userid and "
          "af.factorid=auf.factorid and au.userid=%d",
          userid))
    return status;
  if (int status = collectRows(
          session, "INFO : NO FACTORS\n", "factordef array",
          [&](int row, int) { return userFactor(session, row, 4); }, destroyMFAAdminFactorData,
          &read->numFactors, &read->factors))
    return status;

  if (int status = readHostProfiles(session, *read))
    return status;
  *user = read.release();
  return 0;
}

int qn_db_userGetOne(dbctx *context, const char *unixuid, userData **user) {
  if (user == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  Escaped uid;
  if (int status = session.connect({{uid, unixuid}}))
    return status;
  if (int status = session.execParams(
          "select name, passwordfallback,passwordhash,ctcfailurecount,suspended  from qmx_user "
          "au  left join qmx_usermfapassword ap on au.userid=ap.userid  where unixuid=$1",
          Expect::Tuples, kSelectFailed, {uid.get()}))
    return status;
  if (int status = session.requireRows("user not found\n"))
    return status;
  UserRecord read(newRecord<userData>("userdef"));
  if (!read || !session.copyTo(&read->name, 0, 0) ||
      (read->unixuid = duplicateString(unixuid)) == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  read->passwordfallback = session.integer(0, 1);
  read->hasPassword = !session.isNull(0, 2);
  read->ctcfailurecount = session.integer(0, 3);
  read->suspended = session.integer(0, 4);

  if (int status = session.execParams(
          "select policyname from qmx_user au,qmx_policy ap,qmx_userpolicy aup  where "
          "au.userid=aup.userid and ap.policyid=aup.policyid and au.unixuid=$1",
          Expect::Tuples, kSelectFailed, {uid.get()}))
    return status;
  if (int status = collectRows(
          session, "INFO : NO POLICIES\n", "policynames array",
          [&](int row, int) {
            char *name = nullptr;
            return session.copyTo(&name, row, 0) ? name : nullptr;
          },
          freeString, &read->numPolicies, &read->policyNames))
    return status;

  if (int status = session.execParams(
          "select factorname,factortags,isactive,factornote from qmx_user au,qmx_factor "
          "af,qmx_userfactor auf  where au.userid=auf.userid and af.factorid=auf.factorid and "
          "au.unixuid=$1",
          Expect::Tuples, kSelectFailed, {uid.get()}))
    return status;
  if (int status = collectRows(
          session, "INFO : NO FACTORS\n", "factordef array",
          [&](int row, int) { return userFactor(session, row, -1); }, destroyMFAAdminFactorData,
          &read->numFactors, &read->factors))
    return status;
  *user = read.release();
  return 0;
}

int qn_db_userList(dbctx *context, int *count, userData ***users) {
  if (count == nullptr || users == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.exec("select unixuid, name, passwordfallback, passwordhash, "
                                "suspended, au.userid from qmx_user au left join "
                                "qmx_usermfapassword ap on au.userid=ap.userid order by unixuid",
                                Expect::Tuples, kSelectFailed))
    return status;
  if (int status = session.requireRows("no users\n"))
    return status;
  // Every record takes the first row's password flag: the management side
  // relies on that reading.
  bool firstHasPassword = !session.isNull(0, 3);
  return collectGroups(
      session, kEachRow, "userdefarray",
      [&](int row, int) {
        UserRecord user(newRecord<userData>("userdef"));
        if (!user || !session.copyTo(&user->unixuid, row, 0) ||
            !session.copyTo(&user->name, row, 1))
          return static_cast<userData *>(nullptr);
        user->passwordfallback = session.integer(row, 2);
        user->hasPassword = firstHasPassword;
        user->suspended = session.integer(row, 4);
        user->userid = session.integer(row, 5);
        return user.release();
      },
      destroyUserData, count, users);
}

} // extern "C"
