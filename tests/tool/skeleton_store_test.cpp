#include "tool/skeleton_store.h"

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/tree_listing.h"
#include "tool/tool_fixture.h"
#include "vhost/skeldir.h"

namespace fs = std::filesystem;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

namespace {

using InstallSkel = StoreTest;
using RemoveSkel = StoreTest;
using RemoveForbidEntries = StoreTest;
using InstallDefault = StoreTest;

}  // namespace

TEST(Skeldir, NamesTheSectionsInOrder) {
  const Lines names(skeldir, skeldir + 7);
  EXPECT_EQ(names, (Lines{"httpdocs", "conf", "cgi-bin", "anon_ftp", "error_docs", "statistics",
                          "webspace"}));
  EXPECT_EQ(skeldir[7], nullptr);
}

TEST(ForbiddenSubsEntry, HoldsTheQuotaFileAlone) {
  EXPECT_STREQ(forbidden_subs_entry[0], ".quota");
  EXPECT_EQ(forbidden_subs_entry[1], nullptr);
}

TEST_F(InstallSkel, KeepsTheSectionsAloneForEachType) {
  pack(
      "mkdir -p httpdocs/css cgi-bin anon_ftp error_docs statistics webspace other .hidden\n"
      "echo page > httpdocs/index.html; echo style > httpdocs/css/a.css; echo read > README\n"
      "echo deny > .htaccess; echo x > other/file; echo x > .hidden/file; ln -s httpdocs link\n"
      "echo '#!' > cgi-bin/run.cgi; chmod 0755 cgi-bin/run.cgi; chmod 0700 anon_ftp");
  for (const char* archive : {"skel.zip", "skel.tgz", "skel.tar"}) {
    SCOPED_TRACE(archive);
    EXPECT_EQ(install("7", archive), answer(0));
    EXPECT_EQ(
        tree_listing(store("7")),
        (Lines{"d 0755 0:0 anon_ftp", "d 0755 0:0 cgi-bin", "f 0644 0:0 cgi-bin/run.cgi #!\n",
               "d 0755 0:0 error_docs", "d 0755 0:0 httpdocs", "d 0755 0:0 httpdocs/css",
               "f 0644 0:0 httpdocs/css/a.css style\n", "f 0644 0:0 httpdocs/index.html page\n",
               "d 0755 0:0 statistics", "d 0755 0:0 webspace"}));
  }
}

TEST_F(InstallSkel, GivesEverythingToRootWithFixedModes) {
  pack(
      "mkdir -p httpdocs/private; echo x > httpdocs/private/file\n"
      "chmod 04777 httpdocs/private/file; chmod 0700 httpdocs/private; chmod 02777 httpdocs\n"
      "chown -R 1234:2345 httpdocs; chmod 0700 .");
  EXPECT_EQ(install("7"), answer(0));
  EXPECT_EQ(tree_listing(store("7")), (Lines{"d 0755 0:0 httpdocs", "d 0755 0:0 httpdocs/private",
                                             "f 0644 0:0 httpdocs/private/file x\n"}));
  EXPECT_EQ(testsupport::mode_of(store("7")), 0755U) << "the store itself included";
}

TEST_F(InstallSkel, KeepsConfForTheClientZeroAlone) {
  pack("mkdir -p httpdocs conf; echo x > conf/vhost.conf; echo q > conf/.quota");
  EXPECT_EQ(install("0"), answer(0));
  EXPECT_EQ(tree_listing(store("0")),
            (Lines{"d 0755 0:0 conf", "f 0644 0:0 conf/vhost.conf x\n", "d 0755 0:0 httpdocs"}));
  for (const char* id : {"7", "00", "0x", "-0"}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(install(id), answer(0));
    EXPECT_EQ(tree_listing(store(id)), (Lines{"d 0755 0:0 httpdocs"}));
  }
}

TEST_F(InstallSkel, ComparesSectionNamesExactly) {
  pack("mkdir -p HTTPDOCS httpdocs2 httpdoc conf.d .httpdocs webspace; echo x > httpdocs2/file");
  EXPECT_EQ(install("0"), answer(0));
  EXPECT_EQ(tree_listing(store("0")), (Lines{"d 0755 0:0 webspace"}));
}

