#include "base/jsonprint.h"

#include "base/alloc.h"
#include "base/charsets.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

constexpr int kConversionRetries = 10;
constexpr int kWriteAttempts = 11;
constexpr int kJsonBufferFirstSize = 1024;
constexpr int kJsonBufferMaxDoublingSize = 1073741823;

bool stopped(const jsonPrinter *printer) {
  return printer == nullptr || printer->ioError != 0;
}

// Punctuation, numbers and keywords: already UTF-8, never escaped.
void writeUtf8(jsonPrinter *printer, std::string_view text) {
  jsonConvertAndWriteBuffer(printer, text.data(), static_cast<int>(text.size()), 0,
                            JSON_UTF8_CCSID);
}

// Text in the caller's code page.
void writeSourceText(jsonPrinter *printer, const char *bytes, int length, bool escape) {
  jsonConvertAndWriteBuffer(printer, bytes, length, escape ? 1 : 0, printer->sourceCodePage);
}

// The separator rule shared by every document call that begins an item.
// False when the printer has stopped writing.
bool beginItem(jsonPrinter *printer) {
  if (stopped(printer))
    return false;
  if (printer->firstItem)
    printer->firstItem = 0;
  else
    jsonNewLine(printer);
  return true;
}

// The one path of every member and element: separator, key, then the value.
template <typename WriteValue>
void addItem(jsonPrinter *printer, const char *key, WriteValue &&writeValue) {
  if (!beginItem(printer))
    return;
  jsonWriteKeyAndSemicolon(printer, key);
  writeValue();
}

void startContainer(jsonPrinter *printer, const char *key, std::string_view bracket) {
  addItem(printer, key, [&] {
    writeUtf8(printer, bracket);
    printer->depth++;
    printer->justOpened = 1;
    printer->justClosed = 0;
  });
}

void endContainer(jsonPrinter *printer, std::string_view bracket) {
  if (stopped(printer))
    return;
  printer->depth--;
  printer->justOpened = 0;
  printer->justClosed = 1;
  jsonNewLine(printer);
  writeUtf8(printer, bracket);
}

template <typename T> void writeFormatted(jsonPrinter *printer, const char *format, T value) {
  char text[512]; // enough for "%f" of the largest double
  int length = snprintf(text, sizeof text, format, value);
  if (length > 0)
    writeUtf8(printer, std::string_view(text, std::min<size_t>(length, sizeof text - 1)));
}

int textLength(const char *text) {
  return text == nullptr ? 0 : static_cast<int>(strlen(text));
}

// Length of the UTF-8 multi-byte sequence that starts at bytes[at], or 1. Only genuine
// continuation bytes are taken along, so a quote or control character that
// follows a broken lead byte is still escaped.
int sequenceLength(const unsigned char *bytes, int at, int length) {
  unsigned char lead = bytes[at];
  int expected = (lead & 0xE0) == 0xC0   ? 2
                 : (lead & 0xF0) == 0xE0 ? 3
                 : (lead & 0xF8) == 0xF0 ? 4
                                         : 1;
  int taken = 1;
  while (taken < expected && at + taken < length && (bytes[at + taken] & 0xC0) == 0x80)
    taken++;
  return taken;
}

JsonBuffer *bufferOf(jsonPrinter *printer) {
  return printer == nullptr ? nullptr : static_cast<JsonBuffer *>(printer->sinkData);
}

StringWriterContext *writerOf(jsonPrinter *printer) {
  return printer == nullptr ? nullptr : static_cast<StringWriterContext *>(printer->sinkData);
}

// Doubles the data until needed more bytes fit; false when the size limit is
// reached or memory is short.
bool growJsonBuffer(JsonBuffer *buffer, int needed) {
  while (buffer->size - buffer->len < needed) {
    if (buffer->size > kJsonBufferMaxDoublingSize || buffer->size <= 0)
      return false;
    char *grown =
        safeRealloc(buffer->data, buffer->size * 2, buffer->size, "JSON buffer data realloc");
    if (grown == nullptr)
      return false;
    buffer->data = grown;
    buffer->size *= 2;
  }
  return true;
}

