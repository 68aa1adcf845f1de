// Any bytes given to the three settings readers: no crash, no leak, and a
// record's JSON form is a fixed point once read. The first pass may drop
// what that form does not carry (a negative TOTP failure count, the YubiKey
// label, an empty CSP policy); from the second pass on, writing and reading
// again must give an equal record and the same text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "settings/serversettings.h"
#include "settings/settingsrecord_internal.h"
#include "settings/totpsettings.h"
#include "settings/yubisettings.h"

namespace {

template <typename Record> struct Reader {
  int (*create)(const char *, int, Record **);
  int (*convert)(const Record *, char *, int *);
  void (*destroy)(Record *);

  // The JSON form, sized by a first call without a buffer.
  std::string text(const Record *record) const {
    int length = 0;
    if (convert(record, nullptr, &length) != SETTINGS_BUFFER_TOO_SMALL)
      abort();
    std::string json(static_cast<size_t>(length), '\0');
    if (convert(record, json.data(), &length) != 0 || length != static_cast<int>(json.size()))
      abort();
    return json;
  }

  // A record read from a JSON form, which must be accepted whole.
  Record *reread(const std::string &json) const {
    Record *record = nullptr;
    if (create(json.data(), static_cast<int>(json.size()), &record) != 0 || record == nullptr)
      abort();
    return record;
  }

  void check(const uint8_t *data, size_t size) const {
    Record *first = nullptr;
    // The server record comes back even with a refused member.
    create(reinterpret_cast<const char *>(data), static_cast<int>(size), &first);
    if (first == nullptr)
      return;
    Record *second = reread(text(first));
    std::string secondText = text(second);
    Record *third = reread(secondText);
    if (!mfasettings::sameSettings(second, third) || text(third) != secondText)
      abort();
    destroy(first);
    destroy(second);
    destroy(third);
  }
};

const Reader<stcSettings> kServer = {stcSettingsCreateFromJSON, stcSettingsConvertToJSON,
                                     stcSettingsDestroy};
const Reader<totpSettings> kTotp = {totpSettingsCreateFromJSON, totpSettingsConvertToJSON,
                                    totpSettingsDestroy};
const Reader<yubiSettings> kYubi = {yubiSettingsCreateFromJSON, yubiSettingsConvertToJSON,
                                    yubiSettingsDestroy};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 1 << 20)
    return 0;
  kServer.check(data, size);
  kTotp.check(data, size);
  kYubi.check(data, size);
  return 0;
}
