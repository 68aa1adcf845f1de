#include "base/json.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/charsets.h"
#include "base/files.h"
#include "base/jsonprint.h"

namespace {

constexpr int kEndOfInput = -1;
constexpr int kFirstTokenBufferSize = 16384;
constexpr int kMessageSize = 1024;
constexpr int kFirstArrayCapacity = 8;
constexpr int kUtf8Ccsid = 1208;

// The parser recurses once per open object or array. The language itself
// sets no limit, but a hostile text of a few hundred kilobytes of [ would
// otherwise exhaust the stack; no document of this system nests anywhere
// near this deep, so deeper input fails with a positioned message.
constexpr int kMaxDepth = 1000;

// Token texts that never vary are not copied into the heap. They are
// writable only because JsonToken::text is; nothing writes them.
char kTextObjectStart[] = "{";
char kTextObjectEnd[] = "}";
char kTextColon[] = ":";
char kTextComma[] = ",";
char kTextArrayStart[] = "[";
char kTextArrayEnd[] = "]";
char kTextEof[] = "EOF";
char kTextEmpty[] = "";

// Character classes of the C locale, independent of the process locale.
enum : unsigned char { kSpace = 1, kDigit = 2, kAlpha = 4 };

constexpr auto kClasses = [] {
  struct {
    unsigned char of[256] = {};
  } t;
  for (int c : {' ', '\t', '\n', '\v', '\f', '\r'})
    t.of[c] = kSpace;
  for (int c = '0'; c <= '9'; c++)
    t.of[c] = kDigit;
  for (int c = 'a'; c <= 'z'; c++)
    t.of[c] = t.of[c - 'a' + 'A'] = kAlpha;
  return t;
}();

// c is a character as delivered (a signed byte widened, or -1).
inline bool hasClass(int c, unsigned char cls) {
  return (kClasses.of[static_cast<unsigned char>(c)] & cls) != 0 && c != kEndOfInput;
}
inline bool isSpace(int c) {
  return hasClass(c, kSpace);
}
inline bool isDigit(int c) {
  return hasClass(c, kDigit);
}
inline bool isAlpha(int c) {
  return hasClass(c, kAlpha);
}
inline bool isPrintable(int c) {
  return c >= 0x20 && c < 0x7f;
}

// ---- Character streams ----------------------------------------------------

int bufferGetChar(CharStream *stream) {
  if (stream->position >= stream->length)
    return kEndOfInput;
  return static_cast<signed char>(static_cast<const char *>(stream->source)[stream->position++]);
}

int streamPosition(CharStream *stream) {
  return stream->position;
}

int streamIsEOF(CharStream *stream) {
  return stream->position >= stream->length;
}

void bufferClose(CharStream *stream) {
  safeFreeRecord(stream);
}

int fileStreamGetChar(CharStream *stream) {
  if (stream->position >= stream->length)
    return kEndOfInput;
  int returnCode = 0, reasonCode = 0;
  int c = fileGetChar(static_cast<UnixFile *>(stream->source), &returnCode, &reasonCode);
  stream->position++;
  return c;
}

void fileStreamClose(CharStream *stream) {
  int returnCode = 0, reasonCode = 0;
  fileClose(static_cast<UnixFile *>(stream->source), &returnCode, &reasonCode);
  safeFreeRecord(stream);
}

CharStream *makeStream(void *source, int length, const char *label, int (*getChar)(CharStream *),
                       void (*close)(CharStream *)) {
  auto *stream = safeMallocRecord<CharStream>(label);
  if (stream == nullptr)
    return nullptr;
  stream->source = source;
  stream->length = length;
  stream->getChar = getChar;
  stream->getPosition = streamPosition;
  stream->isEOF = streamIsEOF;
  stream->close = close;
  return stream;
}

// ---- Failure recording ----------------------------------------------------

// Keeps the first failure of a parse as the parser's error value, its
// message prefixed with the position of the current token.
[[gnu::format(printf, 2, 3)]] void recordFailure(JsonParser *parser, const char *format, ...) {
  if (parser->error != nullptr)
    return;
  JsonTokenizer *tokenizer = parser->tokenizer;
  char *message = SLHAlloc(parser->slh, kMessageSize);
  auto *error = reinterpret_cast<Json *>(SLHAlloc(parser->slh, sizeof(Json)));
  auto *record = reinterpret_cast<JsonError *>(SLHAlloc(parser->slh, sizeof(JsonError)));
  int size = kMessageSize;
  if (message == nullptr || error == nullptr || record == nullptr) {
    message = parser->fallbackMessage;
    size = sizeof(parser->fallbackMessage);
    error = &parser->fallbackError;
    record = &parser->fallbackErrorRecord;
  }
  int prefix = snprintf(message, size, "%d:%d: ", tokenizer->tokenLine, tokenizer->tokenColumn);
  va_list args;
  va_start(args, format);
  vsnprintf(message + prefix, size - prefix, format, args);
  va_end(args);
  record->message = message;
  error->type = JSON_TYPE_ERROR;
  error->data.error = record;
  parser->error = error;
}

// Zero-filled heap piece; a failure is recorded and null returned.
template <typename T> T *heapAlloc(JsonParser *parser, int size = sizeof(T)) {
  char *piece = SLHAlloc(parser->slh, size);
  if (piece == nullptr) {
    recordFailure(parser, "not enough memory");
    return nullptr;
  }
  memset(piece, 0, size);
  return reinterpret_cast<T *>(piece);
}

// ---- Tokenizer ------------------------------------------------------------

// Reads one character from the stream and moves the position. The in-memory
// stream is read inline: it is the common case and costs a few instructions.
inline int readFromStream(JsonTokenizer *tokenizer) {
  CharStream *stream = tokenizer->stream;
  int c;
  if (stream->getChar == bufferGetChar) [[likely]] {
    c = stream->position < stream->length ? static_cast<signed char>(static_cast<const char *>(
                                                stream->source)[stream->position++])
                                          : kEndOfInput;
  } else {
    c = stream->getChar(stream);
  }
  if (c == '\n') {
    tokenizer->line++;
    tokenizer->column = 0;
  } else if (tokenizer->column < INT_MAX) {
    tokenizer->column++;
  }
  return c;
}

inline int nextChar(JsonTokenizer *tokenizer) {
  int c = tokenizer->pushback;
  if (c != 0) {
    tokenizer->pushback = 0;
    return c;
  }
  return readFromStream(tokenizer);
}

// 0 means an empty slot, so a NUL read here is not held: the next look-ahead
// reads past it.
inline int peekChar(JsonTokenizer *tokenizer) {
  if (tokenizer->pushback == 0)
    tokenizer->pushback = readFromStream(tokenizer);
  return tokenizer->pushback;
}

// Token text collected in the tokenizer's buffer. Only strings may grow it;
// everything else drops what does not fit.
struct TokenText {
  JsonTokenizer *tokenizer;
  int length = 0;

