// Administrators of the MFA server (qmx_adminuser): a uid with a bit mask of
// rights and a suspended flag. Every operation takes the database context
// first, opens its own connection and returns 0 or a status of the database
// layer; out arguments are written only on success.
#ifndef MFA_DB_ADMINS_H
#define MFA_DB_ADMINS_H

#include "db/dbcommon.h"

#ifdef __cplusplus
extern "C" {
#endif

// Adds the administrator with the given rights, or ors them into the rights
// of an existing one: rights are only ever added here, never taken away. The
// uid is stored as given (not folded to lower case). 80104 on failure.
int qn_db_administratorAddUpdate(dbctx *context, const char *unixuid, int adminrights);

// The administrator's rights mask and suspended flag. 80105 when there is no
// such administrator, 80106 for a null argument. Here and in the remover the
// uid is matched in its escaped form, so a uid holding a quote is not found.
int qn_db_administratorGetInfo(dbctx *context, const char *unixuid, int *adminrights,
                               int *suspended);

// Removes the administrator; reserved is accepted and not used. Unlike the
// user removers, an unknown uid is an error: 80105. 80106 for a null uid,
// 80108 when the delete fails.
int qn_db_administratorRemove(dbctx *context, const char *unixuid, const char *reserved);

// Every administrator in uid order: a new array of *count records (free each
// with destroyAdminData, the array with safeFree of *count pointers). 80105
// when there is none.
int qn_db_administratorList(dbctx *context, int *count, adminData ***admins);

#ifdef __cplusplus
}
#endif

#endif
