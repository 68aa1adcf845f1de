#include "settings/totpsettings.h"
#include "settings/yubisettings.h"

#include <gtest/gtest.h>

#include <string>

#include "settingstest.h"

namespace {

using mfatest::created;
using mfatest::expectCases;

const mfatest::SettingsApi<totpSettings> kTotp = {totpSettingsCreateFromJSON,
                                                  totpSettingsConvertToJSON, totpSettingsDestroy};
const mfatest::SettingsApi<yubiSettings> kYubi = {yubiSettingsCreateFromJSON,
                                                  yubiSettingsConvertToJSON, yubiSettingsDestroy};

TEST(TotpSettings, EachKeyWithItsRule) {
  const int none = 0;
  // The empty text gives the defaults; any other leaves the failure count
  // alone, and one that is no object is otherwise ignored.
  EXPECT_EQ(mfatest::memberChanges(created(kTotp, "{}").second, created(kTotp, "").second),
            "numFailsAllow=100");
  expectCases(
      kTotp, "{}",
      R"({"digestAlgDefault":"SHA256","webTraceLvl":0,"pluginTraceLvl":0,)"
      R"("tokenNumDigitsDefault":8,"tokenPeriodSecondsDefault":30,)"
      R"("authWindowDefault":1,"useSecret":1,"numFailsAllow":0,"todCorr":0})",
      {
          {"[1]", none, ""},
          {R"({"realmName":)", none, ""},
          {R"("x")", none, ""},
          {R"({"realmName":"ABC@1234","digestAlgDefault":"SHA512","tokenNumDigitsDefault":6,)"
           R"("tokenPeriodSecondsDefault":"60","authWindowDefault":10,"numFailsAllow":3,)"
           R"("regDiags":true,"todCorr":43200})",
           none,
           R"(realmName="ABC@1234" digestAlgDefault="SHA512" tokenNumDigitsDefault=6 )"
           R"(tokenPeriodSecondsDefault=60 authWindowDefault=10 numFailsAllow=3 regDiags=1 )"
           R"(todCorr=43200)"},
          {R"({"tokenPeriodSecondsDefault":15,"regDiags":5,"todCorr":-43200,"numFailsAllow":-3})",
           none, "tokenPeriodSecondsDefault=15 regDiags=1 todCorr=-43200 -numFailsAllow"},
          // A repeated member keeps its first value, except the trace levels.
          {R"({"realmName":"A","realmName":"not valid","digestAlgDefault":"SHA1",)"
           R"("digestAlgDefault":"SHA384","p11label":"L1","p11label":"L2",)"
           R"("webTraceLvl":3,"pluginTraceLvl":2,"webTraceLvl":1})",
           none,
           R"(realmName="A" digestAlgDefault="SHA1" webTraceLvl=1 pluginTraceLvl=2 p11label="L1")"},
          {R"({"webTraceLvl":"2","pluginTraceLvl":null,"tokenNumDigitsDefault":"7",)"
           R"("p11token":"TOKEN","useSecret":false,"RealmName":"X","bogus":1})",
           none, ""},
          {R"({"realmName":"ABCD@1234"})", TOTPSETTINGS_BAD_REALM, "<none>"},
          {R"({"realmName":7})", TOTPSETTINGS_BAD_REALM, "<none>"},
          {R"({"digestAlgDefault":"sha1"})", TOTPSETTINGS_BAD_DIGEST, "<none>"},
          {R"({"digestAlgDefault":true})", TOTPSETTINGS_BAD_DIGEST, "<none>"},
          {R"({"webTraceLvl":4})", TOTPSETTINGS_BAD_TRACE_LEVEL, "<none>"},
          {R"({"pluginTraceLvl":-1})", TOTPSETTINGS_BAD_TRACE_LEVEL, "<none>"},
          {R"({"tokenNumDigitsDefault":9})", TOTPSETTINGS_BAD_DIGITS, "<none>"},
          {R"({"tokenNumDigitsDefault":5})", TOTPSETTINGS_BAD_DIGITS, "<none>"},
          {R"({"tokenPeriodSecondsDefault":45})", TOTPSETTINGS_BAD_PERIOD, "<none>"},
          {R"({"tokenPeriodSecondsDefault":"60s"})", TOTPSETTINGS_BAD_PERIOD, "<none>"},
          {R"({"tokenPeriodSecondsDefault":true})", TOTPSETTINGS_BAD_PERIOD, "<none>"},
          {R"({"authWindowDefault":11})", TOTPSETTINGS_BAD_AUTH_WINDOW, "<none>"},
          {R"({"authWindowDefault":0})", TOTPSETTINGS_BAD_AUTH_WINDOW, "<none>"},
          {R"({"useSecret":2})", TOTPSETTINGS_BAD_USE_SECRET, "<none>"},
          {R"({"todCorr":43201})", TOTPSETTINGS_BAD_CLOCK_CORRECTION, "<none>"},
          {R"({"todCorr":-43201})", TOTPSETTINGS_BAD_CLOCK_CORRECTION, "<none>"},
          // The first refused member ends the creation.
          {R"({"webTraceLvl":9,"realmName":"not valid"})", TOTPSETTINGS_BAD_TRACE_LEVEL, "<none>"},
      });
}

TEST(TotpSettings, FullRecordConvertsExactlyAndCopies) {
  const std::string full = R"({"realmName":"R@1","digestAlgDefault":"SHA384","webTraceLvl":2,)"
                           R"("pluginTraceLvl":3,"tokenNumDigitsDefault":7,)"
                           R"("tokenPeriodSecondsDefault":60,"authWindowDefault":4,)"
                           R"("p11label":"totp \"key\"\n","useSecret":1,"numFailsAllow":12,)"
                           R"("regDiags":1,"todCorr":-60})";
  totpSettings *settings = mfatest::made(kTotp, full);
  ASSERT_NE(settings, nullptr);
  EXPECT_EQ(mfatest::jsonOf(kTotp, settings), full);
  mfatest::expectRoundTrip(kTotp, settings);

  // p11token is written though never read.
  settings->p11token = duplicateString("TOK");
  totpSettings *copy = nullptr;
  ASSERT_EQ(totpSettingsCopy(settings, &copy), 0);
  totpSettingsDestroy(settings);
  EXPECT_EQ(mfatest::memberChanges(full, mfatest::jsonOf(kTotp, copy)), R"(p11token="TOK")");
  totpSettingsDestroy(copy);
}

TEST(YubiSettings, TraceLevelAndLabel) {
  expectCases(kYubi, "", R"({"initialTraceLevel":0})",
              {
                  {R"({"initialTraceLevel":2})", 0, "initialTraceLevel=2"},
                  {R"({"initialTraceLevel":3,"initialTraceLevel":1})", 0, "initialTraceLevel=1"},
                  {R"({"initialTraceLevel":7})", 0, ""},
                  {R"({"initialTraceLevel":-1})", 0, ""},
                  {R"({"initialTraceLevel":"2","other":3})", 0, ""},
              });
  const std::string text = R"({"p11label":"first","initialTraceLevel":1,"p11label":"second"})";
  yubiSettings *settings = mfatest::made(kYubi, text), *copy = nullptr;
  ASSERT_NE(settings, nullptr);
  EXPECT_STREQ(settings->p11label, "first");
  ASSERT_EQ(yubiSettingsCopy(settings, &copy), 0);
  yubiSettingsDestroy(settings);
  EXPECT_TRUE(copy->initialTraceLevel == 1 && std::string(copy->p11label) == "first");
  yubiSettingsDestroy(copy);
}

} // namespace
