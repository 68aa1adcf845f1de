#include "base/files.h"

#include "support/env.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

class FilesTest : public testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/mfa-files-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override {
    setFileTrace(0);
    std::filesystem::remove_all(dir);
  }

  std::string path(const std::string &name) const { return dir + "/" + name; }

  void writeFile(const std::string &name, const std::string &content, int mode = 0600) {
    UnixFile *file = fileOpen(path(name).c_str(), O_CREAT | O_WRONLY | O_TRUNC, mode, 0, &rc, &rsn);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fileWrite(file, content.data(), static_cast<int>(content.size()), &rc, &rsn),
              static_cast<int>(content.size()));
    EXPECT_EQ(fileClose(file, &rc, &rsn), 0);
    EXPECT_EQ(rc, 0);
  }

  // A call's result with the return code it left, for one-line checks.
  std::pair<int, int> outcome(int result) const { return {result, rc}; }

  std::string dir;
  int rc = -7;
  int rsn = -7;
};

TEST_F(FilesTest, ReadingBufferedAndUnbuffered) {
  writeFile("three", "a\xFF"
                     "b");
  // A 2-byte buffer makes the third byte come from a refill; 0xFF reads as -1
  // but is not the end. Each result, with "E" once the end is known.
  UnixFile *file = fileOpen(path("three").c_str(), O_RDONLY, 0, 2, &rc, &rsn);
  ASSERT_NE(file, nullptr);
  std::string seen;
  for (int i = 0; i < 5; i++) {
    int c = fileGetChar(file, &rc, &rsn);
    seen += std::to_string(c) + (fileEOF(file) ? "E " : " ");
  }
  EXPECT_EQ(seen, "97 -1 98 -1E -1E ");
  EXPECT_EQ(outcome(fileClose(file, &rc, &rsn)), std::pair(0, 0));

  // Without a buffer there is no character stream.
  file = fileOpen(path("three").c_str(), O_RDONLY, 0, 0, &rc, &rsn);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(outcome(fileGetChar(file, &rc, &rsn)), std::pair(-1, FILE_RC_NO_BUFFER));
  EXPECT_EQ(rsn, FILE_RSN_NO_BUFFER);
  char buffer[16] = {};
  EXPECT_EQ(fileRead(file, buffer, sizeof buffer, &rc, &rsn), 3);
  EXPECT_EQ(fileEOF(file), 0);
  EXPECT_EQ(fileRead(file, buffer, sizeof buffer, &rc, &rsn), 0);
  EXPECT_EQ(fileEOF(file), 1);
  EXPECT_STREQ(buffer, "a\xFF"
                       "b");
  fileClose(file, &rc, &rsn);
}

TEST_F(FilesTest, FailuresReportTheErrorNumber) {
  std::string missing = path("missing");
  EXPECT_EQ(fileOpen(missing.c_str(), O_RDONLY, 0, 1024, &rc, &rsn), nullptr);
  EXPECT_EQ(rc, ENOENT);
  EXPECT_EQ(rsn, ENOENT);

  EXPECT_EQ(fileOpen(dir.c_str(), O_WRONLY, 0, 0, &rc, &rsn), nullptr);
  EXPECT_EQ(rc, EISDIR);

  // A directory opened for reading fails on the first read, which also ends it.
  UnixFile *file = fileOpen(dir.c_str(), O_RDONLY, 0, 64, &rc, &rsn);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(outcome(fileGetChar(file, &rc, &rsn)), std::pair(-1, EISDIR));
  EXPECT_EQ(fileEOF(file), 1);
  char byte;
  EXPECT_EQ(outcome(fileRead(file, &byte, 1, &rc, &rsn)), std::pair(-1, EISDIR));
  EXPECT_EQ(outcome(fileWrite(file, "x", 1, &rc, &rsn)), std::pair(-1, EBADF));
  EXPECT_EQ(outcome(fileClose(file, &rc, &rsn)), std::pair(0, 0));
  EXPECT_EQ(fileClose(nullptr, &rc, &rsn), 0);
}

