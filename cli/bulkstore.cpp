#include "cli/bulkstore.h"

namespace bulk {
namespace {

constexpr mfadb::Failure kWriteFailed{QN_DB_UPDATE_FAILED, "write failed: %s",
                                      mfadb::Reason::Connection};

// Rows: user ID, whether the user is defined, the stored tags or null.
constexpr const char *kReadAll =
    "select u.unixuid, true, uf.factortags from qmx_userfactor uf "
    "join qmx_user u on u.userid = uf.userid join qmx_factor f on f.factorid = uf.factorid "
    "where f.factorname = $1 order by u.unixuid";
constexpr const char *kReadNamed =
    "select n.unixuid, u.userid is not null, uf.factortags from unnest($2::text[]) as n(unixuid) "
    "left join qmx_user u on u.unixuid = n.unixuid "
    "left join qmx_userfactor uf on uf.userid = u.userid "
    "and uf.factorid = (select factorid from qmx_factor where factorname = $1) "
    "order by n.unixuid";

// Marked active, as the one-user tool marks what it commits.
constexpr const char *kUpdate =
    "update qmx_userfactor uf set factortags = n.factortags, isactive = 1 "
    "from unnest($2::text[], $3::text[]) as n(unixuid, factortags), qmx_user u, qmx_factor f "
    "where u.unixuid = n.unixuid and uf.userid = u.userid and uf.factorid = f.factorid "
    "and f.factorname = $1";
constexpr const char *kInsert =
    "insert into qmx_userfactor (userid, factorid, factortags, isactive) "
    "select u.userid, f.factorid, n.factortags, 1 "
    "from unnest($2::text[], $3::text[]) as n(unixuid, factortags) "
    "join qmx_user u on u.unixuid = n.unixuid join qmx_factor f on f.factorname = $1";

} // namespace

int Store::connect() {
  if (int status = session_.connect())
    return status;
  if (PQsetClientEncoding(session_.connection(), "UTF8") != 0) {
    session_.report("Connection to database failed: %s\n", PQerrorMessage(session_.connection()));
    return QN_DB_CONNECT_FAILED;
  }
  return 0;
}

int Store::stream(const char *sql, std::initializer_list<const char *> params,
                  const StoredVisit &visit) {
  return session_.stream(sql, mfadb::kSelectFailed, params, [&] {
    return visit({session_.text(0, 0), session_.text(0, 1)[0] == 't',
                  session_.isNull(0, 2) ? nullptr : session_.text(0, 2)});
  });
}

int Store::readAll(const StoredVisit &visit) {
  return stream(kReadAll, {factorName_}, visit);
}

int Store::readNamed(const mfadb::TextArray &userids, const StoredVisit &visit) {
  return stream(kReadNamed, {factorName_, userids.text()}, visit);
}

int Store::transaction(bool *unanswered, const std::function<int()> &body) {
  return session_.checkedTransaction("BEGIN ISOLATION LEVEL REPEATABLE READ", kWriteFailed,
                                     unanswered, body);
}

int Store::requireWritten(int expected) {
  if (session_.rowsAffected() == expected)
    return 0;
  session_.report("write failed: %d rows written where %d were expected\n", session_.rowsAffected(),
                  expected);
  return kWriteFailed.status;
}

int Store::update(const Change &changes) {
  if (int status = session_.execParams(kUpdate, mfadb::Expect::Command, kWriteFailed,
                                       {factorName_, changes.userids.text(), changes.tags.text()}))
    return status;
  return requireWritten(changes.userids.size());
}

int Store::insert(const Change &additions) {
  if (int status =
          session_.execParams(kInsert, mfadb::Expect::Command, kWriteFailed,
                              {factorName_, additions.userids.text(), additions.tags.text()}))
    return status;
  return requireWritten(additions.userids.size());
}

} // namespace bulk
