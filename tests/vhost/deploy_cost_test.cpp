#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "support/traced.h"
#include "vhost/deploy_fixture.h"

// What a deployment costs in system calls, and what it is when some of them fail.
namespace {

using SetupSkeleton = DeployTest;
using testsupport::write_file;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;

constexpr const char* kLog = "/mnt/log";

/// A C program that deploys, under strace with these options.
testsupport::Outcome deploy_traced(const std::vector<std::string>& options,
                                   const DocrootCleanOptions& directories) {
  return testsupport::run_traced(options, {DEPLOY_CALLS_PROGRAM, "/var/www/vhosts/example.com", "7",
                                           directories.docrootDir, directories.cgiBinDir});
}

long count(const std::string& text, const std::string& part) {
  long found = 0;
  for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
  return found;
}

/// The calls, those for memory aside, of the deployment of `dirs` directories with `files` files
/// each.
long calls_for(const std::string& skeleton, const DocrootCleanOptions& directories, int dirs,
               int files) {
  fs::remove_all(skeleton);
  fs::remove_all("/var/www/vhosts/example.com");
  for (int dir = 0; dir < dirs; ++dir) {
    const std::string path = skeleton + "httpdocs/" + std::to_string(dir);
    fs::create_directories(path);
    for (int file = 0; file < files; ++file)
      write_file(path + "/" + std::to_string(file), "@domain_name@");
  }
  EXPECT_EQ(deploy_traced({"-o", kLog, "-e", "trace=!%memory"}, directories),
            (testsupport::Outcome{"", "", 0}));
  return testsupport::counted_calls(kLog);
}

TEST_F(SetupSkeleton, MakesTenCallsForAFileAndSeventeenForADirectory) {
  constexpr int kDirs = 50;
  constexpr int kFiles = 40;
  const long least = calls_for(skeleton(""), options_, 1, 1);
  const long with_dirs = calls_for(skeleton(""), options_, 1 + kDirs, 1);
  const long with_files = calls_for(skeleton(""), options_, 1 + kDirs, 1 + kFiles);
  EXPECT_EQ(with_files - with_dirs, 10L * kFiles * (1 + kDirs));
  EXPECT_EQ(with_dirs - least, 27L * kDirs) << "each with its one file";
}

TEST_F(SetupSkeleton, LooksForTheGroupOnce) {
  for (int file = 0; file < 20; ++file) write_file(skeleton("conf/" + std::to_string(file)), "");
  EXPECT_EQ(deploy_traced({"-o", kLog}, options_), (testsupport::Outcome{"", "", 0}));
  EXPECT_EQ(count(testsupport::read_file(kLog), "\"/etc/group\""), 1);
}

TEST_F(SetupSkeleton, IgnoresModesAndGroupsThatCannotBeSet) {
  write_file(skeleton("conf/file"), "text", 0640);
  EXPECT_EQ(deploy_traced({"-o", kLog, "-e", "inject=fchmod,fchown:error=EPERM"}, options_),
            (testsupport::Outcome{"", "", 0}));
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:0 conf", "f 0640 0:0 conf/file text"}));
}

TEST_F(SetupSkeleton, TakesAnOriginalWhoseTypeIsNotToldAsEmpty) {
  write_file(skeleton("conf/file"), "text", 0604);
  EXPECT_EQ(deploy_traced({"-o", kLog, "-P", skeleton("conf/file"), "-e",
                           "inject=fstat,newfstatat:error=EIO"},
                          options_),
            (testsupport::Outcome{"", "", 0}));
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:4242 conf", "f 0604 0:4242 conf/file "}));
}

TEST_F(SetupSkeleton, KeepsTheSetIdBitsOfProgramsWhereTheGroupCannotBeChanged) {
  write_file(skeleton("conf/file"), "text", 06755);
  EXPECT_EQ(deploy_traced({"-o", kLog, "-e", "inject=fchown:error=EPERM"}, options_),
            (testsupport::Outcome{"", "", 0}));
  EXPECT_EQ(deployed(), (Lines{"d 0755 0:0 conf", "f 6755 0:0 conf/file text"}));
}

TEST_F(SetupSkeleton, GoesOnAfterAnInterruptedReadOrWrite) {
  write_file(skeleton("conf/file"), "text");
  for (const char* call : {"read", "write"}) {
    SCOPED_TRACE(call);
    fs::remove_all(root("example.com"));
    ASSERT_EQ(deploy_traced({"-o", kLog, "-P", skeleton("conf/file"), "-P", host("conf/file"), "-e",
                             std::string("inject=") + call + ":error=EINTR:when=1"},
                            options_),
              (testsupport::Outcome{"", "", 0}));
    EXPECT_NE(testsupport::read_file(kLog).find("(INJECTED)"), std::string::npos);
    EXPECT_EQ(testsupport::read_file(host("conf/file")), "text");
  }
}

TEST_F(SetupSkeleton, KeepsWhatWasReadBeforeAFailure) {
  const std::string text(300000, 'x');
  write_file(skeleton("conf/file"), text, 0604);
  ASSERT_EQ(
      deploy_traced({"-o", kLog, "-P", skeleton("conf/file"), "-e", "inject=read:error=EIO:when=2"},
                    options_),
      (testsupport::Outcome{"", "", 0}));
  EXPECT_EQ(testsupport::mode_of(host("conf/file")), 0604U);
  const std::string copy = testsupport::read_file(host("conf/file"));
  EXPECT_EQ(copy, text.substr(0, copy.size()));
  EXPECT_EQ(copy.size(), 262144U);
}

/// A file of 4 MiB with a text at the beginning and another in the middle.
void make_sparse(const std::string& path) {
  write_file(path, "first");
  fs::resize_file(path, 2097152);
  std::ofstream(path, std::ios::app) << "second";
  fs::resize_file(path, 4194304);
}

TEST_F(SetupSkeleton, GoesOnAfterAnInterruptedReadOfAFileWithHoles) {
  make_sparse(skeleton("conf/file"));
  ASSERT_EQ(deploy_traced({"-o", kLog, "-P", skeleton("conf/file"), "-e",
                           "inject=pread64:error=EINTR:when=1+2"},
                          options_),
            (testsupport::Outcome{"", "", 0}));
  EXPECT_EQ(count(testsupport::read_file(kLog), "(INJECTED)"), 2);
  EXPECT_TRUE(testsupport::read_file(host("conf/file")) ==
              testsupport::read_file(skeleton("conf/file")));
}

TEST_F(SetupSkeleton, EndsAFileWithHolesWhereACallFails) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  struct Row {
    const char* what;
    std::string traced;
    const char* injection;
    size_t left;
  };
  for (const Row& row :
       {Row{"a read", skeleton("conf/file"), "pread64:error=EIO:when=2", 2097152},
        Row{"the first write", host("conf/file"), "write:error=ENOSPC:when=1", 0},
        Row{"the second write", host("conf/file"), "write:error=ENOSPC:when=2", page},
        Row{"passing over a hole", host("conf/file"), "lseek:error=EINVAL:when=1", page},
        Row{"the last hole", host("conf/file"), "ftruncate:error=ENOSPC:when=1", 2097152 + page}}) {
    SCOPED_TRACE(row.what);
    fs::remove_all(root("example.com"));
    make_sparse(skeleton("conf/file"));
    ASSERT_EQ(
        deploy_traced({"-o", kLog, "-P", row.traced, "-e", std::string("inject=") + row.injection},
                      options_),
        (testsupport::Outcome{"", "", 0}));
    EXPECT_EQ(count(testsupport::read_file(kLog), "(INJECTED)"), 1);
    EXPECT_TRUE(testsupport::read_file(host("conf/file")) ==
                testsupport::read_file(skeleton("conf/file")).substr(0, row.left))
        << testsupport::read_file(host("conf/file")).size();
  }
}

}  // namespace
