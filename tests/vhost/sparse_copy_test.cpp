#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "fs/unique_fd.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "vhost/deploy_file.private.h"
#include "vhost/placeholder.private.h"

// Files with holes on their way into a site.
namespace {

using frask::FileCopier;
using frask::UniqueFd;

/// A file of zeros but for some texts, which alone take room.
UniqueFd file_with_holes(const std::string& path, off_t size,
                         const std::vector<std::pair<off_t, std::string>>& texts) {
  UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(ftruncate(fd.get(), size), 0);
  for (const auto& [at, text] : texts)
    EXPECT_EQ(pwrite(fd.get(), text.data(), text.size(), at), static_cast<ssize_t>(text.size()));
  return fd;
}

struct HoleRow {
  const char* what;
  off_t size;
  std::vector<std::pair<off_t, std::string>> texts;
};

const std::string kPlaceholder = "@domain_name@";
constexpr off_t kMiB = 1048576;

const std::vector<HoleRow>& hole_rows() {
  static const std::string dense(3 * 262144 + 5, '@');
  static const std::vector<HoleRow> rows{
      {"nothing else", kMiB, {}},
      {"a hole at the end", kMiB, {{0, kPlaceholder}}},
      {"a hole at the beginning", kMiB, {{kMiB - 13, kPlaceholder}}},
      {"a hole that ends with a block", kMiB + 13, {{kMiB, kPlaceholder}}},
      {"a hole on either side", kMiB, {{kMiB / 2 - 5, kPlaceholder}}},
      {"several", 4 * kMiB, {{0, "a@"}, {kMiB, kPlaceholder + "@domain_"}, {3 * kMiB, "@"}}},
      {"a beginning before a hole", kMiB, {{4096 - 8, "@domain_"}}},
      {"a beginning at the end", kMiB, {{kMiB - 8, "@domain_"}}},
      {"an end at the beginning, in the next file", kMiB, {{0, "name@"}}},
      {"an end behind a hole", kMiB, {{524288, "name@"}}},
      {"a size within a page", kMiB + 1, {{8192, kPlaceholder}}},
      {"more than one read between", 4 * kMiB, {{kMiB, dense + kPlaceholder + dense}}}};
  return rows;
}

/// What the file that the row tells of becomes with a name, byte for byte and in blocks.
void expect_copy(const HoleRow& row, const std::string& name, FileCopier& copier) {
  const testsupport::ScratchDir scratch(testsupport::memory_directory());
  const UniqueFd from = file_with_holes(scratch / "from", row.size, row.texts);
  const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  copier.copyWithHoles(from.get(), to.get());
  std::string replaced;
  const std::string original = testsupport::read_file(scratch / "from");
  const frask::ReplacedPiece all = frask::replacePlaceholders(original, name, replaced);
  const std::string expected =
      std::string(all.text) + original.substr(original.size() - all.unfinished);
  const std::string copy = testsupport::read_file(scratch / "to");
  EXPECT_TRUE(copy == expected) << copy.size() << " of " << expected.size() << " bytes";
  struct stat original_st = {};
  struct stat copy_st = {};
  ASSERT_EQ(fstat(from.get(), &original_st), 0);
  ASSERT_EQ(fstat(to.get(), &copy_st), 0);
  EXPECT_LE(copy_st.st_blocks, original_st.st_blocks + 64) << "a page for each longer or open text";
}

// A site without a name, as setup_skeleton_on_subdomain() may be given one, leaves nothing of the
// placeholders; one copier serves all files of a deployment.
TEST(SparseCopy, CopiesAFileWithHolesByteForByte) {
  for (const std::string name : {"a.longer.name.test", "a", ""}) {
    FileCopier copier(name);
    for (const HoleRow& row : hole_rows()) {
      SCOPED_TRACE(std::string(row.what) + ", for \"" + name + "\"");
      expect_copy(row, name, copier);
    }
  }
}

UniqueFd socket_with_text() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return {};
  const UniqueFd in(ends[1]);
  EXPECT_EQ(write(in.get(), "text", 4), 4);
  return UniqueFd(ends[0]);
}

TEST(SparseCopy, LeavesASourceWithoutPositionsUncopiedWhereHolesAreSaid) {
  const testsupport::ScratchDir scratch(testsupport::memory_directory());
  const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  FileCopier copier("a.test");
  copier.copyWithHoles(socket_with_text().get(), to.get());
  EXPECT_EQ(testsupport::read_file(scratch / "to"), "");
}

