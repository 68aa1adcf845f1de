// Policies: named sets of factors with two check settings, linked to users.
// The by-name family works with userPolicyData definitions; the by-id
// ("REST") family with MFAAdminPolicyData records for a management interface.
// Every operation takes the database context first, opens its own connection
// and returns 0 or a status of the database layer; out arguments are written
// only on success. The multi-statement writers run in one transaction.
#ifndef MFA_DB_POLICIES_H
#define MFA_DB_POLICIES_H

#include "db/dbcommon.h"

#ifdef __cplusplus
extern "C" {
#endif

// Creates the policy and links it to the named factors (names that match no
// factor are skipped). 80104 when a statement fails, 80106 for a missing
// definition or name.
int qn_db_policyCreate(dbctx *context, const userPolicyData *policy);

// Creates the policy and links it to the factor ids. 80106 for a missing or
// empty name or no factors; 80104 when a statement fails. The new id is not
// handed back.
int qn_db_policyCreateREST(dbctx *context, const char *policyName, const char *policyNote,
                           int ctcreuse, int ctctimeout, int numFactors, const int *factorIds);

// Every policy that has factors, with factor names and notes: a new array of
// *count definitions (free each with destroyUserPolicyData, the array with
// safeFree of *count pointers). 80105 when there is none.
int qn_db_policyGetAll(dbctx *context, int *count, userPolicyData ***policies);

// One policy with its factor names; free with destroyUserPolicyData. A
// policy without factors is reported as not found (80105).
int qn_db_policyGetOne(dbctx *context, const char *policyName, userPolicyData **policy);

// Every policy by name, without factors: free each with
// destroyMFAAdminPolicyData, the array with safeFree of *count pointers.
int qn_db_policyGetAllREST(dbctx *context, int *count, MFAAdminPolicyData ***policies);

// One policy by id with its factors; free with destroyMFAAdminPolicyData.
int qn_db_policyGetOneREST(dbctx *context, int policyid, MFAAdminPolicyData **policy);

// Updates note and settings of the named policy (the name itself cannot
// change) and replaces its factor set. 80107, 80108 or 80104 for the failing
// step; nothing is changed then.
int qn_db_policyUpdate(dbctx *context, const userPolicyData *policy);

// Updates note and settings of a policy by id. 80104 on failure.
int qn_db_policyUpdateREST(dbctx *context, int policyid, const char *policyNote, int ctcreuse,
                           int ctctimeout);

// Links the factor ids to the policy, all or none. 80106 for a zero id or
// no factors, 80104 when an insert fails.
int qn_db_policyConnectFactors(dbctx *context, int policyid, int numFactors, const int *factorIds);

// Unlinks one factor. 80106 for a zero id, 80108 on failure.
int qn_db_policyDisconnectFactor(dbctx *context, int policyid, int factorid);

// Deletes the policy with its user and factor links; an unknown policy
// succeeds. By name a failure gives 80104, by id 80108.
int qn_db_policyDelete(dbctx *context, const char *policyName);
int qn_db_policyDeleteById(dbctx *context, int policyid);

// Links a user to a policy (the policy's factors are not given to the user)
// or removes a link; unknown names change nothing and succeed. 80104 on any
// failure.
int qn_db_userPolicyConnectById(dbctx *context, int userid, int policyid);
int qn_db_userPolicyConnect(dbctx *context, const char *unixuid, const char *policyName);
int qn_db_userPolicyDisconnectById(dbctx *context, int userpolicyid);
int qn_db_userPolicyDisconnect(dbctx *context, const char *unixuid, const char *policyName);

#ifdef __cplusplus
}
#endif

#endif
