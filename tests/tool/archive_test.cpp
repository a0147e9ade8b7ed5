#include "tool/archive.h"

#include <errno.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "support/private_mounts.h"
#include "tool/tool_fixture.h"

using testsupport::in_child;
using testsupport::Outcome;
using testsupport::write_file;

namespace {

class Archive : public ToolTest {
 protected:
  /// The type that the file gets, or -1 when it gets none.
  static ArchiveType type_of(const std::string& file_name, ArchiveType forced = ARCHIVE_DETECT) {
    std::string buffer = file_name;
    ArchiveDescriptor descriptor = {};
    if (getArchiveDc(buffer.data(), &descriptor, forced) != 0) {
      EXPECT_EQ(descriptor.type, 0) << "nothing is filled in on failure";
      return -1;
    }
    EXPECT_EQ(descriptor.file_name, buffer.data()) << "the caller's buffer, not a copy";
    EXPECT_EQ(buffer, file_name) << "the buffer is as it was";
    return descriptor.type;
  }

  /// A file whose content says nothing.
  std::string text_file(const std::string& name) const {
    write_file(at(name), "plain text\n");
    return at(name);
  }

  void make_archives() const {
    shell(
        "mkdir httpdocs; echo text > httpdocs/index.html\n"
        "zip -qr a.zip httpdocs; tar -cf a.tar httpdocs; tar -czf a.tgz httpdocs");
  }
};

using GetArchiveDc = Archive;
using TestSupport = Archive;
using ExtractTo = Archive;
using Execute = Archive;
using ExecuteCommand = Archive;

ArchiveDescriptor with_file(const ArchiveDescriptor& record, const char* path) {
  ArchiveDescriptor descriptor = record;
  descriptor.file_name = path;
  return descriptor;
}

}  // namespace

TEST(ArchiveRecords, HoldTheirCommands) {
  struct Row {
    const ArchiveDescriptor& record;
    int type;
    const char *name, *support, *test, *extract;
  };
  const Row rows[] = {{adc_zip, 2, "Zip", "unzip -h > /dev/null", "unzip -t %s > /dev/null",
                       "unzip -o -qq %s -d %s"},
                      {adc_tgz, 4, "Tgz", "gzip --version > /dev/null && tar --version > /dev/null",
                       "tar -ztf %s > /dev/null", "tar -xzf %s -C %s"},
                      {adc_tar, 5, "Tar", "tar --version > /dev/null", "tar -tf %s > /dev/null",
                       "tar -xf %s -C %s"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.record.type, row.type);
    EXPECT_STREQ(row.record.name, row.name);
    EXPECT_STREQ(row.record.support_command, row.support);
    EXPECT_STREQ(row.record.test_command, row.test);
    EXPECT_STREQ(row.record.extract_command, row.extract);
  }
}

TEST_F(GetArchiveDc, LetsAForcedTypeOverrideContentAndExtension) {
  make_archives();
  EXPECT_EQ(type_of(at("a.zip"), ARCHIVE_TGZ), ARCHIVE_TGZ);
  EXPECT_EQ(type_of(at("a.tgz"), ARCHIVE_ZIP), ARCHIVE_ZIP);
  EXPECT_EQ(type_of(at("a.zip"), ARCHIVE_TAR), ARCHIVE_TAR);
  EXPECT_EQ(type_of("", ARCHIVE_ZIP), ARCHIVE_ZIP);
}

TEST_F(GetArchiveDc, RefusesForcedTypesThatNothingUses) {
  make_archives();
  for (const ArchiveType type : {1, 3, 6, 100, -1}) {
    SCOPED_TRACE(type);
    EXPECT_EQ(type_of(at("a.zip"), type), -1);
  }
}

TEST_F(GetArchiveDc, CopiesTheRecordOfTheType) {
  make_archives();
  std::string path = at("a.tar");
  ArchiveDescriptor descriptor = {};
  ASSERT_EQ(getArchiveDc(path.data(), &descriptor, ARCHIVE_DETECT), 0);
  EXPECT_STREQ(descriptor.name, "Tar");
  EXPECT_EQ(descriptor.test_command, adc_tar.test_command);
  EXPECT_EQ(descriptor.extract_command, adc_tar.extract_command);
  EXPECT_EQ(descriptor.support_command, adc_tar.support_command);
}

TEST_F(GetArchiveDc, TellsTheTypeByContentWhateverTheName) {
  make_archives();
  shell(
      "cp a.zip site.tar; cp a.tar site.tgz; cp a.tgz site.zip; cp a.tgz site; cp a.tgz b.tar.gz");
  EXPECT_EQ(type_of(at("site.tar")), ARCHIVE_ZIP);
  EXPECT_EQ(type_of(at("site.tgz")), ARCHIVE_TAR);
  EXPECT_EQ(type_of(at("site.zip")), ARCHIVE_TGZ) << "the word gzip holds the word zip";
  EXPECT_EQ(type_of(at("site")), ARCHIVE_TGZ);
  EXPECT_EQ(type_of(at("b.tar.gz")), ARCHIVE_TGZ);
}

