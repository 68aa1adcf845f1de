// JSON reader and the value tree it builds.
//
// A hand-written recursive-descent reader turns text (bytes in memory, UTF-8
// bytes converted to a host code page first, or a file) into a tree of
// values allocated entirely from a caller's short-lived heap: the tree
// outlives the parser and is released all at once with SLHFree.
//
// The reader accepts a little more than standard JSON (// and /* */
// comments, a trailing comma before } and ], the bytes 0xBA and 0xBB for
// [ and ]) and deliberately less in places (no \u escapes: "\u0041" reads
// as u0041; no exponents; in the first number dialect integers are 32-bit
// and have no fraction). A failed parse yields null and one message that
// begins with "line:column: " of the token at which the first failure was
// met.
#ifndef MFA_BASE_JSON_H
#define MFA_BASE_JSON_H

#include <stdint.h>

#include "base/alloc.h"

#ifdef __cplusplus
extern "C" {
#endif

struct UnixFile;
struct jsonPrinter;

// ---- Value model ---------------------------------------------------------

#define JSON_TYPE_NUMBER 0 // signed 32-bit integer
#define JSON_TYPE_STRING 1
#define JSON_TYPE_BOOLEAN 2
#define JSON_TYPE_NULL 3
#define JSON_TYPE_OBJECT 4
#define JSON_TYPE_ARRAY 5
#define JSON_TYPE_INT64 6
#define JSON_TYPE_DOUBLE 7
#define JSON_TYPE_ERROR 666

typedef struct Json Json;
typedef struct JsonObject JsonObject;
typedef struct JsonProperty JsonProperty;
typedef struct JsonArray JsonArray;

// Payload of an error value.
typedef struct JsonError {
  char *message;
} JsonError;

struct Json {
  int type; // JSON_TYPE_*
  union {
    int number;   // JSON_TYPE_NUMBER
    char *string; // JSON_TYPE_STRING, terminated
    int boolean;  // JSON_TYPE_BOOLEAN, 1 or 0
    JsonObject *object;
    JsonArray *array;
    int64_t number64; // JSON_TYPE_INT64
    double dnumber;   // JSON_TYPE_DOUBLE
    JsonError *error; // JSON_TYPE_ERROR
  } data;
};

// Properties in source order; duplicate keys are all kept.
struct JsonObject {
  JsonProperty *firstProperty;
  JsonProperty *lastProperty;
};

struct JsonProperty {
  char *key;
  Json *value;
  JsonProperty *next;
};

// Starts with capacity 8; a full array moves to a vector of twice the
// capacity, the old one is left in the heap.
struct JsonArray {
  Json **elements;
  int count;
  int capacity;
};

// ---- Parser records ------------------------------------------------------

// Source of characters: each one a signed byte widened to int, -1 at the end.
// A parser reads a buffer stream's bytes in place and a file stream's all
// at once, through getChar, before the first token.
typedef struct CharStream CharStream;
struct CharStream {
  void *source; // the bytes of a buffer stream, the UnixFile of a file stream
  int position; // characters delivered through getChar so far
  int length;   // total characters
  int (*getChar)(CharStream *stream);
  int (*getPosition)(CharStream *stream);
  int (*isEOF)(CharStream *stream);
  void (*close)(CharStream *stream); // releases the stream record (and closes a file)
};

#define JSON_TOKEN_NUMBER 0
#define JSON_TOKEN_STRING 1
#define JSON_TOKEN_BOOLEAN 2
#define JSON_TOKEN_COLON 3
#define JSON_TOKEN_COMMA 4
#define JSON_TOKEN_NULL 5
#define JSON_TOKEN_OBJECT_START 6
#define JSON_TOKEN_OBJECT_END 7
#define JSON_TOKEN_ARRAY_START 8
#define JSON_TOKEN_ARRAY_END 9
#define JSON_TOKEN_EOF 10
#define JSON_TOKEN_BAD_WORD 11
#define JSON_TOKEN_UNTERMINATED_STRING 12
#define JSON_TOKEN_BAD_NUMBER 13
#define JSON_TOKEN_LINE_COMMENT 14
#define JSON_TOKEN_BLOCK_COMMENT 15
#define JSON_TOKEN_UNTERMINATED_COMMENT 16
#define JSON_TOKEN_BAD_COMMENT_START 17
#define JSON_TOKEN_UNEXPECTED_CHARACTER 18
#define JSON_TOKEN_STRING_TOO_LONG 19
#define JSON_TOKEN_INT64 20
#define JSON_TOKEN_DOUBLE 21
#define JSON_TOKEN_UNMATCHED 666

typedef struct JsonToken {
  int type;   // JSON_TOKEN_*
  char *text; // terminated; variable texts live in the parser's heap
} JsonToken;

// Reads the input in place. The rules are those of one character at a time:
// a look-ahead holds one character (0 means none, so a NUL that a look-ahead
// reads is dropped), and every character read counts for the position, the
// end included, which reads as -1 as often as it is read, as the byte 0xFF
// does.
typedef struct JsonTokenizer {
  CharStream *stream;
  ShortLivedHeap *slh;
  int pushback; // the held character; 0 means none
  int line;     // starts at 1
  int tokenLine;
  int tokenColumn; // the first character of a line is column 1
  int trace;
  // Texts of failed comments are collected here; made on first use. Token
  // texts are cut to bufferSize - 1 bytes, and a long string doubles the
  // size up to 64 MiB, whether the buffer is made yet or not.
  char *buffer;
  int bufferSize;
  const char *next;      // the next byte to read
  const char *end;       // the end of the input
  const char *lineStart; // the byte after the last line feed read, or the start
  int endReads;          // reads made at the end, which count as columns too
  char *fileText;        // a file stream's bytes, read in whole (null otherwise)
  int fileTextSize;
  // Number and bad word tokens are not copied: their text is here, in the
  // input, until a caller asks for the token.
  const char *spanStart;
  int spanLength;
  int64_t integer; // an integer token's value, as strtoll reads its text
} JsonTokenizer;

#define JSON_DIALECT_32BIT 1 // integers only, converted to 32 bits (0 means this too)
#define JSON_DIALECT_64BIT 2 // 64-bit integers and decimals with a point

typedef struct JsonParser {
  JsonTokenizer *tokenizer;
  JsonToken *lookahead; // the looked-ahead token, or null
  ShortLivedHeap *slh;
  CharStream *stream;
  Json *error;       // the error value of the first failure, or null
  int numberDialect; // JSON_DIALECT_*; set before the first jsonParse
  int depth;         // objects and arrays currently open
  JsonToken token;   // storage of the current token
  // The error value lives here when the heap cannot hold it.
  Json fallbackError;
  JsonError fallbackErrorRecord;
  char fallbackMessage[128];
} JsonParser;

// ---- Entry points --------------------------------------------------------
// Each returns the root value, allocated in slh, or null. On null, errorText
// (if not null) receives the message, cut to errorSize bytes including the
// terminator; a parse failure reads "line:column: " followed by the reason.

// The terminated text, 32-bit dialect.
Json *jsonParseString(ShortLivedHeap *slh, const char *text, char *errorText, int errorSize);
// Exactly length bytes (NULs included), 32-bit dialect.
Json *jsonParseUnterminatedString(ShortLivedHeap *slh, const char *bytes, int length,
                                  char *errorText, int errorSize);
// UTF-8 bytes converted to codePage (a CCSID) first, then parsed. Failures
// before parsing: "not enough memory" and "could not convert from UTF8:
// conversion rc %d, reason %d".
Json *jsonParseUnterminatedUtf8String(ShortLivedHeap *slh, int codePage, const char *bytes,
                                      int length, char *errorText, int errorSize);
// The file at path, 32-bit dialect. "Couldn't open '%s'" when it cannot be
// opened or sized.
Json *jsonParseFile(ShortLivedHeap *slh, const char *path, char *errorText, int errorSize);
// As jsonParseFile with 64-bit integers and decimals.
Json *jsonParseFile2(ShortLivedHeap *slh, const char *path, char *errorText, int errorSize);

// ---- Building blocks -----------------------------------------------------

// Streams: release with their close operation (freeJsonParser does it).
// Null when memory is short or length is negative.
CharStream *makeBufferCharStream(const char *bytes, int length);
// Takes over file: closing the stream closes it.
CharStream *makeFileCharStream(struct UnixFile *file, int length);

// A parser over length bytes (which must outlive it) or over an open file of
// size bytes (taken over); values go to slh. Null when an argument is
// unusable or memory is short (the file is then closed). Release with
// freeJsonParser, which never touches slh.
JsonParser *makeJsonParser(ShortLivedHeap *slh, const char *bytes, int length);
JsonParser *makeJsonFileParser(ShortLivedHeap *slh, struct UnixFile *file, int size);
// Closes the stream and frees the parser's own records. Accepts null. The
// tree stays in slh; an error value may live in the parser and goes with it.
void freeJsonParser(JsonParser *parser);

// One value: the tree, or the error value of the first failure.
Json *jsonParse(JsonParser *parser);
// The next token (the looked-ahead one if any); comments are skipped and
// invalid tokens recorded as the failure. The token is valid until the next
// token call on this parser; its variable text stays in the heap.
JsonToken *jsonNextToken(JsonParser *parser);
// The next token without consuming it.
JsonToken *jsonLookaheadToken(JsonParser *parser);
// The next token if of type expected; otherwise records a failure and returns
// the token with its type changed to JSON_TOKEN_UNMATCHED.
JsonToken *jsonMatchToken(JsonParser *parser, int expected);
int jsonIsError(Json *value);
int jsonIsTokenUnmatched(JsonToken *token);
// The name used for a token type in messages.
const char *getTokenTypeString(int type);

// Appends a property or an element; the parser supplies the heap. Return 0,
// or 1 when the heap is exhausted (nothing appended).
int jsonOjectAddProperty(JsonParser *parser, JsonObject *object, char *key, Json *value);
int jsonArrayAddElement(JsonParser *parser, JsonArray *array, Json *value);

// ---- Type tests and conversions (null-safe, never an error) -------------

int jsonIsObject(Json *value);
int jsonIsArray(Json *value);
int jsonIsString(Json *value);
int jsonIsBoolean(Json *value);
int jsonIsNull(Json *value);
int jsonIsInt64(Json *value);
int jsonIsDouble(Json *value);
// Any of the three number types.
int jsonIsNumber(Json *value);

JsonObject *jsonAsObject(Json *value);
JsonArray *jsonAsArray(Json *value);
char *jsonAsString(Json *value);
int jsonAsBoolean(Json *value);
// A 32-bit number as is, a 64-bit one cut to 32 bits; 0 for a double.
int jsonAsNumber(Json *value);
// A double truncated toward zero, saturated at the 64-bit limits.
int64_t jsonAsInt64(Json *value);
double jsonAsDouble(Json *value);

// ---- Objects and arrays --------------------------------------------------

JsonProperty *jsonObjectGetFirstProperty(JsonObject *object);
JsonProperty *jsonObjectGetNextProperty(JsonProperty *property);
char *jsonPropertyGetKey(JsonProperty *property);
Json *jsonPropertyGetValue(JsonProperty *property);
// The value of the first property named key, or null.
Json *jsonObjectGetPropertyValue(JsonObject *object, const char *key);
int jsonObjectHasKey(JsonObject *object, const char *key);
// The first property's value converted, if present and of the right type;
// else null or 0. GetNumber accepts any number type (as jsonAsNumber).
JsonArray *jsonObjectGetArray(JsonObject *object, const char *key);
int jsonObjectGetBoolean(JsonObject *object, const char *key);
int jsonObjectGetNumber(JsonObject *object, const char *key);
JsonObject *jsonObjectGetObject(JsonObject *object, const char *key);
char *jsonObjectGetString(JsonObject *object, const char *key);

int jsonArrayGetCount(JsonArray *array);
// Null unless 0 <= index < count.
Json *jsonArrayGetItem(JsonArray *array, int index);
JsonArray *jsonArrayGetArray(JsonArray *array, int index);
int jsonArrayGetBoolean(JsonArray *array, int index);
int jsonArrayGetNumber(JsonArray *array, int index);
JsonObject *jsonArrayGetObject(JsonArray *array, int index);
char *jsonArrayGetString(JsonArray *array, int index);
// 1 if some element is a string equal to text.
int jsonArrayContainsString(JsonArray *array, const char *text);
// 1 if every element is present and of type (a JSON_TYPE_*); 1 when empty.
int jsonVerifyHomogeneity(JsonArray *array, int type);

// ---- Checked property readers --------------------------------------------
// *status: JSON_PROPERTY_FOUND, JSON_PROPERTY_MISSING or JSON_PROPERTY_WRONG_TYPE.

#define JSON_PROPERTY_FOUND 0
#define JSON_PROPERTY_MISSING 1
#define JSON_PROPERTY_WRONG_TYPE 2

// Null unless found.
JsonArray *jsonArrayProperty(JsonObject *object, const char *key, int *status);
char *jsonStringProperty(JsonObject *object, const char *key, int *status);
JsonObject *jsonObjectProperty(JsonObject *object, const char *key, int *status);
// Any number type, as jsonAsNumber; defaultValue unless found.
int jsonIntProperty(JsonObject *object, const char *key, int *status, int defaultValue);
// Prints on standard output why a checked read failed; nothing for status 0.
void reportJSONDataProblem(JsonObject *object, int status, const char *key);

// ---- Hashing and printing ------------------------------------------------

// djb2 over the bytes taken as signed characters; the top bit cleared.
int64_t hashString(const char *text);
// The type code in the top 8 bits, a 56-bit digest of the payload below.
int64_t jsonLongHash(Json *value);

// Writes value (the root, with no name) through printer. An error value or
// null prints nothing.
void jsonPrint(struct jsonPrinter *printer, Json *value);
// The printer's filter answer for (a, b), or 0 when it has no filter.
int filterFromPrinting(struct jsonPrinter *printer, void *a, void *b);

#ifdef __cplusplus
}
#endif

#endif
