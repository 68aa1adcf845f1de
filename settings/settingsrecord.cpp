#include "settings/settingsrecord_internal.h"

#include <charconv>

#include "base/jsonprint.h"
#include "mfadata/factordata.h"

namespace mfasettings {
namespace {

constexpr int kParseBlockSize = 65536;
constexpr int kParseMaxBlocks = 100;
constexpr int kParseErrorSize = 128;

} // namespace

bool readFlag(Json *value, int *number) {
  *number = jsonIsBoolean(value)  ? jsonAsBoolean(value)
            : jsonIsNumber(value) ? jsonAsNumber(value)
                                  : 0;
  return true;
}

bool readNumber(Json *value, int *number) {
  if (!jsonIsNumber(value))
    return false;
  *number = jsonAsNumber(value);
  return true;
}

bool readNumberOrZero(Json *value, int *number) {
  *number = jsonAsNumber(value);
  return true;
}

bool readNumberOrDecimal(Json *value, int *number) {
  const char *text = jsonAsString(value);
  if (text == nullptr)
    return readNumberOrZero(value, number);
  const char *end = text + strlen(text);
  int parsed = 0;
  auto [stop, error] = std::from_chars(text, end, parsed);
  *number = error == std::errc() && stop == end ? parsed : 0;
  return true;
}

jsonPrinter *startJson(uint64_t capacity) {
  jsonPrinter *printer = makeStringWriterCustomJsonPrinter(capacity);
  if (printer != nullptr)
    jsonStartObject(printer, nullptr);
  return printer;
}

int finishJson(jsonPrinter *printer, char *out, int *length) {
  jsonEndObject(printer);
  int needed = static_cast<int>(SWCJP_getLength(printer));
  int status = 0;
  if (out == nullptr || *length < needed)
    status = SETTINGS_BUFFER_TOO_SMALL;
  else
    memcpy(out, SWCJP_getStringPtr(printer), static_cast<size_t>(needed));
  *length = needed;
  destroyStringWriterCustomJsonPrinter(printer);
  return status;
}

ShortLivedHeap *makeParseHeap() {
  return makeShortLivedHeap(kParseBlockSize, kParseMaxBlocks);
}

JsonObject *parseObject(ShortLivedHeap *heap, const char *text, int length) {
  char error[kParseErrorSize] = "";
  return jsonAsObject(jsonParseUnterminatedString(heap, text, length, error, sizeof error));
}

int readSettingsText(dbctx *context, const char *factorName, char *buffer, int capacity, int *gavrc,
                     int *korsrc, int *korsrsn) {
  uint64_t length = static_cast<uint64_t>(capacity);
  int status =
      kfactor_get_factorwide_settings(context, factorName, buffer, &length, gavrc, korsrc, korsrsn);
  // An empty value leaves the length as it was; the buffer arrives zeroed
  // and a stored text never holds a NUL byte, so its first byte tells.
  if (status != 0 || *gavrc != 0 || buffer[0] == '\0')
    return -1;
  return static_cast<int>(length);
}

} // namespace mfasettings