TEST_F(InstallSkel, RemovesQuotaFilesButForHiddenDirectories) {
  pack(
      "mkdir -p httpdocs/sub/deep httpdocs/.hidden cgi-bin/.quota/dir\n"
      "touch httpdocs/.quota httpdocs/sub/.quota httpdocs/sub/deep/.quota httpdocs/.hidden/.quota\n"
      "touch cgi-bin/.quota/dir/file httpdocs/sub/quota httpdocs/sub/.quotas");
  EXPECT_EQ(install("7"), answer(0));
  EXPECT_EQ(tree_listing(store("7")),
            (Lines{"d 0755 0:0 cgi-bin", "d 0755 0:0 httpdocs", "d 0755 0:0 httpdocs/.hidden",
                   "f 0644 0:0 httpdocs/.hidden/.quota ", "d 0755 0:0 httpdocs/sub",
                   "f 0644 0:0 httpdocs/sub/.quotas ", "d 0755 0:0 httpdocs/sub/deep",
                   "f 0644 0:0 httpdocs/sub/quota "}));
}

TEST_F(InstallSkel, LeavesSymbolicLinksUntouched) {
  write_file(at("outside/.quota"), "kept", 0600);
  write_file(at("outside/file"), "kept", 0600);
  pack("mkdir httpdocs; ln -s " + at("outside") +
       " httpdocs/link; chown -h 1234:2345 httpdocs/link; " + "ln -s " + at("outside") +
       " cgi-bin; ln -s /nowhere httpdocs/.quota; ln -s /nowhere httpdocs/gone");
  // Through the library: the program lets tar make no link that is another's.
  ArchiveDescriptor archive = adc_tar;
  const std::string name = at("skel.tar");
  archive.file_name = name.c_str();
  EXPECT_EQ(in_child([&] { _exit(installSkeleton(&archive, "7")); }), (Outcome{"", "", 0}));
  EXPECT_EQ(
      tree_listing(store("7")),
      (Lines{"l - 0:0 cgi-bin " + at("outside"), "d 0755 0:0 httpdocs",
             "l - 0:0 httpdocs/gone /nowhere", "l - 1234:2345 httpdocs/link " + at("outside")}));
  EXPECT_EQ(tree_listing(at("outside")), (Lines{"f 0600 0:0 .quota kept", "f 0600 0:0 file kept"}));
}

TEST_F(InstallSkel, KeepsSectionsThatAreRegularFiles) {
  pack("echo text > httpdocs; chmod 0600 httpdocs");
  EXPECT_EQ(install("7"), answer(0));
  EXPECT_EQ(tree_listing(store("7")), (Lines{"f 0644 0:0 httpdocs text\n"}));
}

TEST_F(InstallSkel, LeavesSpecialFilesInSectionsAlone) {
  pack("mkdir httpdocs; mkfifo -m 0600 httpdocs/fifo");
  EXPECT_EQ(install("7"), answer(0));
  EXPECT_EQ(tree_listing(store("7")), (Lines{"d 0755 0:0 httpdocs", "p 0600 0:0 httpdocs/fifo"}));
}

TEST_F(InstallSkel, EndsOnASpecialFileAtTheTop) {
  pack("mkfifo fifo");
  EXPECT_EQ(install("7"), fatal("Unable to open dir fifo: Not a directory\n\n"
                                "System error 20: Not a directory"));
}

