#include "db/clients.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <map>
#include <regex>
#include <string>

#include "base/alloc.h"
#include "support/env.h"
#include "support/pgtest.h"
#include "support/token.h"

namespace {

using mfatest::Rows;
using mfatest::TokenKind;

// What fn printed, each time stamp and "MFADB:" replaced by "|", so that
// line ends can be compared exactly.
template <typename Fn> std::string printed(Fn &&fn) {
  static const std::regex stamp(R"(\d{4}(-\d\d){5}\.\d{6} MFADB:)");
  return std::regex_replace(mfatest::captureStdout(fn), stamp, "|");
}

std::string describe(const char *text) {
  return text;
}

std::string describe(const clientData *c) {
  return std::to_string(c->pavoclientsid) + " " + c->ClientId + " " + c->ClientSecret + " " +
         c->ClientDescription;
}

// "userid/clientid name: linkid=remote:status ..." in link id order: the
// statements order the rows of a group by nothing.
std::string describe(const orlinClientUserData *c) {
  std::map<int, std::string> profiles;
  for (int i = 0; i < c->numProfiles; i++)
    profiles[c->profiles[i]->userorlinclientid] = std::string(c->profiles[i]->remoteuserid) + ":" +
                                                  std::to_string(c->profiles[i]->remoteuserstatus);
  std::string text =
      std::to_string(c->userid) + "/" + std::to_string(c->clientid) + " " + c->name + ":";
  for (const auto &[id, profile] : profiles)
    text += " " + std::to_string(id) + "=" + profile;
  return text;
}

std::string describe(const orlinClientData *c) {
  std::string text = std::to_string(c->ClientId) + " " + c->ClientHostname + " (" +
                     c->ClientDescription + ") " + std::to_string(c->clientstatus);
  for (int i = 0; i < c->numUsers; i++)
    text += " [" + describe(c->users[i]) + "]";
  return text;
}

// Step runs reading one record through call(&record), or every record
// through call(&count, &array) with "|" between them.
template <typename T, typename Call>
std::function<std::string(int &)> reads(Call call, void (*destroy)(T *)) {
  return [=](int &status) {
    T *record = nullptr;
    status = call(&record);
    std::string text = record ? describe(record) : "";
    destroy(record);
    return text;
  };
}
template <typename T, typename Call>
std::function<std::string(int &)> lists(Call call, void (*destroy)(T *)) {
  return [=](int &status) {
    int count = 0;
    T **array = nullptr;
    status = call(&count, &array);
    std::string text;
    for (int i = 0; status == 0 && i < count; i++) {
      text += (i ? "|" : "") + describe(array[i]);
      destroy(array[i]);
    }
    safeFree(reinterpret_cast<char *>(array), count * static_cast<int>(sizeof(T *)));
    return text;
  };
}

int addPavo(dbctx *ctx, const char *id, const char *secret, const char *description) {
  clientData client{0, const_cast<char *>(id), const_cast<char *>(secret),
                    const_cast<char *>(description)};
  return qn_db_pavo_AddClient(ctx, &client);
}

using PavoClientsTest = mfatest::PgTest;

TEST_F(PavoClientsTest, ClientsAreAddedReadUpdatedAndDeletedAndFailuresReported) {
  auto list =
      lists([&](int *n, clientData ***all) { return qn_db_pavo_GetAllClients(ctx, n, all); },
            destroyClientData);
  auto byId = [&](int id) {
    return reads([=, this](clientData **c) { return qn_db_pavo_GetClientById(ctx, id, c); },
                 destroyClientData);
  };
  const std::string tooLong(1000, 'x');
  const std::string first = "1 agent-1 hash1 Bob's agent \\ 100% %s",
                    second = "2 '); drop table qmx_user; -- h'2 ";
  mfatest::runSteps({
      {"an empty table", list, 80105, "", "MFADB:No PAVO Clients returned."},
      // Quotes, backslashes, format marks, an injection, no description, UTF-8.
      MFA_CALL(0, "", addPavo(ctx, "agent-1", "hash1", "Bob's agent \\ 100% %s")),
      MFA_CALL(0, "", addPavo(ctx, "'); drop table qmx_user; --", "h'2", nullptr)),
      MFA_CALL(0, "", addPavo(ctx, "agent-é", "hash3", "größer")),
      MFA_CALL(80106, "", addPavo(ctx, nullptr, "hash5", "")),
      MFA_CALL(80106, "", addPavo(ctx, "agent-5", nullptr, "")),
      MFA_CALL(80106, "", qn_db_pavo_AddClient(ctx, nullptr)),
      {"listed as stored", list, 0, first + "|" + second + "|3 agent-é hash3 größer", ""},
      {"read by id", byId(2), 0, second, ""},
      // An unknown id reads as a failed statement.
      {"an unknown id", byId(99), 80102, "", "MFADB:SELECT failed: \n"},
      MFA_CALL(0, "", qn_db_pavo_UpdateClient(ctx, 1, "n'\\2", nullptr)),
      MFA_CALL(0, "", qn_db_pavo_UpdateClient(ctx, 1, nullptr, "it's 100% %s %d")),
      MFA_CALL(80106, "", qn_db_pavo_UpdateClient(ctx, 1, nullptr, nullptr)),
      // The second pass would not fit its buffer.
      MFA_CALL(80106, "MFADB:statement too long: 1072 bytes do not fit a buffer of 1024\n",
               qn_db_pavo_UpdateClient(ctx, 1, nullptr, tooLong.c_str())),
      MFA_CALL(0, "", qn_db_pavo_UpdateClient(ctx, 99, "s", "d")),
      {"updated", byId(1), 0, "1 agent-1 n'\\2 it's 100% %s %d", ""},
      MFA_CALL(80106, "", qn_db_pavo_DeleteClient(ctx, 0)),
      MFA_CALL(80106, "", qn_db_pavo_DeleteClient(ctx, -1)),
      MFA_CALL(0, "", qn_db_pavo_DeleteClient(ctx, 99)),
      MFA_CALL(0, "", qn_db_pavo_DeleteClient(ctx, 1)),
      {"the others stay", list, 0, second + "|3 agent-é hash3 größer", ""},
  });
  // A duplicate id passes the server's text on.
  std::string out = printed([&] { EXPECT_EQ(addPavo(ctx, "agent-é", "", ""), 80104); });
  EXPECT_EQ(out.rfind("|insert failed: ERROR:  duplicate key value", 0), 0u) << out;

  // Refused connections: only the secret check ends libpq's text, which
  // brings a line end of its own, with another.
  freeString(ctx->connectionString);
  ctx->connectionString = duplicateString("host=127.0.0.1 port=1");
  qn_pkcs11_session token{};
  std::string validate = printed(
      [&] { EXPECT_EQ(qn_db_pavo_ValidateClientSecret(ctx, &token, "id", "secret"), 80101); });
  int status = 0;
  EXPECT_EQ(validate.substr(validate.size() - 2), "\n\n") << validate;
  EXPECT_EQ(validate.substr(0, validate.size() - 1), printed([&] { list(status); }));
  EXPECT_EQ(status, 80101);
}

// The secret hash needs the database and a token.
class ClientSecretTest : public mfatest::PgTest,
                         protected mfatest::TokenFixture,
                         public testing::WithParamInterface<TokenKind> {
protected:
  void SetUp() override {
    PgTest::SetUp();
    if (!IsSkipped() && !HasFatalFailure())
      openToken(GetParam());
  }
  void TearDown() override {
    closeToken();
    PgTest::TearDown();
  }
  std::string hash(const char *secret) {
    char *hashed = nullptr;
    EXPECT_EQ(hashClientSecret(session(), secret, &hashed), 0);
    std::string text = hashed ? hashed : "";
    freeString(hashed);
    return text;
  }
  int validate(const char *id, const char *secret, qn_pkcs11_session *on = nullptr) {
    return qn_db_pavo_ValidateClientSecret(ctx, on ? on : session(), id, secret);
  }
};

TEST_P(ClientSecretTest, SecretHashedInOneProcessValidatesInTheNext) {
  std::string hashed = hash("s3cret");
  EXPECT_EQ(hashed.size(), 44u) << hashed; // 32 bytes in base64
  ASSERT_EQ(addPavo(ctx, "agent", hashed.c_str(), ""), 0);
  ASSERT_EQ(addPavo(ctx, "o'agent", hashed.c_str(), ""), 0);
  mfatest::runSteps({
      MFA_CALL(0, "", validate("agent", "s3cret")),
      MFA_CALL(81101, "MFADB:Client Secret validation fail for ClientID: agent\n",
               validate("agent", "S3cret")),
      MFA_CALL(80105, "MFADB:ClientID not found", validate("nobody", "s3cret")),
      // The lookup takes the escaped id: the doubled quote matches nothing.
      MFA_CALL(80105, "MFADB:ClientID not found", validate("o'agent", "s3cret")),
      MFA_CALL(80106, "", validate(nullptr, "s3cret")),
      MFA_CALL(80106, "", validate("agent", nullptr)),
      MFA_CALL(80106, "", qn_db_pavo_ValidateClientSecret(ctx, nullptr, "agent", "s3cret")),
  });

  // A child opens the token afresh: only the token's own objects carry over.
  closeToken();
  pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    if (freopen("/dev/null", "w", stdout) != nullptr)
      openToken(GetParam());
    _exit(validate("agent", "s3cret") == 0 && validate("agent", "s3cret!") == 81101 ? 0 : 1);
  }
  int wait = 0;
  ASSERT_EQ(waitpid(child, &wait, 0), child);
  EXPECT_TRUE(WIFEXITED(wait) && WEXITSTATUS(wait) == 0) << wait;
}