  bool fits() const { return length + 1 < tokenizer->bufferSize; }
  void add(int c) {
    if (fits())
      tokenizer->buffer[length++] = static_cast<char>(c);
  }
  // Doubles a full buffer up to 64 MiB; false when the string is too long.
  bool addGrowing(int c) {
    if (!fits()) {
      int size = tokenizer->bufferSize;
      if (size > 1073741822 || size * 2 > 104857599)
        return false;
      char *bigger = safeRealloc(tokenizer->buffer, size * 2, size, "JSON token buffer");
      if (bigger == nullptr)
        return false;
      tokenizer->buffer = bigger;
      tokenizer->bufferSize = size * 2;
    }
    tokenizer->buffer[length++] = static_cast<char>(c);
    return true;
  }
};

void setToken(JsonParser *parser, JsonToken *token, int type, const TokenText &text) {
  token->type = type;
  char *copy = SLHAlloc(parser->slh, text.length + 1);
  if (copy == nullptr) {
    recordFailure(parser, "not enough memory");
    token->type = JSON_TOKEN_UNMATCHED;
    token->text = kTextEmpty;
    return;
  }
  memcpy(copy, parser->tokenizer->buffer, text.length);
  copy[text.length] = '\0';
  token->text = copy;
}

void setToken(JsonToken *token, int type, char *text) {
  token->type = type;
  token->text = text;
}

int unescape(int c) {
  switch (c) {
  case 'b':
    return '\b';
  case 'f':
    return '\f';
  case 'n':
    return '\n';
  case 'r':
    return '\r';
  case 't':
    return '\t';
  default:
    return c; // also \u: "\u0041" reads as u0041
  }
}

void scanString(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *tokenizer = parser->tokenizer;
  TokenText text{tokenizer};
  nextChar(tokenizer);
  for (;;) {
    int c = nextChar(tokenizer);
    if (c == '"')
      return setToken(parser, token, JSON_TOKEN_STRING, text);
    bool escaped = c == '\\';
    if (escaped)
      c = nextChar(tokenizer);
    // A line feed or the end is left for the next token, so the failure
    // names the text collected so far.
    if (c == kEndOfInput || (c == '\n' && !escaped)) {
      tokenizer->pushback = c;
      return setToken(parser, token, JSON_TOKEN_UNTERMINATED_STRING, text);
    }
    if (!text.addGrowing(escaped ? unescape(c) : c))
      return setToken(token, JSON_TOKEN_STRING_TOO_LONG, kTextEmpty);
  }
}

void addDigits(JsonTokenizer *tokenizer, TokenText &text) {
  while (isDigit(peekChar(tokenizer)))
    text.add(nextChar(tokenizer));
}

void scanNumber(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *tokenizer = parser->tokenizer;
  TokenText text{tokenizer};
  if (peekChar(tokenizer) == '-') {
    text.add(nextChar(tokenizer));
    if (!isDigit(peekChar(tokenizer))) {
      nextChar(tokenizer);
      return setToken(parser, token, JSON_TOKEN_BAD_NUMBER, text);
    }
  }
  addDigits(tokenizer, text);
  if (parser->numberDialect != JSON_DIALECT_64BIT)
    return setToken(parser, token, JSON_TOKEN_NUMBER, text);
  if (peekChar(tokenizer) != '.')
    return setToken(parser, token, JSON_TOKEN_INT64, text);
  text.add(nextChar(tokenizer));
  if (!isDigit(peekChar(tokenizer)))
    return setToken(parser, token, JSON_TOKEN_BAD_NUMBER, text);
  addDigits(tokenizer, text);
  setToken(parser, token, JSON_TOKEN_DOUBLE, text);
}

void scanWord(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *tokenizer = parser->tokenizer;
  TokenText text{tokenizer};
  while (isAlpha(peekChar(tokenizer)))
    text.add(nextChar(tokenizer));
  std::string_view word(tokenizer->buffer, text.length);
  int type = word == "true" || word == "false" ? JSON_TOKEN_BOOLEAN
             : word == "null"                  ? JSON_TOKEN_NULL
                                               : JSON_TOKEN_BAD_WORD;
  setToken(parser, token, type, text);
}

void scanComment(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *tokenizer = parser->tokenizer;
  TokenText text{tokenizer};
  nextChar(tokenizer);
  int c = nextChar(tokenizer);
  if (c == '/') {
    while (peekChar(tokenizer) != '\n' && peekChar(tokenizer) != kEndOfInput)
      nextChar(tokenizer);
    return setToken(token, JSON_TOKEN_LINE_COMMENT, kTextEmpty);
  }
  if (c == '*') {
    for (;;) {
      c = nextChar(tokenizer);
      if (c == kEndOfInput)
        return setToken(parser, token, JSON_TOKEN_UNTERMINATED_COMMENT, text);
      if (c == '*' && peekChar(tokenizer) == '/') {
        nextChar(tokenizer);
        return setToken(token, JSON_TOKEN_BLOCK_COMMENT, kTextEmpty);
      }
      text.add(c);
    }
  }
  text.add('/');
  if (isPrintable(c))
    text.add(c);
  setToken(parser, token, JSON_TOKEN_BAD_COMMENT_START, text);
}

void scanPunctuation(JsonTokenizer *tokenizer, JsonToken *token, int type, char *text) {
  nextChar(tokenizer);
  setToken(token, type, text);
}

// One raw token, comments included.
void scanToken(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *tokenizer = parser->tokenizer;
  while (isSpace(peekChar(tokenizer)))
    nextChar(tokenizer);
  // A second look: when the first one met a NUL, which the slot cannot hold,
  // this reads past it.
  int c = peekChar(tokenizer);
  tokenizer->tokenLine = tokenizer->line;
  tokenizer->tokenColumn = tokenizer->column;
  if (c == '"')
    return scanString(parser, token);
  if (c == '-' || isDigit(c))
    return scanNumber(parser, token);
  if (isAlpha(c))
    return scanWord(parser, token);
  switch (c) {
  case '{':
    return scanPunctuation(tokenizer, token, JSON_TOKEN_OBJECT_START, kTextObjectStart);
  case '}':
    return scanPunctuation(tokenizer, token, JSON_TOKEN_OBJECT_END, kTextObjectEnd);
  case ':':
    return scanPunctuation(tokenizer, token, JSON_TOKEN_COLON, kTextColon);
  case ',':
    return scanPunctuation(tokenizer, token, JSON_TOKEN_COMMA, kTextComma);
  // 0xBA and 0xBB are where the brackets stand in EBCDIC code page 037;
  // text converted with that table still parses.
  case '[':
  case static_cast<signed char>(0xBA):
    return scanPunctuation(tokenizer, token, JSON_TOKEN_ARRAY_START, kTextArrayStart);
  case ']':
  case static_cast<signed char>(0xBB):
    return scanPunctuation(tokenizer, token, JSON_TOKEN_ARRAY_END, kTextArrayEnd);
  case '/':
    return scanComment(parser, token);
  case kEndOfInput:
    return setToken(token, JSON_TOKEN_EOF, kTextEof);
  default:
    recordFailure(parser, "unexpected character %c(0x%x)\n", c, static_cast<unsigned>(c));
    return setToken(token, JSON_TOKEN_UNEXPECTED_CHARACTER, kTextEmpty);
  }
}

void validateToken(JsonParser *parser, JsonToken *token) {
  switch (token->type) {
  case JSON_TOKEN_UNTERMINATED_STRING:
    return recordFailure(parser, "unterminated string \"%s", token->text);
  case JSON_TOKEN_UNTERMINATED_COMMENT:
    return recordFailure(parser, "unterminated comment /*%s", token->text);
  case JSON_TOKEN_BAD_COMMENT_START:
    return recordFailure(parser, "invalid comment start %s, must be // or /*", token->text);
  case JSON_TOKEN_STRING_TOO_LONG:
    return recordFailure(parser, "string length exceeded the limit");
  default:
    return;
  }
}

// ---- Grammar --------------------------------------------------------------

Json *parseValue(JsonParser *parser);

Json *errorValue(JsonParser *parser) {
  return parser->error;
}

Json *makeValue(JsonParser *parser, int type) {
  Json *value = heapAlloc<Json>(parser);
  if (value != nullptr)
    value->type = type;
  return value;
}

Json *parseObject(JsonParser *parser) {
  jsonMatchToken(parser, JSON_TOKEN_OBJECT_START);
  Json *result = makeValue(parser, JSON_TYPE_OBJECT);
  JsonObject *object = heapAlloc<JsonObject>(parser);
  if (result == nullptr || object == nullptr)
    return errorValue(parser);
  result->data.object = object;
  while (jsonLookaheadToken(parser)->type == JSON_TOKEN_STRING) {
    char *key = jsonMatchToken(parser, JSON_TOKEN_STRING)->text;
    if (jsonIsTokenUnmatched(jsonMatchToken(parser, JSON_TOKEN_COLON)))
      return errorValue(parser);
    Json *value = parseValue(parser);
    if (jsonIsError(value))
      return value;
    if (jsonOjectAddProperty(parser, object, key, value) != 0)
      return errorValue(parser);
    if (jsonLookaheadToken(parser)->type != JSON_TOKEN_COMMA)
      break;
    jsonMatchToken(parser, JSON_TOKEN_COMMA);
  }
  if (jsonIsTokenUnmatched(jsonMatchToken(parser, JSON_TOKEN_OBJECT_END)))
    return errorValue(parser);
  return result;
}

Json *parseArray(JsonParser *parser) {
  jsonMatchToken(parser, JSON_TOKEN_ARRAY_START);
  Json *result = makeValue(parser, JSON_TYPE_ARRAY);
  JsonArray *array = heapAlloc<JsonArray>(parser);
  Json **elements = heapAlloc<Json *>(parser, kFirstArrayCapacity * sizeof(Json *));
  if (result == nullptr || array == nullptr || elements == nullptr)
    return errorValue(parser);
  array->elements = elements;
  array->capacity = kFirstArrayCapacity;
  result->data.array = array;
  while (jsonLookaheadToken(parser)->type != JSON_TOKEN_ARRAY_END) {
    Json *value = parseValue(parser);
    if (jsonIsError(value))
      return value;
    if (jsonArrayAddElement(parser, array, value) != 0)
      return errorValue(parser);
    if (jsonLookaheadToken(parser)->type != JSON_TOKEN_COMMA)
      break;
    jsonMatchToken(parser, JSON_TOKEN_COMMA);
  }
  if (jsonIsTokenUnmatched(jsonMatchToken(parser, JSON_TOKEN_ARRAY_END)))
    return errorValue(parser);
  return result;
}

// Objects and arrays, with the nesting depth checked and counted.
Json *parseContainer(JsonParser *parser, Json *(*parse)(JsonParser *)) {
  if (parser->depth >= kMaxDepth) {
    recordFailure(parser, "nesting deeper than %d levels", kMaxDepth);
    return errorValue(parser);
  }
  parser->depth++;
  Json *value = parse(parser);
  parser->depth--;
  return value;
}

double toDouble(const char *text) {
  double result = 0.0;
  const char *end = text + strlen(text);
  bool negative = *text == '-';
  auto [rest, error] = std::from_chars(text, end, result);
  if (error == std::errc::result_out_of_range) {
    // Digits are all there is (no exponents), so a value out of range is
    // either huge or a long run of zeros after the point.
    const char *digits = text + (negative ? 1 : 0);
    const char *firstNonZero = digits + strspn(digits, "0");
    bool tiny = *firstNonZero == '.' || *firstNonZero == '\0';
    result = tiny ? 0.0 : HUGE_VAL;
    if (negative)
      result = -result;
  }
  return result;
}

Json *parseScalar(JsonParser *parser, int tokenType, int valueType) {
  const char *text = jsonMatchToken(parser, tokenType)->text;
  Json *value = makeValue(parser, valueType);
  if (value == nullptr)
    return errorValue(parser);
  switch (tokenType) {
  // Overflow is not detected: the long result is cut to 32 bits.
  case JSON_TOKEN_NUMBER:
    value->data.number = static_cast<int>(strtol(text, nullptr, 10));
    break;
  case JSON_TOKEN_INT64:
    value->data.number64 = strtoll(text, nullptr, 10);
    break;
  case JSON_TOKEN_DOUBLE:
    value->data.dnumber = toDouble(text);
    break;
  case JSON_TOKEN_STRING:
    value->data.string = const_cast<char *>(text);
    break;
  case JSON_TOKEN_BOOLEAN:
    value->data.boolean = strcmp(text, "true") == 0;
    break;
  default:
    break;
  }
  return value;
}

Json *parseValue(JsonParser *parser) {
  JsonToken *token = jsonLookaheadToken(parser);
  switch (token->type) {
  case JSON_TOKEN_NUMBER:
    return parseScalar(parser, token->type, JSON_TYPE_NUMBER);
  case JSON_TOKEN_INT64:
    return parseScalar(parser, token->type, JSON_TYPE_INT64);
  case JSON_TOKEN_DOUBLE:
    return parseScalar(parser, token->type, JSON_TYPE_DOUBLE);
  case JSON_TOKEN_STRING:
    return parseScalar(parser, token->type, JSON_TYPE_STRING);
  case JSON_TOKEN_BOOLEAN:
    return parseScalar(parser, token->type, JSON_TYPE_BOOLEAN);
  case JSON_TOKEN_NULL:
    return parseScalar(parser, token->type, JSON_TYPE_NULL);
  case JSON_TOKEN_OBJECT_START:
    return parseContainer(parser, parseObject);
  case JSON_TOKEN_ARRAY_START:
    return parseContainer(parser, parseArray);
  default:
    recordFailure(parser, "unexpected %s", token->text);
    return errorValue(parser);
  }
}

// ---- Parser construction and the entry points ----------------------------

JsonParser *makeParserOver(ShortLivedHeap *slh, CharStream *stream) {
  auto *parser = safeMallocRecord<JsonParser>("JSON Parser");
  auto *tokenizer = safeMallocRecord<JsonTokenizer>("JSON Tokenizer");
  char *buffer = safeMalloc(kFirstTokenBufferSize, "JSON token buffer");
  if (parser == nullptr || tokenizer == nullptr || buffer == nullptr) {
    safeFree(buffer, kFirstTokenBufferSize);
    safeFreeRecord(tokenizer);
    safeFreeRecord(parser);
    stream->close(stream);
    return nullptr;
  }
  tokenizer->stream = stream;
  tokenizer->slh = slh;
  tokenizer->line = 1;
  tokenizer->buffer = buffer;
  tokenizer->bufferSize = kFirstTokenBufferSize;
  parser->tokenizer = tokenizer;
  parser->slh = slh;
  parser->stream = stream;
  parser->numberDialect = JSON_DIALECT_32BIT;
  return parser;
}

void copyOut(char *errorText, int errorSize, const char *message) {
  if (errorText != nullptr && errorSize > 0)
    snprintf(errorText, errorSize, "%s", message);
}

// One value followed by the end of input; the parser is freed.
Json *parseDocument(JsonParser *parser, char *errorText, int errorSize) {
  if (parser == nullptr) {
    copyOut(errorText, errorSize, "not enough memory");
    return nullptr;
  }
  Json *value = jsonParse(parser);
  if (!jsonIsError(value))
    jsonMatchToken(parser, JSON_TOKEN_EOF);
  if (parser->error != nullptr) {
    copyOut(errorText, errorSize, parser->error->data.error->message);
    value = nullptr;
  }
  freeJsonParser(parser);
  return value;
}

Json *jsonParseFileInternal(ShortLivedHeap *slh, const char *path, char *errorText, int errorSize,
                            int dialect) {
  int returnCode = 0, reasonCode = 0;
  UnixFile *file = path != nullptr ? fileOpen(path, 0, 0, 1024, &returnCode, &reasonCode) : nullptr;
  FileInfo info;
  if (file == nullptr || fileInfo(path, &info, &returnCode, &reasonCode) != 0 ||
      fileInfoIsDirectory(&info) || fileInfoSize(&info) > INT_MAX) {
    fileClose(file, &returnCode, &reasonCode);
    if (errorText != nullptr && errorSize > 0)
      snprintf(errorText, errorSize, "Couldn't open '%s'", path != nullptr ? path : "");
    return nullptr;
  }
  JsonParser *parser = makeJsonFileParser(slh, file, static_cast<int>(fileInfoSize(&info)));
  if (parser != nullptr)
    parser->numberDialect = dialect;
  return parseDocument(parser, errorText, errorSize);
}

const JsonProperty *findProperty(JsonObject *object, const char *key) {
  if (object == nullptr || key == nullptr)
    return nullptr;
  for (JsonProperty *p = object->firstProperty; p != nullptr; p = p->next)
    if (p->key != nullptr && strcmp(p->key, key) == 0)
      return p;
  return nullptr;
}

int64_t doubleToInt64(double value) {
  if (std::isnan(value))
    return 0;
  if (value >= 9223372036854775808.0)
    return INT64_MAX;
  if (value <= -9223372036854775808.0)
    return INT64_MIN;
  return static_cast<int64_t>(value);
}

// A checked read: the value of key and its status.
template <typename T>
T checkedProperty(JsonObject *object, const char *key, int *status, int (*isType)(Json *),
                  T (*as)(Json *), T otherwise) {
  Json *value = jsonObjectGetPropertyValue(object, key);
  int found = value == nullptr ? JSON_PROPERTY_MISSING
              : !isType(value) ? JSON_PROPERTY_WRONG_TYPE
                               : JSON_PROPERTY_FOUND;
  if (status != nullptr)
    *status = found;
  return found == JSON_PROPERTY_FOUND ? as(value) : otherwise;
}

void printValue(jsonPrinter *printer, const char *key, Json *value) {
  switch (value->type) {
  case JSON_TYPE_NUMBER:
    return jsonAddInt(printer, key, value->data.number);
  case JSON_TYPE_STRING:
    return jsonAddString(printer, key, value->data.string);
  case JSON_TYPE_BOOLEAN:
    return jsonAddBoolean(printer, key, value->data.boolean);
  case JSON_TYPE_NULL:
    return jsonAddNull(printer, key);
  case JSON_TYPE_INT64:
    return jsonAddInt64(printer, key, value->data.number64);
  case JSON_TYPE_DOUBLE:
    return jsonAddDouble(printer, key, value->data.dnumber);
  case JSON_TYPE_OBJECT:
    jsonStartObject(printer, key);
    for (JsonProperty *p = value->data.object->firstProperty; p != nullptr; p = p->next)
      if (p->value != nullptr)
        printValue(printer, p->key, p->value);
    return jsonEndObject(printer);
  case JSON_TYPE_ARRAY: {
    jsonStartArray(printer, key);
    JsonArray *array = value->data.array;
    for (int i = 0; i < array->count; i++)
      if (array->elements[i] != nullptr)
        printValue(printer, nullptr, array->elements[i]);
    return jsonEndArray(printer);
  }
  default:
    return;
  }
}

} // namespace

