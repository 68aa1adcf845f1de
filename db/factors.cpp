#include "db/factors.h"

#include "db/dbcommon_internal.h"

using namespace mfadb;

namespace {

constexpr Failure kUpdateFailed{QN_DB_UPDATE_FAILED, "update failed: %s\n", Reason::Result};

using FactorDef = Owned<MFAAdminFactorData, qn_db_destroyAdminFactorDef>;

// A definition from columns 0 to 2 (name, note, settings) of a row.
FactorDef factorDefinition(const Session &session, int row) {
  FactorDef factor(newRecord<MFAAdminFactorData>("factordef"));
  if (factor && session.copyTo(&factor->factorname, row, 0) &&
      session.copyTo(&factor->factornote, row, 1) &&
      session.copyTo(&factor->factorsettings, row, 2))
    return factor;
  return nullptr;
}

// The single-row reads by name and by id share everything after the query:
// columns factorname, factornote, factorsettings, factorid.
int storeOneDefinition(Session &session, MFAAdminFactorData **result) {
  if (int status = session.requireRows("No data returned\n"))
    return status;
  FactorDef factor = factorDefinition(session, 0);
  if (!factor)
    return MFADATA_OUT_OF_MEMORY;
  factor->factorid = session.integer(0, 3);
  *result = factor.release();
  return 0;
}

} // namespace

