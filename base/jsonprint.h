// Streaming JSON printer and the fixed-capacity string writer.
//
// A printer writes each document call (start object, add member, end object,
// ...) at once, to a file descriptor or through a sink function; it never
// builds a tree. It remembers only what separators and indentation need. In
// UTF-8 mode strings and keys are converted from the caller's code page to
// UTF-8 before they are escaped. The first write failure latches an error
// flag, after which every document call does nothing.
//
// Sinks shipped here: a growing in-memory JSON buffer (writeToBuffer) and a
// string writer of fixed capacity (writeToStringWriterJsonPrinter) that drops
// any piece that no longer fits, whole and silently.
#ifndef MFA_BASE_JSONPRINT_H
#define MFA_BASE_JSONPRINT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Printer modes.
#define JSON_MODE_NATIVE_CHARSET 0 // text written in the caller's code page as it stands
#define JSON_MODE_CONVERT_TO_UTF8 1

// CCSID of text that is already UTF-8: punctuation, numbers and keywords.
#define JSON_UTF8_CCSID 1208

typedef struct jsonPrinter jsonPrinter;

// Custom writer: receives every piece of output. Its result is ignored.
typedef int JsonSink(jsonPrinter *printer, const char *bytes, int length);

// Optional filter consulted while a parsed tree is printed; gets the printer's
// filterData first. Non-zero asks that the item be left out.
typedef int JsonPrintFilter(void *filterData, void *a, void *b);

struct jsonPrinter {
  int mode;               // JSON_MODE_*
  int fd;                 // target when hasSink is 0
  int depth;              // nesting depth, for indentation
  int justOpened;         // the next item follows a bracket: no comma
  int justClosed;         // an end call is writing its own line break
  int hasSink;            // 1: output goes to sink
  JsonSink *sink;         // custom writer
  void *sinkData;         // the sink's own context (JsonBuffer, StringWriterContext, ...)
  const char *indentUnit; // written once per depth level
  int firstItem;          // the very first item gets neither separator nor line break
  int pretty;             // line breaks and indentation
  int sourceCodePage;     // CCSID of the caller's strings, for UTF-8 mode
  int64_t conversionBufferSize;
  char *conversionBuffer; // reused from call to call, grown on demand
  int ioError;            // latched on the first write failure
  int inMultipartString;
  JsonPrintFilter *filter; // null: print everything
  void *filterData;
};

// Growing in-memory output ("JSON buffer").
typedef struct JsonBuffer {
  char *data;
  int size; // bytes allocated at data
  int len;  // bytes used
} JsonBuffer;

// Fixed-capacity text sink. The buffer is always terminated: it starts
// zeroed and one byte is kept back for the terminator.
typedef struct StringWriterContext {
  char *stringBuffer;
  uint64_t capacity;
  uint64_t remaining; // room left, not counting the kept-back byte
  uint64_t end;       // where the text ends, so that appending need not look for it
} StringWriterContext;

// ---- Construction and release -------------------------------------------
// Every constructor returns a new printer (release with freeJsonPrinter), or
// null when memory is short. Sink data stays the caller's.

// Native mode, writing to fd.
jsonPrinter *makeJsonPrinter(int fd);
// UTF-8 mode, writing to fd; strings are taken to be in codePage.
jsonPrinter *makeUtf8JsonPrinter(int fd, int codePage);
// Native mode, writing through sink.
jsonPrinter *makeCustomJsonPrinter(JsonSink *sink, void *sinkData);
// UTF-8 mode, writing through sink.
jsonPrinter *makeCustomUtf8JsonPrinter(JsonSink *sink, void *sinkData, int codePage);
// UTF-8 mode, appending to buffer (writeToBuffer).
jsonPrinter *makeBufferJsonPrinter(int codePage, JsonBuffer *buffer);

