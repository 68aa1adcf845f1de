#include "db/clients.h"

#include <cstring>
#include <string>

#include "base/textutils.h"
#include "db/dbcommon_internal.h"

using namespace mfadb;

extern "C" const char *const ORLIN_CLIENT_STATUS_STRING[ORLIN_CLIENT_STATUS_COUNT] = {
    "UNKNOWN",      "CONNECTABLE",  "NEGOTIATION FAILED",     "CONNECTION FAILED",
    "UNRESOLVABLE", "SOCKET ERROR", "AUTHENTICATION FAILURE", "INTERNAL ERROR"};

namespace {

constexpr uint32_t kHasherKeyBytes = 32; // the SHA-256 output, which its HMAC wants at least

constexpr const char *kNoOrlinClients = "No ORLIN Clients returned.";

// Most writes of this family report without a line end, and the orlin
// updates report with the insert text and code: agents match on those.
constexpr Failure kInsertFailedNoEnd{QN_DB_INSERT_FAILED, "insert failed: %s", Reason::Result};
constexpr Failure kDeleteFailedNoEnd{QN_DB_DELETE_FAILED, "delete failed: %s", Reason::Result};

using PavoClient = Owned<clientData, destroyClientData>;
using OrlinClient = Owned<orlinClientData, destroyOrlinClientData>;
using Connection = Owned<orlinClientUserData, destroyOrlinClientUserData>;

// Every operation here reports on the console, and all but the secret check
// report a refused connection without a line end of their own.
struct ConsoleSession : Session {
  explicit ConsoleSession(dbctx *context,
                          const char *connectFailed = "Connection to database failed: %s")
      : Session(context, Reporter::Console, connectFailed) {}
};

// Hashing talks to the token only; the session merely reports.
int hashSecret(Session &reporter, qn_pkcs11_session *token, const char *secret, char **hashed) {
  if (token == nullptr || secret == nullptr || hashed == nullptr)
    return QN_PKCS11_RC_MISSING_ARGUMENT;
  qn_pkcs11_key key{};
  int status = qn_pkcs11_find_genericSecretWithLabel(token, PAVO_HASHER_LABEL, &key);
  if (status == QN_PKCS11_RC_KEY_NOT_FOUND) {
    if ((status = qn_pkcs11_gen_GenericSecretHMACKeyWithLabel(token, kHasherKeyBytes,
                                                              PAVO_HASHER_LABEL, 0, &key))) {
      reporter.report("qn_pkcs11_gen_GenericSecretHMACKeyWithLabel failed with error: %d\n",
                      status);
      return status;
    }
  } else if (status != 0) {
    reporter.report("qn_pkcs11_find_genericSecretWithLabel failed with error: %d\n", status);
    return status;
  }
  unsigned char mac[32];
  uint32_t length = sizeof mac;
  status = qn_pkcs11_hmac_SHA256(token, &key, reinterpret_cast<const unsigned char *>(secret),
                                 static_cast<uint32_t>(strlen(secret)), mac, &length);
  if (status != 0) {
    reporter.report("qn_pkcs11_hmac_SHA256 failed with error: %d\n", status);
    return status;
  }
  int textLength = 0;
  char *text = encodeBase64(nullptr, reinterpret_cast<const char *>(mac), static_cast<int>(length),
                            &textLength, 0);
  explicit_bzero(mac, sizeof mac);
  if (text == nullptr)
    return QN_PKCS11_RC_ALLOC;
  *hashed = text;
  return 0;
}

// A pavo client from columns id, client id, hashed secret, description.
clientData *pavoClient(const Session &session, int row) {
  PavoClient client(newRecord<clientData>("pavoclient"));
  if (!client || !session.copyTo(&client->ClientId, row, 1) ||
      !session.copyTo(&client->ClientSecret, row, 2) ||
      !session.copyTo(&client->ClientDescription, row, 3))
    return nullptr;
  client->pavoclientsid = session.integer(row, 0);
  return client.release();
}

// An orlin client without users from columns id, host name, description,
// status.
orlinClientData *orlinClient(const Session &session, int row) {
  OrlinClient client(newRecord<orlinClientData>("orlinclient"));
  if (!client || !session.copyTo(&client->ClientHostname, row, 1) ||
      !session.copyTo(&client->ClientDescription, row, 2))
    return nullptr;
  client->ClientId = session.integer(row, 0);
  client->clientstatus = session.integer(row, 3);
  return client.release();
}

// Labels of the profile records, which differ with the grouping.
struct ProfileLabels {
  const char *array;
  const char *record;
};
constexpr ProfileLabels kPerUser{"userprofiles array", "userprofile"};
constexpr ProfileLabels kPerClient{"user profiles", "user profile"};

// The profiles of size rows starting at first, whose columns are 0 the
// profile id, 2 the remote user id, 3 its status and 4 the record's name
// (host name or uid). The caller sets the user and client ids.
Connection connectionRecord(const Session &session, int first, int size, ProfileLabels labels) {
  Connection read(newRecord<orlinClientUserData>("orlinclientuser"));
  if (!read || !session.copyTo(&read->name, first, 4) ||
      (read->profiles = newArray<clientUserProfile>(size, labels.array)) == nullptr)
    return nullptr;
  read->numProfiles = size;
  for (int i = 0; i < size; i++) {
    auto *profile = newRecord<clientUserProfile>(labels.record);
    if ((read->profiles[i] = profile) == nullptr ||
        !session.copyTo(&profile->remoteuserid, first + i, 2))
      return nullptr;
    profile->userorlinclientid = session.integer(first + i, 0);
    profile->remoteuserstatus = session.integer(first + i, 3);
  }
  return read;
}

// One connection record per run of rows with the same id in column 1 (the
// statements order by it); setIds(record, that id) fills in the ids.
template <typename SetIds>
int collectConnections(const Session &session, ProfileLabels labels, SetIds setIds, int *count,
                       orlinClientUserData ***connections) {
  return collectGroups(
      session, Grouping::byKey(1), "orlinclientusers",
      [&](int first, int size) {
        Connection read = connectionRecord(session, first, size, labels);
        if (read)
          setIds(*read, session.integer(first, 1));
        return read.release();
      },
      destroyOrlinClientUserData, count, connections);
}

// The id of the user with that uid, for the readers by uid.
int userIdOf(dbctx *context, const char *unixuid, int *userid) {
  ConsoleSession session(context);
  Escaped uid;
  if (int status = session.connect({{uid, unixuid}}))
    return status;
  if (int status =
          session.execFormatted(Expect::Tuples, kSelectFailed,
                                "select userid from qmx_user where unixuid='%s'", uid.get()))
    return status;
  if (int status = session.requireRows("User not found\n"))
    return status;
  *userid = session.integer(0, 0);
  return 0;
}

std::string asciiLower(const char *text) {
  std::string folded(text);
  for (char &c : folded)
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  return folded;
}

} // namespace