extern "C" {

int qn_db_factorGetEnabledNames(dbctx *context, int *count, char ***names) {
  if (count == nullptr || names == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.exec("select factorname from qmx_factor where isenabled=1",
                                Expect::Tuples, kSelectFailed))
    return status;
  if (int status = session.requireRows("no factors\n"))
    return status;
  return collectGroups(
      session, kEachRow, "factornamearray",
      [&](int row, int) {
        char *name = nullptr;
        return session.copyTo(&name, row, 0) ? name : nullptr;
      },
      freeString, count, names);
}

int qn_db_factorGetAll(dbctx *context, int *count, MFAAdminFactorData ***factors) {
  if (count == nullptr || factors == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.exec("select factorname, factornote, factorsettings,isenabled, "
                                "factorid from qmx_factor where factorname != 'QMXSTC' order "
                                "by factorname",
                                Expect::Tuples, kSelectFailed))
    return status;
  if (int status = session.requireRows("no factors\n"))
    return status;
  return collectGroups(
      session, kEachRow, "factordefarray",
      [&](int row, int) {
        FactorDef factor = factorDefinition(session, row);
        if (factor) {
          factor->isenabled = session.integer(row, 3);
          factor->factorid = session.integer(row, 4);
        }
        return factor.release();
      },
      qn_db_destroyAdminFactorDef, count, factors);
}

int qn_db_factorGetByName(dbctx *context, const char *factorName, MFAAdminFactorData **factor) {
  if (factorName == nullptr || factor == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  Escaped name;
  if (int status = session.connect({{name, factorName}}))
    return status;
  if (int status = session.execParams("select factorname, factornote, factorsettings, factorid "
                                      "from qmx_factor where factorname=$1",
                                      Expect::Tuples, kSelectFailed, {name.get()}))
    return status;
  return storeOneDefinition(session, factor);
}

int qn_db_factorGetById(dbctx *context, int factorid, MFAAdminFactorData **factor) {
  if (factor == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.execFormatted(Expect::Tuples, kSelectFailed,
                                         "select factorname, factornote, factorsettings, "
                                         "factorid from qmx_factor where factorid=%d",
                                         factorid))
    return status;
  return storeOneDefinition(session, factor);
}

int qn_db_factorUpdateSettings(dbctx *context, const char *factorName, const char *settings) {
  Session session(context);
  Escaped name, escapedSettings;
  if (int status = session.connect({{name, factorName}, {escapedSettings, settings}}))
    return status;
  return session.execParams("update qmx_factor set factorsettings=$2 where factorname=$1",
                            Expect::Command,
                            {QN_DB_UPDATE_FAILED, "UPDATE failed: %s\n", Reason::Result},
                            {name.get(), escapedSettings.get()});
}

int qn_db_userFactorConnectById(dbctx *context, int userid, int factorid, int isactive) {
  Session session(context);
  if (int status = session.connect())
    return status;
  return session.execFormatted(Expect::Command, kInsertFailed,
                               "insert into qmx_userfactor(userid, factorid,isactive,"
                               "factortags) values(%d,%d,%d,'{}')",
                               userid, factorid, isactive);
}

int qn_db_userFactorConnect(dbctx *context, const char *unixuid, const char *factorName,
                            int isactive) {
  Session session(context);
  Escaped uid, name;
  if (int status = session.connect({{uid, unixuid}, {name, factorName}}))
    return status;
  return session.execFormatted(
      Expect::Command, kInsertFailed,
      "insert into qmx_userfactor(userid, factorid, factortags,isactive) select "
      "au.userid,af.factorid,'{}',%d from qmx_user au,qmx_factor af where au.unixuid='%s' "
      "and af.factorname='%s'",
      isactive, uid.get(), name.get());
}

int qn_db_userFactorConnectFromPolicyId(dbctx *context, int userid, int policyid) {
  Session session(context);
  if (userid == 0 || policyid == 0) {
    session.report("Bad parameters to userFactorConnectFromPolicyId.\n");
    return QN_DB_BAD_PARAMETERS;
  }
  if (int status = session.connect())
    return status;
  return session.execFormatted(Expect::Command, kInsertFailed,
                               "insert into qmx_userfactor(factorid,userid,factortags,"
                               "isactive) (select factorid,%d,'{}',1 from qmx_policyfactor "
                               "pf where pf.policyid = %d) on conflict do nothing",
                               userid, policyid);
}

int qn_db_userFactorDisconnectById(dbctx *context, int userfactorid) {
  Session session(context);
  if (int status = session.connect())
    return status;
  return session.execFormatted(
      Expect::Command, {QN_DB_DELETE_FAILED, "delete failed for userfactor: %s\n", Reason::Result},
      "delete from qmx_userfactor where userfactorid = %d", userfactorid);
}

int qn_db_userFactorDisconnect(dbctx *context, const char *unixuid, const char *factorName) {
  Session session(context);
  Escaped uid, name;
  if (int status = session.connect({{uid, unixuid}, {name, factorName}}))
    return status;
  // Reported as an insert failure code, unlike the by-id form.
  return session.execParams("delete from qmx_userfactor where factorid = (select factorid from "
                            "qmx_factor where factorname=$1) and userid = (select userid from "
                            "qmx_user where unixuid=$2)",
                            Expect::Command,
                            {QN_DB_INSERT_FAILED, "delete failed: %s\n", Reason::Result},
                            {name.get(), uid.get()});
}

int qn_db_userFactorUpdateIsActive(dbctx *context, const char *unixuid, const char *factorName,
                                   int isactive) {
  Session session(context);
  Escaped uid, name;
  if (int status = session.connect({{uid, unixuid}, {name, factorName}}))
    return status;
  return session.execFormatted(
      Expect::Command, kUpdateFailed,
      "update qmx_userfactor set isactive=%d where factorid=(select factorid from "
      "qmx_factor where factorname='%s') and userid=(select userid from qmx_user where "
      "unixuid='%s') ",
      isactive, name.get(), uid.get());
}

int qn_db_userFactorTagsUpdate(dbctx *context, const char *unixuid, const char *factorName,
                               const char *tags, int isactive) {
  Session session(context);
  Escaped uid, name, escapedTags;
  if (int status = session.connect({{uid, unixuid}, {name, factorName}, {escapedTags, tags}}))
    return status;
  // -1 leaves the active flag as it is.
  char activePart[15] = {};
  if (isactive != -1) {
    if (int status =
            formatStatement(session, activePart, sizeof activePart, ",isactive=%d ", isactive))
      return status;
  }
  return session.execFormatted(
      Expect::Command, kUpdateFailed,
      "update qmx_userfactor set factortags='%s' %s where factorid=(select factorid from "
      "qmx_factor where factorname='%s') and userid=(select userid from qmx_user where "
      "unixuid='%s') ",
      escapedTags.get(), activePart, name.get(), uid.get());
}

int qn_db_userFactorTagsClear(dbctx *, const char *, const char *) {
  return QN_DB_NOT_PROVIDED;
}

int qn_db_getMfaIdFactornameFromConnectionId(dbctx *context, int userfactorid, char **unixuid,
                                             char **factorName) {
  if (unixuid == nullptr || factorName == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.execFormatted(Expect::Tuples, kSelectFailed,
                                         "select unixuid,factorname from qmx_user au, qmx_factor "
                                         "af, qmx_userfactor auf where au.userid=auf.userid and "
                                         "af.factorid=auf.factorid and userfactorid=%d",
                                         userfactorid))
    return status;
  if (int status = session.requireRows("No data returned\n"))
    return status;
  char *uid = nullptr, *name = nullptr;
  if (!session.copyTo(&uid, 0, 0) || !session.copyTo(&name, 0, 1)) {
    freeString(uid);
    return MFADATA_OUT_OF_MEMORY;
  }
  *unixuid = uid;
  *factorName = name;
  return 0;
}

} // extern "C"
