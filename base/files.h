// Files and directories over the POSIX interface.
//
// Every operation reports its outcome through a return code and a reason
// code, the last two arguments: both the system error number on failure and
// both 0 on success. A process-wide trace level (setFileTrace) makes the layer
// print what it does on standard output; failures print nothing below level 1.
#ifndef MFA_BASE_FILES_H
#define MFA_BASE_FILES_H

#include <dirent.h>
#include <stdint.h>
#include <sys/stat.h>

#ifdef __cplusplus
extern "C" {
#endif

// An open file or directory.
typedef struct UnixFile {
  char *pathname; // copy of the path given to fileOpen or directoryOpen
  int fd;         // -1 for a directory
  int bufferSize; // 0 when reading is unbuffered
  int bufferFill; // bytes in buffer
  int bufferPos;  // next byte to deliver from buffer
  int eofKnown;   // the end of the file has been met
  char *buffer;   // read buffer of bufferSize bytes
  DIR *dir;       // open directory stream, for a directory
} UnixFile;

// The platform's status record.
typedef struct stat FileInfo;

// fileGetChar on a file opened without a read buffer.
#define FILE_RC_NO_BUFFER 8
#define FILE_RSN_NO_BUFFER 3071
// directoryRead: the entry does not fit the caller's buffer.
#define FILE_RSN_ENTRY_TOO_LONG 36

// Previous level returned. 0 at start; 1 failures, 2 successes of directory
// calls, 3 every read and write.
int setFileTrace(int level);

// open(path, openFlags, creationMode). A bufferSize above 0 attaches a read
// buffer for fileGetChar. Returns a record to release with fileClose, or null.
UnixFile *fileOpen(const char *path, int openFlags, int creationMode, int bufferSize,
                   int *returnCode, int *reasonCode);
// One read: the count, 0 at the end of the file (sets the EOF flag), -1 on failure.
int fileRead(UnixFile *file, char *buffer, int length, int *returnCode, int *reasonCode);
// Writes all bytes: returns length, or -1 on failure.
int fileWrite(UnixFile *file, const char *bytes, int length, int *returnCode, int *reasonCode);
// The next byte from the read buffer as a signed character widened to int
// (so 0xFF reads as -1); -1 at the end, on failure, or without a read buffer
// (then codes FILE_RC_NO_BUFFER and FILE_RSN_NO_BUFFER).
int fileGetChar(UnixFile *file, int *returnCode, int *reasonCode);
// 1 once the end of the file has been met.
int fileEOF(const UnixFile *file);
// Closes and releases the record; returns the result of close. Accepts null.
int fileClose(UnixFile *file, int *returnCode, int *reasonCode);

// stat(path) into info; returns 0 or -1.
int fileInfo(const char *path, FileInfo *info, int *returnCode, int *reasonCode);
int64_t fileInfoSize(const FileInfo *info);
int fileInfoIsDirectory(const FileInfo *info);
// The low 16 bits of the mode.
int fileUnixMode(const FileInfo *info);
// Status-change time in seconds since 1970.
int64_t fileInfoUnixCreationTime(const FileInfo *info);
// The code page files are taken to be in: a process-wide guess, 1208 unless
// setFileInfoCCSID chose another.
int fileInfoCCSID(const FileInfo *info);
// Sets the guess; returns 1208.
int setFileInfoCCSID(int ccsid);

// access(path): mode 8 asks existence only, else bit 4 read, 2 write and 1
// execute permission. Returns 0 or -1; the reason code is always 0.
int fileAccess(const char *path, int mode, int *returnCode, int *reasonCode);

// mkdir and rmdir; return 0 or -1.
int directoryMake(const char *path, int mode, int *returnCode, int *reasonCode);
int directoryDelete(const char *path, int *returnCode, int *reasonCode);
// Returns a record to release with directoryClose, or null.
UnixFile *directoryOpen(const char *path, int *returnCode, int *reasonCode);
// 1 with the next entry in buffer: 16-bit total length (name length + 5),
// 16-bit name length, the name and a NUL. 0 at the end, on a failure, or when
// the entry does not fit (reason FILE_RSN_ENTRY_TOO_LONG; the buffer must hold
// name length + 5 bytes and the name must be shorter than 200). Once 0 has
// been returned, every further call returns 0.
int directoryRead(UnixFile *directory, char *buffer, int bufferSize, int *returnCode,
                  int *reasonCode);
// Returns the result of closedir. Accepts null.
int directoryClose(UnixFile *directory, int *returnCode, int *reasonCode);

// umask(mask); returns the previous mask.
int setUmask(int mask);
// The current mask, learned without changing it; 0 when it cannot be learned.
int getUmask(void);

#ifdef __cplusplus
}
#endif

#endif