extern "C" {

CharStream *makeBufferCharStream(const char *bytes, int length) {
  if (length < 0 || (bytes == nullptr && length > 0))
    return nullptr;
  return makeStream(const_cast<char *>(bytes), length, "CharStream", bufferGetChar, bufferClose);
}

CharStream *makeFileCharStream(UnixFile *file, int length) {
  if (file == nullptr || length < 0)
    return nullptr;
  return makeStream(file, length, "FileCharStream", fileStreamGetChar, fileStreamClose);
}

JsonParser *makeJsonParser(ShortLivedHeap *slh, const char *bytes, int length) {
  if (slh == nullptr)
    return nullptr;
  CharStream *stream = makeBufferCharStream(bytes, length);
  return stream != nullptr ? makeParserOver(slh, stream) : nullptr;
}

JsonParser *makeJsonFileParser(ShortLivedHeap *slh, UnixFile *file, int size) {
  CharStream *stream = slh != nullptr ? makeFileCharStream(file, size) : nullptr;
  if (stream == nullptr) {
    int returnCode = 0, reasonCode = 0;
    fileClose(file, &returnCode, &reasonCode);
    return nullptr;
  }
  return makeParserOver(slh, stream);
}

void freeJsonParser(JsonParser *parser) {
  if (parser == nullptr)
    return;
  parser->stream->close(parser->stream);
  JsonTokenizer *tokenizer = parser->tokenizer;
  safeFree(tokenizer->buffer, tokenizer->bufferSize);
  safeFreeRecord(tokenizer);
  safeFreeRecord(parser);
}

JsonToken *jsonNextToken(JsonParser *parser) {
  JsonToken *token = parser->lookahead;
  if (token != nullptr) {
    parser->lookahead = nullptr;
    return token;
  }
  token = &parser->token;
  do {
    scanToken(parser, token);
  } while (token->type == JSON_TOKEN_LINE_COMMENT || token->type == JSON_TOKEN_BLOCK_COMMENT);
  validateToken(parser, token);
  return token;
}

JsonToken *jsonLookaheadToken(JsonParser *parser) {
  if (parser->lookahead == nullptr)
    parser->lookahead = jsonNextToken(parser);
  return parser->lookahead;
}

JsonToken *jsonMatchToken(JsonParser *parser, int expected) {
  JsonToken *token = jsonNextToken(parser);
  if (token->type == expected)
    return token;
  const char *expectedName = getTokenTypeString(expected);
  const char *arrivedName = getTokenTypeString(token->type);
  switch (token->type) {
  case JSON_TOKEN_NUMBER:
  case JSON_TOKEN_BOOLEAN:
    recordFailure(parser, "expected %s, got %s %s\n", expectedName, arrivedName, token->text);
    break;
  case JSON_TOKEN_STRING:
    recordFailure(parser, "expected %s, got %s \"%s\"\n", expectedName, arrivedName, token->text);
    break;
  case JSON_TOKEN_NULL:
  case JSON_TOKEN_EOF:
    recordFailure(parser, "expected %s, got %s\n", expectedName, arrivedName);
    break;
  default:
    recordFailure(parser, "expected %s, got %s", expectedName, token->text);
    break;
  }
  token->type = JSON_TOKEN_UNMATCHED;
  return token;
}

Json *jsonParse(JsonParser *parser) {
  return parseValue(parser);
}

int jsonIsError(Json *value) {
  return value != nullptr && value->type == JSON_TYPE_ERROR;
}

int jsonIsTokenUnmatched(JsonToken *token) {
  return token != nullptr && token->type == JSON_TOKEN_UNMATCHED;
}

const char *getTokenTypeString(int type) {
  switch (type) {
  case JSON_TOKEN_NUMBER:
    return "number";
  case JSON_TOKEN_STRING:
    return "string";
  case JSON_TOKEN_BOOLEAN:
    return "boolean";
  case JSON_TOKEN_COLON:
    return ":";
  case JSON_TOKEN_COMMA:
    return ",";
  case JSON_TOKEN_NULL:
    return "null";
  case JSON_TOKEN_OBJECT_START:
    return "{";
  case JSON_TOKEN_OBJECT_END:
    return "}";
  case JSON_TOKEN_ARRAY_START:
    return "[";
  case JSON_TOKEN_ARRAY_END:
    return "]";
  case JSON_TOKEN_EOF:
    return "end of file";
  case JSON_TOKEN_BAD_WORD:
    return "bad reserved word";
  case JSON_TOKEN_UNTERMINATED_STRING:
    return "unterminated string";
  case JSON_TOKEN_BAD_NUMBER:
    return "bad number";
  case JSON_TOKEN_UNEXPECTED_CHARACTER:
    return "unexpected character";
  case JSON_TOKEN_STRING_TOO_LONG:
    return "string too long";
  case JSON_TOKEN_DOUBLE:
    return "float";
  case JSON_TOKEN_UNMATCHED:
    return "unmatched token";
  default:
    return "unknown token";
  }
}

int jsonOjectAddProperty(JsonParser *parser, JsonObject *object, char *key, Json *value) {
  if (parser == nullptr || object == nullptr)
    return 1;
  JsonProperty *property = heapAlloc<JsonProperty>(parser);
  if (property == nullptr)
    return 1;
  property->key = key;
  property->value = value;
  if (object->lastProperty != nullptr)
    object->lastProperty->next = property;
  else
    object->firstProperty = property;
  object->lastProperty = property;
  return 0;
}

int jsonArrayAddElement(JsonParser *parser, JsonArray *array, Json *value) {
  if (parser == nullptr || array == nullptr)
    return 1;
  if (array->count >= array->capacity) {
    int capacity = array->capacity > 0 ? array->capacity : kFirstArrayCapacity / 2;
    if (capacity > INT_MAX / 2 / static_cast<int>(sizeof(Json *))) {
      recordFailure(parser, "not enough memory");
      return 1;
    }
    capacity *= 2;
    Json **elements = heapAlloc<Json *>(parser, capacity * sizeof(Json *));
    if (elements == nullptr)
      return 1;
    if (array->count > 0)
      memcpy(elements, array->elements, array->count * sizeof(Json *));
    array->elements = elements;
    array->capacity = capacity;
  }
  array->elements[array->count++] = value;
  return 0;
}

Json *jsonParseString(ShortLivedHeap *slh, const char *text, char *errorText, int errorSize) {
  int length = 0;
  if (text != nullptr) {
    size_t size = strlen(text);
    length = size > INT_MAX ? INT_MAX : static_cast<int>(size);
  }
  return jsonParseUnterminatedString(slh, text, length, errorText, errorSize);
}

Json *jsonParseUnterminatedString(ShortLivedHeap *slh, const char *bytes, int length,
                                  char *errorText, int errorSize) {
  return parseDocument(makeJsonParser(slh, bytes, length), errorText, errorSize);
}

Json *jsonParseUnterminatedUtf8String(ShortLivedHeap *slh, int codePage, const char *bytes,
                                      int length, char *errorText, int errorSize) {
  if (slh != nullptr && length == 0)
    return jsonParseUnterminatedString(slh, bytes, 0, errorText, errorSize);
  char *converted =
      slh != nullptr && length > 0 && length <= INT_MAX / 2 ? SLHAlloc(slh, 2 * length) : nullptr;
  if (converted == nullptr) {
    copyOut(errorText, errorSize, "not enough memory");
    return nullptr;
  }
  int convertedLength = 0, reason = 0;
  int rc = convertCharset(bytes, length, kUtf8Ccsid, CHARSET_MODE_CALLER_BUFFER, &converted,
                          2 * length, codePage, slh, &convertedLength, &reason);
  if (rc != CHARSET_OK) {
    if (errorText != nullptr && errorSize > 0)
      snprintf(errorText, errorSize, "could not convert from UTF8: conversion rc %d, reason %d", rc,
               reason);
    return nullptr;
  }
  return jsonParseUnterminatedString(slh, converted, convertedLength, errorText, errorSize);
}

Json *jsonParseFile(ShortLivedHeap *slh, const char *path, char *errorText, int errorSize) {
  return jsonParseFileInternal(slh, path, errorText, errorSize, JSON_DIALECT_32BIT);
}

Json *jsonParseFile2(ShortLivedHeap *slh, const char *path, char *errorText, int errorSize) {
  return jsonParseFileInternal(slh, path, errorText, errorSize, JSON_DIALECT_64BIT);
}

int jsonIsObject(Json *value) {
  return value != nullptr && value->type == JSON_TYPE_OBJECT;
}
int jsonIsArray(Json *value) {
  return value != nullptr && value->type == JSON_TYPE_ARRAY;
}
int jsonIsString(Json *value) {
  return value != nullptr && value->type == JSON_TYPE_STRING;
}
int jsonIsBoolean(Json *value) {
  return value != nullptr && value->type == JSON_TYPE_BOOLEAN;
}
int jsonIsNull(Json *value) {
  return value != nullptr && value->type == JSON_TYPE_NULL;
}
int jsonIsInt64(Json *value) {
  return value != nullptr && value->type == JSON_TYPE_INT64;
}
int jsonIsDouble(Json *value) {
  return value != nullptr && value->type == JSON_TYPE_DOUBLE;
}

int jsonIsNumber(Json *value) {
  return value != nullptr && (value->type == JSON_TYPE_NUMBER || value->type == JSON_TYPE_INT64 ||
                              value->type == JSON_TYPE_DOUBLE);
}

JsonObject *jsonAsObject(Json *value) {
  return jsonIsObject(value) ? value->data.object : nullptr;
}
JsonArray *jsonAsArray(Json *value) {
  return jsonIsArray(value) ? value->data.array : nullptr;
}
char *jsonAsString(Json *value) {
  return jsonIsString(value) ? value->data.string : nullptr;
}
int jsonAsBoolean(Json *value) {
  return jsonIsBoolean(value) ? value->data.boolean : 0;
}

int jsonAsNumber(Json *value) {
  if (value == nullptr)
    return 0;
  switch (value->type) {
  case JSON_TYPE_NUMBER:
    return value->data.number;
  case JSON_TYPE_INT64:
    return static_cast<int>(value->data.number64);
  default:
    return 0; // a double is deliberately not converted here
  }
}

int64_t jsonAsInt64(Json *value) {
  if (value == nullptr)
    return 0;
  switch (value->type) {
  case JSON_TYPE_NUMBER:
    return value->data.number;
  case JSON_TYPE_INT64:
    return value->data.number64;
  case JSON_TYPE_DOUBLE:
    return doubleToInt64(value->data.dnumber);
  default:
    return 0;
  }
}

double jsonAsDouble(Json *value) {
  if (value == nullptr)
    return 0.0;
  switch (value->type) {
  case JSON_TYPE_NUMBER:
    return value->data.number;
  case JSON_TYPE_INT64:
    return static_cast<double>(value->data.number64);
  case JSON_TYPE_DOUBLE:
    return value->data.dnumber;
  default:
    return 0.0;
  }
}

JsonProperty *jsonObjectGetFirstProperty(JsonObject *object) {
  return object != nullptr ? object->firstProperty : nullptr;
}
JsonProperty *jsonObjectGetNextProperty(JsonProperty *property) {
  return property != nullptr ? property->next : nullptr;
}
char *jsonPropertyGetKey(JsonProperty *property) {
  return property != nullptr ? property->key : nullptr;
}
Json *jsonPropertyGetValue(JsonProperty *property) {
  return property != nullptr ? property->value : nullptr;
}

Json *jsonObjectGetPropertyValue(JsonObject *object, const char *key) {
  const JsonProperty *property = findProperty(object, key);
  return property != nullptr ? property->value : nullptr;
}

int jsonObjectHasKey(JsonObject *object, const char *key) {
  return findProperty(object, key) != nullptr;
}

JsonArray *jsonObjectGetArray(JsonObject *object, const char *key) {
  return jsonAsArray(jsonObjectGetPropertyValue(object, key));
}
int jsonObjectGetBoolean(JsonObject *object, const char *key) {
  return jsonAsBoolean(jsonObjectGetPropertyValue(object, key));
}
int jsonObjectGetNumber(JsonObject *object, const char *key) {
  return jsonAsNumber(jsonObjectGetPropertyValue(object, key));
}
JsonObject *jsonObjectGetObject(JsonObject *object, const char *key) {
  return jsonAsObject(jsonObjectGetPropertyValue(object, key));
}
char *jsonObjectGetString(JsonObject *object, const char *key) {
  return jsonAsString(jsonObjectGetPropertyValue(object, key));
}

int jsonArrayGetCount(JsonArray *array) {
  return array != nullptr ? array->count : 0;
}

Json *jsonArrayGetItem(JsonArray *array, int index) {
  if (array == nullptr || index < 0 || index >= array->count)
    return nullptr;
  return array->elements[index];
}

JsonArray *jsonArrayGetArray(JsonArray *array, int index) {
  return jsonAsArray(jsonArrayGetItem(array, index));
}
int jsonArrayGetBoolean(JsonArray *array, int index) {
  return jsonAsBoolean(jsonArrayGetItem(array, index));
}
int jsonArrayGetNumber(JsonArray *array, int index) {
  return jsonAsNumber(jsonArrayGetItem(array, index));
}
JsonObject *jsonArrayGetObject(JsonArray *array, int index) {
  return jsonAsObject(jsonArrayGetItem(array, index));
}
char *jsonArrayGetString(JsonArray *array, int index) {
  return jsonAsString(jsonArrayGetItem(array, index));
}

int jsonArrayContainsString(JsonArray *array, const char *text) {
  if (text == nullptr)
    return 0;
  for (int i = 0; i < jsonArrayGetCount(array); i++) {
    const char *element = jsonArrayGetString(array, i);
    if (element != nullptr && strcmp(element, text) == 0)
      return 1;
  }
  return 0;
}

int jsonVerifyHomogeneity(JsonArray *array, int type) {
  for (int i = 0; i < jsonArrayGetCount(array); i++) {
    Json *element = array->elements[i];
    if (element == nullptr || element->type != type)
      return 0;
  }
  return 1;
}

JsonArray *jsonArrayProperty(JsonObject *object, const char *key, int *status) {
  return checkedProperty<JsonArray *>(object, key, status, jsonIsArray, jsonAsArray, nullptr);
}

char *jsonStringProperty(JsonObject *object, const char *key, int *status) {
  return checkedProperty<char *>(object, key, status, jsonIsString, jsonAsString, nullptr);
}

JsonObject *jsonObjectProperty(JsonObject *object, const char *key, int *status) {
  return checkedProperty<JsonObject *>(object, key, status, jsonIsObject, jsonAsObject, nullptr);
}

int jsonIntProperty(JsonObject *object, const char *key, int *status, int defaultValue) {
  return checkedProperty<int>(object, key, status, jsonIsNumber, jsonAsNumber, defaultValue);
}

void reportJSONDataProblem(JsonObject *object, int status, const char *key) {
  // The address is shown cut to 32 bits, as in the rest of the diagnostics.
  auto address = static_cast<unsigned>(reinterpret_cast<uintptr_t>(object));
  key = key != nullptr ? key : "";
  if (status == JSON_PROPERTY_MISSING)
    printf("JSON property '%s' not found in object at 0x%x\n", key, address);
  else if (status == JSON_PROPERTY_WRONG_TYPE)
    printf("JSON property '%s' has wrong type in object at 0x%x\n", key, address);
}

int64_t hashString(const char *text) {
  uint64_t hash = 5381;
  for (const char *p = text; p != nullptr && *p != '\0'; p++)
    hash = hash * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(*p)));
  return static_cast<int64_t>(hash & INT64_MAX);
}