TEST_F(InstallSkel, HasRemovedConfWhateverEndsIt) {
  shell(
      "mkdir -p skel/httpdocs skel/conf; echo x > skel/conf/vhost.conf; mkfifo skel/fifo\n"
      "mkfifo skel/httpdocs/.quota");
  // Each order of listing comes up in one of these, whatever the file system.
  for (const char* members : {"fifo conf", "conf fifo", "httpdocs conf", "conf httpdocs"}) {
    SCOPED_TRACE(members);
    shell(std::string("tar -C skel -czf skel.tgz ") + members);
    const std::string name = strstr(members, "fifo") != nullptr ? "fifo" : ".quota";
    EXPECT_EQ(install("7"), fatal("Unable to open dir " + name +
                                  ": Not a directory\n\n"
                                  "System error 20: Not a directory"));
    EXPECT_EQ(tree_listing(store("7")),
              name == "fifo" ? (Lines{"p 0644 0:0 fifo"})
                             : (Lines{"d 0755 0:0 httpdocs", "p 0644 0:0 httpdocs/.quota"}));
  }
}

TEST_F(InstallSkel, KeepsNothingOfTheEarlierSkeleton) {
  pack("mkdir httpdocs; echo one > httpdocs/one");
  EXPECT_EQ(install("7"), answer(0));
  write_file(store("7") + "/.hidden", "left by hand");
  pack("mkdir cgi-bin; echo two > cgi-bin/two");
  EXPECT_EQ(install("7"), answer(0));
  EXPECT_EQ(tree_listing(store("7")),
            (Lines{"d 0755 0:0 cgi-bin", "f 0644 0:0 cgi-bin/two two\n"}));
}

TEST_F(InstallSkel, ReplacesAStoreThatIsAFileOrALink) {
  pack("mkdir httpdocs");
  write_file(store("7"), "a file");
  EXPECT_EQ(install("7"), answer(0));
  fs::create_directory(at("elsewhere"));
  fs::create_symlink(at("elsewhere"), store("8"));
  EXPECT_EQ(install("8"), answer(0));
  EXPECT_EQ(
      tree_listing("/var/www/vhosts/.skel"),
      (Lines{"d 0755 0:0 7", "d 0755 0:0 7/httpdocs", "d 0755 0:0 8", "d 0755 0:0 8/httpdocs"}));
  EXPECT_TRUE(fs::is_empty(at("elsewhere")));
}

TEST_F(InstallSkel, GivesAnEmptyStoreAndZeroForACorruptArchive) {
  write_file(at("bad.tar"), "this is no archive\n");
  fs::create_directory(store("7"));
  const Outcome outcome = install("7", "bad.tar");
  const std::string report = "tembrix: Unsuccessfull execution of command 'tar -xf " +
                             at("bad.tar") + " -C " + store("7") + "'. Exit status 512\n";
  EXPECT_EQ(outcome.out, report + "0\n");
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_NE(outcome.err.find(report), std::string::npos) << outcome.err;
  EXPECT_TRUE(fs::is_empty(store("7")));
}

TEST_F(InstallSkel, KeepsWhatATruncatedArchiveHeldInItsFirstPart) {
  pack("mkdir httpdocs; echo one > httpdocs/one; head -c 200000 /dev/urandom > httpdocs/two");
  shell("tar -cf cut.tar -C skel httpdocs/one httpdocs/two; truncate -s 100000 cut.tar");
  const Outcome outcome = install("7", "cut.tar");
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(testsupport::read_file(store("7") + "/httpdocs/one"), "one\n");
  EXPECT_EQ(testsupport::mode_of(store("7") + "/httpdocs"), 0755U);
}

TEST_F(InstallSkel, SaysSoWhenTheCommandDoesNotFit) {
  const std::string name(4080, 'a');
  const Outcome outcome =
      tembrix({"--install-skel", "--force-type", "tar", "--filename", name, "--id", "7"});
  EXPECT_EQ(outcome.out.rfind("tembrix: Unsuccessfull execution of command 'tar -xf aaa", 0), 0U);
  EXPECT_NE(outcome.out.find("'. Exit status -1\n"), std::string::npos);
  EXPECT_EQ(outcome.out.substr(outcome.out.size() - 3), "\n0\n");
  EXPECT_TRUE(fs::is_empty(store("7")));
}

TEST_F(InstallSkel, DoesNotCreateTheDirectoryAboveTheStores) {
  pack("mkdir httpdocs");
  fs::remove("/var/www/vhosts/.skel");
  EXPECT_EQ(install("7"),
            fatal("Problems with creating directory /var/www/vhosts/.skel/7: No such file or "
                  "directory\nSystem error 2: No such file or directory"));
}

