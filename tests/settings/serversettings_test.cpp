#include "settings/serversettings.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "settingstest.h"
#include "support/env.h"

namespace {

using mfatest::jsonOf;

const mfatest::SettingsApi<stcSettings> kStc = {stcSettingsCreateFromJSON, stcSettingsConvertToJSON,
                                                stcSettingsDestroy};

// Every member set, none to its default, in the order of the JSON form.
const std::string kFull =
    R"({"tlsTrustLoc":"/etc/trust.p12","tlsP12Loc":"/etc/server.p12","tlsP12Pass":"QUJD",)"
    R"("wsEnableCTCService":1,"sshPubKey":"/home/agent/.ssh/id.pub","sshKeyPassword":"k\"ey",)"
    R"("sshUserId":"orlin","maxAdminFailures":7,"wsAdminSessionTimeout":1200,"sslTraceLevel":2,)"
    R"("wsHstsEnable":1,"wsHstsMaxAge":600,"wsHstsSubDom":1,"wsEnablePWChange":0,)"
    R"("wsPKCSTokenName":"KVTR.TOKEN1","defaultPolicy":"strong","wsCTCStyle":1,)"
    R"("enableStrictPCI":1,"enableDynamicInstanceNames":0,"wsWebServerAuthTLSPort":443,)"
    R"("wsWebMutualAuthTLSPort":8443,"wsMaxCTCFailures":3,"hashIterations":10000,)"
    R"("wsDocumentRoot":"/srv/mfa","wsIDocumentRoot":"/opt/mfa","wsEnableOOBService":1,)"
    R"("wsEnableTOTPRegService":0,"wsEnableCertAuth":1,"wsEnableYubiEnrollment":1,)"
    R"("wsWebInitialTraceLevel":3,"CSPReportPolicy":"default-src self","wsCTCDisplay":0,)"
    R"("wsFIDisplay":1})";

TEST(StcSettings, EachKeyWithItsRule) {
  stcSettings *none = nullptr; // unlike the empty text, a null one is refused
  EXPECT_EQ(stcSettingsCreateFromJSON(nullptr, 0, &none), SETTINGS_MISSING_ARGUMENT);
  // The empty text gives the defaults. A refused member still hands out the
  // record, with the defaults applied.
  mfatest::expectCases(
      kStc, "",
      R"({"wsEnableCTCService":0,"maxAdminFailures":5,"wsAdminSessionTimeout":900,)"
      R"("sslTraceLevel":0,"wsHstsEnable":0,"wsHstsMaxAge":300,"wsHstsSubDom":0,)"
      R"("wsEnablePWChange":1,"wsCTCStyle":3,"enableStrictPCI":0,)"
      R"("enableDynamicInstanceNames":1,"wsWebServerAuthTLSPort":6793,)"
      R"("wsWebMutualAuthTLSPort":6794,"wsMaxCTCFailures":0,"hashIterations":4000,)"
      R"("wsDocumentRoot":"/opt/Velmora/kestrix/MFA/mfa",)"
      R"("wsIDocumentRoot":"/opt/Velmora/kestrix/MFA/mfa","wsEnableOOBService":1,)"
      R"("wsEnableTOTPRegService":1,"wsEnableCertAuth":0,"wsEnableYubiEnrollment":0,)"
      R"("wsWebInitialTraceLevel":0,"wsCTCDisplay":1,"wsFIDisplay":0})",
      {
          {R"({"wsEnableOOBService":0,"wsEnablePWChange":1,"wsCTCStyle":true,"wsHstsMaxAge":-5,)"
           R"("sslTraceLevel":4,"wsWebInitialTraceLevel":-1,"CSPReportPolicy":"",)"
           R"("wsWebServerAuthTLSPort":"80","DefaultPolicy":"x","bogus":{"defaultPolicy":"y"}})",
           0, ""},
          {R"({"wsCTCStyle":"8 Digit Mixed Case, Numeric, National","hashIterations":"12000"})", 0,
           "wsCTCStyle=2 hashIterations=12000"},
          {R"({"wsCTCStyle":1,"wsCTCStyle":"Unknown style","defaultPolicy":"a","defaultPolicy":"b"})",
           0, R"(defaultPolicy="a" wsCTCStyle=1)"},
          {R"({"wsCTCStyle":"8 digit upper case, numeric, national","hashIterations":"12x"})", 0,
           ""},
          {R"({"wsCTCStyle":7,"hashIterations":-1})", 0, "wsCTCStyle=7 hashIterations=-1"},
          {R"({"wsWebServerAuthTLSPort":70000,"defaultPolicy":"p"})", STCSETTINGS_BAD_TLS_PORT, ""},
          {R"({"wsWebMutualAuthTLSPort":65536})", STCSETTINGS_BAD_TLS_PORT, ""},
          {R"({"wsWebServerAuthTLSPort":65535,"wsHstsMaxAge":"abc"})", 0,
           "wsHstsMaxAge=0 wsWebServerAuthTLSPort=65535"},
          {R"({"wsWebServerAuthTLSPort":0,"wsWebMutualAuthTLSPort":0})", 0,
           "wsWebMutualAuthTLSPort=0"},
          {R"({"wsWebMutualAuthTLSPort":0,"wsEnableCertAuth":5})", 0, "wsEnableCertAuth=1"},
          {R"({"defaultPolicy":5,"defaultPolicy":"","tlsTrustLoc":"","tlsTrustLoc":"/t"})", 0,
           R"(tlsTrustLoc="/t" defaultPolicy="")"},
          {R"({"sslTraceLevel":3,"wsWebInitialTraceLevel":"2","wsDocumentRoot":"/d","sshUserId":"u"})",
           0, R"(sshUserId="u" sslTraceLevel=3 wsDocumentRoot="/d")"},
          {R"({"enableStrictPCI":true,"wsHstsEnable":5,"wsCTCDisplay":"yes",)"
           R"("wsEnableTOTPRegService":false,"wsEnableYubiEnrollment":9})",
           0,
           "wsHstsEnable=5 enableStrictPCI=1 wsEnableTOTPRegService=0 wsEnableYubiEnrollment=1 "
           "wsCTCDisplay=0"},
          {R"({"maxAdminFailures":"x","wsAdminSessionTimeout":60,"wsMaxCTCFailures":true})", 0,
           "wsAdminSessionTimeout=60"},
          {R"({"wsPKCSTokenName":""})", STCSETTINGS_NO_TOKEN_NAME, ""},
          {R"({"wsPKCSTokenName":5})", STCSETTINGS_NO_TOKEN_NAME, ""},
          {R"({"wsPKCSTokenName":"T1","wsPKCSTokenName":""})", 0, R"(wsPKCSTokenName="T1")"},
          {R"({"tlsP12Loc":"","sslTraceLevel":1})", STCSETTINGS_NO_P12_LOCATION, ""},
          {R"([{"defaultPolicy":"x"}])", 0, ""},
          {R"({"defaultPolicy":"x",)", 0, ""},
      });
}

