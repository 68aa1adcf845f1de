#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "mfadata/factordata.h"
#include "settings/serversettings.h"
#include "settings/settingsrecord_internal.h"
#include "settings/totpsettings.h"
#include "settings/yubisettings.h"
#include "support/pgtest.h"

namespace {

// How one record is read from the database and made directly from text.
template <typename Record> struct Reader {
  const char *factor;
  int (*read)(Record **, dbctx *, int *, int *, int *);
  int (*create)(const char *, int, Record **);
  void (*destroy)(Record *);
};

const Reader<stcSettings> kStc = {STCSETTINGS_FACTOR, stcSettingsGetFromDB,
                                  stcSettingsCreateFromJSON, stcSettingsDestroy};
const Reader<totpSettings> kTotp = {TOTPSETTINGS_FACTOR, totpSettingsGetFromDB,
                                    totpSettingsCreateFromJSON, totpSettingsDestroy};
const Reader<yubiSettings> kYubi = {YUBISETTINGS_FACTOR, yubiSettingsGetFromKORS,
                                    yubiSettingsCreateFromJSON, yubiSettingsDestroy};

class SettingsDbTest : public mfatest::PgTest {
protected:
  // Stores text (unless null) as the record's settings, reads the record
  // back and, when read, compares it with the record made directly from
  // text; returns the read's status.
  template <typename Record> int readBack(const Reader<Record> &r, const char *text) {
    int gavrc = 0, korsrc = 0, korsrsn = 0;
    if (text != nullptr && kfactor_set_factorwide_settings(ctx, r.factor, text, strlen(text),
                                                           &gavrc, &korsrc, &korsrsn) != 0)
      ADD_FAILURE() << "not stored: " << text;
    Record *fromDb = nullptr, *direct = nullptr;
    int status = r.read(&fromDb, ctx, &gavrc, &korsrc, &korsrsn);
    if (status == 0) {
      EXPECT_EQ(r.create(text, static_cast<int>(strlen(text)), &direct), 0);
      EXPECT_TRUE(direct != nullptr && mfasettings::sameSettings(fromDb, direct)) << text;
    }
    EXPECT_EQ(fromDb != nullptr, status == 0);
    r.destroy(fromDb);
    r.destroy(direct);
    return status;
  }
};

TEST_F(SettingsDbTest, EachRecordReadsWhatWasStored) {
  EXPECT_EQ(readBack(kStc, nullptr), SETTINGS_NOT_READABLE);
  EXPECT_EQ(readBack(kTotp, nullptr), SETTINGS_NOT_READABLE);
  EXPECT_EQ(readBack(kYubi, nullptr), SETTINGS_NOT_READABLE);
  EXPECT_EQ(readBack(kStc, R"({"wsPKCSTokenName":"KVTR.TOKEN1","wsHstsMaxAge":60,)"
                           R"("wsCTCStyle":"8 Digit Mixed Case, Numeric, National"})"),
            0);
  EXPECT_EQ(readBack(kTotp, R"({"realmName":"REALM","tokenPeriodSecondsDefault":"60"})"), 0);
  EXPECT_EQ(readBack(kYubi, R"({"initialTraceLevel":2,"p11label":"YUBI.KEY"})"), 0);
}

TEST_F(SettingsDbTest, UnreadableOrRefusedSettingsGiveNoRecord) {
  // The TOTP buffer holds 1024 bytes (the server's 2048): a text of exactly
  // 1024 is read, one byte more is not.
  const std::string exact = R"({"p11label":")" + std::string(1024 - 15, 'x') + R"("})";
  EXPECT_EQ(readBack(kTotp, exact.c_str()), 0);
  EXPECT_EQ(readBack(kTotp, std::string(exact).insert(13, "x").c_str()), SETTINGS_NOT_READABLE);
  EXPECT_EQ(readBack(kTotp, R"({"tokenPeriodSecondsDefault":45})"), TOTPSETTINGS_BAD_PERIOD);
  // The server record is handed out on a refused member, but not from here.
  EXPECT_EQ(readBack(kStc, R"({"wsWebServerAuthTLSPort":70000})"), STCSETTINGS_BAD_TLS_PORT);
  sql("delete from qmx_factor where factorname='QMXYUBI1'");
  EXPECT_EQ(readBack(kYubi, nullptr), SETTINGS_NOT_READABLE);
}

} // namespace