jsonPrinter *newPrinter(const char *label, int fd, JsonSink *sink, void *sinkData, int mode,
                        int codePage) {
  auto *printer = safeMallocRecord<jsonPrinter>(label);
  if (printer == nullptr)
    return nullptr;
  printer->fd = fd;
  printer->hasSink = sink != nullptr;
  printer->sink = sink;
  printer->sinkData = sinkData;
  jsonPrinterReset(printer);
  printer->mode = mode;
  printer->sourceCodePage = codePage;
  return printer;
}

} // namespace

extern "C" {

jsonPrinter *makeJsonPrinter(int fd) {
  return newPrinter("JSON Printer", fd, nullptr, nullptr, JSON_MODE_NATIVE_CHARSET, 0);
}

jsonPrinter *makeUtf8JsonPrinter(int fd, int codePage) {
  return newPrinter("JSON Printer", fd, nullptr, nullptr, JSON_MODE_CONVERT_TO_UTF8, codePage);
}

jsonPrinter *makeCustomJsonPrinter(JsonSink *sink, void *sinkData) {
  return newPrinter("JSON Custom Printer", -1, sink, sinkData, JSON_MODE_NATIVE_CHARSET, 0);
}

jsonPrinter *makeCustomUtf8JsonPrinter(JsonSink *sink, void *sinkData, int codePage) {
  return newPrinter("JSON Custom Printer", -1, sink, sinkData, JSON_MODE_CONVERT_TO_UTF8, codePage);
}

jsonPrinter *makeBufferJsonPrinter(int codePage, JsonBuffer *buffer) {
  return makeCustomUtf8JsonPrinter(writeToBuffer, buffer, codePage);
}

void jsonPrinterReset(jsonPrinter *printer) {
  if (printer == nullptr)
    return;
  printer->depth = 0;
  printer->indentUnit = "  ";
  printer->justOpened = 1;
  printer->firstItem = 1;
  printer->conversionBuffer = nullptr;
  printer->conversionBufferSize = 0;
  printer->mode = JSON_MODE_NATIVE_CHARSET;
}

void jsonEnablePrettyPrint(jsonPrinter *printer) {
  if (printer != nullptr)
    printer->pretty = 1;
}

void freeJsonPrinter(jsonPrinter *printer) {
  if (printer == nullptr)
    return;
  safeFree(printer->conversionBuffer, static_cast<int>(printer->conversionBufferSize));
  safeFreeRecord(printer);
}

JsonBuffer *makeJsonBuffer(void) {
  auto *buffer = safeMallocRecord<JsonBuffer>("JSON buffer");
  if (buffer == nullptr)
    return nullptr;
  buffer->data = safeMalloc(kJsonBufferFirstSize, "JSON buffer data");
  if (buffer->data == nullptr) {
    safeFreeRecord(buffer);
    return nullptr;
  }
  buffer->size = kJsonBufferFirstSize;
  return buffer;
}

// Past the used length the data is as zero-filled: nothing is ever written
// there, and rewinding zeroes what was.
void freeJsonBuffer(JsonBuffer *buffer) {
  if (buffer == nullptr)
    return;
  safeFreeUsed(buffer->data, buffer->size, buffer->len);
  safeFreeRecord(buffer);
}

void jsonBufferTerminateString(JsonBuffer *buffer) {
  if (buffer == nullptr || !growJsonBuffer(buffer, 1))
    return;
  buffer->data[buffer->len++] = '\0';
}

char *jsonBufferCopy(JsonBuffer *buffer) {
  if (buffer == nullptr)
    return nullptr;
  char *copy = safeMalloc(buffer->len, "copyJsonBuffer");
  if (copy != nullptr && buffer->len > 0)
    memcpy(copy, buffer->data, static_cast<size_t>(buffer->len));
  return copy;
}

void jsonBufferRewind(JsonBuffer *buffer) {
  if (buffer == nullptr)
    return;
  memset(buffer->data, 0, static_cast<size_t>(buffer->len));
  buffer->len = 0;
}

int writeToBuffer(jsonPrinter *printer, const char *bytes, int length) {
  JsonBuffer *buffer = bufferOf(printer);
  if (buffer == nullptr || length < 0 || !growJsonBuffer(buffer, length)) {
    jsonSetIOErrorFlag(printer);
    return -1;
  }
  if (length > 0)
    memcpy(buffer->data + buffer->len, bytes, static_cast<size_t>(length));
  buffer->len += length;
  return length;
}

int createStringWriterContext(uint64_t capacity, StringWriterContext **context) {
  if (context == nullptr)
    return 0;
  auto *writer = safeMallocRecord<StringWriterContext>("StringWriterContext");
  *context = writer;
  if (writer == nullptr)
    return 0;
  capacity = std::max<uint64_t>(capacity, 1);
  if (capacity <= INT_MAX)
    writer->stringBuffer =
        safeMalloc(static_cast<int>(capacity), "StringWriterContext stringBuffer");
  if (writer->stringBuffer != nullptr) {
    writer->capacity = capacity;
    writer->remaining = capacity - 1; // the terminator's byte
  }
  return 0;
}

void destroyStringWriterContext(StringWriterContext *context) {
  if (context == nullptr)
    return;
  // Both are wiped before release; of the buffer only the accounted text and
  // its terminator can have been written, the rest is still as zero-filled.
  safeFreeUsed(context->stringBuffer, static_cast<int>(context->capacity),
               static_cast<int>(context->capacity - context->remaining));
  safeFreeRecord(context);
}

jsonPrinter *makeStringWriterCustomJsonPrinter(uint64_t capacity) {
  StringWriterContext *writer = nullptr;
  createStringWriterContext(capacity, &writer);
  if (writer == nullptr || writer->stringBuffer == nullptr) {
    destroyStringWriterContext(writer);
    return nullptr;
  }
  jsonPrinter *printer = makeCustomJsonPrinter(writeToStringWriterJsonPrinter, writer);
  if (printer == nullptr)
    destroyStringWriterContext(writer);
  return printer;
}

void destroyStringWriterCustomJsonPrinter(jsonPrinter *printer) {
  destroyStringWriterContext(writerOf(printer));
  freeJsonPrinter(printer);
}

uint64_t SWCJP_getLength(jsonPrinter *printer) {
  StringWriterContext *writer = writerOf(printer);
  // The kept-back terminator byte is not part of the text.
  return writer == nullptr || writer->capacity == 0 ? 0 : writer->capacity - 1 - writer->remaining;
}

char *SWCJP_getStringPtr(jsonPrinter *printer) {
  StringWriterContext *writer = writerOf(printer);
  return writer == nullptr ? nullptr : writer->stringBuffer;
}

uint64_t SWCJP_copyBytes(jsonPrinter *printer, char *destination, uint64_t destinationSize) {
  uint64_t length = SWCJP_getLength(printer);
  if (destination == nullptr || destinationSize < length || length == 0)
    return 0;
  // Past the text the buffer holds only zeros, so this matches a strncpy of
  // length bytes, padding included.
  memcpy(destination, SWCJP_getStringPtr(printer), length);
  return length;
}

int writeToStringWriterJsonPrinter(jsonPrinter *printer, const char *bytes, int length) {
  StringWriterContext *writer = writerOf(printer);
  if (writer == nullptr || writer->stringBuffer == nullptr || length < 0 ||
      writer->remaining < static_cast<uint64_t>(length))
    return 0;
  if (length == 0)
    return 0;
  // What strncat would append at the end of the text, without looking for
  // that end: the buffer past it is still zero, so the text stays terminated.
  size_t appended = strnlen(bytes, static_cast<size_t>(length));
  memcpy(writer->stringBuffer + writer->end, bytes, appended);
  writer->end += appended;
  writer->remaining -= static_cast<uint64_t>(length);
  return length;
}

void jsonStart(jsonPrinter *printer) {
  jsonStartObject(printer, nullptr);
}
void jsonEnd(jsonPrinter *printer) {
  jsonEndObject(printer);
}
void jsonStartObject(jsonPrinter *printer, const char *key) {
  startContainer(printer, key, "{");
}
void jsonEndObject(jsonPrinter *printer) {
  endContainer(printer, "}");
}
void jsonStartArray(jsonPrinter *printer, const char *key) {
  startContainer(printer, key, "[");
}
void jsonEndArray(jsonPrinter *printer) {
  endContainer(printer, "]");
}

void jsonAddString(jsonPrinter *printer, const char *key, const char *text) {
  addItem(printer, key, [&] { jsonWriteQuotedString(printer, text); });
}

void jsonAddUnterminatedString(jsonPrinter *printer, const char *key, const char *bytes,
                               int length) {
  addItem(printer, key, [&] { jsonWriteQuotedUnterminatedString(printer, bytes, length); });
}

void jsonAddLimitedString(jsonPrinter *printer, const char *key, const char *bytes, int length) {
  // Signed on purpose: bytes from 0x80 up are dropped along with control characters.
  while (bytes != nullptr && length > 0 && static_cast<signed char>(bytes[length - 1]) <= 31)
    length--;
  jsonAddUnterminatedString(printer, key, bytes, length);
}

void jsonAddJSONString(jsonPrinter *printer, const char *key, const char *text) {
  // A missing fragment still leaves the document well-formed.
  jsonAddUnterminatedJSONString(printer, key, text == nullptr ? "null" : text,
                                text == nullptr ? 4 : textLength(text));
}

void jsonAddUnterminatedJSONString(jsonPrinter *printer, const char *key, const char *bytes,
                                   int length) {
  addItem(printer, key, [&] { writeSourceText(printer, bytes, length, false); });
}

void jsonAddInt(jsonPrinter *printer, const char *key, int value) {
  addItem(printer, key, [&] { jsonWriteInt(printer, value); });
}

void jsonAddUInt(jsonPrinter *printer, const char *key, unsigned int value) {
  addItem(printer, key, [&] { jsonWriteUInt(printer, value); });
}

void jsonAddInt64(jsonPrinter *printer, const char *key, int64_t value) {
  addItem(printer, key, [&] { jsonWriteInt64(printer, value); });
}

void jsonAddDouble(jsonPrinter *printer, const char *key, double value) {
  addItem(printer, key, [&] { jsonWriteDouble(printer, value); });
}

void jsonAddBoolean(jsonPrinter *printer, const char *key, int flag) {
  addItem(printer, key, [&] { jsonWriteBoolean(printer, flag); });
}

void jsonAddNull(jsonPrinter *printer, const char *key) {
  addItem(printer, key, [&] { jsonWriteNull(printer); });
}

void jsonStartMultipartString(jsonPrinter *printer, const char *key) {
  addItem(printer, key, [&] {
    writeUtf8(printer, "\"");
    printer->inMultipartString = 1;
  });
}

void jsonAppendStringPart(jsonPrinter *printer, const char *text) {
  jsonAppendUnterminatedStringPart(printer, text, textLength(text));
}

void jsonAppendUnterminatedStringPart(jsonPrinter *printer, const char *bytes, int length) {
  if (!stopped(printer) && printer->inMultipartString)
    writeSourceText(printer, bytes, length, true);
}

void jsonEndMultipartString(jsonPrinter *printer) {
  if (stopped(printer) || !printer->inMultipartString)
    return;
  writeUtf8(printer, "\"");
  printer->inMultipartString = 0;
}

void jsonSetIOErrorFlag(jsonPrinter *printer) {
  if (printer != nullptr)
    printer->ioError = 1;
}

int jsonShouldStopWriting(jsonPrinter *printer) {
  return stopped(printer) ? 1 : 0;
}
int jsonCheckIOErrorFlag(jsonPrinter *printer) {
  return stopped(printer) ? 1 : 0;
}

void jsonWrite(jsonPrinter *printer, const char *text, int escape, int codePage) {
  jsonConvertAndWriteBuffer(printer, text, textLength(text), escape, codePage);
}

void jsonConvertAndWriteBuffer(jsonPrinter *printer, const char *bytes, int length, int escape,
                               int codePage) {
  if (stopped(printer) || length <= 0 || bytes == nullptr)
    return;
  if (printer->mode != JSON_MODE_CONVERT_TO_UTF8) {
    if (escape)
      jsonWriteEscapedString(printer, bytes, length);
    else
      jsonWriteBufferInternal(printer, bytes, length);
    return;
  }
  if (codePage != JSON_UTF8_CCSID) {
    int converted = convertToUtf8(printer, length, bytes, codePage);
    if (converted < 0) {
      fprintf(stderr, "jsonConvertAndWriteBuffer() error: newLen = %d\n", converted);
      return;
    }
    bytes = printer->conversionBuffer;
    length = converted;
  }
  if (escape)
    writeBufferWithEscaping(printer, bytes, length);
  else
    jsonWriteBufferInternal(printer, bytes, length);
}

void jsonWriteBufferInternal(jsonPrinter *printer, const char *bytes, int length) {
  if (stopped(printer))
    return;
  if (printer->hasSink) {
    printer->sink(printer, bytes, length);
    return;
  }
  int written = 0;
  for (int attempt = 1; written < length; ++attempt) {
    ssize_t result = write(printer->fd, bytes + written, static_cast<size_t>(length - written));
    if (result < 0) {
      fprintf(stderr, "JSON: write error, rc %d, return code %d, reason code %08X\n",
              static_cast<int>(result), 0, 0);
      printer->ioError = 1;
      return;
    }
    written += static_cast<int>(result);
    if (attempt >= kWriteAttempts) {
      fprintf(stderr, "JSON: write error, too many attempts\n");
      printer->ioError = 1;
      return;
    }
  }
}

void jsonNewLine(jsonPrinter *printer) {
  if (stopped(printer))
    return;
  if (printer->justClosed)
    printer->justClosed = 0;
  else if (printer->justOpened)
    printer->justOpened = 0;
  else
    writeUtf8(printer, ",");
  if (printer->pretty) {
    writeUtf8(printer, "\n");
    jsonIndent(printer);
  }
}

void jsonIndent(jsonPrinter *printer) {
  if (stopped(printer))
    return;
  for (int level = 0; level < printer->depth; ++level)
    writeUtf8(printer, printer->indentUnit);
}

void jsonWriteKeyAndSemicolon(jsonPrinter *printer, const char *key) {
  if (key == nullptr || stopped(printer))
    return;
  jsonWriteQuotedString(printer, key);
  writeUtf8(printer, printer->pretty ? ": " : ":");
}

void jsonWriteQuotedString(jsonPrinter *printer, const char *text) {
  jsonWriteQuotedUnterminatedString(printer, text, textLength(text));
}

void jsonWriteQuotedUnterminatedString(jsonPrinter *printer, const char *bytes, int length) {
  if (stopped(printer))
    return;
  writeUtf8(printer, "\"");
  writeSourceText(printer, bytes, length, true);
  writeUtf8(printer, "\"");
}

void jsonWriteInt(jsonPrinter *printer, int value) {
  writeFormatted(printer, "%d", value);
}

void jsonWriteUInt(jsonPrinter *printer, unsigned int value) {
  writeFormatted(printer, "%u", value);
}

void jsonWriteInt64(jsonPrinter *printer, int64_t value) {
  writeFormatted(printer, "%lld", static_cast<long long>(value));
}

void jsonWriteDouble(jsonPrinter *printer, double value) {
  writeFormatted(printer, "%f", value);
}

void jsonWriteBoolean(jsonPrinter *printer, int flag) {
  writeUtf8(printer, flag ? "true" : "false");
}

void jsonWriteNull(jsonPrinter *printer) {
  writeUtf8(printer, "null");
}

void jsonWriteEscapedString(jsonPrinter *printer, const char *bytes, int length) {
  if (stopped(printer) || length <= 0)
    return;
  auto needsEscape = [](char c) { return c == '"' || c == '\\' || c == '\n' || c == '\r'; };
  int count = static_cast<int>(std::count_if(bytes, bytes + length, needsEscape));
  if (count == 0) {
    jsonWriteBufferInternal(printer, bytes, length);
    return;
  }
  int escapedLength = length + count;
  char *escaped = safeMalloc(escapedLength, "JSON escaped string");
  if (escaped == nullptr)
    return;
  char *out = escaped;
  for (int i = 0; i < length; ++i) {
    char c = bytes[i];
    if (needsEscape(c)) {
      *out++ = '\\';
      c = c == '\n' ? 'n' : c == '\r' ? 'r' : c;
    }
    *out++ = c;
  }
  jsonWriteBufferInternal(printer, escaped, escapedLength);
  safeFree(escaped, escapedLength);
}

void writeBufferWithEscaping(jsonPrinter *printer, const char *bytes, int length) {
  if (stopped(printer) || length <= 0)
    return;
  auto *text = reinterpret_cast<const unsigned char *>(bytes);
  int runStart = 0;
  int at = 0;
  while (at < length) {
    unsigned char c = text[at];
    int step = sequenceLength(text, at, length);
    if (step == 1 && (c < 32 || c == '\\' || c == '"')) {
      jsonWriteBufferInternal(printer, bytes + runStart, at - runStart);
      char escape[8];
      if (c < 32)
        snprintf(escape, sizeof escape, "\\u%04x", c);
      else
        snprintf(escape, sizeof escape, "\\%c", c);
      jsonWriteBufferInternal(printer, escape, static_cast<int>(strlen(escape)));
      runStart = at + 1;
    }
    at += step;
  }
  jsonWriteBufferInternal(printer, bytes + runStart, length - runStart);
}

int convertToUtf8(jsonPrinter *printer, int length, const char *bytes, int codePage) {
  bool grow = printer->conversionBuffer == nullptr;
  for (int retries = 0;; ++retries) {
    if (grow) {
      int64_t newSize = std::max<int64_t>(printer->conversionBufferSize + 8192,
                                          3 * static_cast<int64_t>(length) + 1);
      char *grown = newSize > INT_MAX
                        ? nullptr
                        : safeRealloc(printer->conversionBuffer, static_cast<int>(newSize),
                                      static_cast<int>(printer->conversionBufferSize),
                                      "JSON conversion buffer");
      if (grown == nullptr) {
        fprintf(stderr, "JSON: error, not enough memory to convert\n");
        return -1;
      }
      printer->conversionBuffer = grown;
      printer->conversionBufferSize = newSize;
    }
    char *output = printer->conversionBuffer;
    int outputLength = 0;
    int reason = 0;
    int rc = convertCharset(bytes, length, codePage, CHARSET_MODE_CALLER_BUFFER, &output,
                            static_cast<int>(printer->conversionBufferSize), JSON_UTF8_CCSID,
                            nullptr, &outputLength, &reason);
    if (rc == 0)
      return outputLength;
    if (rc != CHARSET_OUTPUT_TOO_SMALL) {
      fprintf(stderr, "JSON: conversion error, rc %d, reason %d\n", rc, reason);
      return -1;
    }
    if (retries == kConversionRetries)
      return length; // give up; the buffer is written as it stands
    grow = true;
  }
}

} // extern "C"
