// YubiKey records (QMX_YubiRecords): one comma-separated text per key, keyed
// by the key's public id and kept as opaque text. The operations report to
// standard output behind the time stamp and "MFADB:". Each takes the database
// context first, opens its own connection and returns 0 or a status of the
// database layer; out arguments are written only on success.
#ifndef MFA_DB_YUBIKEY_H
#define MFA_DB_YUBIKEY_H

#include "db/dbcommon.h"

#ifdef __cplusplus
extern "C" {
#endif

// The record of a public id: a new string (free with freeString). 80105 when
// there is none, 80106 for a null argument. Here and in the deleter the id is
// matched in its escaped form, so an id holding a quote is not found.
int qn_db_yubi_FindRecord(dbctx *context, const char *pubId, char **csv);

// Stores the record, replacing the text of an existing public id. A record
// whose statement would not fit its 2,048-byte buffer is refused with 80106
// rather than stored cut. 80104 when the statement fails.
int qn_db_yubi_AddUpdateRecord(dbctx *context, const char *pubId, const char *csv);

// Deletes the record; an unknown public id succeeds. A failure gives 80102.
int qn_db_yubi_DeleteRecord(dbctx *context, const char *pubId);

#ifdef __cplusplus
}
#endif

#endif
