// Agent clients: pavo clients, which authenticate with a client id and a
// secret of which only a keyed hash on the token is kept, and orlin clients,
// hosts with a connection status to which MFA users are linked through
// profiles (the user's id on that host and its status).
//
// Every qn_db_ operation takes the database context first, opens its own
// connection and returns 0 or a status of the database layer; out arguments
// are written only on success. Unlike the rest of the layer, these operations
// report on standard output, each line behind the time stamp and "MFADB:";
// several texts have no line end.
#ifndef MFA_DB_CLIENTS_H
#define MFA_DB_CLIENTS_H

#include "crypto/pkcs11.h"
#include "db/dbcommon.h"

#ifdef __cplusplus
extern "C" {
#endif

// The token key, a persistent generic secret, that hashes client secrets.
#define PAVO_HASHER_LABEL "PAVOHASHER"

// Names of the orlin client states, indexed by clientstatus.
#define ORLIN_CLIENT_STATUS_COUNT 8
extern const char *const ORLIN_CLIENT_STATUS_STRING[ORLIN_CLIENT_STATUS_COUNT];

// The name of a client state; "UNKNOWN" for an index outside the table, so
// that a stray stored value never indexes past it.
const char *orlinClientStatusName(int clientstatus);

// ---- Pavo clients ----

// The base64 HMAC-SHA256 of secret's bytes under the token key "PAVOHASHER",
// which is generated on the token at first use (sensitive, never extractable,
// for signing only) and found by its label afterwards. session is an open
// read-write session. Returns 0 with a new string in *hashed (free with
// freeString), 7770001 for a missing argument, 7770014 when memory is short,
// or the token layer's failure, which is also reported.
int hashClientSecret(qn_pkcs11_session *session, const char *secret, char **hashed);

// Registers a client: ClientId and ClientSecret (a hashClientSecret result,
// never the plain secret) must be given, a missing description is stored
// empty; pavoclientsid is not used. 80106 for a missing record or field,
// 80104 when the insert fails (for example a duplicate id).
int qn_db_pavo_AddClient(dbctx *context, const clientData *client);

// Replaces the hashed secret, the description or both (null leaves one as it
// is). 80106 when neither is given, 80107 when the update fails; an unknown
// id changes nothing and succeeds.
int qn_db_pavo_UpdateClient(dbctx *context, int pavoclientsid, const char *clientSecret,
                            const char *clientDescription);

// Every client: a new array of *count records (free each with
// destroyClientData, the array with safeFree of *count pointers). 80105 when
// there is none.
int qn_db_pavo_GetAllClients(dbctx *context, int *count, clientData ***clients);

// One client (free with destroyClientData). An unknown id is reported as a
// failed read, 80102, not as 80105.
int qn_db_pavo_GetClientById(dbctx *context, int pavoclientsid, clientData **client);

// 80106 for an id that is not positive, 80108 when the delete fails; an
// unknown id deletes nothing and succeeds.
int qn_db_pavo_DeleteClient(dbctx *context, int pavoclientsid);

// 0 when the hash of clientSecret on the token of session equals the stored
// one. 80106 for a missing argument, 80105 for an unknown client (the lookup
// takes the escaped id, so an id holding a quote is never found), 81101 for
// a secret that does not match, or the hashing failure.
int qn_db_pavo_ValidateClientSecret(dbctx *context, qn_pkcs11_session *session,
                                    const char *clientId, const char *clientSecret);

// ---- Orlin clients ----

// A new record (released with destroyOrlinClientData) holding copies of the
// host name and description, each null when not given; null when memory is
// short.
orlinClientData *createOrlinClientData(const char *hostname, const char *description);

// Registers the client's host name and description (a missing description
// is stored empty) and stores the new id in client->ClientId. 80106 for a
// missing record or host name, 80104 when the insert fails (for example a
// host registered already).
int qn_db_orlin_AddClient(dbctx *context, orlinClientData *client);

// Writes host name and description (a missing one empty) to the client
// client->ClientId. 80106 for a missing record or host name, 80104 when the
// update fails.
int qn_db_orlin_UpdateClient(dbctx *context, const orlinClientData *client);

// Every client in host name order, without users: a new array of *count
// records (free each with destroyOrlinClientData, the array with safeFree of
// *count pointers). 80105 when there is none.
int qn_db_orlin_GetAllClients(dbctx *context, int *count, orlinClientData ***clients);

// One client with its connected users, one connection record per user
// (name: the user's uid) with that user's profiles on the client; free with
// destroyOrlinClientData. A client without users has none and succeeds.
// 80105 for an unknown client.
int qn_db_orlin_GetClient(dbctx *context, int clientId, orlinClientData **client);

// The client's host name: a new string (free with freeString). 80105 for an
// unknown client.
int qn_db_orlin_GetClientHostnameFromId(dbctx *context, int clientId, char **hostname);

// Sets the status (an index into ORLIN_CLIENT_STATUS_STRING) of the client
// with that host name. 80104 when the update fails; an unknown host changes
// nothing and succeeds.
int qn_db_orlin_SetClientStatus(dbctx *context, const char *hostname, int clientstatus);

// Removes the client's user profiles, then the client; the two deletes are
// not one transaction. 80108 when either fails.
int qn_db_orlin_DeleteClient(dbctx *context, int clientId);

// ---- Users' profiles on orlin clients ----

// The user's profiles, one connection record per client (name: the host
// name): a new array of *count records (free each with
// destroyOrlinClientUserData, the array with safeFree of *count pointers).
// 80105 when the user has none.
int qn_db_user_getAllOrlinClients(dbctx *context, int userid, int *count,
                                  orlinClientUserData ***connections);
// As above for the user with that uid; 80105 also for an unknown uid.
int qn_db_user_getAllOrlinClientsByMFAId(dbctx *context, const char *unixuid, int *count,
                                         orlinClientUserData ***connections);

// One profile as a connection record with one profile (free with
// destroyOrlinClientUserData). 80105 when there is no such profile.
int qn_db_getUserOrlinClientById(dbctx *context, int userorlinclientid,
                                 orlinClientUserData **connection);

// Gives the user a profile on the client; the remote user id is stored in
// lower case (ASCII letters folded, other bytes kept). 80105 when the remote
// user id is missing, 80104 when the insert fails.
int qn_db_userOrlin_Connect(dbctx *context, int userid, int clientid, const char *remoteuserid);

// As above by uid and host name. The three go as statement parameters in
// their escaped form, like every by-name lookup of this layer, so a quote
// reaches the database doubled; the remote user id is not folded. 80105 when
// one is missing or empty, 80104 when the insert fails or names an unknown
// uid or host.
int qn_db_userOrlin_ConnectByName(dbctx *context, const char *unixuid, const char *hostname,
                                  const char *remoteuserid);

// Replaces a profile's remote user id and status. 80106 for a missing remote
// user id, 80104 when the update fails.
int qn_db_userOrlin_Update(dbctx *context, int userorlinclientid, const char *remoteuserid,
                           int remoteuserstatus);

// Removes a profile. 80108 when the delete fails.
int qn_db_userOrlin_Disconnect(dbctx *context, int userorlinclientid);

#ifdef __cplusplus
}
#endif

#endif