// Back to the state of a new native-mode printer. Any conversion buffer held
// is forgotten, not freed; the I/O error, just-closed and multipart flags stay.
void jsonPrinterReset(jsonPrinter *printer);
void jsonEnablePrettyPrint(jsonPrinter *printer);
// Frees the conversion buffer and the printer, never the sink data. Accepts null.
void freeJsonPrinter(jsonPrinter *printer);

// ---- JSON buffer ---------------------------------------------------------

// A new empty buffer with 1024 bytes of room, or null. Release with freeJsonBuffer.
JsonBuffer *makeJsonBuffer(void);
// Accepts null.
void freeJsonBuffer(JsonBuffer *buffer);
// Stores a terminator at the used length and counts it as used. The caller
// must know there is room (writeToBuffer always leaves some after a doubling,
// but not necessarily after an exact fit).
void jsonBufferTerminateString(JsonBuffer *buffer);
// A new copy of the used bytes (release with safeFree(copy, buffer->len)), or null.
char *jsonBufferCopy(JsonBuffer *buffer);
// Used length 0, data zeroed.
void jsonBufferRewind(JsonBuffer *buffer);
// Sink of buffer printers; sinkData is a JsonBuffer. Grows the buffer by
// doubling; failure sets the printer's error flag and drops the piece.
// Returns length, or -1 when the piece was dropped.
int writeToBuffer(jsonPrinter *printer, const char *bytes, int length);

// ---- String writer -------------------------------------------------------

// Always returns 0. *context receives a new context (release with
// destroyStringWriterContext); when memory is short it may be null or have no
// buffer. A capacity of 0 is taken as 1.
int createStringWriterContext(uint64_t capacity, StringWriterContext **context);
// Zeroes and releases the buffer (as far as it was written) and the context.
// Accepts null.
void destroyStringWriterContext(StringWriterContext *context);
// A native-mode printer writing into a new string writer of this capacity;
// null if either cannot be made. Release with destroyStringWriterCustomJsonPrinter.
jsonPrinter *makeStringWriterCustomJsonPrinter(uint64_t capacity);
// Destroys the string writer, then the printer. Accepts null.
void destroyStringWriterCustomJsonPrinter(jsonPrinter *printer);
// Length of the text written so far, without the terminator.
uint64_t SWCJP_getLength(jsonPrinter *printer);
// The terminated text, owned by the string writer.
char *SWCJP_getStringPtr(jsonPrinter *printer);
// Copies exactly SWCJP_getLength bytes to destination, with no terminator,
// and returns that length; 0 (nothing copied) if destinationSize is smaller.
uint64_t SWCJP_copyBytes(jsonPrinter *printer, char *destination, uint64_t destinationSize);
// Sink of string-writer printers; sinkData is a StringWriterContext. A piece
// that does not fit in the remaining room is dropped whole, without setting
// the error flag. A NUL in a piece ends what is appended of it, while the
// room still shrinks by the whole length. Returns length, or 0 when the
// piece was dropped.
int writeToStringWriterJsonPrinter(jsonPrinter *printer, const char *bytes, int length);

// ---- Document calls ------------------------------------------------------
// key is the member name, or null for an array element or the root. Every
// call does nothing once the error flag is set.

void jsonStart(jsonPrinter *printer); // jsonStartObject with no key
void jsonEnd(jsonPrinter *printer);   // jsonEndObject
void jsonStartObject(jsonPrinter *printer, const char *key);
void jsonEndObject(jsonPrinter *printer);
void jsonStartArray(jsonPrinter *printer, const char *key);
void jsonEndArray(jsonPrinter *printer);
// Quoted, escaped text in the source code page; null text prints "".
void jsonAddString(jsonPrinter *printer, const char *key, const char *text);
void jsonAddUnterminatedString(jsonPrinter *printer, const char *key, const char *bytes,
                               int length);
