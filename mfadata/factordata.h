// Factor-data service: a user's factors and tags, factor-wide settings and
// policies kept in the MFA database, with the three-part return codes
// (gavrc, korsrc, korsrsn) of a host security registry. Every call opens and
// closes its own connection; statements commit on their own.
#ifndef MFA_MFADATA_FACTORDATA_H
#define MFA_MFADATA_FACTORDATA_H

#include <stdint.h>

#include "mfadata/dbctx.h"

#ifdef __cplusplus
extern "C" {
#endif

struct userMFAData;
struct factorData;
struct userPolicyData;

// Reads the user's factors (with tags), policies and password-fallback flag.
// Returns 0 and a record the caller releases with kfactor_userMFAData_destroy
// (a user without factors gets a record without factors), 80101 or 80102.
int pq_userMFAData_create(dbctx *context, const char *userid, struct userMFAData **result);

// Sets each policy's satisfiable flag from the record's factors. Returns 0.
int pq_userMFAData_checkSatisfiable(struct userMFAData *data);

// Reads one factor of the user. Returns 0 and a factor the caller releases
// with kfactor_factorData_destroy; 80105 when the user has no such factor;
// 80101. A failed SELECT returns 0 and stores nothing.
int kfactor_get_UserFactorData(dbctx *context, const char *userid, const char *factorName,
                               struct factorData **result);

// Reads the tag text stored for one factor of the user, exactly as stored,
// for callers that must know whether it reads whole. Returns 0 and a copy in
// *text (release with freeString); 80105 when the user has no such factor,
// 80101, 80102, 80106 for a missing argument. Prints only failures.
int kfactor_get_UserFactorTagsText(dbctx *context, const char *userid, const char *factorName,
                                   char **text);

// Writes the factor's tags and active flag for the user in one upsert.
// Returns 0 (also when the user or factor does not exist), 80101, 80106 for a
// missing argument, 80107, or the status of building the tag text.
int kfactor_update_UserFactorData(dbctx *context, const char *userid, struct factorData *data);

// kfactor_update_UserFactorData that also stores in *rowsWritten, on
// success, how many rows the upsert wrote: 0 when the user or the factor
// does not exist. A null rowsWritten is a missing argument (80106).
int kfactor_update_UserFactorData2(dbctx *context, const char *userid, struct factorData *data,
                                   uint32_t *rowsWritten);

// Copies the factor's settings text (no terminator) into buffer; *length is
// the capacity on entry and the text's length on exit. A buffer that is too
// small (or null) gets the needed length and the triple 8/120/10 with status
// 0; an unknown factor gives 8/12/4 and 80103; 80101, 80102.
int kfactor_get_factorwide_settings(dbctx *context, const char *factorName, char *buffer,
                                    uint64_t *length, int *gavrc, int *korsrc, int *korsrsn);

// Replaces the factor's settings text; the last four arguments are accepted
// for symmetry with the reader and not used. Returns the status of
// qn_db_factorUpdateSettings.
int kfactor_set_factorwide_settings(dbctx *context, const char *factorName, const char *settings,
                                    uint64_t settingsLength, int *gavrc, int *korsrc, int *korsrsn);

// Reads the named policy. 80106 when an argument is null; otherwise the
// triple is zeroed and the result of qn_db_policyGetOne is returned. Release
// the policy with kfactor_policyData_destroy.
int kfactor_policyData_get(dbctx *context, const char *policyName, struct userPolicyData **result,
                           int *gavrc, int *korsrc, int *korsrsn);

// Releases a policy from kfactor_policyData_get. Accepts null.
void kfactor_policyData_destroy(struct userPolicyData *policy);

// A static text describing the triple, beginning with a blank, or "" when
// none applies (also when the triple is 0/0/0 but status is not).
const char *kfactor_describe_rc(int gavrc, int korsrc, int korsrsn, int status);

#ifdef __cplusplus
}
#endif

#endif