MFA_INSTANTIATE_ON_TOKENS(ClientSecretTest);

// Destroys the hashing key, which other tests on a shared token would miss:
// on the SoftHSM2 token of this run only.
using SoftHsmSecretTest = ClientSecretTest;
INSTANTIATE_TEST_SUITE_P(SoftHsm, SoftHsmSecretTest, testing::Values(TokenKind::SoftHsm));

TEST_P(SoftHsmSecretTest, DestroyedKeyFailsTheRightSecretAndTokenFailuresArePassedOn) {
  ASSERT_EQ(addPavo(ctx, "agent", hash("s3cret").c_str(), ""), 0);
  ASSERT_EQ(validate("agent", "s3cret"), 0);
  qn_pkcs11_key key{};
  while (qn_pkcs11_find_genericSecretWithLabel(session(), PAVO_HASHER_LABEL, &key) == 0)
    ASSERT_EQ(qn_pkcs11_destroyObject(session(), &key), 0);

  // Without the key a read-only session cannot make a new one.
  qn_pkcs11_session closed{}, readOnly{};
  ASSERT_EQ(qn_pkcs11_session_openReadOnly(token(), &readOnly), 0);
  EXPECT_EQ(printed([&] {
              EXPECT_EQ(validate("agent", "s3cret", &closed), QN_PKCS11_RC_SESSION_NOT_OPEN);
              EXPECT_EQ(validate("agent", "s3cret", &readOnly), CKR_SESSION_READ_ONLY);
            }),
            "|qn_pkcs11_find_genericSecretWithLabel failed with error: 7773010\n"
            "|hash failed: 7773010\n"
            "C_GenerateKey (gen_GenericSecretHMACKeyWithLabel) returned:  181 (0xb5) "
            "CKR_SESSION_READ_ONLY\n"
            "|qn_pkcs11_gen_GenericSecretHMACKeyWithLabel failed with error: 181\n"
            "|hash failed: 181\n");
  qn_pkcs11_session_close(&readOnly);
  char *hashed = nullptr;
  EXPECT_EQ(hashClientSecret(session(), nullptr, &hashed), QN_PKCS11_RC_MISSING_ARGUMENT);

  // A new key is made, under which the stored hash no longer matches until
  // the secret is hashed again.
  mfatest::captureStdout([&] { EXPECT_EQ(validate("agent", "s3cret"), 81101); });
  ASSERT_EQ(qn_db_pavo_UpdateClient(ctx, 1, hash("s3cret").c_str(), nullptr), 0);
  EXPECT_EQ(validate("agent", "s3cret"), 0);
}