TEST(SparseCopy, CopiesAFileThatTellsNothingOfItsHoles) {
  const testsupport::ScratchDir scratch(testsupport::memory_directory());
  const UniqueFd from(open("/proc/version", O_RDONLY | O_CLOEXEC));
  ASSERT_LT(lseek(from.get(), 0, SEEK_DATA), 0);
  const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  FileCopier copier("a.test");
  copier.copyWithHoles(from.get(), to.get());
  EXPECT_EQ(testsupport::read_file(scratch / "to"), testsupport::read_file("/proc/version"));
}

/// What a file becomes that is changed while the copier stands before one of its calls.
struct Copy {
  std::string text;
  blkcnt_t blocks = 0;
};

Copy copied_while_changed(off_t size, const std::vector<std::pair<off_t, std::string>>& texts,
                          const testsupport::Call& before,
                          const std::function<void(int from)>& change) {
  const testsupport::ScratchDir scratch(testsupport::memory_directory());
  const UniqueFd from = file_with_holes(scratch / "from", size, texts);
  const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const auto outcome = testsupport::in_child_stopped_at(
      before, [&] { change(from.get()); },
      [&] { FileCopier("a.test").copyWithHoles(from.get(), to.get()); });
  EXPECT_EQ(outcome, (testsupport::Outcome{"", "", 0}));
  struct stat st = {};
  EXPECT_EQ(fstat(to.get(), &st), 0);
  return {testsupport::read_file(scratch / "to"), st.st_blocks};
}

std::function<void(int)> addition(off_t where, const std::string& text) {
  return [=](int from) {
    EXPECT_EQ(pwrite(from, text.data(), text.size(), where), static_cast<ssize_t>(text.size()));
  };
}

std::function<void(int)> cut(off_t size) {
  return [=](int from) { EXPECT_EQ(ftruncate(from, size), 0); };
}

std::function<void(int)> hole_at(off_t where) {
  return [=](int from) {
    EXPECT_EQ(fallocate(from, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, where, 4096), 0);
  };
}

TEST(SparseCopy, FindsAPlaceholderOfWhichAHoleWasFilledMeanwhile) {
  const std::string copy = copied_while_changed(8192, {{4096 - 8, "@domain_"}},
                                                {SYS_pread64, "", 2}, addition(4096, "name@!"))
                               .text;
  EXPECT_EQ(copy.find_first_not_of('\0'), 4096U - 8);
  EXPECT_EQ(copy.substr(4096 - 8, 7), "a.test!");
  EXPECT_EQ(copy.size(), 8192U - 13 + 6);
}

TEST(SparseCopy, TakesWhatIsAppendedBeforeTheEndIsSeen) {
  const std::vector<std::pair<off_t, std::string>> text{{4092, "text"}};
  // The end, data and a hole are looked for, then the end and data again.
  for (const int look : {1, 3, 4, 5}) {
    SCOPED_TRACE(look);
    const std::string copy =
        copied_while_changed(8192, text, {SYS_lseek, "", look}, addition(8192, "more")).text;
    EXPECT_EQ(copy.substr(0, 8192), std::string(4092, '\0') + "text" + std::string(4096, '\0'));
    EXPECT_EQ(copy.substr(8192), "more");
  }
  // Once the end has been seen behind the last data, no hole is made of what comes there.
  EXPECT_EQ(copied_while_changed(8192, text, {SYS_lseek, "", 6}, addition(8192, "more")).text,
            std::string(4092, '\0') + "text" + std::string(4096, '\0'));
}

/// Of 4 MiB, with a text at the beginning and another in the middle. Three calls find the end, the
/// first data and the hole behind it; the next three, the end again and the second data.
constexpr off_t kSize = 4194304;
const std::vector<std::pair<off_t, std::string>> kTwoTexts{{0, "first"}, {kSize / 2, "second"}};
const testsupport::Call kSecondLookAtTheEnd{SYS_lseek, "", 4};
const testsupport::Call kLookForSecondData{SYS_lseek, "", 5};
const testsupport::Call kLookForEndOfSecondData{SYS_lseek, "", 6};
const testsupport::Call kReadOfSecondData{SYS_pread64, "", 2};

TEST(SparseCopy, EndsWhereTheFileWasCutMeanwhile) {
  std::string expected(kSize / 2 - 4096, '\0');
  expected.replace(0, 5, "first");
  for (const auto& before : {kLookForSecondData, kLookForEndOfSecondData, kReadOfSecondData}) {
    const Copy copy = copied_while_changed(kSize, kTwoTexts, before, cut(kSize / 2 - 4096));
    EXPECT_TRUE(copy.text == expected) << copy.text.size();
    EXPECT_LT(copy.blocks, 1024) << "a hole was written out";
  }
}

