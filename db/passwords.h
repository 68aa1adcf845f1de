// Users' own MFA passwords (qmx_usermfapassword), kept only as a salted
// PBKDF2 key: base64 key, iteration count, base64 salt and format version 1.
// Hashing runs on the token through the password-hashing context that the
// database context holds; without one every operation prints why and gives
// 80110 without connecting.
//
// Every operation takes the database context first, opens its own
// connection and returns 0 or a status of the database layer (or the
// password-hashing layer's own code when hashing fails).
#ifndef MFA_DB_PASSWORDS_H
#define MFA_DB_PASSWORDS_H

#include "db/dbcommon.h"

#ifdef __cplusplus
extern "C" {
#endif

// Stores a new password for the user, replacing any earlier one, with a
// fresh salt and the context's iteration count. By uid the uid is matched as
// given (not folded to lower case) and an unknown uid stores nothing and
// succeeds; by id an unknown user makes the insert fail (80104).
int qn_db_userPasswordSave(dbctx *context, const char *unixuid, const char *password);
int qn_db_userPasswordSaveById(dbctx *context, int userid, const char *password);

// 0 when password matches the user's stored key, derived with the stored
// iteration count and salt; 80111 when it does not. The uid is folded to
// lower case. 80106 for a null or empty uid or password, 80105 when the
// user has no stored password, 80120 when the stored key or salt is not
// base64.
int qn_db_userPasswordVerify(dbctx *context, const char *unixuid, const char *password);

#ifdef __cplusplus
}
#endif

#endif
