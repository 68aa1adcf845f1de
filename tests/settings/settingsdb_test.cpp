#include <gtest/gtest.h>

#include <string>

#include "mfadata/factordata.h"
#include "settings/serversettings.h"
#include "settings/settingsrecord_internal.h"
#include "settings/totpsettings.h"
#include "settings/yubisettings.h"
#include "support/pgtest.h"

namespace {

class SettingsDbTest : public mfatest::PgTest {
protected:
  void store(const char *factor, const std::string &settings) {
    int gavrc = 0, korsrc = 0, korsrsn = 0;
    ASSERT_EQ(kfactor_set_factorwide_settings(ctx, factor, settings.c_str(), settings.size(),
                                              &gavrc, &korsrc, &korsrsn),
              0);
  }

  // Reads the record back through read and compares it with the record
  // made directly from the stored text; returns read's status.
  template <typename Record>
  int readBack(int (*read)(Record **, dbctx *, int *, int *, int *),
               int (*create)(const char *, int, Record **), void (*destroy)(Record *),
               const std::string &stored) {
    Record *fromDb = nullptr, *direct = nullptr;
    int gavrc = -1, korsrc = -1, korsrsn = -1;
    int status = read(&fromDb, ctx, &gavrc, &korsrc, &korsrsn);
    if (status == 0) {
      EXPECT_EQ(create(stored.data(), static_cast<int>(stored.size()), &direct), 0);
      EXPECT_TRUE(direct != nullptr && mfasettings::sameSettings(fromDb, direct)) << stored;
    } else {
      EXPECT_EQ(fromDb, nullptr);
    }
    destroy(fromDb);
    destroy(direct);
    return status;
  }
};

TEST_F(SettingsDbTest, EachRecordReadsWhatWasStored) {
  // Nothing stored yet.
  EXPECT_EQ(readBack(stcSettingsGetFromDB, stcSettingsCreateFromJSON, stcSettingsDestroy, ""),
            SETTINGS_NOT_READABLE);
  EXPECT_EQ(readBack(totpSettingsGetFromDB, totpSettingsCreateFromJSON, totpSettingsDestroy, ""),
            SETTINGS_NOT_READABLE);
  EXPECT_EQ(readBack(yubiSettingsGetFromKORS, yubiSettingsCreateFromJSON, yubiSettingsDestroy, ""),
            SETTINGS_NOT_READABLE);

  const std::string stc = R"({"wsPKCSTokenName":"KVTR.TOKEN1","wsHstsMaxAge":60,)"
                          R"("wsCTCStyle":"8 Digit Mixed Case, Numeric, National"})";
  const std::string totp = R"({"realmName":"REALM","tokenPeriodSecondsDefault":"60"})";
  const std::string yubi = R"({"initialTraceLevel":2,"p11label":"YUBI.KEY"})";
  store(STCSETTINGS_FACTOR, stc);
  store(TOTPSETTINGS_FACTOR, totp);
  store(YUBISETTINGS_FACTOR, yubi);
  EXPECT_EQ(readBack(stcSettingsGetFromDB, stcSettingsCreateFromJSON, stcSettingsDestroy, stc), 0);
  EXPECT_EQ(readBack(totpSettingsGetFromDB, totpSettingsCreateFromJSON, totpSettingsDestroy, totp),
            0);
  EXPECT_EQ(
      readBack(yubiSettingsGetFromKORS, yubiSettingsCreateFromJSON, yubiSettingsDestroy, yubi), 0);
}

TEST_F(SettingsDbTest, UnreadableOrRefusedSettingsGiveNoRecord) {
  // The TOTP buffer holds 1024 bytes, the server's 2048.
  std::string exact = R"({"p11label":")" + std::string(1024 - 15, 'x') + R"("})";
  ASSERT_EQ(exact.size(), 1024u);
  store(TOTPSETTINGS_FACTOR, exact);
  EXPECT_EQ(readBack(totpSettingsGetFromDB, totpSettingsCreateFromJSON, totpSettingsDestroy, exact),
            0);
  store(TOTPSETTINGS_FACTOR, R"({"p11label":"x)" + std::string(1024 - 15, 'x') + R"("})");
  EXPECT_EQ(readBack(totpSettingsGetFromDB, totpSettingsCreateFromJSON, totpSettingsDestroy, ""),
            SETTINGS_NOT_READABLE);
  store(TOTPSETTINGS_FACTOR, R"({"tokenPeriodSecondsDefault":45})");
  EXPECT_EQ(readBack(totpSettingsGetFromDB, totpSettingsCreateFromJSON, totpSettingsDestroy, ""),
            TOTPSETTINGS_BAD_PERIOD);
  // The server record is handed out on a refused member, but not from here.
  store(STCSETTINGS_FACTOR, R"({"wsWebServerAuthTLSPort":70000})");
  EXPECT_EQ(readBack(stcSettingsGetFromDB, stcSettingsCreateFromJSON, stcSettingsDestroy, ""),
            STCSETTINGS_BAD_TLS_PORT);
  sql("delete from qmx_factor where factorname='QMXYUBI1'");
  EXPECT_EQ(readBack(yubiSettingsGetFromKORS, yubiSettingsCreateFromJSON, yubiSettingsDestroy, ""),
            SETTINGS_NOT_READABLE);
}

} // namespace
