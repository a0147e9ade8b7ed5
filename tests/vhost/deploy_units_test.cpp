#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fs/unique_fd.h"
#include "support/scratch.h"
#include "support/stopped_child.h"
#include "vhost/deploy_entry.private.h"
#include "vhost/deploy_file.private.h"
#include "vhost/deploy_fixture.h"
#include "vhost/placeholder.private.h"

// The parts of a deployment, where the whole cannot be brought to what is tested.
namespace {

using frask::FileCopier;
using frask::kPlaceholder;
using frask::UniqueFd;
using testsupport::write_file;

using EntryDeployer = DeployTest;

TEST_F(EntryDeployer, ReportsAnEntryThatWasListedTwice) {
  write_file(skeleton("conf/file"), "text");
  std::filesystem::create_directories(host("conf"));
  const auto outcome = testsupport::in_child([&] {
    frask::EntryDeployer deployer(frask::ConfinedDirectory(store("7")),
                                  frask::ConfinedDirectory(root("example.com")), {}, "", 4242);
    deployer.deploy("conf/file");
    deployer.deploy("conf/file");
  });
  EXPECT_EQ(outcome.err, existing(host("conf/file")));
  EXPECT_EQ(testsupport::read_file(host("conf/file")), "text");
}

/// "directory + below", with a "!" behind it for a remapped target, or "-".
std::string target_of(frask::TargetFinder& targets, const std::string& entry) {
  frask::Target target = {};
  if (!targets.find(entry, target)) return "-";
  return target.directory->base() + " + " + target.below + (target.remapped ? "!" : "");
}

TEST(TargetFinder, GoesBySections) {
  frask::ExtractParams params;
  params.docrootDir = "/docs";
  params.cgiBinDir = "/programs";
  frask::TargetFinder all(frask::ConfinedDirectory("/host"), params);
  params.keepCgiBin = true;
  params.keepErrorDocs = true;
  params.skipHttpdocs = true;
  frask::TargetFinder some(frask::ConfinedDirectory("/host"), params);
  struct Row {
    const char* entry;
    const char* with_all;
    const char* with_some;
  };
  for (const Row& row :
       {Row{"conf", "/host + conf", "/host + conf"},
        {"conf/a", "/host + conf/a", "/host + conf/a"},
        {"httpdocs", "/docs + !", "/docs + !"},
        {"httpdocs/a/b", "/docs + a/b!", "/docs + a/b!"},
        {"httpdocs2/a", "/host + httpdocs2/a", "/host + httpdocs2/a"},
        {"httpsdocs", "-", "-"},
        {"httpsdocs/a", "-", "-"},
        {"cgi-bin", "/programs + !", "-"},
        {"cgi-bin/a", "/programs + a!", "-"},
        {"cgi", "/host + cgi", "/host + cgi"},
        {"error_docs", "/host + error_docs", "-"},
        {"error_docs/a", "/host + error_docs/a", "-"},
        {"private/httpdocs", "/host + private/httpdocs", "/host + private/httpdocs"}}) {
    SCOPED_TRACE(row.entry);
    EXPECT_EQ(target_of(all, row.entry), row.with_all);
    EXPECT_EQ(target_of(some, row.entry), row.with_some);
  }
}

/// A source that gives one part a read, as a file does on a slow file system.
UniqueFd source_of(const std::vector<std::string>& parts) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return {};
  const UniqueFd in(ends[1]);
  for (const std::string& part : parts)
    EXPECT_EQ(write(in.get(), part.data(), part.size()), static_cast<ssize_t>(part.size()));
  return UniqueFd(ends[0]);
}

