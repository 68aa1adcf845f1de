#include "base/files.h"

#include "base/alloc.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int kDefaultCCSID = 1208;
constexpr int kMaxEntryName = 200;
constexpr int kEntryOverhead = 5; // two 16-bit lengths and the NUL
constexpr int kUmaskAttempts = 1000;

int traceLevel = 0;
int infoCCSID = 0; // 0 until first asked

__attribute__((format(printf, 2, 3))) void trace(int level, const char *format, ...) {
  if (traceLevel < level)
    return;
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  fflush(stdout);
}

void setCodes(int *returnCode, int *reasonCode, int code) {
  *returnCode = code;
  *reasonCode = code;
}

// Codes from a system call's result: the error number on failure, else 0.
int reportResult(int result, int error, int *returnCode, int *reasonCode) {
  setCodes(returnCode, reasonCode, result < 0 ? error : 0);
  return result;
}

// Guards the calls that take an open file: a null record fails like a bad descriptor.
bool badFile(const UnixFile *file, int *returnCode, int *reasonCode) {
  if (file != nullptr)
    return false;
  setCodes(returnCode, reasonCode, EBADF);
  return true;
}

int nameSize(const UnixFile *file) {
  return static_cast<int>(strlen(file->pathname)) + 1;
}

// A record holding a copy of path; null when memory is short.
UnixFile *makeRecord(const char *path) {
  auto *file = reinterpret_cast<UnixFile *>(safeMalloc31(sizeof(UnixFile), "Unix File"));
  if (file == nullptr)
    return nullptr;
  int size = static_cast<int>(strlen(path)) + 1;
  file->pathname = safeMalloc31(size, "Unix File Name");
  if (file->pathname == nullptr) {
    safeFree31(reinterpret_cast<char *>(file), sizeof(UnixFile));
    return nullptr;
  }
  memcpy(file->pathname, path, static_cast<size_t>(size));
  file->fd = -1;
  return file;
}

void releaseRecord(UnixFile *file) {
  safeFree31(file->pathname, nameSize(file));
  safeFree31(file->buffer, file->bufferSize);
  safeFree31(reinterpret_cast<char *>(file), sizeof(UnixFile));
}

// Finishes a close whose system call gave result: the record is released
// either way and the codes tell the outcome. A null record closes trivially.
int closeRecord(UnixFile *file, int result, int *returnCode, int *reasonCode) {
  int error = errno;
  if (file != nullptr)
    releaseRecord(file);
  return reportResult(result, error, returnCode, reasonCode);
}

} // namespace

