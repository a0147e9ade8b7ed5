#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "error/SystemError.h"
#include "support/child.h"
#include "support/scratch.h"
#include "vhost/misc.h"

namespace {

using frask::readFile;
using testsupport::in_child;
using testsupport::ScratchDir;
using testsupport::write_file;

/// Bytes of every value, so that a lost or doubled piece shows.
std::string bytes_of(size_t size) {
  std::string bytes(size, '\0');
  unsigned state = 1;
  for (char& byte : bytes) {
    state = state * 1103515245U + 12345U;
    byte = static_cast<char>(state >> 16U);
  }
  return bytes;
}

TEST(ReadFile, GivesEveryByteOfAFile) {
  const ScratchDir dir;
  for (const size_t size : {0U, 1U, 2U, 4095U, 4096U, 65535U, 65536U, 65537U, 1000003U}) {
    SCOPED_TRACE(size);
    write_file(dir / "file", bytes_of(size));
    EXPECT_TRUE(readFile(dir / "file") == bytes_of(size));
  }
  write_file(dir / "file", std::string("a\0\r\n\xff\0", 6));
  EXPECT_EQ(readFile(dir / "file"), std::string("a\0\r\n\xff\0", 6));
}

TEST(ReadFile, GivesTheHolesOfASparseFileAsZeros) {
  const ScratchDir dir;
  write_file(dir / "file", "begin");
  ASSERT_EQ(truncate((dir / "file").c_str(), 10000000), 0);
  EXPECT_TRUE(readFile(dir / "file") == "begin" + std::string(10000000 - 5, '\0'));
}

TEST(ReadFile, ReadsWhatTellsNoSize) {
  EXPECT_EQ(readFile("/proc/self/stat").rfind(std::to_string(getpid()) + " (", 0), 0U);
  EXPECT_EQ(readFile("/proc/sys/kernel/pid_max"),
            testsupport::read_file("/proc/sys/kernel/pid_max"));
  EXPECT_EQ(readFile("/dev/null"), "");
}

TEST(ReadFile, ReadsAPipeToItsEnd) {
  const ScratchDir dir;
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  const pid_t writer = fork();
  if (writer == 0) {
    std::ofstream(dir / "pipe", std::ios::binary) << bytes_of(1000003);
    _exit(0);
  }
  EXPECT_TRUE(readFile(dir / "pipe") == bytes_of(1000003));
  EXPECT_EQ(waitpid(writer, nullptr, 0), writer);
}

TEST(ReadFile, ReadsADirectoryAsEmpty) {
  EXPECT_EQ(readFile("/"), "");
}

TEST(ReadFile, ThrowsTheNotFoundErrorForAMissingFile) {
  const ScratchDir dir;
  try {
    readFile(dir / "missing");
    FAIL() << "no exception";
  } catch (const frask::ExSystemError<ENOENT>& error) {
    EXPECT_EQ(error.what(), (dir / "missing") + ": open failed: No such file or directory");
    EXPECT_EQ(error.code(), ENOENT);
  }
}

std::string failure_of(const std::string& path) {
  try {
    readFile(path);
  } catch (const frask::SystemError& error) {
    return std::to_string(error.code()) + " " + error.what();
  }
  return "no exception";
}

TEST(ReadFile, ThrowsWhatOpenGives) {
  const ScratchDir dir;
  write_file(dir / "file", "");
  std::filesystem::create_symlink("loop", dir / "loop");
  EXPECT_EQ(failure_of(dir / "file/below"),
            "20 " + (dir / "file/below") + ": open failed: Not a directory");
  EXPECT_EQ(failure_of(dir / "loop"),
            "40 " + (dir / "loop") + ": open failed: Too many levels of symbolic links");
  EXPECT_EQ(failure_of(""), "2 : open failed: No such file or directory");
  const std::string longest(300, 'n');
  EXPECT_EQ(failure_of(dir / longest),
            "36 " + (dir / longest) + ": open failed: File name too long");
}

TEST(ReadFile, ThrowsForAFileThatTheUserMayNotRead) {
  const ScratchDir dir;
  write_file(dir / "file", "secret", 0600);
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const testsupport::Outcome outcome = in_child([&] {
    if (setuid(65534) != 0) _exit(1);
    if (failure_of(dir / "file") != "13 " + (dir / "file") + ": open failed: Permission denied")
      _exit(2);
  });
  EXPECT_EQ(outcome.exit_code(), 0) << outcome;
}

TEST(ReadFile, ThrowsWhenAReadFails) {
  // The first page of a process's memory is never mapped.
  EXPECT_EQ(failure_of("/proc/self/mem"), "5 /proc/self/mem: read failed: Input/output error");
}

TEST(ReadFile, LeavesNoDescriptorOpen) {
  const std::vector<int> before = testsupport::open_descriptors();
  readFile("/proc/self/stat");
  EXPECT_NE(failure_of("/proc/self/mem"), "no exception");
  EXPECT_EQ(testsupport::open_descriptors(), before);
}

TEST(ReadFileOfStream, GivesWhatRemains) {
  std::istringstream in(std::string("one\ntwo\0three\n", 14));
  std::string line;
  ASSERT_TRUE(std::getline(in, line));
  EXPECT_EQ(readFile(in), std::string("two\0three\n", 10));
  EXPECT_EQ(readFile(in), "");
}

TEST(ReadFileOfStream, KeepsBlanksWhateverTheStreamSkips) {
  std::istringstream in(" \n a \t");
  in >> std::skipws;
  EXPECT_EQ(readFile(in), " \n a \t");
}

TEST(ReadFileOfStream, GivesEveryByteOfAFile) {
  const ScratchDir dir;
  for (const size_t size : {0U, 1U, 65535U, 65536U, 65537U, 1000003U}) {
    SCOPED_TRACE(size);
    write_file(dir / "file", bytes_of(size));
    std::ifstream in(dir / "file", std::ios::binary);
    EXPECT_TRUE(readFile(in) == bytes_of(size));
    EXPECT_TRUE(in.good()) << "the state is left alone";
  }
}

TEST(ReadFileOfStream, GivesNothingFromAStreamThatHasFailed) {
  std::istringstream in("content");
  in.setstate(std::ios::failbit);
  EXPECT_EQ(readFile(in), "");
  in.clear(std::ios::badbit);
  EXPECT_EQ(readFile(in), "");
  in.clear();
  EXPECT_EQ(readFile(in), "content") << "and took nothing from it";
  std::ifstream missing("/nonexistent");
  EXPECT_EQ(readFile(missing), "");
}

TEST(ReadFileOfStream, TakesAFailedReadForTheEndAndMarksTheStream) {
  std::ifstream directory("/");
  ASSERT_TRUE(directory.is_open());
  EXPECT_EQ(readFile(directory), "");
  EXPECT_TRUE(directory.bad());
  std::ifstream memory("/proc/self/mem");
  EXPECT_EQ(readFile(memory), "");
  EXPECT_TRUE(memory.bad());
}

}  // namespace
