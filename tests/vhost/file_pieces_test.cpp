#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "fs/unique_fd.h"
#include "support/scratch.h"
#include "vhost/file_pieces.private.h"
#include "vhost/long_environment.h"

namespace {

using frask::FilePieces;
using frask::UniqueFd;
using TextsByPlace = std::map<off_t, std::string>;

/// A file of zeros but for some texts, which alone take room.
class FilePiecesOf : public ::testing::Test {
 protected:
  static constexpr off_t kMiB = 1048576;
  static constexpr off_t kLargest = std::numeric_limits<off_t>::max();

  void make(off_t size, const TextsByPlace& texts = {}) {
    fd_ = UniqueFd(open((dir_ / "file").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    resize(size);
    for (const auto& [place, text] : texts) put(place, text);
  }

  void put(off_t place, const std::string& text) const {
    ASSERT_EQ(pwrite(fd_.get(), text.data(), text.size(), place),
              static_cast<ssize_t>(text.size()));
  }

  void resize(off_t size) const { ASSERT_EQ(ftruncate(fd_.get(), size), 0); }

  /// A page of it becomes a hole.
  void punch(off_t place) const {
    ASSERT_EQ(fallocate(fd_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, place, 4096), 0);
  }

  testsupport::ScratchDir dir_{testsupport::memory_directory()};
  UniqueFd fd_;
};

/// Where the pieces lie that are left, and what they hold without its zeros. Ends after 100 pieces.
TextsByPlace texts_of(FilePieces& pieces, size_t room = 65536) {
  TextsByPlace texts;
  std::string piece(room, '\0');
  for (int count = 0;; ++count) {
    EXPECT_LT(count, 100);
    const ssize_t got = pieces.next(piece.data(), room);
    EXPECT_GE(got, 0);
    if (got <= 0 || count == 100) return texts;
    std::string& text = texts[pieces.place()];
    for (const char byte : piece.substr(0, static_cast<size_t>(got)))
      if (byte != '\0') text += byte;
  }
}

TEST_F(FilePiecesOf, AreItsDataWithoutItsHoles) {
  for (const off_t size : {8 * kMiB, off_t{1} << 46, kLargest}) {
    SCOPED_TRACE(size);
    make(
        size,
        {{0, "first"}, {kMiB, "second"}, {4 * kMiB + 4000, "on two pages" + std::string(90, '.')}});
    FilePieces pieces(fd_.get(), 0);
    EXPECT_EQ(texts_of(pieces), (TextsByPlace{{0, "first"},
                                              {kMiB, "second"},
                                              {4 * kMiB, "on two pages" + std::string(90, '.')}}));
    EXPECT_EQ(pieces.end(), size);
  }
}

TEST_F(FilePiecesOf, AreNoneOfAFileThatIsOneHole) {
  make(kLargest);
  FilePieces pieces(fd_.get(), 0);
  EXPECT_EQ(texts_of(pieces), TextsByPlace{});
  EXPECT_EQ(pieces.end(), kLargest);
}

TEST_F(FilePiecesOf, BeginWhereTheyAreTo) {
  make(8 * kMiB, {{0, "first"}, {10, "second"}, {kMiB, "third"}});
  FilePieces pieces(fd_.get(), 7);
  EXPECT_EQ(texts_of(pieces), (TextsByPlace{{7, "second"}, {kMiB, "third"}}));
}

TEST_F(FilePiecesOf, AreNoLongerThanTheRoom) {
  make(0, {{0, "abcdefgh"}});
  FilePieces pieces(fd_.get(), 0);
  EXPECT_EQ(texts_of(pieces, 3), (TextsByPlace{{0, "abc"}, {3, "def"}, {6, "gh"}}));
  EXPECT_EQ(pieces.end(), 8);
}

TEST_F(FilePiecesOf, EndWhereTheFileEndedAtFirst) {
  make(0, {{0, "abcd"}});
  char byte = 0;
  FilePieces pieces(fd_.get(), 0);
  ASSERT_EQ(pieces.next(&byte, 1), 1);
  put(4, "efgh");
  resize(kLargest);
  EXPECT_EQ(texts_of(pieces), (TextsByPlace{{1, "bcd"}}));
  EXPECT_EQ(pieces.end(), 4);
}

TEST_F(FilePiecesOf, DoNotReachDataBehindThatEnd) {
  make(8192, {{0, "abcd"}});
  FilePieces pieces(fd_.get(), 0);
  resize(kLargest);
  put(kMiB, "more");
  EXPECT_EQ(texts_of(pieces), (TextsByPlace{{0, "abcd"}}));
  EXPECT_EQ(pieces.end(), 8192);
}

TEST_F(FilePiecesOf, EndWhereTheFileIsCutMeanwhile) {
  for (const off_t cut : {off_t{0}, off_t{2}, off_t{4096}, kMiB, 2 * kMiB}) {
    SCOPED_TRACE(cut);
    make(4 * kMiB, {{0, "abcd"}, {2 * kMiB, "efgh"}});
    char byte = 0;
    FilePieces pieces(fd_.get(), 0);
    ASSERT_EQ(pieces.next(&byte, 1), 1);
    resize(cut);
    EXPECT_EQ(texts_of(pieces),
              cut > 1 ? (TextsByPlace{{1, cut == 2 ? "b" : "bcd"}}) : TextsByPlace{});
    EXPECT_LE(pieces.end(), std::max<off_t>(cut, 1));
    EXPECT_GE(pieces.end(), cut);
  }
}

TEST_F(FilePiecesOf, AreNoZerosOfAHoleThatHasComeMeanwhile) {
  make(kLargest, {{0, "abcd"}, {kMiB, "efgh"}, {2 * kMiB, "ijkl"}});
  char byte = 0;
  FilePieces pieces(fd_.get(), 0);
  ASSERT_EQ(pieces.next(&byte, 1), 1);
  punch(0);
  punch(kMiB);
  EXPECT_EQ(texts_of(pieces), (TextsByPlace{{1, ""}, {2 * kMiB, "ijkl"}}));
}

TEST_F(FilePiecesOf, AreNoneWhereTheFileEndedAtFirstHoweverItGrows) {
  for (const off_t begin : {0, 4, 4096}) {
    SCOPED_TRACE(begin);
    make(0, begin == 0 ? TextsByPlace{} : TextsByPlace{{0, "abcd"}});
    FilePieces pieces(fd_.get(), begin);
    char byte = 0;
    for (int round = 0; round < 3; ++round) {
      put(begin + round, "more");
      EXPECT_EQ(pieces.next(&byte, 1), 0);
    }
    EXPECT_LE(pieces.end(), begin);
  }
}

std::string all_of(const std::string& path, off_t begin, off_t* end) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  FilePieces pieces(fd.get(), begin);
  std::string text;
  char piece[10000];
  ssize_t got = 0;
  while ((got = pieces.next(piece, sizeof piece)) > 0) {
    EXPECT_EQ(pieces.place(), begin + static_cast<off_t>(text.size()));
    text.append(piece, static_cast<size_t>(got));
  }
  EXPECT_EQ(got, 0);
  *end = pieces.end();
  return text;
}

TEST(FilePieces, AreAllThatAFileHoldsWhateverItSays) {
  const vhosttest::LongEnvironment environment("b");
  const std::vector<std::string> paths{"/proc/version", environment.path(),
                                       "/proc/sys/kernel/ostype", "/sys/kernel/fscaps"};
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    const std::string text = testsupport::read_file(path);
    ASSERT_NE(text, "");
    ASSERT_NE(text.size(), std::filesystem::file_size(path));
    off_t end = -1;
    EXPECT_TRUE(all_of(path, 0, &end) == text);
    EXPECT_LE(end, static_cast<off_t>(text.size())) << "there is no hole behind it";
    EXPECT_TRUE(all_of(path, 1, &end) == text.substr(1));
  }
}

TEST(FilePieces, TellAFailedReadFromTheEnd) {
  const UniqueFd fd(open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
  FilePieces pieces(fd.get(), 0);
  char byte = 0;
  errno = 0;
  EXPECT_EQ(pieces.next(&byte, 1), -1);
  EXPECT_EQ(errno, EIO) << "the first page of a process's memory is never mapped";
}

}  // namespace
