#include "db/policies.h"

#include <string>

#include "db/dbcommon_internal.h"

using namespace mfadb;

namespace {

using PolicyDef = Owned<userPolicyData, destroyUserPolicyData>;
using PolicyRecord = Owned<MFAAdminPolicyData, destroyMFAAdminPolicyData>;

// The by-name readers group rows by policy; ordering on the partition columns
// keeps each policy's rows adjacent.
constexpr const char *kPolicyOrder = " order by ap.policyname,ap.ctctimeout,ap.ctcreuse";

constexpr const char *kLinkByNames =
    "insert into qmx_policyfactor(policyid,factorid) select qmx_policy.policyid, "
    "qmx_factor.factorid from qmx_policy,qmx_factor where qmx_policy.policyname='%s' and "
    "qmx_factor.factorname='%s'";

// The by-name deleters and the user-policy link removers report with the
// insert code; callers of these operations check for that code.
constexpr Failure kDeleteAsInsertFailed{QN_DB_INSERT_FAILED, "delete failed: %s\n", Reason::Result};

constexpr const char *kLinkByIds = "insert into qmx_policyfactor(policyid,factorid) values(%d,%d)";

// Links the named factors to the policy whose escaped name is given, each
// statement built in the calling operation's buffer; stops at the first
// failure.
int linkFactorsByName(Session &session, std::size_t size, const Escaped &policyName,
                      const userPolicyData &policy) {
  if (policy.numFactors > 0 && policy.factorNames == nullptr)
    return QN_DB_BAD_PARAMETERS;
  for (int i = 0; i < policy.numFactors; i++) {
    Escaped factorName = session.escape(policy.factorNames[i]);
    if (!factorName)
      return QN_DB_BAD_PARAMETERS;
    if (int status = session.execFormattedIn(size, Expect::Command, kInsertFailed, kLinkByNames,
                                             policyName.get(), factorName.get()))
      return status;
  }
  return 0;
}

int linkFactorsById(Session &session, int policyid, int numFactors, const int *factorIds) {
  for (int i = 0; i < numFactors; i++)
    if (int status = session.execFormatted(Expect::Command, kInsertFailed, kLinkByIds, policyid,
                                           factorIds[i]))
      return status;
  return 0;
}

// One definition from size rows starting at first: name, note, timeout and
// reuse from the first row, one factor name (and note when noteColumn is not
// negative) from each.
userPolicyData *policyDefinition(const Session &session, int first, int size, int nameColumn,
                                 int noteColumn) {
  PolicyDef policy(newRecord<userPolicyData>("policy data"));
  if (!policy || !session.copyTo(&policy->policyname, first, 0) ||
      !session.copyTo(&policy->policynote, first, 1))
    return nullptr;
  policy->ctctimeout = session.integer(first, 2);
  policy->ctcreuse = session.integer(first, 3);
  policy->numFactors = size;
  if (!session.copyColumn(&policy->factorNames, first, size, nameColumn, "factor names") ||
      (noteColumn >= 0 &&
       !session.copyColumn(&policy->factorNotes, first, size, noteColumn, "factor notes")))
    return nullptr;
  return policy.release();
}

// A policy record from columns name, note, timeout, reuse, id (0 to 4).
PolicyRecord policyRecord(const Session &session, int row) {
  PolicyRecord policy(newRecord<MFAAdminPolicyData>("policy data"));
  if (!policy || !session.copyTo(&policy->policyname, row, 0) ||
      !session.copyTo(&policy->policynote, row, 1))
    return nullptr;
  policy->ctctimeout = session.integer(row, 2);
  policy->ctcreuse = session.integer(row, 3);
  policy->policyid = session.integer(row, 4);
  return policy;
}

} // namespace