TEST_F(GetArchiveDc, TellsTheTypeByExtensionWhereTheContentSaysNothing) {
  const std::pair<const char*, int> names[] = {
      {"SITE.ZIP", 2},   {"a.zip", 2},    {"a.tgz", 4},      {"a.TGZ", 4},       {"a.tar.gz", 4},
      {"a.TAR.GZ", 4},   {"a.Tar.gZ", 4}, {"a.tar", 5},      {"a.TAR", 5},       {"a.b.zip", 2},
      {".tar.gz", 4},    {".zip", 2},     {"a.gz", -1},      {"a.tar.bz2", -1},  {"archive", -1},
      {"a.", -1},        {"tar.gz", -1},  {"a.tarx.gz", -1}, {"a.tar.x.gz", -1}, {"zip", -1},
      {"a.zip.txt", -1}, {"a.tgzz", -1},  {"a.gz.tar", 5},   {"atar.gz", -1}};
  for (const auto& [name, type] : names) {
    SCOPED_TRACE(name);
    EXPECT_EQ(type_of(text_file(name)), type);
  }
}

TEST_F(GetArchiveDc, LooksAtTheLastDotOfTheWholePath) {
  EXPECT_EQ(type_of(text_file("dir.zip/archive")), -1) << "the extension would be .zip/archive";
}

