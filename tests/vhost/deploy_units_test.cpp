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

TEST(FileCopier, TakesNoMoreThanIsExpected) {
  FileCopier copier("a.test");
  const testsupport::ScratchDir scratch;
  const std::string text(FileCopier::kPiece + 1000, 'x');
  write_file(scratch / "file", text);
  for (const size_t expected : {size_t{5}, FileCopier::kPiece, FileCopier::kPiece + 5}) {
    const UniqueFd from(open((scratch / "file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(copied(copier, from, static_cast<off_t>(expected)) == text.substr(0, expected));
  }
}

TEST(FileCopier, TakesWhatCannotBeReadForTheEnd) {
  FileCopier copier("a.test");
  EXPECT_EQ(copied(copier, UniqueFd(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), 3), "");
}

}  // namespace