TEST_F(InstallSkel, ReportsAStoreThatCannotBeRemoved) {
  pack("mkdir httpdocs");
  write_file(store("7") + "/httpdocs/file", "kept");
  shell("mount --bind " + store("7") + " " + store("7") + "; mount -o remount,bind,ro " +
        store("7"));
  const Outcome outcome = install("7");
  EXPECT_EQ(outcome.exit_code(), 1);
  EXPECT_EQ(outcome.err.substr(0, outcome.err.find('\n')),
            "tembrix: Unable to unlink directory entry file: Read-only file system");
  EXPECT_EQ(testsupport::read_file(store("7") + "/httpdocs/file"), "kept");
}

TEST_F(InstallSkel, ReportsAFullFileSystem) {
  pack("mkdir httpdocs");
  shell("mount -t tmpfs -o nr_inodes=1 none /var/www/vhosts/.skel");
  EXPECT_EQ(install("7"),
            fatal("Problems with creating directory /var/www/vhosts/.skel/7: No space left on "
                  "device\nSystem error 28: No space left on device"));
}

TEST_F(InstallSkel, UsesTheConfiguredVirtualHostsDirectory) {
  write_file("/etc/oxa/oxa.conf", "HTTPD_VHOSTS_D /var/www/elsewhere\n");
  fs::create_directories("/var/www/elsewhere/.skel");
  pack("mkdir httpdocs");
  EXPECT_EQ(install("7"), answer(0));
  EXPECT_TRUE(fs::is_directory("/var/www/elsewhere/.skel/7/httpdocs"));
  EXPECT_EQ(tembrix({"--remove-skel", "--id", "7"}), answer(0));
  EXPECT_TRUE(fs::is_empty("/var/www/elsewhere/.skel"));
}

TEST_F(InstallSkel, FallsBackToTheCompiledInVirtualHostsDirectory) {
  fs::remove("/etc/oxa/oxa.conf");
  pack("mkdir httpdocs");
  EXPECT_EQ(install("7"), answer(0));
  EXPECT_TRUE(fs::is_directory(store("7") + "/httpdocs"));
}

TEST_F(InstallSkel, LeavesTheWorkingDirectoryAboveTheStore) {
  pack("mkdir httpdocs");
  const std::string path = at("skel.tar");
  ArchiveDescriptor archive = adc_tar;
  archive.file_name = path.c_str();
  const Outcome outcome = in_child([&archive] {
    if (installSkeleton(&archive, "7") != 0) _exit(1);
    puts(fs::current_path().c_str());
  });
  EXPECT_EQ(outcome, (Outcome{"/var/www/vhosts/.skel\n", "", 0}));
}