extern "C" {

const char *orlinClientStatusName(int clientstatus) {
  return clientstatus >= 0 && clientstatus < ORLIN_CLIENT_STATUS_COUNT
             ? ORLIN_CLIENT_STATUS_STRING[clientstatus]
             : ORLIN_CLIENT_STATUS_STRING[0];
}

int hashClientSecret(qn_pkcs11_session *session, const char *secret, char **hashed) {
  ConsoleSession reporter(nullptr);
  return hashSecret(reporter, session, secret, hashed);
}

int qn_db_pavo_AddClient(dbctx *context, const clientData *client) {
  if (client == nullptr || client->ClientId == nullptr || client->ClientSecret == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  Escaped id, secret, description;
  if (int status = session.connect(
          {{id, client->ClientId},
           {secret, client->ClientSecret},
           {description, client->ClientDescription ? client->ClientDescription : ""}}))
    return status;
  return session.execFormatted(Expect::Command, kInsertFailedNoEnd,
                               "insert into QMX_PavoClients(ClientId,ClientSecret,"
                               "ClientDescription) values('%s', '%s', '%s') ",
                               id.get(), secret.get(), description.get());
}

int qn_db_pavo_UpdateClient(dbctx *context, int pavoclientsid, const char *clientSecret,
                            const char *clientDescription) {
  if (clientSecret == nullptr && clientDescription == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  Escaped secret, description;
  if (int status = session.connect({{secret, clientSecret ? clientSecret : ""},
                                    {description, clientDescription ? clientDescription : ""}}))
    return status;
  // The set list names only what is given; the second pass fills it, and a
  // missing secret leaves a bare %s that takes the empty string.
  char setList[512];
  if (int status = formatStatement(
          session, setList, sizeof setList,
          "update QMX_PavoClients set %s %s %s where pavoclientsid=%d ",
          clientSecret ? "clientsecret='%s'" : "%s", clientSecret && clientDescription ? "," : "",
          clientDescription ? "clientDescription='%s'" : "", pavoclientsid))
    return status;
  char sql[kStatementSize];
  if (int status =
          formatStatement(session, sql, sizeof sql, setList, secret.get(), description.get()))
    return status;
  return session.execParams(sql, Expect::Command,
                            {QN_DB_UPDATE_FAILED, "update failed: %s", Reason::Result});
}

int qn_db_pavo_GetAllClients(dbctx *context, int *count, clientData ***clients) {
  if (count == nullptr || clients == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.exec("select pavoclientsid, clientid, clientsecret, clientdescription "
                                "from QMX_PavoClients\n",
                                Expect::Tuples, kSelectFailed))
    return status;
  if (int status = session.requireRows("No PAVO Clients returned."))
    return status;
  return collectGroups(
      session, kEachRow, "pavoclientarray", [&](int row, int) { return pavoClient(session, row); },
      destroyClientData, count, clients);
}

int qn_db_pavo_GetClientById(dbctx *context, int pavoclientsid, clientData **client) {
  if (client == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.execFormattedIn(512, Expect::Tuples, kSelectFailed,
                                           "select pavoclientsid, clientid, clientsecret, "
                                           "clientdescription from QMX_PavoClients where "
                                           "pavoclientsid = %d",
                                           pavoclientsid))
    return status;
  // No row is reported as a failed read, not as not found: callers rely on it.
  if (session.rows() == 0)
    return session.fail(kSelectFailed);
  clientData *read = pavoClient(session, 0);
  if (read == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  *client = read;
  return 0;
}

int qn_db_pavo_DeleteClient(dbctx *context, int pavoclientsid) {
  if (pavoclientsid <= 0)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  return session.execFormatted(
      Expect::Command, {QN_DB_DELETE_FAILED, "Delete failed: %s\n", Reason::Result},
      "delete from QMX_PavoClients where pavoclientsid = %d", pavoclientsid);
}

int qn_db_pavo_ValidateClientSecret(dbctx *context, qn_pkcs11_session *token, const char *clientId,
                                    const char *clientSecret) {
  if (context == nullptr || token == nullptr || clientId == nullptr || clientSecret == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context, Reporter::Console);
  Escaped id;
  if (int status = session.connect({{id, clientId}}))
    return status;
  if (int status = session.execParams(
          "select ClientSecret from QMX_PavoClients where ClientId=$1", Expect::Tuples,
          {QN_DB_SELECT_FAILED, "select failed: %s\n", Reason::Connection}, {id.get()}))
    return status;
  if (int status = session.requireRows("ClientID not found"))
    return status;
  char *hashed = nullptr;
  if (int status = hashSecret(session, token, clientSecret, &hashed)) {
    session.report("hash failed: %d\n", status);
    return status;
  }
  bool differs = stringsNotEqual(session.text(0, 0), hashed) != 0;
  freeString(hashed);
  if (differs) {
    session.report("Client Secret validation fail for ClientID: %s\n", clientId);
    return QN_DB_CLIENT_SECRET_MISMATCH;
  }
  return 0;
}

orlinClientData *createOrlinClientData(const char *hostname, const char *description) {
  OrlinClient client(newRecord<orlinClientData>("orlin client data"));
  if (!client || (hostname && !(client->ClientHostname = duplicateString(hostname))) ||
      (description && !(client->ClientDescription = duplicateString(description))))
    return nullptr;
  return client.release();
}

int qn_db_orlin_AddClient(dbctx *context, orlinClientData *client) {
  if (client == nullptr || client->ClientHostname == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  Escaped host, description;
  if (int status = session.connect(
          {{host, client->ClientHostname},
           {description, client->ClientDescription ? client->ClientDescription : ""}}))
    return status;
  if (int status = session.execFormatted(Expect::Either, kInsertFailedNoEnd,
                                         "insert into QMX_OrlinClients(ClientHostname,"
                                         "ClientDescription) values('%s', '%s') returning ClientId",
                                         host.get(), description.get()))
    return status;
  if (session.rows() != 1)
    return session.fail(kInsertFailedNoEnd);
  client->ClientId = session.integer(0, 0);
  return 0;
}

int qn_db_orlin_UpdateClient(dbctx *context, const orlinClientData *client) {
  if (client == nullptr || client->ClientHostname == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  Escaped host, description;
  if (int status = session.connect(
          {{host, client->ClientHostname},
           {description, client->ClientDescription ? client->ClientDescription : ""}}))
    return status;
  return session.execFormatted(Expect::Command, kInsertFailedNoEnd,
                               "update QMX_OrlinClients set ClientHostname='%s',"
                               "ClientDescription='%s' where clientid=%d",
                               host.get(), description.get(), client->ClientId);
}

int qn_db_orlin_GetAllClients(dbctx *context, int *count, orlinClientData ***clients) {
  if (count == nullptr || clients == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.exec("select clientid, ClientHostname, clientdescription, clientstatus "
                                "from QMX_OrlinClients order by ClientHostname\n",
                                Expect::Tuples, kSelectFailed))
    return status;
  if (int status = session.requireRows(kNoOrlinClients))
    return status;
  return collectGroups(
      session, kEachRow, "orlinclientarray",
      [&](int row, int) { return orlinClient(session, row); }, destroyOrlinClientData, count,
      clients);
}

int qn_db_orlin_GetClient(dbctx *context, int clientId, orlinClientData **client) {
  if (client == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.execFormatted(Expect::Tuples, kSelectFailed,
                                         "select clientHostname, clientdescription, clientstatus "
                                         "from QMX_OrlinClients where ClientId=%d",
                                         clientId))
    return status;
  if (int status = session.requireRows(kNoOrlinClients))
    return status;
  OrlinClient read(newRecord<orlinClientData>("orlinclient"));
  if (!read || !session.copyTo(&read->ClientHostname, 0, 0) ||
      !session.copyTo(&read->ClientDescription, 0, 1))
    return MFADATA_OUT_OF_MEMORY;
  read->ClientId = clientId;
  read->clientstatus = session.integer(0, 2);
  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select distinct userid from qmx_userorlinclient where clientid=%d", clientId))
    return status;
  if (session.rows() == 0) {
    session.report("No users connected to client");
    *client = read.release();
    return 0;
  }
  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select userorlinclientid,uic.userid, uic.remoteuserid, uic.remoteuserstatus, "
          "au.unixuid from QMX_UserOrlinClient uic,qmx_user au where au.userid=uic.userid and "
          "clientid=%d order by uic.userid",
          clientId))
    return status;
  // Profiles removed since the count leave the client without users.
  if (session.rows() > 0) {
    auto setIds = [&](orlinClientUserData &user, int userid) {
      user.userid = userid;
      user.clientid = clientId;
    };
    if (int status = collectConnections(session, kPerClient, setIds, &read->numUsers, &read->users))
      return status;
  }
  *client = read.release();
  return 0;
}

int qn_db_orlin_GetClientHostnameFromId(dbctx *context, int clientId, char **hostname) {
  if (hostname == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select clientHostname from QMX_OrlinClients where ClientId=%d", clientId))
    return status;
  if (int status = session.requireRows(kNoOrlinClients))
    return status;
  char *read = nullptr;
  if (!session.copyTo(&read, 0, 0))
    return MFADATA_OUT_OF_MEMORY;
  *hostname = read;
  return 0;
}

int qn_db_orlin_SetClientStatus(dbctx *context, const char *hostname, int clientstatus) {
  ConsoleSession session(context);
  Escaped host;
  if (int status = session.connect({{host, hostname}}))
    return status;
  return session.execFormatted(Expect::Command, kInsertFailedNoEnd,
                               "update QMX_OrlinClients set clientstatus=%d where "
                               "ClientHostname='%s'",
                               clientstatus, host.get());
}

int qn_db_orlin_DeleteClient(dbctx *context, int clientId) {
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  for (const char *sql : {"delete from qmx_userorlinclient where clientid=%d",
                          "delete from qmx_orlinclients where clientid=%d"})
    if (int status = session.execFormatted(Expect::Command, kDeleteFailedNoEnd, sql, clientId))
      return status;
  return 0;
}

int qn_db_user_getAllOrlinClients(dbctx *context, int userid, int *count,
                                  orlinClientUserData ***connections) {
  if (count == nullptr || connections == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select distinct clientid from qmx_userorlinclient where userid=%d", userid))
    return status;
  if (int status = session.requireRows(kNoOrlinClients))
    return status;
  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select userorlinclientid, aui.clientid, remoteuserid, remoteuserstatus, "
          "clienthostname from qmx_userorlinclient aui,qmx_orlinclients aic where "
          "aui.clientid=aic.clientid and userid=%d order by aui.clientid",
          userid))
    return status;
  // The groups are counted from these rows, so profiles added or removed
  // since the count can never make the array too small.
  if (int status = session.requireRows(kNoOrlinClients))
    return status;
  return collectConnections(
      session, kPerUser,
      [&](orlinClientUserData &client, int clientid) {
        client.userid = userid;
        client.clientid = clientid;
      },
      count, connections);
}

int qn_db_user_getAllOrlinClientsByMFAId(dbctx *context, const char *unixuid, int *count,
                                         orlinClientUserData ***connections) {
  if (count == nullptr || connections == nullptr)
    return QN_DB_BAD_PARAMETERS;
  int userid = 0;
  if (int status = userIdOf(context, unixuid, &userid))
    return status;
  return qn_db_user_getAllOrlinClients(context, userid, count, connections);
}

int qn_db_getUserOrlinClientById(dbctx *context, int userorlinclientid,
                                 orlinClientUserData **connection) {
  if (connection == nullptr)
    return QN_DB_BAD_PARAMETERS;
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  if (int status = session.execFormatted(
          Expect::Tuples, kSelectFailed,
          "select aui.userid, aui.clientid, aui.remoteuserid, aui.remoteuserstatus, "
          "aic.clienthostname from qmx_userorlinclient aui,qmx_orlinclients aic where "
          "aui.clientid=aic.clientid and aui.userorlinclientid=%d",
          userorlinclientid))
    return status;
  if (int status = session.requireRows(kNoOrlinClients))
    return status;
  Connection read = connectionRecord(session, 0, 1, kPerUser);
  if (!read)
    return MFADATA_OUT_OF_MEMORY;
  read->userid = session.integer(0, 0);
  read->clientid = session.integer(0, 1);
  read->profiles[0]->userorlinclientid = userorlinclientid;
  *connection = read.release();
  return 0;
}

int qn_db_userOrlin_Connect(dbctx *context, int userid, int clientid, const char *remoteuserid) {
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  // Folding before escaping gives what folding the escaped copy would: the
  // escape only doubles quotes and backslashes.
  Escaped remote = session.escape(remoteuserid ? asciiLower(remoteuserid).c_str() : nullptr);
  if (!remote) {
    session.report("error escaping userid or name\n");
    return QN_DB_NOT_FOUND;
  }
  return session.execFormatted(Expect::Command, kInsertFailedNoEnd,
                               "insert into qmx_userorlinclient(userid, clientid, remoteuserid) "
                               "values(%d,%d,'%s')",
                               userid, clientid, remote.get());
}

int qn_db_userOrlin_ConnectByName(dbctx *context, const char *unixuid, const char *hostname,
                                  const char *remoteuserid) {
  ConsoleSession session(context);
  if (unixuid == nullptr || *unixuid == '\0' || hostname == nullptr || *hostname == '\0' ||
      remoteuserid == nullptr || *remoteuserid == '\0') {
    session.report("required parameter missing, mfaid, hostname and remote user profile are all "
                   "required.");
    return QN_DB_NOT_FOUND;
  }
  Escaped uid, host, remote;
  if (int status = session.connect({{uid, unixuid}, {host, hostname}, {remote, remoteuserid}}))
    return status;
  if (int status = session.execParams(
          "insert into qmx_userorlinclient(userid,clientid,remoteuserid) select "
          "au.userid,ai.clientid,$3 from qmx_user au,qmx_orlinclients ai where au.unixuid=$1 and "
          "ai.clienthostname=$2 returning *",
          Expect::Either, kInsertFailedNoEnd, {uid.get(), host.get(), remote.get()}))
    return status;
  // An unknown uid or host inserts nothing.
  return session.rows() == 0 ? session.fail(kInsertFailedNoEnd) : 0;
}

int qn_db_userOrlin_Update(dbctx *context, int userorlinclientid, const char *remoteuserid,
                           int remoteuserstatus) {
  ConsoleSession session(context);
  Escaped remote;
  if (int status = session.connect({{remote, remoteuserid}}))
    return status;
  return session.execFormatted(Expect::Command, kInsertFailedNoEnd,
                               "update qmx_userorlinclient set remoteuserid='%s', "
                               "remoteuserstatus=%d where userorlinclientid=%d",
                               remote.get(), remoteuserstatus, userorlinclientid);
}

int qn_db_userOrlin_Disconnect(dbctx *context, int userorlinclientid) {
  ConsoleSession session(context);
  if (int status = session.connect())
    return status;
  return session.execFormatted(
      Expect::Command,
      {QN_DB_DELETE_FAILED, "delete user orlin host connection failed: %s", Reason::Result},
      "delete from qmx_userorlinclient where userorlinclientid=%d", userorlinclientid);
}

} // extern "C"
