#include "db/yubikey.h"

#include "base/alloc.h"
#include "db/dbcommon_internal.h"

using namespace mfadb;

extern "C" {

int qn_db_yubi_FindRecord(dbctx *context, const char *pubId, char **csv) {
  if (context == nullptr || pubId == nullptr || csv == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context, Reporter::Console);
  Escaped id;
  if (int status = session.connect({{id, pubId}}))
    return status;
  if (int status = session.execParams(
          "select CSV from QMX_YubiRecords where pubID=$1", Expect::Tuples,
          {QN_DB_SELECT_FAILED, "select failed: %s\n", Reason::Connection}, {id.get()}))
    return status;
  if (int status = session.requireRows("PubId not found"))
    return status;
  char *text = nullptr;
  if (!session.copyTo(&text, 0, 0))
    return MFADATA_OUT_OF_MEMORY;
  *csv = text;
  return 0;
}

int qn_db_yubi_AddUpdateRecord(dbctx *context, const char *pubId, const char *csv) {
  if (context == nullptr || pubId == nullptr || csv == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context, Reporter::Console);
  Escaped id, text;
  if (int status = session.connect({{id, pubId}, {text, csv}}))
    return status;
  return session.execFormattedIn(
      2048, Expect::Command, {QN_DB_INSERT_FAILED, "insert failed: %s", Reason::Result},
      "insert into QMX_YubiRecords(PubId,CSV) values('%s', '%s') on conflict(PubId) do update "
      "set CSV=excluded.CSV",
      id.get(), text.get());
}

int qn_db_yubi_DeleteRecord(dbctx *context, const char *pubId) {
  if (context == nullptr || pubId == nullptr)
    return QN_DB_BAD_PARAMETERS;
  Session session(context, Reporter::Console);
  Escaped id;
  if (int status = session.connect({{id, pubId}}))
    return status;
  // Reported with the read code rather than the delete code; callers check
  // for that code.
  return session.execParams(
      "delete from QMX_YubiRecords where pubID=$1", Expect::Command,
      {QN_DB_SELECT_FAILED, "Yubi record delete failed: %s\n", Reason::Result}, {id.get()});
}

} // extern "C"
