// Database context: the connection string, the logging context and the
// optional password-hashing context that every database operation takes.
#ifndef MFA_MFADATA_DBCTX_H
#define MFA_MFADATA_DBCTX_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct LoggingContext;
struct qn_pwhash_ctx;
struct qn_pkcs11_session;

// Status codes of the database layer and the factor-data service.
#define QN_DB_CONNECT_FAILED 80101
#define QN_DB_SELECT_FAILED 80102
#define QN_DB_FACTOR_NOT_DEFINED 80103
#define QN_DB_INSERT_FAILED 80104
#define QN_DB_NOT_FOUND 80105
#define QN_DB_BAD_PARAMETERS 80106
#define QN_DB_UPDATE_FAILED 80107
#define QN_DB_DELETE_FAILED 80108
#define QN_DB_USER_EXISTS 80109
#define QN_DB_PWHASH_UNAVAILABLE 80110
#define QN_DB_PASSWORD_MISMATCH 80111
#define QN_DB_BASE64_DECODE_FAILED 80120
#define QN_DB_CONFIG_FAILED 80150
#define QN_DB_NOT_PROVIDED 80199
#define QN_DB_CLIENT_SECRET_MISMATCH 81101

// Logging identities the context configures: destination 16 of vendor 77
// ("QMX") and the database component "MFADB" on it.
#define QMX_LOG_DESTINATION_ID 0x4D0010u
#define MFADB_COMPONENT_ID 0x4D000200190000ull
#define MFADB_COMPONENT_LEVEL 2
#define MFADB_ERROR_LEVEL 1

// Status for memory that cannot be had, shared with the factor data model.
#define MFADATA_OUT_OF_MEMORY 1200020

typedef struct dbctx {
  struct LoggingContext *logContext;   // not owned
  struct qn_pwhash_ctx *pwhashContext; // null until qn_db_createPwhashCtx
  char *connectionString;              // owned
} dbctx;

// Builds the libpq connection string from the configuration file at path.
// Returns 0 and stores a copy (free with safeFree, its length + 1) through
// connectionString, or 80150 with the reason printed.
int parseDbConf(const char *path, char **connectionString);

// Makes a context. With a path the connection string comes from parseDbConf
// (its failure is returned and nothing is made); without one it is
// "dbname=mfadb ". A null logContext makes and configures the process-wide
// one. Release with qn_db_destroyDbCtx.
int qn_db_createDBCtx(dbctx **context, struct LoggingContext *logContext, const char *configPath);

// Frees the connection string and the context; neither the logging context
// nor the password-hashing context is destroyed. Accepts null.
void qn_db_destroyDbCtx(dbctx *context);

// Attaches a password-hashing context (16-byte salts, 32-byte keys) on the
// given open token session, which stays the caller's. Returns 0, or 80110
// with the attachment cleared; the context stays usable for operations that
// do not hash. The hashing context outlives qn_db_destroyDbCtx: release it
// with qn_pwhash_ctx_destroy.
int qn_db_createPwhashCtx(dbctx *context, struct qn_pkcs11_session *tokenSession,
                          int iterationCount);

#ifdef __cplusplus
}
#endif

#endif