class OrlinClientsTest : public mfatest::PgTest {
protected:
  // The new client's id, or the failure status negated.
  int addClient(const char *hostname, const char *description = "") {
    orlinClientData *client = createOrlinClientData(hostname, description);
    int status = qn_db_orlin_AddClient(ctx, client);
    int id = status == 0 ? client->ClientId : -status;
    destroyOrlinClientData(client);
    return id;
  }
  Rows links() {
    return sql("select userorlinclientid, unixuid, clienthostname, remoteuserid, "
               "remoteuserstatus from qmx_userorlinclient join qmx_user using (userid) join "
               "qmx_orlinclients using (clientid) order by 1");
  }
  std::function<std::string(int &)> client(int id) {
    return reads([=, this](orlinClientData **c) { return qn_db_orlin_GetClient(ctx, id, c); },
                 destroyOrlinClientData);
  }
  const char *none = "MFADB:No ORLIN Clients returned.";
};

TEST_F(OrlinClientsTest, ClientsAreAddedListedUpdatedAndShowTheirStatus) {
  auto list =
      lists([&](int *n, orlinClientData ***all) { return qn_db_orlin_GetAllClients(ctx, n, all); },
            destroyOrlinClientData);
  auto host = [&](int id) {
    return reads(
        [=, this](char **name) { return qn_db_orlin_GetClientHostnameFromId(ctx, id, name); },
        freeString);
  };
  mfatest::runSteps({{"an empty table", list, 80105, "", none}});
  const std::pair<const char *, int> added[] = {
      {"beta.example", 1}, {"alpha.example", 2}, {"beta.example", -80104}, {nullptr, -80106}};
  for (const auto &[host, id] : added)
    mfatest::captureStdout([&] { EXPECT_EQ(addClient(host, "Bob's"), id) << host; });
  orlinClientData renamed{2, const_cast<char *>("gamma.example"), nullptr, 0, 0, nullptr};
  orlinClientData nameless{2, nullptr, nullptr, 0, 0, nullptr};
  mfatest::runSteps({
      // A missing description is written empty.
      MFA_CALL(0, "", qn_db_orlin_UpdateClient(ctx, &renamed)),
      MFA_CALL(80106, "", qn_db_orlin_UpdateClient(ctx, &nameless)),
      MFA_CALL(0, "", qn_db_orlin_SetClientStatus(ctx, "gamma.example", 6)),
      {"listed", list, 0, "1 beta.example (Bob's) 0|2 gamma.example () 6", ""},
      {"read", client(2), 0, "2 gamma.example () 6", "MFADB:No users connected to client"},
      {"a host name", host(1), 0, "beta.example", ""},
      {"an unknown id", host(99), 80105, "", none},
      {"an unknown client", client(99), 80105, "", none},
  });
  for (const auto &[status, name] :
       {std::pair{6, "AUTHENTICATION FAILURE"}, {8, "UNKNOWN"}, {-1, "UNKNOWN"}})
    EXPECT_STREQ(orlinClientStatusName(status), name) << status;
}

