// Small utilities shared by the factor data layer and the database layer:
// the console time stamp, the logging writer of the database context, clock
// readings, a small random number, and string trimming and checking.
#ifndef MFA_MFADATA_FACTORUTILS_H
#define MFA_MFADATA_FACTORUTILS_H

#include <stdarg.h>
#include <stdint.h>
#include <time.h>

#include "base/alloc.h"
#include "base/logging.h"

#ifdef __cplusplus
extern "C" {
#endif

// Prints the local time as "YYYY-MM-DD-hh-mm-ss.uuuuuu" and one blank to
// standard output, without a line end.
void printStamp(void);

// A LogHandler: printStamp, the component's name and ":", then the message,
// all to standard output; adds no line end.
void qmxLoggingCallback(LoggingContext *context, LoggingComponent *component, void *data,
                        const char *format, va_list args);

// Seconds since 1970-01-01 UTC.
time_t VELDLIBC_currentSecondsSinceJan1970(void);
// Fills both from gettimeofday; returns 0.
int VELDLIBC_currentSecondsAndMicrosSince1970(uint32_t *seconds, uint32_t *microseconds);
// A value from 1 to 256 taken from the clock; not a cryptographic source.
int VELDLIBC_rand(void);

// A new terminated copy of a fixed-length field without its trailing blanks
// and zero bytes. Null when length is negative or memory runs out. Release
// with safeFree(text, strlen(text) + 1).
char *makeString(const char *field, int length);

// A new copy of text without leading and trailing white space, or null for a
// null, empty or all-white text. Release with safeFree(text, strlen(text) + 1).
char *VELDLIBC_copyTrimmingLeadingTrailingSpaces(const char *text);
// The same, allocated from slh and released with it.
char *VELDLIBC_slhCopyTrimmingLeadingTrailingSpaces(ShortLivedHeap *slh, const char *text);

// 1 when every character is printable and none is white space (an empty text
// included), else 0. Null gives 0.
int isStringHasPrintableCharsOnly(const char *text);

#ifdef __cplusplus
}
#endif

#endif