TEST_F(InstallSkel, ReportsWhatCannotBeOpenedEnteredOrClosed) {
  pack("mkdir -p httpdocs/sub");
  struct Fault {
    std::string inject;
    std::string report;
  };
  // The store is opened by its whole path, its sections by their names.
  const std::string top = store("7");
  const Fault faults[] = {
      {"-P " + top + " -e inject=openat:error=EIO",
       "Problems with opening directory '" + top + "': Input/output error"},
      {"-P " + top + " -e inject=fchdir:error=EIO:when=1",
       "Unable to change dir " + top + ": Input/output error\n"},
      {"-P " + top + " -e inject=close:error=EIO:when=2",  // the first is of the kept "."
       "Unable to close dir " + top + ": Input/output error\n"},
      {"-P " + top + " -e inject=getdents64:error=EIO",
       "Unable to check directory entry " + top + ": Input/output error\n"},
      {"-P " + top + "/httpdocs -e inject=getdents64:error=EIO",
       "Unable to check directory entry httpdocs: Input/output error\n"},
      {"-e inject=chdir:error=EIO", "Unable to change dir ..: Input/output error\n"},
      {"-P httpdocs -e inject=newfstatat:error=EIO",
       "Unable to check directory entry httpdocs: Input/output error\n"},
      {"-P httpdocs -e inject=openat:error=EIO",
       "Unable to open dir httpdocs: Input/output error\n"},
      {"-P " + top + "/httpdocs -e inject=fchdir:error=EIO",
       "Unable to change dir httpdocs: Input/output error\n"},
      {"-P " + top + "/httpdocs -e inject=close:error=EIO",
       "Unable to close dir httpdocs: Input/output error\n"},
      {"-P sub -e inject=newfstatat:error=EIO",
       "Unable to check directory entry sub: Input/output error\n"},
      {"-P sub -e inject=openat:error=EIO", "Unable to open dir sub: Input/output error\n"},
      {"-P " + top + "/httpdocs/sub -e inject=fchdir:error=EIO",
       "Unable to change dir sub: Input/output error\n"},
      {"-P . -e inject=openat:error=EMFILE", "Unable to open dir .: Too many open files\n"}};
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.inject);
    fs::remove_all(top);
    const std::string error = fault.report.find("Too many") == std::string::npos
                                  ? "\nSystem error 5: Input/output error"
                                  : "\nSystem error 24: Too many open files";
    testsupport::RunOptions options;
    options.environment = {{"ASAN_OPTIONS", "detect_leaks=0"}};
    const Outcome outcome = testsupport::run(
        {"/bin/sh", "-c",
         "exec strace --quiet=all -o " + at("log") + " " + fault.inject + " " + TEMBRIX_PROGRAM +
             " --install-skel --force-type tar --filename " + at("skel.tar") + " --id 7"},
        options);
    EXPECT_EQ(outcome, fatal(fault.report + error));
  }
}

TEST_F(RemoveSkel, RemovesTheStoreAndItAlone) {
  write_file(store("7") + "/httpdocs/.hidden/file", "x");
  write_file(store("8") + "/httpdocs/file", "x");
  EXPECT_EQ(tembrix({"--remove-skel", "--id", "7"}), answer(0));
  EXPECT_EQ(tree_listing("/var/www/vhosts/.skel").size(), 3U);
  EXPECT_FALSE(fs::exists(store("7")));
}

TEST_F(RemoveSkel, SucceedsSilentlyForAClientThatHasNone) {
  EXPECT_EQ(tembrix({"--remove-skel", "--id", "7"}), answer(0));
  fs::remove("/var/www/vhosts/.skel");
  EXPECT_EQ(tembrix({"--remove-skel", "--id", "7"}), answer(0));
}

TEST_F(RemoveSkel, EndsWithStatusOneWhenSomethingResists) {
  write_file(store("7") + "/file", "kept");
  ASSERT_TRUE(testsupport::set_immutable(store("7") + "/file", true));
  const Outcome outcome = tembrix({"--remove-skel", "--id", "7"});
  ASSERT_TRUE(testsupport::set_immutable(store("7") + "/file", false));
  EXPECT_EQ(outcome.exit_code(), 1);
  EXPECT_EQ(outcome.out,
            "tembrix: Unable to unlink directory entry file: Operation not permitted\n\n"
            "System error 1: Operation not permitted\n"
            "tembrix: Unable to remove dir /var/www/vhosts/.skel/7: Directory not empty\n\n"
            "System error 39: Directory not empty\n");
  EXPECT_EQ(outcome.err, outcome.out);
}

TEST_F(RemoveForbidEntries, RemovesAForbiddenStartingPath) {
  write_file(at(".quota/file"), "x");
  EXPECT_EQ(in_child([this] {
              fs::current_path(at(""));
              remove_forbid_entries(".quota");
            }),
            (Outcome{"", "", 0}));
  EXPECT_FALSE(fs::exists(at(".quota")));
}

TEST_F(RemoveForbidEntries, LeavesFilesAndLinksAlone) {
  write_file(at("outside/.quota"), "kept");
  fs::create_symlink(at("outside"), at("link"));
  write_file(at("file"), "kept");
  EXPECT_EQ(in_child([this] {
              fs::current_path(at(""));
              remove_forbid_entries("link");
              remove_forbid_entries("file");
            }),
            (Outcome{"", "", 0}));
  EXPECT_TRUE(fs::exists(at("outside/.quota")));
  EXPECT_TRUE(fs::exists(at("file")));
}