std::string copied(FileCopier& copier, const UniqueFd& from, off_t expected) {
  const testsupport::ScratchDir scratch;
  const std::string path = scratch / "file";
  const UniqueFd to(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  copier.copy(from.get(), to.get(), expected);
  return testsupport::read_file(path);
}

TEST(FileCopier, FindsPlaceholdersThatComeInParts) {
  FileCopier copier("a.test");
  EXPECT_EQ(copied(copier, source_of({"1@", "domain_", "name@2@domain_name", "@3@domain_"}), 0),
            "1a.test2a.test3@domain_");
  EXPECT_EQ(copied(copier, source_of({"name@"}), 0), "name@") << "nothing is left of another file";
}

TEST(FileCopier, FindsPlaceholdersThatLieAcrossTheEndOfAnyPiece) {
  FileCopier copier("a.test");
  const testsupport::ScratchDir scratch;
  for (size_t before = 0; before <= kPlaceholder.size(); ++before) {
    SCOPED_TRACE(before);
    // A piece begins with what the one before it left, a part of the placeholder.
    const std::string gap(FileCopier::kPiece - before - kPlaceholder.size(), '.');
    std::string text(kPlaceholder.size(), '.');
    std::string expected = text;
    for (int piece = 0; piece < 4; ++piece) {
      text.append(gap).append(kPlaceholder);
      expected.append(gap).append("a.test");
    }
    testsupport::write_file(scratch / "large", text);
    const UniqueFd from(open((scratch / "large").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(copied(copier, from, static_cast<off_t>(text.size())) == expected);
  }
}

TEST(FileCopier, ReadsOnWhereAFileIsAsYetShorterThanExpected) {
  FileCopier copier("a.test");
  EXPECT_EQ(copied(copier, source_of({"1", "2", "3"}), 3), "123");
}

TEST(FileCopier, TakesWhatCannotBeReadForTheEnd) {
  FileCopier copier("a.test");
  EXPECT_EQ(copied(copier, UniqueFd(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), 3), "");
}

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

TEST(FileCopier, CopiesAFileWithHolesByteForByte) {
  constexpr off_t kMiB = 1048576;
  const std::string placeholder = "@domain_name@";
  const std::string dense(3 * 262144 + 5, '@');
  for (const HoleRow& row : std::vector<HoleRow>{
           {"nothing else", kMiB, {}},
           {"a hole at the end", kMiB, {{0, placeholder}}},
           {"a hole at the beginning", kMiB, {{kMiB - 13, placeholder}}},
           {"a hole on either side", kMiB, {{kMiB / 2 - 5, placeholder}}},
           {"several", 4 * kMiB, {{0, "a@"}, {kMiB, placeholder + "@domain_"}, {3 * kMiB, "@"}}},
           {"a beginning before a hole", kMiB, {{4096 - 8, "@domain_"}}},
           {"an end behind a hole", kMiB, {{524288, "name@"}}},
           {"a size within a page", kMiB + 1, {{8192, placeholder}}},
           {"more than one read between", 4 * kMiB, {{kMiB, dense + placeholder + dense}}}}) {
    SCOPED_TRACE(row.what);
    const testsupport::ScratchDir scratch;
    const UniqueFd from = file_with_holes(scratch / "from", row.size, row.texts);
    const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    FileCopier copier("a.longer.name.test");
    copier.copyWithHoles(from.get(), to.get(), row.size);
    std::string replaced;
    const std::string original = testsupport::read_file(scratch / "from");
    const frask::ReplacedPiece all =
        frask::replacePlaceholders(original, "a.longer.name.test", replaced);
    const std::string expected =
        std::string(all.text) + original.substr(original.size() - all.unfinished);
    EXPECT_TRUE(testsupport::read_file(scratch / "to") == expected);
    struct stat original_st = {};
    struct stat copy_st = {};
    ASSERT_EQ(fstat(from.get(), &original_st), 0);
    ASSERT_EQ(fstat(to.get(), &copy_st), 0);
    EXPECT_LE(copy_st.st_blocks, original_st.st_blocks + 64)
        << "a page for each longer or open text";
  }
}

TEST(FileCopier, LeavesASourceWithoutPositionsUncopiedWhereHolesAreSaid) {
  const testsupport::ScratchDir scratch;
  const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  FileCopier copier("a.test");
  copier.copyWithHoles(source_of({"text"}).get(), to.get(), 4);
  EXPECT_EQ(testsupport::read_file(scratch / "to"), "");
}

TEST(FileCopier, CopiesAFileThatTellsNothingOfItsHoles) {
  const testsupport::ScratchDir scratch;
  const UniqueFd from(open("/proc/version", O_RDONLY | O_CLOEXEC));
  ASSERT_LT(lseek(from.get(), 0, SEEK_DATA), 0);
  const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  FileCopier copier("a.test");
  copier.copyWithHoles(from.get(), to.get(), 0);
  EXPECT_EQ(testsupport::read_file(scratch / "to"), testsupport::read_file("/proc/version"));
}

/// What a file of 8192 bytes with a text before a hole becomes, where something is written into it
/// while the copier stands before one of its calls.
std::string copied_while_changed(const std::string& text, const testsupport::Call& before,
                                 off_t where, const std::string& addition) {
  const testsupport::ScratchDir scratch;
  const UniqueFd from =
      file_with_holes(scratch / "from", 8192, {{4096 - static_cast<off_t>(text.size()), text}});
  const UniqueFd to(open((scratch / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const auto outcome = testsupport::in_child_stopped_at(
      before,
      [&] {
        EXPECT_EQ(pwrite(from.get(), addition.data(), addition.size(), where),
                  static_cast<ssize_t>(addition.size()));
      },
      [&] { FileCopier("a.test").copyWithHoles(from.get(), to.get(), 8192); });
  EXPECT_EQ(outcome, (testsupport::Outcome{"", "", 0}));
  return testsupport::read_file(scratch / "to");
}

TEST(FileCopier, FindsAPlaceholderOfWhichAHoleWasFilledMeanwhile) {
  const std::string copy = copied_while_changed("@domain_", {SYS_pread64, "", 2}, 4096, "name@!");
  EXPECT_EQ(copy.find_first_not_of('\0'), 4096U - 8);
  EXPECT_EQ(copy.substr(4096 - 8, 7), "a.test!");
  EXPECT_EQ(copy.size(), 8192U - 13 + 6);
}

TEST(FileCopier, AddsNoZerosForWhatIsAppendedMeanwhile) {
  const std::string copy = copied_while_changed("text", {SYS_lseek, "", 4}, 8192, "more");
  EXPECT_EQ(copy.size(), 8192U);
  EXPECT_EQ(copy.substr(4092, 5), std::string("text\0", 5));
}

}  // namespace
