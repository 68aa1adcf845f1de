// Character sets and code-page conversion.
//
// Text is identified by CCSID numbers: 819 ISO-8859-1, 1047 EBCDIC code page
// 1047, 1200 UTF-16, 1201 UTF-16BE, 1202 UTF-16LE, 1208 UTF-8. Buffers convert
// between any two of them through the system's iconv; single-byte EBCDIC and
// ASCII/ISO-8859-1 text also translates in place through fixed 256-byte tables.
#ifndef MFA_BASE_CHARSETS_H
#define MFA_BASE_CHARSETS_H

#include "base/alloc.h"

#ifdef __cplusplus
extern "C" {
#endif

// Modes of convertCharset.
#define CHARSET_MODE_CALLER_BUFFER 1
#define CHARSET_MODE_NEW_BUFFER 2
#define CHARSET_MODE_SLH_BUFFER 3

// Return codes of convertCharset.
#define CHARSET_OK 0
#define CHARSET_OUTPUT_TOO_SMALL 8
#define CHARSET_CONVERSION_FAILED 12
#define CHARSET_INVALID_INPUT 16
#define CHARSET_NO_CONVERTER 20
#define CHARSET_UNKNOWN_CCSID 24

// The converter name of a CCSID, or null for a CCSID without one. The text is
// static; do not free it.
const char *getCharsetName(int ccsid);

// Converts inputLength bytes of input from fromCcsid to toCcsid.
//   mode 1: into the caller's buffer *output of outputCapacity bytes.
//   mode 2: into a new buffer of exactly the converted length, handed back
//           through *output; the caller releases it with
//           safeFree(*output, *outputLength).
//   mode 3: into a piece of 3 * inputLength bytes of slh, handed back through
//           *output; it lives as long as the heap.
// Returns 0 and stores the converted length in *outputLength, or 8 (output
// did not fit), 12 (other failure, unknown mode, bad arguments), 16 (invalid
// or incomplete input), 20 (converter unavailable; *reason = errno) or 24
// (CCSID without a name). *reason is set to 0 on entry. *output and
// *outputLength are left unchanged on failure.
int convertCharset(const char *input, int inputLength, int fromCcsid, int mode, char **output,
                   int outputCapacity, int toCcsid, ShortLivedHeap *slh, int *outputLength,
                   int *reason);

// The 256-byte table called name ("velmora1047_to_iso88591",
// "iso88591_to_velmora1047", "velmora037_to_iso88591",
// "iso88591_to_velmora037", "e2atable", "a2etable"), compared after folding
// name to lower case. Null for an unknown name, a name longer than 31
// characters, or null. The table is static; do not free it.
const unsigned char *getTranslationTable(const char *name);

// Replaces each of the length bytes of buffer by its entry in table.
void translate(char *buffer, const unsigned char *table, int length);

// EBCDIC 1047 to ISO-8859-1 and back in place, with the host line-end
// convention (EBCDIC 0x15 is the line feed). Both return buffer.
char *e2a(char *buffer, int length);
char *a2e(char *buffer, int length);
char *convert1047to8859InPlace(char *buffer, int length);
char *convert8859to1047InPlace(char *buffer, int length);

#ifdef __cplusplus
}
#endif

#endif