TEST_F(RemoveForbidEntries, NeverEntersHiddenDirectories) {
  write_file(at("top/.hidden/.quota"), "kept");
  write_file(at("top/shown/.quota"), "removed");
  write_file(at(".start/.quota"), "removed");
  EXPECT_EQ(in_child([this] {
              fs::current_path(at(""));
              remove_forbid_entries("top");
              remove_forbid_entries(".start");  // the rule is for entries met on the way
            }),
            (Outcome{"", "", 0}));
  EXPECT_TRUE(fs::exists(at("top/.hidden/.quota")));
  EXPECT_FALSE(fs::exists(at("top/shown/.quota")));
  EXPECT_FALSE(fs::exists(at(".start/.quota")));
}

TEST_F(RemoveForbidEntries, RestoresTheWorkingDirectory) {
  write_file(at("a/b/c/.quota"), "x");
  const Outcome outcome = in_child([this] {
    fs::current_path(at(""));
    remove_forbid_entries("a/b");
    puts(fs::current_path().c_str());
  });
  EXPECT_EQ(outcome.out, fs::canonical(at("")).string() + "\n");
  EXPECT_FALSE(fs::exists(at("a/b/c/.quota")));
}

TEST_F(RemoveForbidEntries, EndsOnAMissingPath) {
  const std::string report =
      "Unable to check directory entry missing: No such file or directory\n\n"
      "System error 2: No such file or directory\n";
  EXPECT_EQ(in_child([] { remove_forbid_entries("missing"); }), (Outcome{report, report, 1 << 8}));
}

TEST_F(RemoveForbidEntries, IsWhatRmEntryDoesForWholeTrees) {
  write_file(at("tree/sub/file"), "x");
  EXPECT_EQ(rm_entry(at("tree").c_str()), 0);
  EXPECT_FALSE(fs::exists(at("tree")));
  EXPECT_EQ(rm_entry(at("missing").c_str()), 0);
}

TEST_F(InstallDefault, InstallsTheCompiledInArchiveWhateverTheFileName) {
  pack("mkdir httpdocs; echo default > httpdocs/index.html");
  fs::create_directories("/usr/local/oxa/var");
  fs::copy_file(at("skel.tgz"), "/usr/local/oxa/var/default_skeleton.tgz");
  for (const std::string& name : {at("other.zip"), std::string("a b;c"), std::string(5000, 'a')}) {
    EXPECT_EQ(tembrix({"--install-default", "--id", "5", "--filename", name}), answer(0));
    EXPECT_EQ(tree_listing(store("5")),
              (Lines{"d 0755 0:0 httpdocs", "f 0644 0:0 httpdocs/index.html default\n"}));
    fs::remove_all(store("5"));
  }
}

TEST_F(InstallDefault, AppliesAForcedTypeToTheDefaultArchive) {
  pack("mkdir httpdocs; echo zipped > httpdocs/index.html");
  fs::create_directories("/usr/local/oxa/var");
  fs::copy_file(at("skel.tgz"), "/usr/local/oxa/var/default_skeleton.tgz");
  const Outcome outcome = tembrix({"--install-default", "--id", "5", "--force-type", "zip"});
  EXPECT_NE(outcome.out.find("'unzip -o -qq /usr/local/oxa/var/default_skeleton.tgz -d " +
                             store("5") + "'. Exit status 2304"),
            std::string::npos)
      << outcome;
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST_F(InstallDefault, TellsTheTypeByTheExtensionWhereTheArchiveIsMissing) {
  const Outcome outcome = tembrix({"--install-default", "--id", "5"});
  EXPECT_NE(outcome.out.find("'tar -xzf /usr/local/oxa/var/default_skeleton.tgz -C " + store("5")),
            std::string::npos)
      << outcome;
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_TRUE(fs::is_empty(store("5")));
}