// The listing's lines with each leading time stamp replaced by "<stamp>".
std::string listing(const stcSettings *settings) {
  std::string out = mfatest::captureStdout([&] { printSTCSettings(settings, "STC"); });
  static const std::regex stamp("^\\d{4}(-\\d{2}){5}\\.\\d{6} ", std::regex::multiline);
  return std::regex_replace(out, stamp, "<stamp> ");
}

TEST(StcSettings, FullRecordConvertsListsAndCopiesExactly) {
  stcSettings *settings = mfatest::made(kStc, kFull);
  ASSERT_NE(settings, nullptr);
  EXPECT_EQ(jsonOf(kStc, settings), kFull);
  mfatest::expectRoundTrip(kStc, settings);
  EXPECT_EQ(listing(settings), "<stamp> STC:STC Settings follow:\n"
                               "<stamp> STC:  PCI Compliance Mode: Enabled\n"
                               "<stamp> STC:  Initial trace level: 3\n"
                               "<stamp> STC:  PKCS#11 token name:  KVTR.TOKEN1\n"
                               "<stamp> STC:  Password Change UI:  Disabled\n"
                               "<stamp> STC:  TOTP Registration:   Disabled\n"
                               "<stamp> STC:  Out-of-band support: Enabled\n"
                               "<stamp> STC:  Client CTC display:  Disabled\n"
                               "<stamp> STC:  Factor Messages display: Enabled\n"
                               "<stamp> STC:  Certificate support: Enabled\n"
                               "<stamp> STC:  YubiKey enrollment support: Enabled\n"
                               "<stamp> STC:  Max checkCTC failures: 100\n"
                               "<stamp> STC:  Max policyAuth failures: 100\n"
                               "<stamp> STC:  CTC Broadcast Service: Enabled\n"
                               "<stamp> STC:  Orlin Agent Profile: orlin\n"
                               "<stamp> STC:  SSH Key path:/home/agent/.ssh/id.pub\n"
                               "<stamp> STC:  Max Admin login failures: 7\n"
                               "<stamp> STC:  Admin Session Timeout: 1200\n"
                               "<stamp> STC:  Send Strict-Transport-Security Header: Enabled\n"
                               "<stamp> STC:  HSTS max-age value: 600\n"
                               "<stamp> STC:  HSTS includeSubDomains: Enabled\n"
                               "<stamp> STC:  Document root: /srv/mfa\n"
                               "<stamp> STC:  Installation Document root: /opt/mfa\n"
                               "<stamp> STC:TLS Settings:\n"
                               "<stamp> STC:  Server-auth port:    443\n"
                               "<stamp> STC:  Client-auth port:    8443\n"
                               "<stamp> STC:  SSL Trace Level:     2\n"
                               "<stamp> STC:  Trust store path:    /etc/trust.p12\n"
                               "<stamp> STC:  PKCS#12 file path:   /etc/server.p12\n");

  stcSettings *copy = nullptr;
  ASSERT_EQ(stcSettingsCopy(settings, &copy), 0);
  EXPECT_TRUE(mfasettings::sameSettings(settings, copy));
  // Only unset fields of the destination are filled.
  auto *partial = safeMallocRecord<stcSettings>("test settings");
  partial->defaultPolicy = duplicateString("mine");
  partial->wsWebServerAuthTLSPort = 1;
  ASSERT_EQ(stcSettingsNonDestructiveCopy(settings, partial), 0);
  stcSettingsDestroy(settings);
  EXPECT_EQ(mfatest::memberChanges(kFull, jsonOf(kStc, partial)),
            R"(defaultPolicy="mine" wsWebServerAuthTLSPort=1)");
  EXPECT_EQ(partial->maxCheckCTCFailures, 100);
  stcSettingsDestroy(partial);
  stcSettingsDestroy(copy);

  // Without the broadcast service its two lines go; unset texts read NULL.
  settings = mfatest::made(kStc, "");
  std::string defaults = listing(settings);
  EXPECT_NE(defaults.find("STC:  CTC Broadcast Service: Disabled\n<stamp> STC:  Max Admin"),
            std::string::npos)
      << defaults;
  EXPECT_NE(defaults.find("STC:  PKCS#11 token name:  NULL\n"), std::string::npos);
  EXPECT_NE(defaults.find("STC:  PKCS#12 file path:   NULL\n"), std::string::npos);
  stcSettingsDestroy(settings);
  EXPECT_EQ(listing(nullptr), "");
}

} // namespace
