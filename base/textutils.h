// Null-safe string comparison and the foundation's base64 coder.
//
// This base64 decoder does not validate its input; callers that must reject
// malformed text use the cryptographic layer's decoder instead.
#ifndef MFA_BASE_TEXTUTILS_H
#define MFA_BASE_TEXTUTILS_H

#include <stddef.h>

#include "base/alloc.h"

#ifdef __cplusplus
extern "C" {
#endif

// Non-zero (not equal) when either string is null, else strcmp's result.
int stringsNotEqual(const char *lhs, const char *rhs);
// Non-zero when either string is null or n is 0, else strncmp's result.
int stringsNotEqualWithSize(const char *lhs, const char *rhs, size_t n);

// The base64 text of length bytes, terminated, in ASCII or (ebcdic non-zero)
// in EBCDIC code page 1047 with ASCII "=" padding. Allocated from slh when
// given, else by checked allocation: release with safeFree(text, *outLength
// + 1). On failure returns null and sets *outLength to 0.
char *encodeBase64(ShortLivedHeap *slh, const char *bytes, int length, int *outLength, int ebcdic);
// Encodes into out, which must hold (length + 2) / 3 * 4 + 1 bytes, terminates
// it and stores the number of characters in *outLength.
void encodeBase64NoAlloc(const char *bytes, int length, char *out, int *outLength, int ebcdic);

// Decode ASCII base64 into out, which must hold length / 4 * 3 bytes. Return
// the number of bytes written, or -1 (after printing "non 4-mult") when the
// length is not a multiple of 4. Characters outside the alphabet are not
// reported; they corrupt the output.
int decodeBase64(const char *text, char *out);
int decodeBase64Unterminated(const char *text, char *out, int length);

// In place: "+" to "-", "/" to "_", trailing "=" removed; returns the new
// length.
int base64ToBase64url(char *text);
// In place within capacity bytes: "-" to "+", "_" to "/", then padding.
// Returns the number of "=" appended (0, 1 or 2); -1 or -2 when the padding
// and terminator do not fit (-2: not even the first "="), -3 for a length
// that leaves 1 over a multiple of 4.
int base64urlToBase64(char *text, int capacity);

#ifdef __cplusplus
}
#endif

#endif
