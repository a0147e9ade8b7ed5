#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "support/lease_holder.h"
#include "support/private_mounts.h"
#include "vhost/deploy_entry.private.h"
#include "vhost/deploy_race_fixture.h"

// Others change the skeleton and the site while a deployment is at work.
namespace {

using testsupport::Call;
using testsupport::tree_listing;
using testsupport::write_file;
namespace fs = std::filesystem;

using SetupSkeletonInARace = DeployRaceTest;

/// The calls in which a name occurs: the listing opens each directory, and looks at the first entry
/// of each.
const Call kLookAtOriginalFile{SYS_newfstatat, "file", 2};
const Call kOpeningOfOriginalFile{SYS_openat, "file", 1};
const Call kCreationOfFile{SYS_openat, "file", 2};
const Call kSecondFchmod{SYS_fchmod, "", 2};  // the first is that of the directory
const Call kWayIntoOriginalDirectory{SYS_openat, "conf", 2};
const Call kCreationOfDirectory{SYS_mkdirat, "sub"};
const Call kOpeningOfNewDirectory{SYS_openat, "sub", 2};
const Call kCreationInNewDirectory{SYS_mkdirat, "deep"};

TEST_F(SetupSkeletonInARace, ReportsATargetThatAppearsBehindTheCheck) {
  const std::string file = host("conf/file");
  const std::string sub = host("conf/sub");
  struct Row {
    const char* what;
    std::function<void(const std::string& path)> make;
  };
  const std::vector<Row> rows{
      {"a file", [](const std::string& path) { write_file(path, "theirs"); }},
      {"a directory", [](const std::string& path) { fs::create_directory(path); }},
      {"a link", [](const std::string& path) { fs::create_symlink("/mnt/outside/new", path); }},
      {"a pipe", [](const std::string& path) { mkfifo(path.c_str(), 0600); }}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    fs::remove_all(skeleton(""));
    fs::remove_all(root("example.com"));
    write_file(skeleton("conf/file"), "ours", 0611);
    fs::create_directories(host("conf"));
    EXPECT_EQ(deployStoppedAt(kCreationOfFile, [&] { row.make(file); }), done(existing(file)));
    const Lines left = deployed();
    ASSERT_EQ(left.size(), 2U);
    EXPECT_EQ(left[1].find("4242"), std::string::npos) << left[1];
    EXPECT_EQ(left[1].find("ours"), std::string::npos) << left[1];

    fs::remove(skeleton("conf/file"));
    fs::remove_all(file);
    fs::create_directory(skeleton("conf/sub"));
    EXPECT_EQ(deployStoppedAt(kCreationOfDirectory, [&] { row.make(sub); }), done(existing(sub)));
    ASSERT_EQ(deployed().size(), 2U);
    EXPECT_EQ(deployed()[1].find("4242"), std::string::npos) << deployed()[1];
    expectOutsideUnharmed();
  }
}

TEST_F(SetupSkeletonInARace, ReportsADocumentRootThatAppearsBehindTheCheck) {
  fs::create_directories(skeleton("httpdocs"));
  options_.docrootDir = "/var/www/vhosts/docs";
  EXPECT_EQ(deployStoppedAt({SYS_mkdirat, "docs"}, [] { fs::create_directory(root("docs")); }),
            done(existing(root("docs"))));
  EXPECT_EQ(testsupport::mode_of(root("docs")), 0755U);
}

TEST_F(SetupSkeletonInARace, ReportsADocumentRootThatAppearsAsAnythingElse) {
  fs::create_directories(skeleton("httpdocs"));
  options_.docrootDir = "/var/www/vhosts/docs";
  const std::vector<std::function<void()>> appearances{
      [] { write_file(root("docs"), "theirs"); },
      [] { fs::create_symlink("/mnt/outside/kept", root("docs")); }};
  for (const auto& appear : appearances) {
    fs::remove(root("docs"));
    fs::remove_all(root("example.com"));
    EXPECT_EQ(deployStoppedAt({SYS_mkdirat, "docs"}, appear), done(existing(root("docs"))));
  }
  expectOutsideUnharmed();
}

TEST_F(SetupSkeletonInARace, PassesOverAnOriginalThatVanishes) {
  write_file(skeleton("conf/file"), "");
  const std::string path = skeleton("conf/file");
  EXPECT_EQ(deployStoppedAt(kLookAtOriginalFile, [&] { fs::remove(path); }), done());
  EXPECT_EQ(deployed(), Lines{"d 0755 0:4242 conf"});
}

TEST_F(SetupSkeletonInARace, TakesAnOriginalThatCannotBeReadAnyMoreAsEmpty) {
  const std::string path = skeleton("conf/file");
  const std::vector<std::function<void()>> changes{
      [] {}, [&] { fs::create_symlink("/mnt/outside/kept", path); },
      [&] { mkfifo(path.c_str(), 0600); }, [&] { fs::create_directory(path); }};
  for (const auto& change : changes) {
    fs::remove_all(path);
    write_file(path, "text", 0604);
    fs::remove_all(root("example.com"));
    const auto outcome = deployStoppedAt(kOpeningOfOriginalFile, [&] {
      fs::remove(path);
      change();
    });
    EXPECT_EQ(outcome, done());
    EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf", "f 0604 0:4242 conf/file "}));
  }
}

TEST_F(SetupSkeletonInARace, GivesTheModeOfTheOriginalThatItReads) {
  write_file(skeleton("conf/file"), "for all", 0644);
  write_file(root("other"), "for one", 0600);
  EXPECT_EQ(deployStoppedAt(kOpeningOfOriginalFile,
                            [] { fs::rename(root("other"), skeleton("conf/file")); }),
            done());
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf", "f 0600 0:4242 conf/file for one"}));
}

TEST_F(SetupSkeletonInARace, CopiesAnOriginalThatGrowsOrShrinks) {
  const std::string path = skeleton("conf/file");
  for (const char* later : {"much longer than it was", "short", ""}) {
    write_file(path, "as it was");
    fs::remove_all(root("example.com"));
    EXPECT_EQ(deployStoppedAt(kOpeningOfOriginalFile, [&] { write_file(path, later); }), done());
    EXPECT_EQ(testsupport::read_file(host("conf/file")), later);
  }
}

TEST_F(SetupSkeletonInARace, WaitsForTheEndOfALeaseOnAnOriginal) {
  write_file(skeleton("conf/file"), "text of @domain_name@");
  const testsupport::LeaseHolder holder(skeleton("conf/file"), [](int fd) {
    const bool shown = fs::exists(host("conf/file"));
    static_cast<void>(!pwrite(fd, shown ? "seen" : "none", 4, 0));
  });
  EXPECT_EQ(deploy(), done());
  EXPECT_EQ(testsupport::read_file(host("conf/file")), "none of example.com")
      << "an empty file is not seen meanwhile";
  EXPECT_TRUE(holder.was_asked());
}

TEST_F(SetupSkeletonInARace, WaitsForNoLeaseWhereTheTargetExists) {
  write_file(skeleton("conf/file"), "text");
  write_file(host("conf/file"), "theirs");
  const testsupport::LeaseHolder holder(skeleton("conf/file"), [](int) { sleep(60); });
  EXPECT_EQ(deployAfter([] { alarm(30); }), done(existing(host("conf/file"))));
  EXPECT_EQ(testsupport::read_file(host("conf/file")), "theirs");
}

TEST_F(SetupSkeletonInARace, TakesAnOriginalUnderALeaseAsEmptyWithoutProc) {
  write_file(skeleton("conf/file"), "text", 0604);
  const testsupport::LeaseHolder holder(skeleton("conf/file"));
  const auto outcome = testsupport::in_child([&] {
    testsupport::require(unshare(CLONE_NEWNS) == 0, "unshare");
    testsupport::leave_no_proc();
    deployHere();
    std::cout.flush();
    _exit(0);  // a search for leaks reads /proc
  });
  EXPECT_EQ(outcome, done());
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf", "f 0604 0:4242 conf/file "}));
}

TEST_F(SetupSkeletonInARace, GoesByWhatBecomesOfAnOriginalUnderALease) {
  const std::string path = skeleton("conf/file");
  constexpr off_t kSize = 67108864;
  write_file(path, "text");
  {
    const testsupport::LeaseHolder holder(path, [](int fd) { ASSERT_EQ(ftruncate(fd, kSize), 0); });
    EXPECT_EQ(deploy(), done());
  }
  struct stat st = {};
  ASSERT_EQ(stat(host("conf/file").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, kSize);
  EXPECT_LT(st.st_blocks, 1024) << "it was no file with holes when it was looked at";

  fs::remove_all(root("example.com"));
  const std::string all = testsupport::read_file(path) + "more";
  {
    const testsupport::LeaseHolder holder(
        path, [](int fd) { ASSERT_EQ(pwrite(fd, "more", 4, kSize), 4); });
    EXPECT_EQ(deploy(), done());
  }
  EXPECT_TRUE(testsupport::read_file(host("conf/file")) == all);
}

TEST_F(SetupSkeletonInARace, TakesNothingOfAPipeInThePlaceOfAnOriginal) {
  write_file(skeleton("conf/file"), "text");
  ASSERT_EQ(mkfifo(root("pipe").c_str(), 0600), 0);
  const frask::UniqueFd pipe(open(root("pipe").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(write(pipe.get(), "never ends", 10), 10);
  EXPECT_EQ(deployStoppedAt(kOpeningOfOriginalFile,
                            [] { fs::rename(root("pipe"), skeleton("conf/file")); }),
            done());
  EXPECT_EQ(testsupport::read_file(host("conf/file")), "");
}

TEST_F(SetupSkeletonInARace, PassesNoLinkThatGetsIntoTheSkeleton) {
  write_file(skeleton("conf/file"), "text");
  EXPECT_EQ(deployStoppedAt(kWayIntoOriginalDirectory, [] { putLinkAt(skeleton("conf")); }),
            done(unexaminedOriginal(skeleton("conf/file"), ELOOP)));
}

TEST_F(SetupSkeletonInARace, PassesNoLinkThatGetsIntoTheSite) {
  write_file(skeleton("conf/sub/file"), "text");
  ASSERT_EQ(chmod(skeleton("conf/sub").c_str(), 0700), 0);
  EXPECT_EQ(deployStoppedAt(kOpeningOfNewDirectory, [] { putLinkAt(host("conf/sub")); }),
            done(unexaminedTarget(host("conf/sub/file"), ELOOP)));
  expectOutsideUnharmed();
}

TEST_F(SetupSkeletonInARace, LeavesTheModeOfAnothersDirectoryAlone) {
  fs::create_directories(skeleton("conf/sub"));
  ASSERT_EQ(chmod(skeleton("conf/sub").c_str(), 0777), 0);
  for (const mode_t mode : {0700U, 0755U}) {
    fs::remove_all(root("example.com"));
    const auto put_theirs = [&] {
      fs::rename(host("conf/sub"), host("conf/sub.moved"));
      fs::create_directory(host("conf/sub"));
      if (chown(host("conf/sub").c_str(), 7, 8) != 0 || chmod(host("conf/sub").c_str(), mode) != 0)
        throw std::logic_error("no directory of theirs");
    };
    EXPECT_EQ(deployStoppedAt(kOpeningOfNewDirectory, put_theirs), done());
    EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf",
                                 mode == 0700 ? "d 0700 7:8 conf/sub" : "d 0755 7:8 conf/sub",
                                 "d 0755 0:0 conf/sub.moved"}));
  }
}

// Whoever owns a directory may give what root keeps there another name.
TEST_F(SetupSkeletonInARace, LeavesItsOwnDirectoryAloneThatGetsIntoThePlaceOfTheNewOne) {
  struct Row {
    const char* what;
    mode_t mode;
    bool empty;
  };
  fs::create_directories(skeleton("conf/sub"));
  ASSERT_EQ(chmod(skeleton("conf/sub").c_str(), 0777), 0);
  for (const Row& row : {Row{"closed", 0700, true}, {"not empty", 0755, false}}) {
    SCOPED_TRACE(row.what);
    fs::remove_all(root("example.com"));
    fs::create_directories(host("conf/priv"));
    if (!row.empty) write_file(host("conf/priv/file"), "kept");
    ASSERT_EQ(chmod(host("conf/priv").c_str(), row.mode), 0);
    const Lines before = tree_listing(host("conf/priv"));
    EXPECT_EQ(deployStoppedAt(kOpeningOfNewDirectory,
                              [] {
                                fs::remove(host("conf/sub"));
                                fs::rename(host("conf/priv"), host("conf/sub"));
                              }),
              done());
    EXPECT_EQ(testsupport::mode_of(host("conf/sub")), row.mode);
    EXPECT_EQ(deployed()[1].find("4242"), std::string::npos) << deployed()[1];
    EXPECT_EQ(tree_listing(host("conf/sub")), before);
  }
}

TEST_F(SetupSkeletonInARace, MakesNoDirectoryMoreOpenThanItWillBe) {
  fs::create_directories(skeleton("conf/sub"));
  ASSERT_EQ(chmod(skeleton("conf/sub").c_str(), 0050), 0);
  EXPECT_EQ(deployStoppedAt(kOpeningOfNewDirectory, [] { noteModeOf(host("conf/sub")); }), done());
  EXPECT_EQ(notedMode(), "750") << "it must be opened by who made it";
  EXPECT_EQ(testsupport::mode_of(host("conf/sub")), 0050U);
}

TEST_F(SetupSkeletonInARace, MakesNoFileMoreOpenThanItWillBe) {
  for (const mode_t mode : {0600U, 0640U, 0004U}) {
    write_file(skeleton("conf/file"), "secret", mode);
    fs::remove_all(root("example.com"));
    EXPECT_EQ(deployStoppedAt(kSecondFchmod, [] { noteModeOf(host("conf/file")); }), done());
    EXPECT_EQ(std::stoul(notedMode(), nullptr, 8), mode);
  }
}

TEST_F(SetupSkeletonInARace, ShowsNoSetUserIdProgramAtAnyMoment) {
  write_file(skeleton("conf/file"), "", 06755);
  EXPECT_EQ(deployStoppedAt({SYS_fchown, "", 2}, [] { noteModeOf(host("conf/file")); }), done());
  EXPECT_EQ(notedMode(), "755");
  EXPECT_EQ(testsupport::mode_of(host("conf/file")), 0755U);
}

TEST_F(SetupSkeletonInARace, WorksOnInADirectoryThatIsMovedAway) {
  write_file(skeleton("conf/sub/file"), "text");
  EXPECT_EQ(deployStoppedAt(kCreationOfFile, [] { putLinkAt(host("conf/sub")); }), done());
  EXPECT_EQ(testsupport::read_file(host("conf/sub.moved/file")), "text");
  expectOutsideUnharmed();
}

TEST_F(SetupSkeletonInARace, CreatesParentsAnewBelowTheDocumentRootOnly) {
  fs::create_directories(skeleton("httpdocs/sub/deep/er"));
  options_.docrootDir = "/var/www/vhosts/docs";
  for (const char* removed : {"docs/sub", "docs"}) {
    SCOPED_TRACE(removed);
    fs::remove_all(root("docs"));
    EXPECT_EQ(deployStoppedAt(kCreationInNewDirectory, [&] { fs::remove_all(root(removed)); }),
              done());
    EXPECT_EQ(tree_listing(root("docs")),
              (Lines{"d 0755 0:0 sub", "d 0755 0:4242 sub/deep", "d 0755 0:4242 sub/deep/er"}));
  }
  fs::rename(skeleton("httpdocs"), skeleton("conf"));
  EXPECT_EQ(deployStoppedAt(kCreationInNewDirectory, [] { fs::remove(host("conf/sub")); }),
            thrown("filesystem error: cannot create directory: No such file or directory [" +
                   host("conf/sub/deep") + "]"));
}

TEST_F(SetupSkeletonInARace, PassesNoLinkThatGetsAmongParentsCreatedAnew) {
  fs::create_directories(skeleton("httpdocs/sub/deep/er"));
  fs::create_directories(root("docs"));
  frask::ExtractParams params;
  params.docrootDir = root("docs");
  for (const Call& after_a_creation : {Call{SYS_openat, "sub", 3}, Call{SYS_openat, "deep", 2}}) {
    SCOPED_TRACE(after_a_creation.name);
    fs::remove_all(root("docs/sub"));
    fs::remove_all(root("docs/sub.moved"));
    const auto outcome = testsupport::in_child_stopped_at(
        after_a_creation,
        [&] { putLinkAt(root(after_a_creation.name == "sub" ? "docs/sub" : "docs/sub/deep")); },
        [&] {
          frask::EntryDeployer(frask::ConfinedDirectory(store("7")),
                               frask::ConfinedDirectory(root("example.com")), params, "", 4242)
              .deploy("httpdocs/sub/deep/er");
        });
    EXPECT_EQ(outcome,
              (testsupport::Outcome{"", unexaminedTarget(root("docs/sub/deep/er"), ELOOP), 0}));
    expectOutsideUnharmed();
  }
}

TEST_F(SetupSkeletonInARace, EndsWhereParentsCannotBeCreatedAnew) {
  fs::create_directories(skeleton("httpdocs/sub/deep"));
  fs::create_directories(root("docs"));
  ASSERT_EQ(mount("tmpfs", root("docs").c_str(), "tmpfs", 0, "mode=0755"), 0);
  options_.docrootDir = "/var/www/vhosts/docs";
  const auto outcome = deployStoppedAt(kCreationInNewDirectory, [] {
    fs::remove(root("docs/sub"));
    if (mount("", root("docs").c_str(), "", MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
      _exit(97);
  });
  EXPECT_EQ(outcome, thrown("filesystem error: cannot create directories: Read-only file system [" +
                            root("docs/sub/deep") + "]"));
}

TEST_F(SetupSkeletonInARace, IgnoresAFileWhoseParentVanishes) {
  write_file(skeleton("httpdocs/sub/file"), "text");
  EXPECT_EQ(deployStoppedAt(kCreationOfFile, [] { fs::remove(host("httpdocs/sub")); }), done());
  EXPECT_EQ(deployed(), Lines{"d 0755 0:4242 httpdocs"});
}

}  // namespace