int64_t jsonLongHash(Json *value) {
  if (value == nullptr)
    return 0;
  constexpr uint64_t kLow56 = (uint64_t{1} << 56) - 1;
  uint64_t hash = static_cast<uint64_t>(value->type & 0xff) << 56;
  switch (value->type) {
  case JSON_TYPE_NUMBER:
    hash |= static_cast<uint64_t>(static_cast<int64_t>(value->data.number)) & kLow56;
    break;
  case JSON_TYPE_STRING:
    hash |= static_cast<uint64_t>(hashString(value->data.string)) & kLow56;
    break;
  case JSON_TYPE_BOOLEAN:
    hash |= value->data.boolean ? 1 : 0;
    break;
  case JSON_TYPE_OBJECT:
    hash |= reinterpret_cast<uintptr_t>(value->data.object);
    break;
  case JSON_TYPE_ARRAY:
    hash |= reinterpret_cast<uintptr_t>(value->data.array);
    break;
  case JSON_TYPE_INT64:
    hash |= static_cast<uint64_t>(value->data.number64) & kLow56;
    break;
  case JSON_TYPE_DOUBLE:
    hash |= static_cast<uint64_t>(doubleToInt64(value->data.dnumber)) & kLow56;
    break;
  default:
    break;
  }
  return static_cast<int64_t>(hash);
}

void jsonPrint(jsonPrinter *printer, Json *value) {
  if (printer != nullptr && value != nullptr)
    printValue(printer, nullptr, value);
}

int filterFromPrinting(jsonPrinter *printer, void *a, void *b) {
  if (printer == nullptr || printer->filter == nullptr)
    return 0;
  return printer->filter(printer->filterData, a, b);
}

} // extern "C"