TEST_F(GetArchiveDc, GoesByTheExtensionWhereFileCannotAnswer) {
  // An empty directory hides the program; its failure to start is reported, and not decisive.
  std::filesystem::create_directory(at("empty"));
  const Outcome outcome = in_child([&] {
    testsupport::enter_private_mounts();
    if (mount(at("empty").c_str(), "/usr/bin", nullptr, MS_BIND, nullptr) != 0) _exit(97);
    if (type_of("no-such-file.zip") != ARCHIVE_ZIP || type_of("no-such-file") != -1) _exit(1);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.err,
            "fork_execv: execv(\"/usr/bin/file\") failed: No such file or directory\n"
            "fork_execv: execv(\"/usr/bin/file\") failed: No such file or directory\n");
}

TEST_F(TestSupport, NeverProbesTheTarTools) {
  for (const ArchiveDescriptor* record : {&adc_tgz, &adc_tar}) {
    ArchiveDescriptor descriptor = *record;
    descriptor.support_command = "exit 1";
    EXPECT_EQ(testSupport(&descriptor), 0);
    descriptor.support_command = nullptr;
    EXPECT_EQ(testSupport(&descriptor), 0);
  }
}

TEST_F(TestSupport, RefusesOtherTypes) {
  for (const ArchiveType type : {0, 1, 3, 6, -1}) {
    ArchiveDescriptor descriptor = adc_zip;
    descriptor.type = type;
    EXPECT_EQ(testSupport(&descriptor), -1) << type;
  }
}

TEST_F(TestSupport, ProbesTheZipToolsByTheirCommand) {
  const std::pair<const char*, int> commands[] = {{"exit 0", 0},         {"exit 1", -1},
                                                  {"exit 255", -1},      {"kill -9 $$", -1},
                                                  {"kill -TERM $$", -1}, {"", -1}};
  for (const auto& [command, result] : commands) {
    SCOPED_TRACE(command);
    ArchiveDescriptor descriptor = adc_zip;
    descriptor.support_command = command;
    EXPECT_EQ(testSupport(&descriptor), result);
  }
  ArchiveDescriptor none = adc_zip;
  none.support_command = nullptr;
  EXPECT_EQ(testSupport(&none), -1);
}

TEST_F(ExtractTo, UnpacksEachType) {
  make_archives();
  for (const auto& [record, name] :
       {std::pair(&adc_zip, "a.zip"), std::pair(&adc_tgz, "a.tgz"), std::pair(&adc_tar, "a.tar")}) {
    SCOPED_TRACE(name);
    const std::string target = at(std::string("into-") + name);
    std::filesystem::create_directory(target);
    const std::string path = at(name);
    const ArchiveDescriptor descriptor = with_file(*record, path.c_str());
    EXPECT_EQ(in_child([&] { _exit(extractTo(&descriptor, target.c_str()) == 0 ? 0 : 1); }),
              (Outcome{"", "", 0}));
    EXPECT_EQ(testsupport::read_file(target + "/httpdocs/index.html"), "text\n");
  }
}

TEST_F(ExtractTo, OverwritesWithoutAsking) {
  make_archives();
  const std::string path = at("a.zip");
  write_file(at("into/httpdocs/index.html"), "earlier");
  const ArchiveDescriptor descriptor = with_file(adc_zip, path.c_str());
  EXPECT_EQ(extractTo(&descriptor, at("into").c_str()), 0);
  EXPECT_EQ(testsupport::read_file(at("into/httpdocs/index.html")), "text\n");
}

TEST_F(ExtractTo, ReportsTheRawStatusOfAFailure) {
  ArchiveDescriptor descriptor = with_file(adc_tar, "F");
  descriptor.extract_command = ": %s %s; exit 3";
  const Outcome outcome = in_child([&] {
    errno = 0;
    _exit(extractTo(&descriptor, "D") == -1 ? 0 : 1);
  });
  const std::string report =
      "Unsuccessfull execution of command ': F D; exit 3'. Exit status 768\n";
  EXPECT_EQ(outcome, (Outcome{report, report, 0}));
}

TEST_F(ExtractTo, RefusesOtherTypes) {
  for (const ArchiveType type : {0, 1, 3, 6}) {
    ArchiveDescriptor descriptor = with_file(adc_tar, "F");
    descriptor.type = type;
    descriptor.extract_command = ": %s %s";
    EXPECT_EQ(extractTo(&descriptor, "D"), -1) << type;
  }
}

TEST_F(ExtractTo, NeverRunsACommandThatDoesNotFit) {
  ArchiveDescriptor descriptor = adc_tar;
  descriptor.extract_command = "touch ran; : %s %s";
  const size_t fixed = std::string("touch ran; :  D").size();
  const std::string fits(4095 - fixed, 'a');
  const std::string too_long = fits + "a";
  const auto result_for = [&](const std::string& name) {
    descriptor.file_name = name.c_str();
    testsupport::RunOptions options;
    options.directory = at("");
    return in_child([&] { _exit(extractTo(&descriptor, "D") == 0 ? 0 : 1); }, options).exit_code();
  };
  EXPECT_EQ(result_for(fits), 0);
  EXPECT_TRUE(std::filesystem::remove(at("ran")));
  EXPECT_EQ(result_for(too_long), 1);
  EXPECT_FALSE(std::filesystem::exists(at("ran")));
}

TEST_F(ExtractTo, FailsSilentlyForAnEmptyCommand) {
  ArchiveDescriptor descriptor = with_file(adc_tar, "");
  descriptor.extract_command = "%s%s";
  EXPECT_EQ(in_child([&] { _exit(extractTo(&descriptor, "") == -1 ? 0 : 1); }),
            (Outcome{"", "", 0}));
}

TEST_F(ExecuteCommand, ReportsFailuresWithTheRawStatus) {
  const std::pair<const char*, int> commands[] = {
      {"exit 1", 256}, {"exit 9", 2304}, {"kill -9 $$", 9}};
  for (const auto& [command, status] : commands) {
    SCOPED_TRACE(command);
    const std::string report = std::string("Unsuccessfull execution of command '") + command +
                               "'. Exit status " + std::to_string(status) + "\n";
    EXPECT_EQ(in_child([command = command] {
                errno = 0;
                _exit(executeCommand(command) == -1 ? 0 : 1);
              }),
              (Outcome{report, report, 0}));
  }
}

TEST_F(ExecuteCommand, IsSilentOnSuccessAndWithoutACommand) {
  EXPECT_EQ(in_child([] {
              _exit(executeCommand("exit 0") == 0 && executeCommand("") == -1 &&
                            executeCommand(nullptr) == -1
                        ? 0
                        : 1);
            }),
            (Outcome{"", "", 0}));
}

TEST_F(Execute, GivesTheExitCode) {
  for (const int code : {0, 1, 9, 127, 255})
    EXPECT_EQ(execute(("exit " + std::to_string(code)).c_str()), code);
}

TEST_F(Execute, FailsForSignalsAndWithoutACommand) {
  EXPECT_EQ(execute("kill -9 $$"), -1);
  EXPECT_EQ(execute("kill -TERM $$"), -1);
  EXPECT_EQ(execute(""), -1);
  EXPECT_EQ(execute(nullptr), -1);
}

TEST_F(Execute, ReportsNothing) {
  EXPECT_EQ(in_child([] { _exit(execute("exit 3") == 3 && execute("kill $$") == -1 ? 0 : 1); }),
            (Outcome{"", "", 0}));
}

TEST_F(Execute, FailsWhenTheShellCannotBeWaitedFor) {
  const Outcome outcome = in_child([] {
    signal(SIGCHLD, SIG_IGN);  // the kernel then keeps no status: system() gives -1
    ArchiveDescriptor zip = adc_zip;
    _exit(execute("exit 0") == -1 && testSupport(&zip) == -1 ? 0 : 1);
  });
  EXPECT_EQ(outcome, (Outcome{"", "", 0}));
}
