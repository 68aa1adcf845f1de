#include "mfadata/factordata.h"

#include <cstdio>
#include <cstring>

#include "db/dbcommon_internal.h"
#include "db/factors.h"
#include "db/policies.h"
#include "mfadata/factortags.h"
#include "mfadata/usermfadata.h"

using namespace mfadb;

namespace {

// This service reports on standard output; libpq's texts end the lines.
constexpr Failure kServiceSelectFailed{QN_DB_SELECT_FAILED, "SELECT failed: %s",
                                       Reason::Connection};

using Record = Owned<userMFAData, kfactor_userMFAData_destroy>;
using Factor = Owned<factorData, kfactor_factorData_destroy>;
using Policy = Owned<policyData, policyData_destroy>;

// A factor named name, with activeFlag and tags (none for "{}") taken from
// the given columns of a row.
factorData *readFactor(const Session &session, int row, const char *name, int tagsColumn,
                       int activeColumn) {
  Factor factor(reinterpret_cast<factorData *>(safeMalloc(sizeof(factorData), "factordata")));
  if (!factor || (factor->factorName = duplicateString(name)) == nullptr)
    return nullptr;
  factor->activeFlag = static_cast<uint32_t>(session.integer(row, activeColumn));
  const char *tags = session.text(row, tagsColumn);
  if (strcmp(tags, "{}") != 0)
    createFactorTags(tags, factor.get(), &factor->numTags);
  return factor.release();
}

int readFactors(const Session &session, userMFAData &record) {
  int count = 0;
  if (int status = collectGroups(
          session, kEachRow, "factordata array",
          [&](int row, int) { return readFactor(session, row, session.text(row, 0), 1, 2); },
          kfactor_factorData_destroy, &count, &record.factors))
    return status;
  record.numFactors = static_cast<uint32_t>(count);
  return 0;
}

// The user's policies: one group of adjacent rows per policy, each row naming
// one of its factors (column 3) and the group's size (column 4).
int readPolicies(const Session &session, userMFAData &record) {
  if (session.rows() == 0)
    return 0;
  int count = 0;
  if (int status = collectGroups(
          session, 4, "policy data",
          [&](int first, int size) -> policyData * {
            Policy policy(
                reinterpret_cast<policyData *>(safeMalloc(sizeof(policyData), "policy data")));
            if (!policy || !session.copyTo(&policy->policyName, first, 0))
              return nullptr;
            policy->tokenTimeout = session.integer(first, 1);
            policy->tokenReuse = session.integer(first, 2);
            policy->numFactors = static_cast<uint32_t>(size);
            if (!session.copyColumn(&policy->factorNames, first, size, 3, "factor names"))
              return nullptr;
            return policy.release();
          },
          policyData_destroy, &count, &record.policies))
    return status;
  record.numPolicies = static_cast<uint32_t>(count);
  if ((record.policyNames = newArray<char>(count, "policy name pointers")) == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  for (int i = 0; i < count; i++)
    if ((record.policyNames[i] = duplicateString(record.policies[i]->policyName)) == nullptr)
      return MFADATA_OUT_OF_MEMORY;
  return 0;
}

struct RcText {
  int gavrc, korsrc, korsrsn; // -1 matches any value
  const char *text;
};

constexpr RcText kRcTexts[] = {
    {0, 0, 0, " (Successful completion)"},
    {8, 12, 4, " (Factor not defined)"},
    {8, 120, 10, " (buffer too small)"},
};

bool matches(int wanted, int actual) {
  return wanted == -1 || wanted == actual;
}

// One factor of the user: its stored tags (column 0) and active flag
// (column 1), no row when the user has no such factor.
int selectUserFactor(Session &session, const char *userid, const char *factorName) {
  return session.execParams(
      "select qmx_userfactor.factortags,qmx_userfactor.isactive from qmx_user,qmx_factor,"
      "qmx_userfactor where qmx_factor.factorid=qmx_userfactor.factorid and "
      "qmx_userfactor.userid=qmx_user.userid and qmx_user.unixuid=$1 and "
      "qmx_factor.factorname=$2",
      Expect::Tuples, kServiceSelectFailed, {userid, factorName});
}

void setTriple(int *gavrc, int *korsrc, int *korsrsn, int g, int k, int r) {
  *gavrc = g;
  *korsrc = k;
  *korsrsn = r;
}

} // namespace

extern "C" {

int pq_userMFAData_create(dbctx *context, const char *userid, userMFAData **result) {
  if (userid == nullptr || result == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context, Reporter::Stdout);
  if (int status = session.connect())
    return status;
  Record record(reinterpret_cast<userMFAData *>(safeMalloc(sizeof(userMFAData), "new mfa data")));
  if (!record || (record->userid = duplicateString(userid)) == nullptr)
    return MFADATA_OUT_OF_MEMORY;

  if (int status = session.execParams(
          "select qmx_factor.factorname,qmx_userfactor.factortags,qmx_userfactor.isactive from "
          "qmx_user,qmx_factor,qmx_userfactor where qmx_factor.factorid=qmx_userfactor.factorid "
          "and qmx_userfactor.userid=qmx_user.userid and qmx_user.unixuid=$1",
          Expect::Tuples, kServiceSelectFailed, {userid}))
    return status;
  if (session.rows() == 0) {
    session.report("No factors returned for user %s\n", userid);
    *result = record.release();
    return 0;
  }
  if (int status = readFactors(session, *record))
    return status;

  // A failed policy read leaves the record without policies. The ordering on
  // the partition columns only guarantees the adjacency of each policy's rows
  // that the grouped reading needs; it changes nothing else in the result.
  if (session.execParams("select ap.policyname,ap.ctctimeout,ap.ctcreuse,af.factorname, "
                         "count(af.factorname) over (partition by ap.policyname,ap.ctctimeout,"
                         "ap.ctcreuse) as numfactors from qmx_user au,qmx_factor af,qmx_policy "
                         "ap,qmx_userpolicy aup,qmx_policyfactor apf where au.unixuid=$1 and "
                         "aup.userid=au.userid and ap.policyid=aup.policyid and "
                         "apf.policyid=aup.policyid and af.factorid=apf.factorid order by "
                         "ap.policyname,ap.ctctimeout,ap.ctcreuse",
                         Expect::Tuples, kServiceSelectFailed, {userid}) == 0) {
    if (int status = readPolicies(session, *record))
      return status;
  }

  // The fallback flag is informational: neither failure stops the read.
  if (session.execParams("select passwordfallback from qmx_user where unixuid=$1", Expect::Tuples,
                         {QN_DB_SELECT_FAILED, "select failed: %s", Reason::Result},
                         {userid}) == 0) {
    if (session.rows() > 0)
      record->fallback = static_cast<uint8_t>(session.integer(0, 0));
    else
      session.report("user not found\n");
  }
  *result = record.release();
  return 0;
}

int pq_userMFAData_checkSatisfiable(userMFAData *data) {
  if (data == nullptr || data->policies == nullptr)
    return 0;
  for (uint32_t p = 0; p < data->numPolicies; p++) {
    policyData *policy = data->policies[p];
    if (policy == nullptr)
      continue;
    bool allFound = policy->numFactors > 0;
    bool completes = false;
    for (uint32_t n = 0; n < policy->numFactors && allFound; n++) {
      const factorData *found = nullptr;
      for (uint32_t f = 0; f < data->numFactors && found == nullptr; f++) {
        const factorData *factor = data->factors[f];
        if (factor != nullptr && factor->factorName != nullptr &&
            policy->factorNames[n] != nullptr &&
            strncmp(factor->factorName, policy->factorNames[n], 8) == 0 &&
            factor->activeFlag != 0 && factor->stateFlag != 0 && (factor->capabilityBits & 2))
          found = factor;
      }
      allFound = found != nullptr;
      completes = completes || (found != nullptr && (found->capabilityBits & 1));
    }
    policy->satisfiable = allFound && completes;
  }
  return 0;
}

int kfactor_get_UserFactorData(dbctx *context, const char *userid, const char *factorName,
                               factorData **result) {
  if (userid == nullptr || factorName == nullptr || result == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context, Reporter::Stdout);
  if (int status = session.connect())
    return status;
  if (selectUserFactor(session, userid, factorName) != 0)
    return 0; // reported; the caller gets no factor data
  if (session.rows() == 0) {
    session.report("no factors, aborting?\n");
    return QN_DB_NOT_FOUND;
  }
  factorData *factor = readFactor(session, 0, factorName, 0, 1);
  if (factor == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  *result = factor;
  return 0;
}

int kfactor_get_UserFactorTagsText(dbctx *context, const char *userid, const char *factorName,
                                   char **text) {
  if (userid == nullptr || factorName == nullptr || text == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context, Reporter::Stdout);
  if (int status = session.connect())
    return status;
  if (int status = selectUserFactor(session, userid, factorName))
    return status;
  if (session.rows() == 0)
    return QN_DB_NOT_FOUND;
  char *copy = nullptr;
  if (!session.copyTo(&copy, 0, 0) || copy == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  *text = copy;
  return 0;
}

int kfactor_update_UserFactorData(dbctx *context, const char *userid, factorData *data) {
  // A user or factor that matches no row writes nothing, and that is success
  // here; callers that must know use the counting variant.
  uint32_t rowsWritten = 0;
  return kfactor_update_UserFactorData2(context, userid, data, &rowsWritten);
}

int kfactor_update_UserFactorData2(dbctx *context, const char *userid, factorData *data,
                                   uint32_t *rowsWritten) {
  if (userid == nullptr || data == nullptr || data->factorName == nullptr || rowsWritten == nullptr)
    return QN_DB_BAD_PARAMETERS;
  char *json = nullptr;
  if (data->tags != nullptr) {
    if (int status = createFactorJson(data->tags, &json)) {
      printf("error creating factor tag json: %d\n", status);
      fflush(stdout);
      return status;
    }
  }
  std::unique_ptr<char, decltype(&freeString)> jsonOwner(json, freeString);
  Session session(context, Reporter::Stdout);
  if (int status = session.connect())
    return status;
  // Written as a signed number: the column is a signed integer.
  char active[16];
  snprintf(active, sizeof active, "%d", static_cast<int>(data->activeFlag));
  // Every value travels as a parameter, so quotes in tags, user ID or factor
  // name are stored as they are and can never change the statement.
  if (int status = session.execParams(
          "insert into qmx_userfactor(userid, factorid, factortags,isactive) select "
          "au.userid,af.factorid,$1::text,$2::integer from qmx_user au,qmx_factor af where "
          "au.unixuid=$3 and af.factorname=$4 on conflict on constraint "
          "qmx_userfactor_factorid_userid_key do update set "
          "factortags=$1::text,isactive=$2::integer",
          Expect::Command, {QN_DB_UPDATE_FAILED, "update failed: %s", Reason::Result},
          {json != nullptr ? json : "{}", active, userid, data->factorName}))
    return status;
  *rowsWritten = static_cast<uint32_t>(session.rowsAffected());
  return 0;
}

int kfactor_get_factorwide_settings(dbctx *context, const char *factorName, char *buffer,
                                    uint64_t *length, int *gavrc, int *korsrc, int *korsrsn) {
  if (factorName == nullptr || length == nullptr || gavrc == nullptr || korsrc == nullptr ||
      korsrsn == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context, Reporter::Stdout);
  if (int status = session.connect())
    return status;
  if (int status = session.execParams("select factorsettings from qmx_factor where factorname=$1",
                                      Expect::Tuples, kServiceSelectFailed, {factorName}))
    return status;
  if (session.rows() == 0) {
    setTriple(gavrc, korsrc, korsrsn, 8, 12, 4);
    return QN_DB_FACTOR_NOT_DEFINED;
  }
  setTriple(gavrc, korsrc, korsrsn, 0, 0, 0);
  auto settingsLength = static_cast<uint64_t>(PQgetlength(session.result(), 0, 0));
  if (settingsLength == 0)
    return 0;
  if (buffer == nullptr || *length < settingsLength) {
    *length = settingsLength;
    setTriple(gavrc, korsrc, korsrsn, 8, 120, 10);
    return 0;
  }
  memcpy(buffer, session.text(0, 0), settingsLength);
  *length = settingsLength;
  return 0;
}

int kfactor_set_factorwide_settings(dbctx *context, const char *factorName, const char *settings,
                                    uint64_t, int *, int *, int *) {
  return qn_db_factorUpdateSettings(context, factorName, settings);
}

int kfactor_policyData_get(dbctx *context, const char *policyName, userPolicyData **result,
                           int *gavrc, int *korsrc, int *korsrsn) {
  if (context == nullptr || policyName == nullptr || result == nullptr || gavrc == nullptr ||
      korsrc == nullptr || korsrsn == nullptr)
    return QN_DB_BAD_PARAMETERS;
  setTriple(gavrc, korsrc, korsrsn, 0, 0, 0);
  return qn_db_policyGetOne(context, policyName, result);
}

void kfactor_policyData_destroy(userPolicyData *policy) {
  destroyUserPolicyData(policy);
}

const char *kfactor_describe_rc(int gavrc, int korsrc, int korsrsn, int status) {
  if (gavrc == 0 && korsrc == 0 && korsrsn == 0 && status != 0)
    return "";
  for (const RcText &row : kRcTexts)
    if (row.gavrc == gavrc && matches(row.korsrc, korsrc) && matches(row.korsrsn, korsrsn))
      return row.text;
  return "";
}

} // extern "C"