extern "C" {

int qn_db_policyCreate(dbctx *context, const userPolicyData *policy) {
  Session session(context);
  Escaped name, note;
  if (int status = session.connect({{name, policy ? policy->policyname : nullptr},
                                    {note, policy ? policy->policynote : nullptr}}))
    return status;
  return session.transaction([&] {
    if (int status =
            session.execFormatted(Expect::Either, kInsertFailed,
                                  "insert into qmx_policy(policyname,policynote,"
                                  "ctctimeout,ctcreuse) values('%s', '%s', %d, %d) ",
                                  name.get(), note.get(), policy->ctctimeout, policy->ctcreuse))
      return status;
    return linkFactorsByName(session, kStatementSize, name, *policy);
  });
}

int qn_db_policyCreateREST(dbctx *context, const char *policyName, const char *policyNote,
                           int ctcreuse, int ctctimeout, int numFactors, const int *factorIds) {
  Session session(context);
  if (policyName == nullptr || policyName[0] == '\0' || numFactors <= 0 || factorIds == nullptr) {
    session.report("Bad parameters to policy create.\n");
    return QN_DB_BAD_PARAMETERS;
  }
  Escaped name, note;
  if (int status = session.connect({{name, policyName}, {note, policyNote}}))
    return status;
  return session.transaction([&] {
    if (int status = session.execFormatted(Expect::Either, kInsertFailed,
                                           "insert into qmx_policy(policyname,policynote,"
                                           "ctctimeout,ctcreuse) values('%s', '%s', %d, %d) "
                                           "returning policyid",
                                           name.get(), note.get(), ctctimeout, ctcreuse))
      return status;
    int policyid = session.rows() > 0 ? session.integer(0, 0) : 0;
    if (policyid == 0) {
      session.report("error retrieving policyid \n");
      return QN_DB_INSERT_FAILED;
    }
    return linkFactorsById(session, policyid, numFactors, factorIds);
  });
}

int qn_db_policyGetAll(dbctx *context, int *count, userPolicyData ***policies) {
  if (count == nullptr || policies == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  std::string sql = "select ap.policyname,ap.policynote,ap.ctctimeout,ap.ctcreuse,af.factorname,"
                    "af.factornote,count(af.factorname) over (partition by ap.policyname,"
                    "ap.ctctimeout,ap.ctcreuse) as numfactors from qmx_policy ap, qmx_factor af, "
                    "qmx_policyfactor apf where af.factorid=apf.factorid and "
                    "ap.policyid=apf.policyid";
  if (int status = session.exec((sql + kPolicyOrder).c_str(), Expect::Tuples, kSelectFailed))
    return status;
  if (int status = session.requireRows("no policies\n"))
    return status;
  // One entry per policy rather than per row: callers free the array with
  // the count they are given.
  return collectGroups(
      session, 6, "policy data array",
      [&](int first, int size) { return policyDefinition(session, first, size, 4, 5); },
      destroyUserPolicyData, count, policies);
}

int qn_db_policyGetOne(dbctx *context, const char *policyName, userPolicyData **policy) {
  if (policyName == nullptr || policy == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  std::string sql = "select ap.policyname,ap.policynote,ap.ctctimeout,ap.ctcreuse,af.factorname,"
                    "count(af.factorname) over (partition by ap.policyname,ap.ctctimeout,"
                    "ap.ctcreuse) as numfactors from qmx_policy ap, qmx_factor af, "
                    "qmx_policyfactor apf where af.factorid=apf.factorid and "
                    "ap.policyid=apf.policyid and ap.policyname=$1";
  // A parameter needs no escaping; the name is sent as given.
  if (int status = session.execParams((sql + kPolicyOrder).c_str(), Expect::Tuples, kSelectFailed,
                                      {policyName}))
    return status;
  if (int status = session.requireRows("no policy data returned\n"))
    return status;
  userPolicyData *read = policyDefinition(session, 0, groupSize(session, 0, 5), 4, -1);
  if (read == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  *policy = read;
  return 0;
}

int qn_db_policyGetAllREST(dbctx *context, int *count, MFAAdminPolicyData ***policies) {
  if (count == nullptr || policies == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.exec("select policyname,policynote,ctctimeout,ctcreuse,policyid from "
                                "qmx_policy order by policyname",
                                Expect::Tuples, kSelectFailed))
    return status;
  if (int status = session.requireRows("no policies\n"))
    return status;
  return collectGroups(
      session, kEachRow, "policy data array",
      [&](int row, int) { return policyRecord(session, row).release(); }, destroyMFAAdminPolicyData,
      count, policies);
}

int qn_db_policyGetOneREST(dbctx *context, int policyid, MFAAdminPolicyData **policy) {
  if (policy == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select ap.policyname,ap.policynote,ap.ctctimeout,ap.ctcreuse,ap.policyid, "
          "af.factorid,af.factorname,af.factornote, count(af.factorid) over (partition by "
          "ap.policyname,ap.ctctimeout,ap.ctcreuse,ap.policyid) as numfactors from qmx_policy "
          "ap, qmx_factor af, qmx_policyfactor apf where af.factorid=apf.factorid and "
          "ap.policyid=apf.policyid and ap.policyid=%d",
          policyid))
    return status;
  if (int status = session.requireRows("no policy data returned\n"))
    return status;
  PolicyRecord read = policyRecord(session, 0);
  if (!read)
    return MFADATA_OUT_OF_MEMORY;
  int size = groupSize(session, 0, 8);
  if ((read->factors = newArray<MFAAdminFactorData>(size, "factor")) == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  read->numFactors = size;
  for (int row = 0; row < size; row++) {
    auto *factor = newRecord<MFAAdminFactorData>("factor");
    if ((read->factors[row] = factor) == nullptr || !session.copyTo(&factor->factorname, row, 6) ||
        !session.copyTo(&factor->factornote, row, 7))
      return MFADATA_OUT_OF_MEMORY;
    factor->factorid = session.integer(row, 5);
  }
  *policy = read.release();
  return 0;
}

int qn_db_policyUpdate(dbctx *context, const userPolicyData *policy) {
  Session session(context);
  Escaped name, note;
  if (int status = session.connect({{name, policy ? policy->policyname : nullptr},
                                    {note, policy ? policy->policynote : nullptr}}))
    return status;
  return session.transaction([&] {
    // The name is matched and written back unchanged: renaming is not offered.
    if (int status = session.execFormattedIn(
            512, Expect::Command, {QN_DB_UPDATE_FAILED, "update failed: %s\n", Reason::Result},
            "update qmx_policy set policyname='%s',policynote='%s',ctctimeout=%d, ctcreuse=%d  "
            "where policyname='%s'",
            name.get(), note.get(), policy->ctctimeout, policy->ctcreuse, name.get()))
      return status;
    if (int status = session.execParams("delete from qmx_policyfactor where policyid = (select "
                                        "policyid from qmx_policy where policyname=$1)",
                                        Expect::Command, kDeleteFailed, {name.get()}))
      return status;
    return linkFactorsByName(session, 512, name, *policy);
  });
}

int qn_db_policyUpdateREST(dbctx *context, int policyid, const char *policyNote, int ctcreuse,
                           int ctctimeout) {
  Session session(context);
  Escaped note;
  if (int status = session.connect({{note, policyNote}}))
    return status;
  // Reported with the insert text and code, as the management side expects.
  return session.transaction([&] {
    return session.execFormatted(Expect::Command, kInsertFailed,
                                 "update qmx_policy set policynote='%s', ctctimeout=%d, "
                                 "ctcreuse=%d  where policyid='%d'",
                                 note.get(), ctctimeout, ctcreuse, policyid);
  });
}

int qn_db_policyConnectFactors(dbctx *context, int policyid, int numFactors, const int *factorIds) {
  Session session(context);
  if (policyid == 0 || numFactors <= 0 || factorIds == nullptr) {
    session.report("Bad parameters to policy connect factors.\n");
    return QN_DB_BAD_PARAMETERS;
  }
  if (int status = session.connect())
    return status;
  return session.transaction(
      [&] { return linkFactorsById(session, policyid, numFactors, factorIds); });
}

int qn_db_policyDisconnectFactor(dbctx *context, int policyid, int factorid) {
  Session session(context);
  if (policyid == 0 || factorid == 0) {
    session.report("Bad parameters to policy disconnect factor.\n");
    return QN_DB_BAD_PARAMETERS;
  }
  if (int status = session.connect())
    return status;
  return session.execFormatted(Expect::Command, kDeleteFailed,
                               "delete from qmx_policyfactor where policyid = %d and "
                               "factorid = %d",
                               policyid, factorid);
}

int qn_db_policyDelete(dbctx *context, const char *policyName) {
  Session session(context);
  Escaped name;
  if (int status = session.connect({{name, policyName}}))
    return status;
  return session.transaction([&] {
    for (const char *sql : {"delete from qmx_userpolicy where policyid = (select policyid from "
                            "qmx_policy where policyname=$1)",
                            "delete from qmx_policyfactor where policyid = (select policyid "
                            "from qmx_policy where policyname=$1)",
                            "delete from qmx_policy where policyname=$1"})
      if (int status =
              session.execParams(sql, Expect::Command, kDeleteAsInsertFailed, {name.get()}))
        return status;
    return 0;
  });
}

int qn_db_policyDeleteById(dbctx *context, int policyid) {
  Session session(context);
  if (int status = session.connect())
    return status;
  constexpr Session::IdStep steps[] = {
      {"delete from qmx_userpolicy where policyid = %d",
       {QN_DB_DELETE_FAILED, "delete failed for user policy: %s\n", Reason::Result}},
      {"delete from qmx_policyfactor where policyid = %d",
       {QN_DB_DELETE_FAILED, "delete failed for policyfactor: %s\n", Reason::Result}},
      {"delete from qmx_policy where policyid = %d",
       {QN_DB_DELETE_FAILED, "delete failed for policy: %s\n", Reason::Result}},
  };
  return session.transactionById(steps, policyid);
}

int qn_db_userPolicyConnectById(dbctx *context, int userid, int policyid) {
  Session session(context);
  if (int status = session.connect())
    return status;
  return session.execFormatted(Expect::Command, kInsertFailed,
                               "insert into qmx_userpolicy(userid, policyid) values (%d,%d)",
                               userid, policyid);
}

int qn_db_userPolicyConnect(dbctx *context, const char *unixuid, const char *policyName) {
  Session session(context);
  Escaped uid, name;
  if (int status = session.connect({{uid, unixuid}, {name, policyName}}))
    return status;
  return session.execFormatted(Expect::Command, kInsertFailed,
                               "insert into qmx_userpolicy(userid, policyid) select "
                               "au.userid,ap.policyid from qmx_user au,qmx_policy ap where "
                               "au.unixuid='%s' and ap.policyname='%s'",
                               uid.get(), name.get());
}

int qn_db_userPolicyDisconnectById(dbctx *context, int userpolicyid) {
  Session session(context);
  if (int status = session.connect())
    return status;
  return session.execFormatted(Expect::Command, kDeleteAsInsertFailed,
                               "delete from qmx_userpolicy where userpolicyid = %d", userpolicyid);
}

int qn_db_userPolicyDisconnect(dbctx *context, const char *unixuid, const char *policyName) {
  Session session(context);
  Escaped uid, name;
  if (int status = session.connect({{uid, unixuid}, {name, policyName}}))
    return status;
  return session.execParams("delete from qmx_userpolicy where policyid = (select policyid from "
                            "qmx_policy where policyname=$1) and userid = (select userid from "
                            "qmx_user where unixuid=$2)",
                            Expect::Command, kDeleteAsInsertFailed, {name.get(), uid.get()});
}

} // extern "C"
