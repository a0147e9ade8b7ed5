#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "error/SystemError.h"
#include "fs/unique_fd.h"
#include "support/child.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "support/traced.h"
#include "vhost/entry_points.h"
#include "vhost/long_environment.h"
#include "vhost/protected_copy_original.private.h"

// Files that do not fit into the memory that a protected copy takes, and what is no file.
namespace {

namespace fs = std::filesystem;
using frask::Original;
using frask::UniqueFd;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::write_file;

class ProtectedCopy : public ::testing::Test {
 protected:
  using Texts = std::vector<std::pair<off_t, std::string>>;

  static constexpr off_t kPiece = Original::kPiece;
  static constexpr off_t kMiB = 1048576;
  static constexpr off_t kLargest = std::numeric_limits<off_t>::max();
  /// The first piece is read whole, and behind it the longest beginning of the banner is held.
  static constexpr off_t kHeld = 52;
  static constexpr off_t kBorders[] = {kPiece, 2 * kPiece - kHeld, 3 * kPiece - 2 * kHeld};

  /// A file of zeros but for some texts, which alone take room.
  UniqueFd make(off_t size, const Texts& texts) const {
    UniqueFd fd(open(file_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
    EXPECT_EQ(ftruncate(fd.get(), size), 0);
    for (const auto& [place, text] : texts) put(fd.get(), place, text);
    return fd;
  }

  static void put(int fd, off_t place, const std::string& text) {
    EXPECT_EQ(pwrite(fd, text.data(), text.size(), place), static_cast<ssize_t>(text.size()));
  }

  bool holds_banner() const { return Original(AT_FDCWD, file_.c_str(), file_).contains(banner_); }

  /// In a child, which must not report anything.
  void protect() const {
    EXPECT_EQ(in_child([&] { copy_if_no_dontedit(file_.c_str()); }), (Outcome{"", "", 0}));
  }

  Outcome protect_while(const testsupport::Call& before,
                        const std::function<void()>& change) const {
    return testsupport::in_child_stopped_at(before, change,
                                            [&] { copy_if_no_dontedit(file_.c_str()); });
  }

  void expect_failed_copy(const Outcome& outcome, const std::string& reason) const {
    const std::string text = "Failed to back up file '" + file_ +
                             "': filesystem error: cannot copy file: " + reason + " [" + file_ +
                             "] [" + backup_ + "]\n";
    EXPECT_EQ(outcome, (Outcome{text, text, 0}));
    EXPECT_EQ(fs::file_size(backup_), 0U);
  }

  const testsupport::Call second_piece_{SYS_pread64, "", 1};
  const testsupport::Call reserving_{SYS_openat, "f.saved_by_oxa"};
  const testsupport::Call copying_{SYS_fchmod, ""};
  const std::string banner_ = get_dontedit_tag();
  testsupport::ScratchDir dir_{testsupport::memory_directory()};
  std::string file_ = dir_ / "f";
  std::string backup_ = dir_ / "f.saved_by_oxa";
};

TEST_F(ProtectedCopy, IsNotMadeWhereTheBannerLiesAcrossABorderOfPieces) {
  const std::string dense(4 * kPiece, '*');
  const UniqueFd fd = make(0, {{0, dense}});
  ASSERT_FALSE(holds_banner());
  for (const off_t border : kBorders)
    for (off_t place = border - 54; place <= border + 1; ++place) {
      put(fd.get(), place, banner_);
      EXPECT_TRUE(holds_banner()) << border << ", " << place;
      put(fd.get(), place, dense.substr(0, banner_.size()));
    }
  put(fd.get(), kPiece - 20, banner_);
  protect();
  EXPECT_FALSE(fs::exists(backup_));
}

TEST_F(ProtectedCopy, IsMadeWhereAByteOfTheBannerIsWrong) {
  const std::string dense(4 * kPiece, '*');
  const UniqueFd fd = make(0, {{0, dense}});
  for (const off_t border : kBorders)
    for (const size_t wrong : {size_t{3}, size_t{26}, banner_.size() - 1}) {
      std::string almost = banner_;
      almost[wrong] = '-';
      put(fd.get(), border - 26, almost);
      EXPECT_FALSE(holds_banner()) << border << ", " << wrong;
    }
  protect();
  EXPECT_TRUE(read_file(backup_) == read_file(file_));
}

TEST_F(ProtectedCopy, IsNotMadeWhereTheBannerLiesBesideAHole) {
  constexpr off_t kSize = 64 * kMiB;
  const auto length = static_cast<off_t>(banner_.size());
  for (const off_t place : {off_t{0}, kPiece - length, kPiece - 5, 8 * kMiB,
                            8 * kMiB + 4096 - length, 8 * kMiB + 4096 - 20, kSize - length}) {
    SCOPED_TRACE(place);
    make(kSize, {{place, banner_}});
    protect();
    EXPECT_FALSE(fs::exists(backup_));
  }
}

TEST_F(ProtectedCopy, IsMadeWhereAHoleDividesTheBanner) {
  make(64 * kMiB, {{8 * kMiB - 20, banner_.substr(0, 20)}, {16 * kMiB, banner_.substr(20)}});
  EXPECT_FALSE(holds_banner());
}

struct Room {
  off_t size;
  off_t blocks;
  std::string begin, middle, end;
};

Room room_of(const std::string& path, off_t middle) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st = {};
  EXPECT_EQ(fstat(fd.get(), &st), 0);
  const auto text = [&](off_t place) {
    char bytes[8] = {};
    return std::string(bytes, static_cast<size_t>(pread(fd.get(), bytes, sizeof bytes, place)));
  };
  return {st.st_size, st.st_blocks, text(0), text(middle), text(st.st_size - 8)};
}

/// How many kilobytes the body takes that were not taken before.
long taken(const std::function<void()>& body) {
  rusage usage = {};
  const auto most = [&] { return getrusage(RUSAGE_SELF, &usage) == 0 ? usage.ru_maxrss : 0; };
  const long before = most();
  body();
  return most() - before;
}

TEST_F(ProtectedCopy, OfAHugeFileKeepsItsHolesAndTakesLittleMemoryAndTime) {
  for (const off_t size : {off_t{1} << 34, off_t{1} << 46, kLargest}) {
    SCOPED_TRACE(size);
    fs::remove(backup_);
    const off_t middle = size / 8192 * 4096;
    make(size, {{0, "begin..."}, {middle, "middle.."}});
    const Outcome outcome = in_child([&] {
      alarm(20);
      EXPECT_LT(taken([&] { copy_if_no_dontedit(file_.c_str()); }), 8192);
      if (HasFailure()) _exit(1);
    });
    EXPECT_EQ(outcome, (Outcome{"", "", 0}));
    const Room room = room_of(backup_, middle);
    EXPECT_EQ(room.size, size);
    EXPECT_LE(room.blocks, 16);
    EXPECT_EQ(room.begin, "begin...");
    EXPECT_EQ(room.middle, "middle..");
    EXPECT_EQ(room.end, std::string(8, '\0'));
  }
}

#ifndef __SANITIZE_ADDRESS__  // which takes more address space than there is memory
TEST_F(ProtectedCopy, OfAHugeFileFitsIntoLittleAddressSpace) {
  make(off_t{1} << 46, {{off_t{1} << 45, "text"}});
  testsupport::RunOptions options;
  options.directory = dir_.path().string();
  EXPECT_EQ(testsupport::run({"prlimit", "--as=16777216", "--cpu=20", PROTECT_FILE, "f"}, options),
            (Outcome{"", "", 0}));
  EXPECT_EQ(fs::file_size(backup_), std::uintmax_t{1} << 46);
}
#endif

TEST_F(ProtectedCopy, OfALongDenseFileTakesLittleMemory) {
  const std::string dense(16 * kMiB, '*');
  make(0, {{0, dense}, {16 * kMiB, dense}});
  const Outcome outcome = in_child([&] {
    EXPECT_LT(taken([&] { copy_if_no_dontedit(file_.c_str()); }), 8192);
    if (HasFailure()) _exit(1);
  });
  EXPECT_EQ(outcome, (Outcome{"", "", 0}));
  EXPECT_TRUE(read_file(backup_) == dense + dense);
}

TEST_F(ProtectedCopy, IsTheSameByteForByteWhateverTheLength) {
  std::string bytes(2 * kPiece + 7, '\0');
  unsigned state = 1;
  for (char& byte : bytes) {
    state = state * 1103515245U + 12345U;
    byte = static_cast<char>(state >> 16U);
  }
  for (const off_t size : {kPiece - 2, kPiece - 1, kPiece, kPiece + 1, 2 * kPiece - kHeld,
                           2 * kPiece - 1, 2 * kPiece, 2 * kPiece + 7}) {
    SCOPED_TRACE(size);
    fs::remove(backup_);
    const std::string content = bytes.substr(0, static_cast<size_t>(size));
    make(0, {{0, content}});
    protect();
    EXPECT_TRUE(read_file(backup_) == content);
  }
}

TEST_F(ProtectedCopy, OfASmallFileKeepsItsHolesToo) {
  make(200000, {{100000, "text"}});
  protect();
  EXPECT_TRUE(read_file(backup_) == read_file(file_));
  EXPECT_EQ(room_of(backup_, 0).blocks, 8);
  fs::remove(backup_);
  make(8192, {});
  protect();
  EXPECT_EQ(room_of(backup_, 0).blocks, 0);
  EXPECT_EQ(read_file(backup_), std::string(8192, '\0'));
}

TEST_F(ProtectedCopy, OfAFileBelowProcOrSysIsWhatIsReadOfIt) {
  const vhosttest::LongEnvironment environment("b");
  const std::vector<std::string> paths{"/proc/version", environment.path(),
                                       "/proc/sys/kernel/pid_max", "/sys/kernel/fscaps"};
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    fs::remove(file_);
    fs::remove(backup_);
    fs::create_symlink(path, file_);
    protect();
    const std::string text = read_file(path);
    ASSERT_GT(text.size(), 1U);
    ASSERT_EQ(fs::file_size(backup_), text.size());
    EXPECT_TRUE(read_file(backup_) == text);
  }
}

TEST_F(ProtectedCopy, IsNotMadeWhereTheBannerStandsFarDownInAFileBelowProc) {
  const vhosttest::LongEnvironment environment(get_dontedit_tag());
  fs::create_symlink(environment.path(), file_);
  protect();
  EXPECT_FALSE(fs::exists(backup_));
}

TEST_F(ProtectedCopy, OfAFileThatIsCutMeanwhileEndsThere) {
  const std::string dense(3 * kPiece, 'x');
  for (const auto& before : {second_piece_, reserving_, copying_})
    for (const off_t cut : {off_t{0}, off_t{1000}, kPiece + 1000}) {
      SCOPED_TRACE(std::to_string(before.number) + ", " + std::to_string(cut));
      fs::remove(backup_);
      const UniqueFd fd = make(0, {{0, dense}});
      EXPECT_EQ(protect_while(before, [&] { EXPECT_EQ(ftruncate(fd.get(), cut), 0); }),
                (Outcome{"", "", 0}));
      EXPECT_TRUE(read_file(backup_) == dense.substr(0, static_cast<size_t>(cut)));
    }
}

TEST_F(ProtectedCopy, OfASmallFileIsWhatWasLookedThrough) {
  make(0, {{0, "text"}});
  const UniqueFd fd(open(file_.c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(protect_while(reserving_, [&] { put(fd.get(), 0, "other"); }), (Outcome{"", "", 0}));
  EXPECT_EQ(read_file(backup_), "text");
}

TEST_F(ProtectedCopy, OfAFileThatGrowsMeanwhileEnds) {
  const std::string dense(3 * kPiece, 'x');
  for (const auto& before : {second_piece_, reserving_, copying_}) {
    SCOPED_TRACE(before.number);
    fs::remove(backup_);
    const UniqueFd fd = make(0, {{0, dense}});
    const auto grow = [&] {
      put(fd.get(), 3 * kPiece, "more");
      EXPECT_EQ(ftruncate(fd.get(), kLargest), 0);
    };
    EXPECT_EQ(protect_while(before, grow), (Outcome{"", "", 0}));
    const Room room = room_of(backup_, 3 * kPiece);
    EXPECT_EQ(room.size, kLargest);
    EXPECT_EQ(room.middle.substr(0, 4), "more");
    EXPECT_LE(room.blocks, 3 * kPiece / 512 + 64);
  }
}

TEST_F(ProtectedCopy, ThrowsWhenTheSearchCannotRead) {
  make(0, {{0, std::string(3 * kPiece, 'x')}});
  for (const char* injection : {"read:error=EIO", "pread64:error=EIO:when=1"}) {
    SCOPED_TRACE(injection);
    testsupport::RunOptions options;
    options.directory = dir_.path().string();
    const Outcome outcome = testsupport::run_traced(
        {"-o", "/dev/null", "-P", file_, "-e", std::string("inject=") + injection},
        {PROTECT_FILE, "f"}, options);
    EXPECT_EQ(outcome.exit_code(), -SIGABRT) << outcome;
    EXPECT_NE(outcome.err.find("frask::SystemError"), std::string::npos) << outcome;
    EXPECT_FALSE(fs::exists(backup_));
  }
}

/// The routine in a C program with system calls that fail on the file or its copy alone.
Outcome copy_under_strace(const std::string& directory, const std::string& path,
                          const std::string& injection) {
  testsupport::RunOptions options;
  options.directory = directory;
  return testsupport::run_traced({"-o", "/dev/null", "-P", path, "-e", "inject=" + injection},
                                 {PROTECT_FILE, directory + "/f"}, options);
}

TEST_F(ProtectedCopy, LogsThatAReadOrWriteOfTheCopyFailedAndLeavesItEmpty) {
  // The search reads the first piece, another whole one, and the end; the copy begins behind that.
  make(4 * kMiB, {{0, std::string(2 * kPiece, 'x')}});
  const struct {
    std::string path;
    const char* injection;
    const char* reason;
  } rows[] = {
      {file_, "pread64:error=EIO:when=3", "Input/output error"},
      {file_, "pread64:error=EIO:when=4", "Input/output error"},
      {backup_, "pwrite64:error=ENOSPC:when=1", "No space left on device"},
      {backup_, "pwrite64:error=EDQUOT:when=2", "Disk quota exceeded"},
      {backup_, "ftruncate:error=EFBIG:when=1", "File too large"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.injection);
    fs::remove(backup_);
    expect_failed_copy(copy_under_strace(dir_.path().string(), row.path, row.injection),
                       row.reason);
  }
}

TEST_F(ProtectedCopy, IsWholeWhateverLookFailsOrNothing) {
  for (const Texts& texts : {Texts{{0, "text"}}, Texts{{0, std::string(2 * kPiece, 'x')}}}) {
    make(kMiB, texts);
    for (const std::string call : {"fstat,newfstatat", "lseek"}) {
      int failed = 0;
      for (int number = 1; number <= 10; ++number) {
        SCOPED_TRACE(call + " " + std::to_string(number));
        fs::remove(backup_);
        const Outcome outcome = copy_under_strace(
            dir_.path().string(), file_, call + ":error=EIO:when=" + std::to_string(number));
        if (outcome == Outcome{"", "", 0}) {
          EXPECT_TRUE(read_file(backup_) == read_file(file_));
        } else {
          ++failed;
          EXPECT_NE((outcome.out + outcome.err).find("Input/output error"), std::string::npos);
          EXPECT_TRUE(!fs::exists(backup_) || fs::file_size(backup_) == 0);
        }
      }
      EXPECT_GE(failed, 2);
    }
  }
}

TEST_F(ProtectedCopy, LogsWhyItFailedAndNotWhyItCouldNotBeEmptied) {
  make(4 * kMiB, {{0, "text"}});
  testsupport::RunOptions options;
  options.directory = dir_.path().string();
  const Outcome outcome =
      testsupport::run_traced({"-o", "/dev/null", "-P", backup_, "-e",
                               "inject=pwrite64:error=ENOSPC", "-e", "inject=ftruncate:error=EIO"},
                              {PROTECT_FILE, file_}, options);
  EXPECT_NE(outcome.out.find("No space left on device"), std::string::npos) << outcome;
  EXPECT_EQ(outcome.out.find("Input/output error"), std::string::npos) << outcome;
}

TEST_F(ProtectedCopy, GoesOnWhereACallIsInterruptedOrTheFileTellsNoHoles) {
  make(4 * kMiB, {{0, std::string(2 * kPiece, 'x')}});
  const struct {
    std::string path;
    const char* injection;
  } rows[] = {
      {file_, "pread64:error=EINTR:when=1..5"},
      {backup_, "pwrite64:error=EINTR:when=1..2"},
      {file_, "lseek:error=EINVAL"},
      {file_, "lseek:error=EINVAL:when=3"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.injection);
    fs::remove(backup_);
    EXPECT_EQ(copy_under_strace(dir_.path().string(), row.path, row.injection),
              (Outcome{"", "", 0}));
    EXPECT_TRUE(read_file(backup_) == read_file(file_));
  }
}

/// With a limit to what a file may hold, which a write comes up to before it fails.
Outcome protect_up_to(const std::string& file, rlim_t most) {
  return in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit usual = {};
    if (getrlimit(RLIMIT_FSIZE, &usual) != 0) _exit(1);
    const rlimit limit = {most, usual.rlim_max};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(1);
    copy_if_no_dontedit(file.c_str());
    if (setrlimit(RLIMIT_FSIZE, &usual) != 0) _exit(1);
  });
}

TEST_F(ProtectedCopy, WritesOnBehindAShortWriteAndLogsWhatDoesNotFit) {
  make(0, {{0, std::string(2 * kPiece, 'x')}});
  expect_failed_copy(protect_up_to(file_, kPiece + 1000), "File too large");
  fs::remove(backup_);
  make(0, {{0, std::string(100000, 'x')}});
  expect_failed_copy(protect_up_to(file_, 50000), "File too large");
  fs::remove(backup_);
  make(kLargest, {{0, "text"}});
  expect_failed_copy(protect_up_to(file_, kMiB), "File too large");
}

TEST_F(ProtectedCopy, LogsThatItsFileSystemHasNoRoomForTheSize) {
  const testsupport::ScratchDir elsewhere;
  make(kLargest, {{0, "text"}});
  fs::create_symlink(file_, elsewhere / "f");
  const UniqueFd probe(open((elsewhere / "probe").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  if (ftruncate(probe.get(), kLargest) == 0) GTEST_SKIP() << "files may be of any size there";
  file_ = elsewhere / "f";
  backup_ = elsewhere / "f.saved_by_oxa";
  expect_failed_copy(in_child([&] { copy_if_no_dontedit(file_.c_str()); }), "File too large");
}

TEST_F(ProtectedCopy, OpensNeitherPipesNorDevices) {
  ASSERT_EQ(mkfifo((dir_ / "pipe").c_str(), 0600), 0);
  const bool devices = mknod((dir_ / "device").c_str(), S_IFCHR | 0600, makedev(1, 5)) == 0;
  write_file(dir_ / "regular", "text");
  for (const std::string name : {"pipe", "device", "regular"}) {
    if (name == "device" && !devices) continue;
    SCOPED_TRACE(name);
    file_ = dir_ / name;
    const UniqueFd events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(events.get(), file_.c_str(), IN_OPEN), 0);
    const Outcome outcome = in_child([&] { copy_if_no_dontedit(file_.c_str()); });
    EXPECT_EQ(outcome.exit_code(), 0);
    inotify_event event = {};
    EXPECT_EQ(read(events.get(), &event, sizeof event) > 0, name == "regular");
  }
}

TEST_F(ProtectedCopy, ThrowsForAPipeThatTheUserMayNotRead) {
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0777), 0);
  const Outcome outcome = in_child([&] {
    if (setuid(65534) != 0) _exit(1);
    try {
      copy_if_no_dontedit(file_.c_str());
    } catch (const frask::SystemError& error) {
      printf("%s", error.what());
    }
  });
  EXPECT_EQ(outcome, (Outcome{file_ + ": open failed: Permission denied", "", 0}));
  EXPECT_FALSE(fs::exists(backup_));
}

TEST_F(ProtectedCopy, NeitherReadsNorWaitsForWhatTakesAFilesPlaceOnceItWasLookedAt) {
  write_file(file_, "text");
  const auto replace = [&] {
    fs::remove(file_);
    ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  };
  expect_failed_copy(protect_while({SYS_openat, "f"}, replace), "Invalid argument");
  fs::remove(file_);
  fs::remove(backup_);
  write_file(file_, "text");
  EXPECT_EQ(protect_while({SYS_openat, "f"}, [&] { fs::remove(file_); }), (Outcome{"", "", 0}));
  EXPECT_FALSE(fs::exists(backup_));
}

}  // namespace