TEST_F(FilesTest, InfoAndAccess) {
  int previous = setUmask(022);
  writeFile("f", "12345", 0640);
  FileInfo info;
  ASSERT_EQ(fileInfo(path("f").c_str(), &info, &rc, &rsn), 0);
  EXPECT_EQ(fileInfoSize(&info), 5);
  EXPECT_EQ(fileUnixMode(&info), S_IFREG | 0640);
  ASSERT_EQ(fileInfo(dir.c_str(), &info, &rc, &rsn), 0);
  EXPECT_EQ(fileInfoIsDirectory(&info), 1);

  EXPECT_EQ(fileInfoCCSID(&info), 1208);
  EXPECT_EQ(setFileInfoCCSID(819), 1208);
  EXPECT_EQ(fileInfoCCSID(&info), 819);
  setFileInfoCCSID(1208);

  EXPECT_EQ(fileAccess(path("f").c_str(), 4 | 2, &rc, &rsn), 0);
  // No execute bit at all: refused even to the superuser.
  EXPECT_EQ(outcome(fileAccess(path("f").c_str(), 1, &rc, &rsn)), std::pair(-1, EACCES));
  EXPECT_EQ(rsn, 0);
  EXPECT_EQ(outcome(fileAccess(path("nothing").c_str(), 8, &rc, &rsn)), std::pair(-1, ENOENT));

  // Learning the mask leaves it as it was.
  setUmask(027);
  EXPECT_EQ(getUmask(), 027);
  EXPECT_EQ(setUmask(previous), 027);
}

// Reads every entry; the names, and the codes of the call that ended the listing.
std::set<std::string> listDirectory(UnixFile *directory, int bufferSize, int &rc, int &rsn) {
  std::set<std::string> names;
  std::vector<char> buffer(static_cast<size_t>(bufferSize));
  while (directoryRead(directory, buffer.data(), bufferSize, &rc, &rsn) == 1) {
    uint16_t total, nameLength;
    memcpy(&total, buffer.data(), 2);
    memcpy(&nameLength, buffer.data() + 2, 2);
    EXPECT_EQ(total, nameLength + 5);
    EXPECT_EQ(buffer[4 + nameLength], '\0');
    names.emplace(buffer.data() + 4, nameLength);
  }
  return names;
}

TEST_F(FilesTest, DirectoriesAreMadeListedAndDeleted) {
  std::string sub = path("sub");
  EXPECT_EQ(outcome(directoryMake(sub.c_str(), 0700, &rc, &rsn)), std::pair(0, 0));
  EXPECT_EQ(outcome(directoryMake(sub.c_str(), 0700, &rc, &rsn)), std::pair(-1, EEXIST));
  writeFile("sub/abcd", "");

  UnixFile *directory = directoryOpen(sub.c_str(), &rc, &rsn);
  ASSERT_NE(directory, nullptr);
  EXPECT_EQ(listDirectory(directory, 256, rc, rsn), (std::set<std::string>{".", "..", "abcd"}));
  EXPECT_EQ(rsn, 0);
  EXPECT_EQ(directoryClose(directory, &rc, &rsn), 0);

  // "." and ".." fit in 8 bytes, "abcd" needs 9: the listing ends there for good.
  directory = directoryOpen(sub.c_str(), &rc, &rsn);
  ASSERT_NE(directory, nullptr);
  std::set<std::string> names = listDirectory(directory, 8, rc, rsn);
  EXPECT_EQ(names.count("abcd"), 0u);
  EXPECT_EQ(rsn, FILE_RSN_ENTRY_TOO_LONG);
  char buffer[256];
  EXPECT_EQ(directoryRead(directory, buffer, sizeof buffer, &rc, &rsn), 0);
  directoryClose(directory, &rc, &rsn);

  unlink(path("sub/abcd").c_str());

  // Names of 200 bytes are refused however large the buffer.
  writeFile("sub/" + std::string(200, 'n'), "");
  directory = directoryOpen(sub.c_str(), &rc, &rsn);
  ASSERT_NE(directory, nullptr);
  EXPECT_EQ(listDirectory(directory, 1024, rc, rsn).count(std::string(200, 'n')), 0u);
  EXPECT_EQ(rsn, FILE_RSN_ENTRY_TOO_LONG);
  directoryClose(directory, &rc, &rsn);
  unlink(path("sub/" + std::string(200, 'n')).c_str());
  EXPECT_EQ(outcome(directoryDelete(sub.c_str(), &rc, &rsn)), std::pair(0, 0));
}

TEST_F(FilesTest, TraceLevelGatesMessages) {
  std::string missing = path("missing");
  auto openMissing = [&] { fileOpen(missing.c_str(), O_RDONLY, 0, 0, &rc, &rsn); };
  EXPECT_EQ(mfatest::captureStdout(openMissing), "");

  EXPECT_EQ(setFileTrace(1), 0);
  EXPECT_EQ(mfatest::captureStdout(openMissing),
            "open(" + missing + ", 00, 00) FAILED: -1 returned, with errno 2 (" + strerror(ENOENT) +
                ")\n");
  std::string sub = path("d");
  EXPECT_EQ(mfatest::captureStdout([&] { directoryMake(sub.c_str(), 0755, &rc, &rsn); }), "");

  setFileTrace(2);
  EXPECT_EQ(mfatest::captureStdout([&] { directoryDelete(sub.c_str(), &rc, &rsn); }),
            "directoryDelete(" + sub + ") succeeded.\n");
}

} // namespace
