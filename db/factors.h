// The factor catalogue (qmx_factor) and the links between users and factors
// (qmx_userfactor). Every operation takes the database context first, opens
// its own connection and returns 0 or a status of the database layer; out
// arguments are written only on success.
#ifndef MFA_DB_FACTORS_H
#define MFA_DB_FACTORS_H

#include "db/dbcommon.h"

#ifdef __cplusplus
extern "C" {
#endif

// Names of the enabled factors: a new array of *count new strings (free each
// with freeString, the array with safeFree of *count pointers). 80105 when
// none is enabled.
int qn_db_factorGetEnabledNames(dbctx *context, int *count, char ***names);

// Every factor except the server's own settings factor "QMXSTC", by name;
// free each with qn_db_destroyAdminFactorDef and the array with safeFree of
// *count pointers. 80105 when there is none.
int qn_db_factorGetAll(dbctx *context, int *count, MFAAdminFactorData ***factors);

// One factor definition (isenabled left 0); free with
// qn_db_destroyAdminFactorDef. 80105 when there is none.
int qn_db_factorGetByName(dbctx *context, const char *factorName, MFAAdminFactorData **factor);
int qn_db_factorGetById(dbctx *context, int factorid, MFAAdminFactorData **factor);

// Replaces the factor's settings text. The escaped copy is what is stored, so
// a quote in the text is stored doubled. An unknown name changes nothing and
// succeeds. 80107 on failure.
int qn_db_factorUpdateSettings(dbctx *context, const char *factorName, const char *settings);

// Links a user to a factor with tags "{}". 80104 when the insert fails (for
// example when the link exists).
int qn_db_userFactorConnectById(dbctx *context, int userid, int factorid, int isactive);
// As above by names; unknown names insert nothing and succeed.
int qn_db_userFactorConnect(dbctx *context, const char *unixuid, const char *factorName,
                            int isactive);
// Gives the user every factor of the policy, active, skipping existing
// links. 80106 for a zero id.
int qn_db_userFactorConnectFromPolicyId(dbctx *context, int userid, int policyid);

// Removes a link by its id (80108 on failure) or by names (80104 on failure).
int qn_db_userFactorDisconnectById(dbctx *context, int userfactorid);
int qn_db_userFactorDisconnect(dbctx *context, const char *unixuid, const char *factorName);

// Sets the link's active flag. 80107 on failure.
int qn_db_userFactorUpdateIsActive(dbctx *context, const char *unixuid, const char *factorName,
                                   int isactive);
// Replaces the link's tags (JSON text) and, unless isactive is -1, its
// active flag in the same statement. 80107 on failure.
int qn_db_userFactorTagsUpdate(dbctx *context, const char *unixuid, const char *factorName,
                               const char *tags, int isactive);
// Not provided: always 80199, without touching the database.
int qn_db_userFactorTagsClear(dbctx *context, const char *unixuid, const char *factorName);

// The uid and factor name of a link: two new strings (free with freeString).
// 80105 when there is no such link.
int qn_db_getMfaIdFactornameFromConnectionId(dbctx *context, int userfactorid, char **unixuid,
                                             char **factorName);

#ifdef __cplusplus
}
#endif

#endif