TEST_F(OrlinClientsTest, UserProfilesAreGroupedPerClientAndPerUser) {
  int bob = addUser("bob");
  addUser("ann");
  int eve = addUser("eve");
  int h1 = addClient("h1.example"), h2 = addClient("h2.example");
  mfatest::runSteps({
      MFA_CALL(0, "", qn_db_userOrlin_Connect(ctx, bob, h1, "Root")),
      MFA_CALL(0, "", qn_db_userOrlin_Connect(ctx, bob, h2, "Admin")),
      MFA_CALL(0, "", qn_db_userOrlin_Connect(ctx, bob, h1, "O'Brien")),
      MFA_CALL(0, "", qn_db_userOrlin_ConnectByName(ctx, "ann", "h1.example", "Svc'X")),
      MFA_CALL(80105, "MFADB:error escaping userid or name\n",
               qn_db_userOrlin_Connect(ctx, bob, h1, nullptr)),
      MFA_CALL(80104, "MFADB:insert failed: ",
               qn_db_userOrlin_ConnectByName(ctx, "nobody", "h1.example", "x")),
      MFA_CALL(80105,
               "MFADB:required parameter missing, mfaid, hostname and remote user profile are all "
               "required.",
               qn_db_userOrlin_ConnectByName(ctx, "ann", "", "x")),
  });
  // By ids the remote id is folded to lower case; by names the escaped copy
  // is the parameter, so its quote arrives doubled.
  EXPECT_EQ(links(), (Rows{{"1", "bob", "h1.example", "root", "0"},
                           {"2", "bob", "h2.example", "admin", "0"},
                           {"3", "bob", "h1.example", "o'brien", "0"},
                           {"4", "ann", "h1.example", "Svc''X", "0"}}));

  // A user's connections by uid when given, else by id.
  auto of = [&](int userid, const char *uid = nullptr) {
    return lists(
        [=, this](int *n, orlinClientUserData ***all) {
          return uid ? qn_db_user_getAllOrlinClientsByMFAId(ctx, uid, n, all)
                     : qn_db_user_getAllOrlinClients(ctx, userid, n, all);
        },
        destroyOrlinClientUserData);
  };
  auto link = [&](int id) {
    return reads(
        [=, this](orlinClientUserData **c) { return qn_db_getUserOrlinClientById(ctx, id, c); },
        destroyOrlinClientUserData);
  };
  const std::string bobs = "1/1 h1.example: 1=root:0 3=O'Neil:6|1/2 h2.example: 2=admin:0";
  mfatest::runSteps({
      MFA_CALL(0, "", qn_db_userOrlin_Update(ctx, 3, "O'Neil", 6)),
      MFA_CALL(80106, "", qn_db_userOrlin_Update(ctx, 3, nullptr, 6)),
      {"per user by id", of(bob), 0, bobs, ""},
      {"per user by uid", of(0, "bob"), 0, bobs, ""},
      {"no connections", of(eve), 80105, "", none},
      {"an unknown uid", of(0, "nobody"), 80105, "", "MFADB:User not found\n"},
      {"per client", client(h1), 0,
       "1 h1.example () 0 [1/1 bob: 1=root:0 3=O'Neil:6] [2/1 ann: 4=Svc''X:0]", ""},
      {"one link", link(4), 0, "2/1 h1.example: 4=Svc''X:0", ""},
      {"an unknown link", link(99), 80105, "", none},
  });
  // The client is read before its users' uids fail: the partial record is
  // released.
  sql("alter table qmx_user rename to hidden");
  int status = 0;
  mfatest::captureStdout([&] { EXPECT_EQ(client(h1)(status), ""); });
  EXPECT_EQ(status, 80102);
  sql("alter table hidden rename to qmx_user");

  ASSERT_EQ(qn_db_userOrlin_Disconnect(ctx, 1), 0);
  ASSERT_EQ(qn_db_orlin_DeleteClient(ctx, h1), 0);
  EXPECT_EQ(links(), (Rows{{"2", "bob", "h2.example", "admin", "0"}}));
  EXPECT_EQ(sql("select clienthostname from qmx_orlinclients"), (Rows{{"h2.example"}}));
}

} // namespace