extern "C" {

int setFileTrace(int level) {
  return std::exchange(traceLevel, level);
}

UnixFile *fileOpen(const char *path, int openFlags, int creationMode, int bufferSize,
                   int *returnCode, int *reasonCode) {
  int fd = open(path, openFlags, creationMode);
  if (fd < 0) {
    int error = errno;
    trace(1, "open(%s, 0%o, 0%o) FAILED: %d returned, with errno %d (%s)\n", path, openFlags,
          creationMode, fd, error, strerror(error));
    setCodes(returnCode, reasonCode, error);
    return nullptr;
  }
  UnixFile *file = makeRecord(path);
  if (file != nullptr && bufferSize > 0) {
    trace(1, "initializing buffered reading\n");
    file->buffer = safeMalloc31(bufferSize, "Unix File Buffer");
    if (file->buffer == nullptr) {
      releaseRecord(file);
      file = nullptr;
    } else {
      // Empty and used up, so the first fileGetChar fills it.
      file->bufferSize = bufferSize;
    }
  }
  if (file == nullptr) {
    close(fd);
    setCodes(returnCode, reasonCode, ENOMEM);
    return nullptr;
  }
  file->fd = fd;
  setCodes(returnCode, reasonCode, 0);
  return file;
}

int fileRead(UnixFile *file, char *buffer, int length, int *returnCode, int *reasonCode) {
  if (badFile(file, returnCode, reasonCode))
    return -1;
  ssize_t result = read(file->fd, buffer, length < 0 ? 0 : static_cast<size_t>(length));
  if (result < 0) {
    int error = errno;
    trace(1, "read failed for %s, fd %d, with errno %d (%s)\n", file->pathname, file->fd, error,
          strerror(error));
    setCodes(returnCode, reasonCode, error);
    return -1;
  }
  trace(3, "read for %s, fd %d, returned %d bytes\n", file->pathname, file->fd,
        static_cast<int>(result));
  setCodes(returnCode, reasonCode, 0);
  if (result == 0 && length >= 1)
    file->eofKnown = 1;
  return static_cast<int>(result);
}

int fileWrite(UnixFile *file, const char *bytes, int length, int *returnCode, int *reasonCode) {
  if (badFile(file, returnCode, reasonCode))
    return -1;
  trace(3, "writing %d bytes to fd %d (%s)\n", length, file->fd, file->pathname);
  for (int written = 0; written < length;) {
    errno = 0;
    ssize_t result = write(file->fd, bytes + written, static_cast<size_t>(length - written));
    if (result < 1) {
      // A write of nothing leaves errno alone; still report a failure.
      int error = errno != 0 ? errno : EIO;
      trace(1, "write failed for %s with errno %d (%s)\n", file->pathname, error, strerror(error));
      setCodes(returnCode, reasonCode, error);
      return -1;
    }
    written += static_cast<int>(result);
  }
  setCodes(returnCode, reasonCode, 0);
  return length;
}

int fileGetChar(UnixFile *file, int *returnCode, int *reasonCode) {
  if (badFile(file, returnCode, reasonCode))
    return -1;
  if (file->buffer == nullptr) {
    *returnCode = FILE_RC_NO_BUFFER;
    *reasonCode = FILE_RSN_NO_BUFFER;
    return -1;
  }
  setCodes(returnCode, reasonCode, 0);
  if (file->bufferPos >= file->bufferFill) {
    if (file->eofKnown)
      return -1;
    trace(2, "bufferSize = %d\n", file->bufferSize);
    ssize_t result = read(file->fd, file->buffer, static_cast<size_t>(file->bufferSize));
    if (result <= 0) {
      if (result < 0)
        setCodes(returnCode, reasonCode, errno);
      file->eofKnown = 1;
      return -1;
    }
    file->bufferFill = static_cast<int>(result);
    file->bufferPos = 0;
  }
  return static_cast<signed char>(file->buffer[file->bufferPos++]);
}

int fileEOF(const UnixFile *file) {
  return file == nullptr ? 1 : file->eofKnown;
}

int fileClose(UnixFile *file, int *returnCode, int *reasonCode) {
  return closeRecord(file, file != nullptr ? close(file->fd) : 0, returnCode, reasonCode);
}

int fileInfo(const char *path, FileInfo *info, int *returnCode, int *reasonCode) {
  int result = stat(path, info);
  int error = errno;
  if (result < 0)
    trace(1, "fileInfo(%s): stat failed, errno=%d (%s)\n", path, error, strerror(error));
  return reportResult(result, error, returnCode, reasonCode);
}

int64_t fileInfoSize(const FileInfo *info) {
  return info->st_size;
}
int fileInfoIsDirectory(const FileInfo *info) {
  return S_ISDIR(info->st_mode) ? 1 : 0;
}
int fileUnixMode(const FileInfo *info) {
  return static_cast<int>(info->st_mode & 0xFFFF);
}
int64_t fileInfoUnixCreationTime(const FileInfo *info) {
  return info->st_ctime;
}

int fileInfoCCSID(const FileInfo *) {
  if (infoCCSID == 0)
    infoCCSID = kDefaultCCSID;
  trace(3, "fileInfoCCSID returning %d (a guess)\n", infoCCSID);
  return infoCCSID;
}

int setFileInfoCCSID(int ccsid) {
  trace(1, "Changing the CCSID returned by fileInfoCCSID from %d to %d\n", infoCCSID, ccsid);
  infoCCSID = ccsid;
  return kDefaultCCSID;
}

int fileAccess(const char *path, int mode, int *returnCode, int *reasonCode) {
  int how = F_OK;
  if (mode != 8)
    how = ((mode & 4) ? R_OK : 0) | ((mode & 2) ? W_OK : 0) | ((mode & 1) ? X_OK : 0);
  int result = access(path, how);
  *returnCode = result < 0 ? errno : 0;
  *reasonCode = 0;
  return result;
}

int directoryMake(const char *path, int mode, int *returnCode, int *reasonCode) {
  int result = mkdir(path, static_cast<mode_t>(mode));
  int error = errno;
  if (result < 0)
    trace(1, "directoryMake(%s, 0x%x) failed with errno %d (%s)\n", path, mode, error,
          strerror(error));
  else
    trace(2, "directoryMake(%s, 0x%x) succeeded.\n", path, mode);
  return reportResult(result, error, returnCode, reasonCode);
}

int directoryDelete(const char *path, int *returnCode, int *reasonCode) {
  int result = rmdir(path);
  int error = errno;
  if (result < 0)
    trace(1, "directoryDelete(%s) failed with errno %d (%s)\n", path, error, strerror(error));
  else
    trace(2, "directoryDelete(%s) succeeded.\n", path);
  return reportResult(result, error, returnCode, reasonCode);
}

UnixFile *directoryOpen(const char *path, int *returnCode, int *reasonCode) {
  DIR *stream = opendir(path);
  if (stream == nullptr) {
    int error = errno;
    trace(1, "opendir(%s) FAILED with errno %d (%s)\n", path, error, strerror(error));
    setCodes(returnCode, reasonCode, error);
    return nullptr;
  }
  trace(1, "opendir(%s) succeeded\n", path);
  UnixFile *directory = makeRecord(path);
  if (directory == nullptr) {
    closedir(stream);
    setCodes(returnCode, reasonCode, ENOMEM);
    return nullptr;
  }
  directory->dir = stream;
  setCodes(returnCode, reasonCode, 0);
  return directory;
}

int directoryRead(UnixFile *directory, char *buffer, int bufferSize, int *returnCode,
                  int *reasonCode) {
  setCodes(returnCode, reasonCode, 0);
  if (directory == nullptr || directory->dir == nullptr || directory->eofKnown)
    return 0;
  errno = 0;
  struct dirent *entry = readdir(directory->dir);
  if (entry == nullptr) {
    setCodes(returnCode, reasonCode, errno);
    directory->eofKnown = 1;
    return 0;
  }
  size_t nameLength = strlen(entry->d_name);
  if (nameLength >= kMaxEntryName || bufferSize < 0 ||
      nameLength + kEntryOverhead > static_cast<size_t>(bufferSize)) {
    setCodes(returnCode, reasonCode, FILE_RSN_ENTRY_TOO_LONG);
    directory->eofKnown = 1;
    return 0;
  }
  uint16_t lengths[2] = {static_cast<uint16_t>(nameLength + kEntryOverhead),
                         static_cast<uint16_t>(nameLength)};
  memcpy(buffer, lengths, sizeof lengths);
  memcpy(buffer + sizeof lengths, entry->d_name, nameLength + 1);
  return 1;
}

int directoryClose(UnixFile *directory, int *returnCode, int *reasonCode) {
  return closeRecord(directory, directory != nullptr ? closedir(directory->dir) : 0, returnCode,
                     reasonCode);
}

int setUmask(int mask) {
  return static_cast<int>(umask(static_cast<mode_t>(mask)));
}

int getUmask(void) {
  char name[64];
  int fd = -1;
  for (int attempt = 0; attempt < kUmaskAttempts && fd < 0; ++attempt) {
    snprintf(name, sizeof name, "/tmp/%d_umask_%d", static_cast<int>(getpid()), attempt);
    fd = open(name, O_CREAT | O_EXCL | O_WRONLY, 0777);
    if (fd < 0 && errno != EEXIST)
      break;
  }
  if (fd < 0) {
    printf("Unable to determine umask; getUmask could not create a temp file.\n");
    return 0;
  }
  struct stat status;
  int mask = 0;
  if (fstat(fd, &status) < 0) {
    int error = errno;
    printf("Unable to determine umask; fstat for %s (fd %d) failed, errno %d (%s)\n", name, fd,
           error, strerror(error));
  } else {
    mask = 0777 & ~(status.st_mode & 0777);
  }
  close(fd);
  if (unlink(name) < 0) {
    int error = errno;
    printf("WARNING: unlink failed for %s (created by getUmask), errno %d (%s).\n", name, error,
           strerror(error));
  }
  return mask;
}

} // extern "C"
