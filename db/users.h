// MFA users (qmx_user): adding and removing a user with all its links,
// reading one user or all of them, and the small setters and getters of the
// password-fallback flag, the single-sign-on id, the suspended flag and the
// check failure count. The administrators' suspended flag and failure count
// have twins here because they share their shape.
//
// Every operation takes the database context first, opens its own
// connection and returns 0 or a status of the database layer; out arguments
// are written only on success. A uid is always escaped before it is used,
// and the escaped copy is also what the parameterised lookups send: a quote
// in a uid reaches them doubled and finds nothing.
#ifndef MFA_DB_USERS_H
#define MFA_DB_USERS_H

#include "db/dbcommon.h"

#ifdef __cplusplus
extern "C" {
#endif

// Adds a user; the uid is stored in lower case. ssoid may be null. The new
// userid goes to *userid unless userid is null. 80106 for a uid holding white
// space (nothing is sent), 80105 when uid or name is null or cannot be
// escaped, 80109 for an existing uid, 80104 for any other failure.
int qn_db_userAdd(dbctx *context, const char *unixuid, const char *name, int passwordFallback,
                  const char *ssoid, int *userid);

// Remove the user with its policy, factor and password rows in one
// transaction; nothing is removed when a step fails. By id the user's client
// profiles are removed too and a failure gives 80108; by uid the profiles
// are left to the database and a failure gives 80104. An unknown user
// succeeds.
int qn_db_userRemoveById(dbctx *context, int userid);
int qn_db_userRemove(dbctx *context, const char *unixuid);

// Single values by uid into *value. 80105 when there is no such user, 80102
// when the select fails, 80106 for a null value.
int qn_db_userIsFallback(dbctx *context, const char *unixuid, int *fallback);
int qn_db_userGetSuspended(dbctx *context, const char *unixuid, int *suspended);
int qn_db_userGetFailcount(dbctx *context, const char *unixuid, int *count);

// Setters; they succeed when no user matches. 80107 on failure. A null ssoid
// leaves the single-sign-on id as it is.
int qn_db_userUpdateById(dbctx *context, int userid, int passwordFallback, int suspended,
                         const char *ssoid);
int qn_db_userSetFallback(dbctx *context, const char *unixuid, int fallback);
int qn_db_userSetFallbackById(dbctx *context, int userid, int fallback);
int qn_db_userSetSSOIdById(dbctx *context, int userid, const char *ssoid);
int qn_db_userSetSuspended(dbctx *context, const char *unixuid, int suspended);
int qn_db_userSetSuspendedById(dbctx *context, int userid, int suspended);
int qn_db_userSetFailcount(dbctx *context, const char *unixuid, int count);

// Adds one to the failure count in a single statement, so that concurrent
// callers never lose an increment, and stores the new count in *count unless
// count is null. 80105 for an unknown uid, 80107 on failure. Nothing here
// suspends a user: the caller decides on the returned count.
int qn_db_userIncrementFailcount(dbctx *context, const char *unixuid, int *count);

// The administrators' twins. Unlike the user setter, setting the suspended
// flag of an unknown administrator gives 80105.
int qn_db_administratorSetSuspended(dbctx *context, const char *unixuid, int suspended);
int qn_db_administratorGetSuspended(dbctx *context, const char *unixuid, int *suspended);
int qn_db_administratorIncrementFailcount(dbctx *context, const char *unixuid, int *count);
int qn_db_administratorSetFailcount(dbctx *context, const char *unixuid, int count);
int qn_db_administratorGetFailcount(dbctx *context, const char *unixuid, int *count);

// One user by id with its policies (records), factors and client profiles
// grouped per client host; free with destroyUserData. Missing parts leave
// their count 0 and their array null. 80105 for an unknown id.
int qn_db_userGetById(dbctx *context, int userid, userData **user);

// One user by uid with its policy names (in policyNames; policies stays
// null) and factors without ids; userid is left 0 and no client profiles are
// read. Free with destroyUserData. 80105 for an unknown uid.
int qn_db_userGetOne(dbctx *context, const char *unixuid, userData **user);

// Every user in uid order, without policies, factors or profiles: free each
// with destroyUserData and the array with safeFree of *count pointers. Every
// record's hasPassword is that of the first user listed. 80105 when there
// are no users.
int qn_db_userList(dbctx *context, int *count, userData ***users);

#ifdef __cplusplus
}
#endif

#endif