TEST(SparseCopy, TakesNothingBackWhereTheFileWasCut) {
  std::string expected(4096, '\0');
  expected.replace(0, 5, "first");
  for (const auto& before : {kSecondLookAtTheEnd, kLookForSecondData, kReadOfSecondData})
    EXPECT_TRUE(copied_while_changed(kSize, kTwoTexts, before, cut(0)).text == expected);
}

TEST(SparseCopy, LeavesAHoleThatHasComeMeanwhile) {
  std::string expected(kSize, '\0');
  expected.replace(0, 5, "first");
  for (const auto& before : {kLookForSecondData, kLookForEndOfSecondData, kReadOfSecondData}) {
    const Copy copy = copied_while_changed(kSize, kTwoTexts, before, hole_at(kSize / 2));
    EXPECT_TRUE(copy.text == expected) << copy.text.size();
    EXPECT_LE(copy.blocks, 16) << "a page more than the text, and no more is written out";
  }
}

TEST(SparseCopy, GoesBeyondWhatFitsInto32Bits) {
  const testsupport::ScratchDir scratch(testsupport::memory_directory());
  constexpr off_t kAt = 5368709120;
  const UniqueFd from = file_with_holes(scratch / "from", kAt + 13, {{kAt, "@domain_name@"}});
  const UniqueFd to(open((scratch / "to").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  FileCopier("a.test").copyWithHoles(from.get(), to.get());
  struct stat st = {};
  ASSERT_EQ(fstat(to.get(), &st), 0);
  EXPECT_EQ(st.st_size, kAt + 6);
  EXPECT_LE(st.st_blocks, 16);
  char text[6];
  ASSERT_EQ(pread(to.get(), text, sizeof text, kAt), 6);
  EXPECT_EQ(std::string(text, sizeof text), "a.test");
}

TEST(SparseCopy, GoesToTheLastPlaceThatThereMayBe) {
  const testsupport::ScratchDir scratch(testsupport::memory_directory());
  constexpr off_t kLargest = std::numeric_limits<off_t>::max();
  const UniqueFd from = file_with_holes(scratch / "from", kLargest, {{kLargest - 4096, "@"}});
  const UniqueFd to(open((scratch / "to").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  FileCopier("a.test").copyWithHoles(from.get(), to.get());
  struct stat st = {};
  ASSERT_EQ(fstat(to.get(), &st), 0);
  EXPECT_EQ(st.st_size, kLargest);
}

TEST(SparseCopy, LeavesOutAHoleForWhichThereIsNoRoom) {
  const testsupport::ScratchDir scratch(testsupport::memory_directory());
  const auto outcome = testsupport::in_child([&] {
    const UniqueFd from = file_with_holes(scratch / "from", kSize, {{0, "text"}});
    const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    signal(SIGXFSZ, SIG_IGN);
    rlimit usual = {};
    if (getrlimit(RLIMIT_FSIZE, &usual) != 0) _exit(1);
    const rlimit limit = {65536, usual.rlim_max};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(1);
    FileCopier("a.test").copyWithHoles(from.get(), to.get());
    if (setrlimit(RLIMIT_FSIZE, &usual) != 0) _exit(1);
  });
  EXPECT_EQ(outcome, (testsupport::Outcome{"", "", 0}));
  const std::string copy = testsupport::read_file(scratch / "to");
  EXPECT_EQ(copy.substr(0, 5), std::string("text\0", 5));
  EXPECT_LE(copy.size(), 65536U);
}

TEST(SparseCopy, EndsWhereTheFileDoesWhateverItsSizeSays) {
  const testsupport::ScratchDir scratch(testsupport::memory_directory());
  const UniqueFd from(open("/sys/kernel/fscaps", O_RDONLY | O_CLOEXEC));
  struct stat st = {};
  ASSERT_EQ(fstat(from.get(), &st), 0);
  ASSERT_EQ(st.st_blocks, 0) << "as of a hole";
  const std::string text = testsupport::read_file("/sys/kernel/fscaps");
  ASSERT_LT(text.size(), static_cast<size_t>(st.st_size));
  const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  FileCopier("a.test").copyWithHoles(from.get(), to.get());
  EXPECT_EQ(std::filesystem::file_size(scratch / "to"), text.size());
}

}  // namespace
