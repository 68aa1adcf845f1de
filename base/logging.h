// Process-wide logging registry.
//
// Every message is addressed to a component, named by a 64-bit id made of
// four 16-bit fields (vendor, then up to three path parts; a zero part ends
// the path), at a numeric level. A configured component names one of the 32
// destinations of its vendor; a destination is a print callback and a dump
// callback with their context. A message of level L is written when L is not
// above the component's effective level, the largest level configured on the
// component's path. Nothing is locked: configure at start, then log.
#ifndef MFA_BASE_LOGGING_H
#define MFA_BASE_LOGGING_H

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The system's own vendor, whose components are kept in direct-indexed tables.
#define LOG_VENDOR_SYSTEM 77
#define LOG_DESTINATION_COUNT 32
#define LOG_DUMP_LINE_SIZE 4096

// Destination ids: vendor in the upper 16 bits, index in the lower 16.
#define LOG_DEST_DEV_NULL 0x004D0000u
#define LOG_DEST_PRINTF_STDOUT 0x004D0001u
#define LOG_DEST_PRINTF_STDERR 0x004D0002u

#define LOG_COMPONENT_CONFIGURED 0x01

typedef struct LoggingContext LoggingContext;

// One node of a vendor's component tree.
typedef struct LoggingComponent {
  void *children;       // child table, or null
  uint8_t flags;        // LOG_COMPONENT_CONFIGURED once configured
  uint8_t level;        // own level; 0 for entries made only on the way
  uint16_t destination; // index into the vendor's destinations
  const char *name;     // the caller's text, not copied
} LoggingComponent;

// Writes one formatted message for component; data is the destination's data.
typedef void (*LogHandler)(LoggingContext *context, LoggingComponent *component, void *data,
                           const char *format, va_list args);

// Fills buffer (of bufferSize bytes) with dump line lineNumber of data and
// returns it, or returns null when data has no such line.
typedef char *(*DataDumper)(char *buffer, int bufferSize, const void *data, int length,
                            int lineNumber);

typedef struct LoggingDestination {
  char eyecatcher[8]; // "QNLOGDST", not terminated
  int32_t index;
  int32_t initialized; // 1 once configured
  const char *name;    // the caller's text, not copied
  void *data;          // handed to the print callback
  LogHandler print;
  DataDumper dump;
} LoggingDestination;

// The process-wide context, installing a new one when none exists.
// Null only when it cannot be allocated.
LoggingContext *makeLoggingContext(void);
// A new context that is not installed; release it with freeLoggingContext.
LoggingContext *makeLocalLoggingContext(void);
// Releases a context made by makeLocalLoggingContext; accepts null.
void freeLoggingContext(LoggingContext *context);
// Tears down the installed context, if any, and clears the variable.
void removeLoggingContext(void);
LoggingContext *getLoggingContext(void);
void setLoggingContext(LoggingContext *context);

// Configures destinations 0 "/dev/null" (no callbacks), 1 "printf(stdout)"
// and 2 "printf(stderr)" of vendor 77. A null context means the installed one.
void logConfigureStandardDestinations(LoggingContext *context);

// Configures a destination with the standard dump callback and returns its
// record (owned by the context), or null when the index is 32 or more or no
// context exists. name and data must outlive the configuration.
LoggingDestination *logConfigureDestination(LoggingContext *context, uint32_t destinationId,
                                            const char *name, void *data, LogHandler print);
// The same with dump in place of the standard dump callback.
LoggingDestination *logConfigureDestination2(LoggingContext *context, uint32_t destinationId,
                                             const char *name, void *data, LogHandler print,
                                             DataDumper dump);

// Creates the component's path as needed and configures its entry with level
// and the destination index (lower 16 bits of destinationId). name must
// outlive the configuration.
void logConfigureComponent(LoggingContext *context, uint64_t componentId, const char *name,
                           uint32_t destinationId, int level);
// Changes the level of a configured component; unknown ones are ignored.
void logSetLevel(LoggingContext *context, uint64_t componentId, int level);
// The component's own level, or -1 when it is unknown or not configured.
int logGetLevel(LoggingContext *context, uint64_t componentId);

// 1 when a message of this level to this component would be written, else 0.
int logShouldTraceInternal(LoggingContext *context, uint64_t componentId, int level);

// Formats and writes one message, when the component's effective level allows.
void tvklog(LoggingContext *context, uint64_t componentId, int level, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
// Writes a hex dump of length bytes, one print call per line.
void tvkdump(LoggingContext *context, uint64_t componentId, int level, const void *data,
             int length);

// The dump callback installed by logConfigureDestination: line n shows bytes
// 32n to 32n + 31 as hexadecimal and as text read in EBCDIC code page 1047.
char *standardDumperFunction(char *buffer, int bufferSize, const void *data, int length,
                             int lineNumber);

// Writes text and a line feed to standard output; the logging system's own
// complaints go here.
void lastResortLog(const char *text);

#ifdef __cplusplus
}
#endif

#endif