// As jsonAddUnterminatedString after dropping trailing bytes whose value as a
// signed byte is 31 or less (control characters and every byte from 0x80 up).
void jsonAddLimitedString(jsonPrinter *printer, const char *key, const char *bytes, int length);
// A ready-made JSON fragment: converted in UTF-8 mode, never quoted or
// escaped. Null text prints null.
void jsonAddJSONString(jsonPrinter *printer, const char *key, const char *text);
void jsonAddUnterminatedJSONString(jsonPrinter *printer, const char *key, const char *bytes,
                                   int length);
void jsonAddInt(jsonPrinter *printer, const char *key, int value);
void jsonAddUInt(jsonPrinter *printer, const char *key, unsigned int value);
void jsonAddInt64(jsonPrinter *printer, const char *key, int64_t value);
void jsonAddDouble(jsonPrinter *printer, const char *key, double value); // six decimals
void jsonAddBoolean(jsonPrinter *printer, const char *key, int flag);
void jsonAddNull(jsonPrinter *printer, const char *key);
// A string written in parts: the opening quote, escaped parts, the closing
// quote. Parts and the end are ignored outside a multipart string.
void jsonStartMultipartString(jsonPrinter *printer, const char *key);
void jsonAppendStringPart(jsonPrinter *printer, const char *text);
void jsonAppendUnterminatedStringPart(jsonPrinter *printer, const char *bytes, int length);
void jsonEndMultipartString(jsonPrinter *printer);

// ---- Error flag ----------------------------------------------------------

void jsonSetIOErrorFlag(jsonPrinter *printer);
// Both return 1 once a write has failed, else 0.
int jsonShouldStopWriting(jsonPrinter *printer);
int jsonCheckIOErrorFlag(jsonPrinter *printer);

// ---- Lower layers --------------------------------------------------------
// The document calls are built from these; codePage JSON_UTF8_CCSID marks
// text that needs no conversion.

// Terminated text through jsonConvertAndWriteBuffer.
void jsonWrite(jsonPrinter *printer, const char *text, int escape, int codePage);
// Converts (UTF-8 mode), escapes when asked and writes one piece of text.
void jsonConvertAndWriteBuffer(jsonPrinter *printer, const char *bytes, int length, int escape,
                               int codePage);
// Raw output to the sink or descriptor; latches the error flag on failure.
void jsonWriteBufferInternal(jsonPrinter *printer, const char *bytes, int length);
// Separator before an item: a comma unless just opened or closed, then, when
// pretty, a line feed and the indentation.
void jsonNewLine(jsonPrinter *printer);
void jsonIndent(jsonPrinter *printer);
// Nothing for a null key; else the quoted, escaped key and ":" (": " when pretty).
void jsonWriteKeyAndSemicolon(jsonPrinter *printer, const char *key);
void jsonWriteQuotedString(jsonPrinter *printer, const char *text);
void jsonWriteQuotedUnterminatedString(jsonPrinter *printer, const char *bytes, int length);
void jsonWriteInt(jsonPrinter *printer, int value);
void jsonWriteUInt(jsonPrinter *printer, unsigned int value);
void jsonWriteInt64(jsonPrinter *printer, int64_t value);
void jsonWriteDouble(jsonPrinter *printer, double value);
void jsonWriteBoolean(jsonPrinter *printer, int flag);
void jsonWriteNull(jsonPrinter *printer);
// Native-mode escaping: line feed, carriage return, quote and backslash.
void jsonWriteEscapedString(jsonPrinter *printer, const char *bytes, int length);
// UTF-8 escaping: quote, backslash, and control characters as \u00XX.
void writeBufferWithEscaping(jsonPrinter *printer, const char *bytes, int length);
// Converts length bytes in codePage into the printer's conversion buffer and
// returns the converted length, or -1 after printing why. After ten
// output-too-small retries it gives up and returns length.
int convertToUtf8(jsonPrinter *printer, int length, const char *bytes, int codePage);

#ifdef __cplusplus
}
#endif

#endif
