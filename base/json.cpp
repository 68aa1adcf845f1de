#include "base/json.h"

#include <algorithm>
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
char kTextTrue[] = "true";
char kTextFalse[] = "false";
char kTextNull[] = "null";

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

// c is a character as delivered (a signed byte widened, or -1, which like
// the byte 0xFF has no class).
inline bool hasClass(int c, unsigned char cls) {
  return (kClasses.of[static_cast<unsigned char>(c)] & cls) != 0;
}
inline bool isSpace(int c) {
  return hasClass(c, kSpace);
}
inline bool isDigit(int c) {
  return static_cast<unsigned>(c - '0') < 10;
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

// A zero-filled heap piece that starts with a copy of the first `copied`
// bytes of from; a failure is recorded and null returned.
char *heapPiece(JsonParser *parser, int size, const void *from = nullptr, int copied = 0) {
  char *piece = SLHAllocInline(parser->slh, size);
  if (piece == nullptr) {
    recordFailure(parser, "not enough memory");
    return nullptr;
  }
  if (copied > 0)
    memcpy(piece, from, copied);
  memset(piece + copied, 0, size - copied);
  return piece;
}

template <typename T> T *heapAlloc(JsonParser *parser) {
  char *piece = SLHAllocInline(parser->slh, sizeof(T));
  if (piece == nullptr) {
    recordFailure(parser, "not enough memory");
    return nullptr;
  }
  memset(piece, 0, sizeof(T));
  return reinterpret_cast<T *>(piece);
}

// ---- Tokenizer ------------------------------------------------------------
//
// The rules are stated one character at a time (read, look ahead, take);
// the common tokens are scanned in runs of bytes with the same outcome, and
// the three primitives handle whatever breaks a run.

// Bytes that end a run: in a string, in a line comment, in a block comment.
// Each holds the byte 0xFF, which reads as the end.
constexpr auto kStops = [] {
  struct {
    unsigned char of[256] = {};
  } t;
  for (char c : {'"', '\\', '\n', '\xff'})
    t.of[static_cast<unsigned char>(c)] |= 1;
  for (char c : {'\n', '\0', '\xff'})
    t.of[static_cast<unsigned char>(c)] |= 2;
  for (char c : {'*', '\n', '\xff'})
    t.of[static_cast<unsigned char>(c)] |= 4;
  return t;
}();
enum : unsigned char { kStringStop = 1, kLineCommentStop = 2, kBlockCommentStop = 4 };

// The first byte from p on that is of class stop, or end.
inline const char *runEnd(const char *p, const char *end, unsigned char stop) {
  while (p < end && (kStops.of[static_cast<unsigned char>(*p)] & stop) == 0)
    p++;
  return p;
}

inline void newLine(JsonTokenizer *t) {
  if (t->line < INT_MAX)
    t->line++;
  t->lineStart = t->next;
}

// Reads one character: the end reads as -1 every time it is read.
inline int readChar(JsonTokenizer *t) {
  if (t->next == t->end) {
    t->endReads++;
    return kEndOfInput;
  }
  int c = static_cast<signed char>(*t->next++);
  if (c == '\n')
    newLine(t);
  return c;
}

inline int nextChar(JsonTokenizer *t) {
  int c = t->pushback;
  if (c != 0) {
    t->pushback = 0;
    return c;
  }
  return readChar(t);
}

// 0 means an empty slot, so a NUL read here is not held: the next look-ahead
// reads past it.
inline int peekChar(JsonTokenizer *t) {
  if (t->pushback == 0)
    t->pushback = readChar(t);
  return t->pushback;
}

int column(const JsonTokenizer *t) {
  int64_t column = (t->next - t->lineStart) + static_cast<int64_t>(t->endReads);
  return column > INT_MAX ? INT_MAX : static_cast<int>(column);
}

// Texts are cut to one byte less than the token buffer, as collecting them
// there would.
inline int textLimit(const JsonTokenizer *t) {
  return t->bufferSize - 1;
}

// The buffer doubles while it is at most 1073741822 bytes and the doubled
// size at most 104857599: from 16384, up to 64 MiB.
constexpr bool canGrowTokenBuffer(int size) {
  return size <= 1073741822 && size * 2 <= 104857599;
}
constexpr int kLongestString = [] {
  int size = kFirstTokenBufferSize;
  while (canGrowTokenBuffer(size))
    size *= 2;
  return size - 1;
}();

// A string of length bytes was read: the buffer takes the size that holding
// it would have given it. A buffer already made is given up, to be made
// again at the new size.
void fitTokenBuffer(JsonTokenizer *t, int length) {
  if (length < t->bufferSize)
    return;
  safeFree(t->buffer, t->bufferSize);
  t->buffer = nullptr;
  while (length >= t->bufferSize && canGrowTokenBuffer(t->bufferSize))
    t->bufferSize *= 2;
}

// Text collected off the input, for the rare tokens whose text is not a
// piece of the input.
struct TokenText {
  JsonTokenizer *tokenizer;
  int length = 0;

  // False when the buffer cannot be made.
  bool ready() {
    if (tokenizer->buffer == nullptr)
      tokenizer->buffer = safeMalloc(tokenizer->bufferSize, "JSON token buffer");
    return tokenizer->buffer != nullptr;
  }
  // What does not fit is dropped.
  void add(int c) {
    if (length < textLimit(tokenizer))
      tokenizer->buffer[length++] = static_cast<char>(c);
  }
};

void setToken(JsonToken *token, int type, char *text) {
  token->type = type;
  token->text = text;
}

// A token whose text is copied into the heap: the two pieces joined, cut as
// the token buffer would cut them.
void setToken(JsonParser *parser, JsonToken *token, int type, std::string_view text,
              std::string_view more = {}) {
  int limit = textLimit(parser->tokenizer);
  int first = static_cast<int>(std::min<size_t>(text.size(), limit));
  int second = static_cast<int>(std::min<size_t>(more.size(), limit - first));
  char *copy = SLHAllocInline(parser->slh, first + second + 1);
  if (copy == nullptr) {
    recordFailure(parser, "not enough memory");
    return setToken(token, JSON_TOKEN_UNMATCHED, kTextEmpty);
  }
  if (first > 0)
    memcpy(copy, text.data(), first);
  if (second > 0)
    memcpy(copy + first, more.data(), second);
  copy[first + second] = '\0';
  setToken(token, type, copy);
}

// A token whose text stays in the input until a caller asks for it.
void setSpanToken(JsonTokenizer *t, JsonToken *token, int type, const char *start,
                  const char *end) {
  setToken(token, type, nullptr);
  t->spanStart = start;
  t->spanLength = static_cast<int>(end - start);
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

// The token's text as messages and callers see it: the text of a number or
// a bad word is read from the input, cut as the token buffer would cut it.
std::string_view tokenText(const JsonParser *parser, const JsonToken *token) {
  if (token->text != nullptr)
    return token->text;
  const JsonTokenizer *t = parser->tokenizer;
  return {t->spanStart, static_cast<size_t>(std::min(t->spanLength, textLimit(t)))};
}

// The opening quote is held. A string ends at the next quote (taken); a line
// feed or the end, held, leaves it unterminated, so that the failure names
// the text read so far. A backslash takes the next character along,
// whatever it is but the end. The text is copied once, into the heap.
void scanString(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *t = parser->tokenizer;
  t->pushback = 0;
  const char *start = t->next;
  int64_t length = 0;
  bool escapes = false;
  int type = JSON_TOKEN_STRING;
  for (;;) {
    const char *run = runEnd(t->next, t->end, kStringStop);
    length += run - t->next;
    if (length > kLongestString) {
      t->next = run - (length - kLongestString) + 1; // past the byte that did not fit
      return setToken(token, JSON_TOKEN_STRING_TOO_LONG, kTextEmpty);
    }
    t->next = run;
    int c = readChar(t);
    if (c == '"')
      break;
    if (c == '\\') {
      escapes = true;
      c = readChar(t);
    } else if (c == '\n') {
      c = kEndOfInput; // unescaped, it ends the string as the end does
      t->pushback = '\n';
    }
    if (c == kEndOfInput) {
      if (t->pushback == 0)
        t->pushback = kEndOfInput;
      type = JSON_TOKEN_UNTERMINATED_STRING;
      break;
    }
    if (++length > kLongestString)
      return setToken(token, JSON_TOKEN_STRING_TOO_LONG, kTextEmpty);
  }
  fitTokenBuffer(t, static_cast<int>(length));
  char *copy = SLHAllocInline(parser->slh, static_cast<int>(length) + 1);
  if (copy == nullptr) {
    recordFailure(parser, "not enough memory");
    return setToken(token, JSON_TOKEN_UNMATCHED, kTextEmpty);
  }
  if (!escapes) {
    memcpy(copy, start, length);
  } else {
    char *out = copy;
    for (const char *in = start; out < copy + length; in++)
      *out++ = *in == '\\' ? static_cast<char>(unescape(*++in)) : *in;
  }
  copy[length] = '\0';
  setToken(token, type, copy);
}

// A run of digits from the held one on, which ends with the look-ahead of
// the character after it. Returns the end of the run; its value goes to
// *value, exact up to 19 digits.
const char *scanDigits(JsonTokenizer *t, uint64_t *value) {
  t->pushback = 0;
  const char *p = t->next - 1;
  uint64_t sum = 0;
  do
    sum = sum * 10 + static_cast<unsigned>(*p++ - '0');
  while (p < t->end && isDigit(*p));
  t->next = p;
  *value = sum;
  peekChar(t);
  return p;
}

// What strtoll makes of a sign and a magnitude: saturated at the 64-bit limits.
int64_t signedValue(bool negative, uint64_t magnitude) {
  if (negative)
    return magnitude > uint64_t{1} << 63 ? INT64_MIN : static_cast<int64_t>(0 - magnitude);
  return magnitude > INT64_MAX ? INT64_MAX : static_cast<int64_t>(magnitude);
}

// What strtoll makes of the text of a number, however long.
int64_t integerValue(std::string_view text) {
  bool negative = !text.empty() && text.front() == '-';
  uint64_t magnitude = 0;
  for (size_t i = negative ? 1 : 0; i < text.size(); i++) {
    unsigned digit = static_cast<unsigned>(text[i] - '0');
    if (magnitude > (UINT64_MAX - digit) / 10)
      return negative ? INT64_MIN : INT64_MAX;
    magnitude = magnitude * 10 + digit;
  }
  return signedValue(negative, magnitude);
}

// The held '-' or digit. The first dialect takes an optional '-' and digits;
// the second also a '.' followed by digits. A '-' without a digit takes one
// more character along. An integer's value is worked out on the way.
void scanNumber(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *t = parser->tokenizer;
  const char *start = t->next - 1;
  bool negative = t->pushback == '-';
  if (negative) {
    t->pushback = 0;
    if (!isDigit(peekChar(t))) {
      nextChar(t);
      return setSpanToken(t, token, JSON_TOKEN_BAD_NUMBER, start, start + 1);
    }
  }
  uint64_t magnitude = 0;
  const char *last = scanDigits(t, &magnitude);
  int type = parser->numberDialect != JSON_DIALECT_64BIT ? JSON_TOKEN_NUMBER
             : peekChar(t) != '.'                        ? JSON_TOKEN_INT64
                                                         : JSON_TOKEN_DOUBLE;
  if (type != JSON_TOKEN_DOUBLE) {
    setSpanToken(t, token, type, start, last);
    bool exact = last - start - (negative ? 1 : 0) <= 19;
    t->integer = exact ? signedValue(negative, magnitude) : integerValue(tokenText(parser, token));
    return;
  }
  const char *point = t->next - 1;
  t->pushback = 0;
  const char *tail = point + 1;
  if (isDigit(peekChar(t)))
    tail = scanDigits(t, &magnitude);
  else
    type = JSON_TOKEN_BAD_NUMBER;
  if (point == last)
    return setSpanToken(t, token, type, start, tail);
  // A NUL after the digits, which the look-ahead dropped before it found the
  // point: the text is not one piece of the input.
  setToken(parser, token, type, std::string_view(start, last - start),
           std::string_view(point, tail - point));
}

// The held letter and the letters after it.
void scanWord(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *t = parser->tokenizer;
  const char *start = t->next - 1;
  t->pushback = 0;
  while (t->next < t->end && isAlpha(*t->next))
    t->next++;
  const char *last = t->next;
  peekChar(t);
  std::string_view word(start, last - start);
  if (word == "true" || word == "false")
    return setToken(token, JSON_TOKEN_BOOLEAN, word == "true" ? kTextTrue : kTextFalse);
  if (word == "null")
    return setToken(token, JSON_TOKEN_NULL, kTextNull);
  setSpanToken(t, token, JSON_TOKEN_BAD_WORD, start, last);
}

// After "//": up to the line feed or the end, both left held. Each test
// looks ahead anew, so after a NUL, which the look-ahead drops, the end test
// sees the character after it.
void skipLineComment(JsonTokenizer *t) {
  for (;;) {
    if (t->pushback == 0)
      t->next = runEnd(t->next, t->end, kLineCommentStop);
    if (peekChar(t) == '\n' || peekChar(t) == kEndOfInput)
      return;
    nextChar(t);
  }
}

// After "/*": up to "*/", both taken; false at the end. With text, collects
// what it passes as the failure message shows it.
bool skipBlockComment(JsonTokenizer *t, TokenText *text) {
  for (;;) {
    if (text == nullptr && t->pushback == 0)
      t->next = runEnd(t->next, t->end, kBlockCommentStop);
    int c = nextChar(t);
    if (c == kEndOfInput)
      return false;
    if (c == '*' && peekChar(t) == '/') {
      nextChar(t);
      return true;
    }
    if (text != nullptr)
      text->add(c);
  }
}

void scanComment(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *t = parser->tokenizer;
  t->pushback = 0;
  int c = nextChar(t);
  if (c == '/') {
    skipLineComment(t);
    return setToken(token, JSON_TOKEN_LINE_COMMENT, kTextEmpty);
  }
  if (c == '*') {
    // Only a comment that never ends needs its text: read it again for that.
    JsonTokenizer before = *t;
    if (skipBlockComment(t, nullptr))
      return setToken(token, JSON_TOKEN_BLOCK_COMMENT, kTextEmpty);
    *t = before;
    TokenText text{t};
    if (!text.ready()) {
      recordFailure(parser, "not enough memory");
      return setToken(token, JSON_TOKEN_UNMATCHED, kTextEmpty);
    }
    skipBlockComment(t, &text);
    return setToken(parser, token, JSON_TOKEN_UNTERMINATED_COMMENT,
                    std::string_view(t->buffer, text.length));
  }
  char text[] = {'/', static_cast<char>(c)};
  setToken(parser, token, JSON_TOKEN_BAD_COMMENT_START,
           std::string_view(text, isPrintable(c) ? 2 : 1));
}

// Whitespace, then the first character of the token, held. The second look
// reads past a NUL that the first one dropped.
int startToken(JsonTokenizer *t) {
  int c = t->pushback;
  if (c == 0 || isSpace(c)) {
    for (;;) {
      c = readChar(t);
      if (!isSpace(c))
        break;
    }
    t->pushback = c;
  }
  return peekChar(t);
}

// One raw token, comments included.
void scanToken(JsonParser *parser, JsonToken *token) {
  JsonTokenizer *t = parser->tokenizer;
  int c = startToken(t);
  t->tokenLine = t->line;
  t->tokenColumn = column(t);
  if (c == '"')
    return scanString(parser, token);
  if (c == '-' || isDigit(c))
    return scanNumber(parser, token);
  if (isAlpha(c))
    return scanWord(parser, token);
  char *punctuation = nullptr;
  int type = 0;
  switch (c) {
  case '{':
    punctuation = kTextObjectStart, type = JSON_TOKEN_OBJECT_START;
    break;
  case '}':
    punctuation = kTextObjectEnd, type = JSON_TOKEN_OBJECT_END;
    break;
  case ':':
    punctuation = kTextColon, type = JSON_TOKEN_COLON;
    break;
  case ',':
    punctuation = kTextComma, type = JSON_TOKEN_COMMA;
    break;
  // 0xBA and 0xBB are where the brackets stand in EBCDIC code page 037;
  // text converted with that table still parses.
  case '[':
  case static_cast<signed char>(0xBA):
    punctuation = kTextArrayStart, type = JSON_TOKEN_ARRAY_START;
    break;
  case ']':
  case static_cast<signed char>(0xBB):
    punctuation = kTextArrayEnd, type = JSON_TOKEN_ARRAY_END;
    break;
  case '/':
    return scanComment(parser, token);
  case kEndOfInput:
    return setToken(token, JSON_TOKEN_EOF, kTextEof);
  default:
    recordFailure(parser, "unexpected character %c(0x%x)\n", c, static_cast<unsigned>(c));
    return setToken(token, JSON_TOKEN_UNEXPECTED_CHARACTER, kTextEmpty);
  }
  t->pushback = 0;
  setToken(token, type, punctuation);
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

// Tokens as the grammar takes them: a number's text is not copied.
JsonToken *scanNextToken(JsonParser *parser) {
  JsonToken *token = &parser->token;
  do {
    scanToken(parser, token);
  } while (token->type == JSON_TOKEN_LINE_COMMENT || token->type == JSON_TOKEN_BLOCK_COMMENT);
  validateToken(parser, token);
  return token;
}

JsonToken *takeToken(JsonParser *parser) {
  JsonToken *token = parser->lookahead;
  if (token == nullptr)
    return scanNextToken(parser);
  parser->lookahead = nullptr;
  return token;
}

JsonToken *peekToken(JsonParser *parser) {
  if (parser->lookahead == nullptr)
    parser->lookahead = scanNextToken(parser);
  return parser->lookahead;
}

JsonToken *matchToken(JsonParser *parser, int expected) {
  JsonToken *token = takeToken(parser);
  if (token->type == expected)
    return token;
  const char *expectedName = getTokenTypeString(expected);
  const char *arrivedName = getTokenTypeString(token->type);
  std::string_view text = tokenText(parser, token);
  int length = static_cast<int>(text.size());
  switch (token->type) {
  case JSON_TOKEN_NUMBER:
  case JSON_TOKEN_BOOLEAN:
    recordFailure(parser, "expected %s, got %s %.*s\n", expectedName, arrivedName, length,
                  text.data());
    break;
  case JSON_TOKEN_STRING:
    recordFailure(parser, "expected %s, got %s \"%.*s\"\n", expectedName, arrivedName, length,
                  text.data());
    break;
  case JSON_TOKEN_NULL:
  case JSON_TOKEN_EOF:
    recordFailure(parser, "expected %s, got %s\n", expectedName, arrivedName);
    break;
  default:
    recordFailure(parser, "expected %s, got %.*s", expectedName, length, text.data());
    break;
  }
  token->type = JSON_TOKEN_UNMATCHED;
  return token;
}

// A token handed to a caller carries its text, in the heap.
JsonToken *withText(JsonParser *parser, JsonToken *token) {
  if (token->text == nullptr) {
    setToken(parser, token, token->type, tokenText(parser, token));
  }
  return token;
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
  takeToken(parser); // the brace
  Json *result = makeValue(parser, JSON_TYPE_OBJECT);
  JsonObject *object = heapAlloc<JsonObject>(parser);
  if (result == nullptr || object == nullptr)
    return errorValue(parser);
  result->data.object = object;
  while (peekToken(parser)->type == JSON_TOKEN_STRING) {
    char *key = takeToken(parser)->text;
    if (jsonIsTokenUnmatched(matchToken(parser, JSON_TOKEN_COLON)))
      return errorValue(parser);
    Json *value = parseValue(parser);
    if (jsonIsError(value))
      return value;
    if (jsonOjectAddProperty(parser, object, key, value) != 0)
      return errorValue(parser);
    if (peekToken(parser)->type != JSON_TOKEN_COMMA)
      break;
    takeToken(parser);
  }
  if (jsonIsTokenUnmatched(matchToken(parser, JSON_TOKEN_OBJECT_END)))
    return errorValue(parser);
  return result;
}

Json *parseArray(JsonParser *parser) {
  takeToken(parser); // the bracket
  Json *result = makeValue(parser, JSON_TYPE_ARRAY);
  JsonArray *array = heapAlloc<JsonArray>(parser);
  auto **elements = reinterpret_cast<Json **>(heapPiece(parser, kFirstArrayCapacity * sizeof(Json *)));
  if (result == nullptr || array == nullptr || elements == nullptr)
    return errorValue(parser);
  array->elements = elements;
  array->capacity = kFirstArrayCapacity;
  result->data.array = array;
  while (peekToken(parser)->type != JSON_TOKEN_ARRAY_END) {
    Json *value = parseValue(parser);
    if (jsonIsError(value))
      return value;
    if (jsonArrayAddElement(parser, array, value) != 0)
      return errorValue(parser);
    if (peekToken(parser)->type != JSON_TOKEN_COMMA)
      break;
    takeToken(parser);
  }
  if (jsonIsTokenUnmatched(matchToken(parser, JSON_TOKEN_ARRAY_END)))
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

double toDouble(std::string_view text) {
  double result = 0.0;
  bool negative = text.front() == '-';
  auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), result);
  if (error == std::errc::result_out_of_range) {
    // Digits are all there is (no exponents), so a value out of range is
    // either huge or a long run of zeros after the point.
    std::string_view digits = text.substr(negative ? 1 : 0);
    size_t firstNonZero = digits.find_first_not_of('0');
    bool tiny = firstNonZero == std::string_view::npos || digits[firstNonZero] == '.';
    result = tiny ? 0.0 : HUGE_VAL;
    if (negative)
      result = -result;
  }
  return result;
}

Json *parseScalar(JsonParser *parser, int tokenType, int valueType) {
  JsonToken *token = takeToken(parser); // of tokenType
  Json *value = makeValue(parser, valueType);
  if (value == nullptr)
    return errorValue(parser);
  switch (tokenType) {
  // Overflow is not detected: the 64-bit result is cut to 32 bits.
  case JSON_TOKEN_NUMBER:
    value->data.number = static_cast<int>(parser->tokenizer->integer);
    break;
  case JSON_TOKEN_INT64:
    value->data.number64 = parser->tokenizer->integer;
    break;
  case JSON_TOKEN_DOUBLE:
    value->data.dnumber = toDouble(tokenText(parser, token));
    break;
  case JSON_TOKEN_STRING:
    value->data.string = token->text;
    break;
  case JSON_TOKEN_BOOLEAN:
    value->data.boolean = token->text == kTextTrue;
    break;
  default:
    break;
  }
  return value;
}

Json *parseValue(JsonParser *parser) {
  JsonToken *token = peekToken(parser);
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
  default: {
    std::string_view text = tokenText(parser, token);
    recordFailure(parser, "unexpected %.*s", static_cast<int>(text.size()), text.data());
    return errorValue(parser);
  }
  }
}

// ---- Parser construction and the entry points ----------------------------

// A file stream is read in whole first, through its getChar, so that the
// tokenizer always reads bytes in memory.
JsonParser *makeParserOver(ShortLivedHeap *slh, CharStream *stream) {
  auto *parser = safeMallocRecord<JsonParser>("JSON Parser");
  auto *tokenizer = safeMallocRecord<JsonTokenizer>("JSON Tokenizer");
  bool inMemory = stream->getChar == bufferGetChar;
  int length = stream->length;
  char *fileText = inMemory || length == 0 ? nullptr : safeMalloc(length, "JSON file text");
  if (parser == nullptr || tokenizer == nullptr || (!inMemory && length > 0 && !fileText)) {
    safeFree(fileText, length);
    safeFreeRecord(tokenizer);
    safeFreeRecord(parser);
    stream->close(stream);
    return nullptr;
  }
  for (int i = 0; fileText != nullptr && i < length; i++)
    fileText[i] = static_cast<char>(stream->getChar(stream));
  const char *input = inMemory ? static_cast<const char *>(stream->source) : fileText;
  tokenizer->stream = stream;
  tokenizer->slh = slh;
  tokenizer->line = 1;
  tokenizer->bufferSize = kFirstTokenBufferSize;
  tokenizer->next = tokenizer->lineStart = input;
  tokenizer->end = input + length;
  tokenizer->fileText = fileText;
  tokenizer->fileTextSize = fileText != nullptr ? length : 0;
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
    matchToken(parser, JSON_TOKEN_EOF);
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
  safeFree(tokenizer->fileText, tokenizer->fileTextSize);
  safeFreeRecord(tokenizer);
  safeFreeRecord(parser);
}

JsonToken *jsonNextToken(JsonParser *parser) {
  return withText(parser, takeToken(parser));
}

JsonToken *jsonLookaheadToken(JsonParser *parser) {
  return withText(parser, peekToken(parser));
}

JsonToken *jsonMatchToken(JsonParser *parser, int expected) {
  return withText(parser, matchToken(parser, expected));
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
    auto **elements = reinterpret_cast<Json **>(heapPiece(
        parser, capacity * sizeof(Json *), array->elements, array->count * sizeof(Json *)));
    if (elements == nullptr)
      return 1;
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
