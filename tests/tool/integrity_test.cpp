// Archive tests against a real database server, end to end and through the library.
#include <errno.h>
#include <string.h>

#include <filesystem>
#include <sstream>

#include "support/mariadb_server.h"
#include "support/traced.h"
#include "tool/archive.h"
#include "tool/tool_fixture.h"

using testsupport::in_child;
using testsupport::MariaDbServer;
using testsupport::Outcome;
using testsupport::write_file;

namespace {

constexpr long long kLimit = 2147483648;

class TestIntegrity : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    write_file("/etc/oxa/.oxa.shadow", "sesame\n", 0600);
    shell(
        "mkdir httpdocs; echo text > httpdocs/index.html\n"
        "zip -qr a.zip httpdocs; tar -cf a.tar httpdocs; tar -czf a.tgz httpdocs");
  }

  static void count_by(MariaDbServer& server, const std::string& way) {
    server.execute("replace into misc (param, val) values ('size_count_type', '" + way + "')");
  }

  Outcome test(const std::string& archive, const std::vector<std::string>& more = {}) const {
    std::vector<std::string> words{"--test-archive", "--filename", at(archive)};
    words.insert(words.end(), more.begin(), more.end());
    return tembrix(words);
  }

  /// A file that allocates nothing.
  std::string sparse(const std::string& name, long long size) const {
    write_file(at(name), "");
    std::filesystem::resize_file(at(name), static_cast<std::uintmax_t>(size));
    return at(name);
  }

  /// What testIntegrity() gives for a test command of one's own, with errno 0 at the report.
  Outcome with_command(const char* command, ArchiveType type = ARCHIVE_TAR) const {
    const std::string path = at("a.tar");
    return in_child([&] {
      ArchiveDescriptor descriptor = adc_tar;
      descriptor.type = type;
      descriptor.test_command = command;
      descriptor.file_name = path.c_str();
      _exit(testIntegrity(&descriptor));
    });
  }
};

/// The report of a failed command, up to what the message layer may add to it.
std::string unsuccessful(const std::string& command, int status) {
  return "Unsuccessfull execution of command '" + command + "'. Exit status " +
         std::to_string(status) + "\n";
}

std::string first_line(const std::string& text) {
  return text.substr(0, text.find('\n') + 1);
}

std::string last_line(const std::string& text) {
  const size_t before = text.rfind('\n', text.size() - 2);
  return text.substr(before == std::string::npos ? 0 : before + 1);
}

}  // namespace

TEST_F(TestIntegrity, AnswersZeroForGoodArchivesOfEachType) {
  MariaDbServer server;
  count_by(server, "byte");
  for (const char* archive : {"a.zip", "a.tgz", "a.tar"}) {
    SCOPED_TRACE(archive);
    EXPECT_EQ(test(archive), answer(0));
  }
}

TEST_F(TestIntegrity, LetsNoVariableOfItsCallerChangeTheAnswer) {
  const MariaDbServer server;
  const std::string trace = at("trace");
  const auto prepare = [&trace] {
    setenv("TAR_OPTIONS",
           ("--checkpoint=1 --checkpoint-action=exec='touch " + trace + "' --wrong").c_str(), 1);
    for (const char* name : {"UNZIP", "UNZIPOPT", "GZIP", "MAGIC"}) setenv(name, "--wrong", 1);
  };
  for (const char* archive : {"a.zip", "a.tgz", "a.tar"}) {
    SCOPED_TRACE(archive);
    EXPECT_EQ(prepared(prepare, {"--test-archive", "--filename", at(archive)}), answer(0));
  }
  EXPECT_FALSE(std::filesystem::exists(trace));
}

TEST_F(TestIntegrity, AnswersTwoForCorruptArchivesOfEachType) {
  MariaDbServer server;
  for (const auto& [archive, type, command, status] :
       {std::tuple("bad.zip", "zip", "unzip -t ", 9 << 8),
        std::tuple("bad.tgz", "tgz", "tar -ztf ", 2 << 8),
        std::tuple("bad.tar", "tar", "tar -tf ", 2 << 8)}) {
    SCOPED_TRACE(archive);
    write_file(at(archive), std::string(2000, 'x'));
    const Outcome outcome = test(archive, {"--force-type", type});
    EXPECT_EQ(first_line(outcome.out),
              "tembrix: " + unsuccessful(command + at(archive) + " > /dev/null", status));
    EXPECT_EQ(last_line(outcome.out), "2\n");
    EXPECT_EQ(outcome.exit_code(), 2);
  }
}

TEST_F(TestIntegrity, ReportsTheRawStatusOfACorruptArchive) {
  MariaDbServer server;
  // Bytes in front of a zip archive: unzip warns and ends with 1.
  shell("{ echo junk; cat a.zip; } > warned.zip");
  const std::string report =
      "tembrix: " + unsuccessful("unzip -t " + at("warned.zip") + " > /dev/null", 256);
  EXPECT_EQ(test("warned.zip", {"--force-type", "zip"}), (Outcome{report + "2\n", report, 2 << 8}));
}

TEST_F(TestIntegrity, ReportsTheSignalThatEndedTheCommand) {
  MariaDbServer server;
  const Outcome outcome = with_command("kill -9 $$ %s");
  EXPECT_EQ(first_line(outcome.out), unsuccessful("kill -9 $$ " + at("a.tar"), 9));
  EXPECT_EQ(outcome.exit_code(), 2);
}

TEST_F(TestIntegrity, PassesAFileOfExactlyTheLimitAndNoByteMore) {
  MariaDbServer server;
  count_by(server, "byte");
  sparse("limit.tar", kLimit);
  EXPECT_EQ(test("limit.tar"), answer(0)) << "zeroes are an empty tar archive";
  sparse("above.tar", kLimit + 1);
  EXPECT_EQ(test("above.tar"),
            (Outcome{"tembrix: The skeleton file size is too large.\n1\n",
                     "tembrix: The skeleton file size is too large.\n", 1 << 8}));
}

TEST_F(TestIntegrity, CountsAllocatedBlocksForAnyOtherWay) {
  MariaDbServer server;
  sparse("large.tar", 3221225472);
  for (const char* way : {"block", "", "Byte", "bytes", "BYTE "}) {
    SCOPED_TRACE(way);
    count_by(server, way);
    EXPECT_EQ(test("large.tar"), answer(0));
  }
  server.execute("delete from misc");
  EXPECT_EQ(test("large.tar"), answer(0)) << "no row";
  count_by(server, "byte");
  EXPECT_EQ(test("large.tar").exit_code(), 1);
}

TEST_F(TestIntegrity, RefusesWhatAllocatesMoreThanTheLimit) {
  MariaDbServer server;
  count_by(server, "block");
  // Reserved, not written: the length stays 0, and all of it counts.
  std::filesystem::create_directory(at("memory"));
  shell(
      "mount -t tmpfs -o size=2100M none memory; touch memory/a.tar; fallocate -n -l 2147483648 "
      "memory/a.tar");
  EXPECT_EQ(test("memory/a.tar", {"--force-type", "tar"}).exit_code(), 2)
      << "within the limit; tar refuses a file of no length";
  shell("fallocate -n -l 2147487744 memory/a.tar");
  const Outcome outcome = test("memory/a.tar", {"--force-type", "tar"});
  EXPECT_EQ(last_line(outcome.out), "1\n");
  count_by(server, "byte");
  EXPECT_NE(test("memory/a.tar", {"--force-type", "tar"}).exit_code(), 1) << "its length is 0";
  shell("umount memory");
}

TEST_F(TestIntegrity, CountsBlocksWhenTheQueryFails) {
  testsupport::MariaDbOptions options;
  options.with_misc = false;
  MariaDbServer server(options);
  sparse("large.tar", 3221225472);
  const Outcome outcome = test("large.tar");
  EXPECT_EQ(first_line(outcome.out),
            "tembrix: Unable to query parameter by query select val from misc where "
            "param='size_count_type': Table 'oxa.misc' doesn't exist\n");
  EXPECT_EQ(last_line(outcome.out), "0\n");
  EXPECT_EQ(outcome.exit_code(), 0);
}

TEST_F(TestIntegrity, TestsTheSizeBeforeTheArchive) {
  MariaDbServer server;
  count_by(server, "byte");
  sparse("large.zip", kLimit + 1);
  const Outcome outcome = test("large.zip");
  EXPECT_EQ(outcome.out.find("Unsuccessfull"), std::string::npos);
  EXPECT_EQ(outcome.exit_code(), 1);
}

TEST_F(TestIntegrity, EndsWhenTheDatabaseCannotBeReached) {
  const Outcome outcome = test("a.zip");
  EXPECT_EQ(outcome.exit_code(), 1);
  const std::string first = first_line(outcome.out);
  EXPECT_EQ(first.rfind("tembrix: Unable to connect to Frask Database: ", 0), 0U) << first;
  EXPECT_NE(outcome.out.find("\ntembrix: Unable to connect to the mysql database\n"),
            std::string::npos)
      << outcome.out;
  EXPECT_EQ(outcome.out.find("0\n"), std::string::npos) << "no number";
  EXPECT_EQ(outcome.err, outcome.out);
}

TEST_F(TestIntegrity, EndsForAWrongPassword) {
  MariaDbServer server;
  write_file("/etc/oxa/.oxa.shadow", "wrong\n", 0600);
  const Outcome outcome = test("a.zip");
  EXPECT_EQ(outcome.exit_code(), 1);
  EXPECT_NE(outcome.out.find("Access denied for user 'admin'"), std::string::npos) << outcome.out;
  EXPECT_EQ(outcome.out.find("wrong"), std::string::npos) << "the password is never shown";
}

TEST_F(TestIntegrity, ConnectsBeforeItLooksForTheFile) {
  const Outcome outcome = test("missing.zip");
  EXPECT_NE(outcome.out.find("Unable to connect to the mysql database"), std::string::npos);
  EXPECT_EQ(outcome.out.find("Unable to check directory entry"), std::string::npos);
}

TEST_F(TestIntegrity, EndsWhenTheFileCannotBeExamined) {
  MariaDbServer server;
  EXPECT_EQ(test("missing.zip"),
            fatal("Unable to check directory entry " + at("missing.zip") +
                  ": No such file or directory\n\nSystem error 2: No such file or directory"));
}

TEST_F(TestIntegrity, LooksForTheFileBeforeItAsksHowToCount) {
  testsupport::MariaDbOptions options;
  options.with_misc = false;
  const MariaDbServer server(options);
  EXPECT_EQ(test("missing.zip"),
            fatal("Unable to check directory entry " + at("missing.zip") +
                  ": No such file or directory\n\nSystem error 2: No such file or directory"));
}

TEST_F(TestIntegrity, FollowsLinksToTheFile) {
  MariaDbServer server;
  count_by(server, "byte");
  sparse("large.tar", kLimit + 1);
  std::filesystem::create_symlink("large.tar", at("link.tar"));
  EXPECT_EQ(test("link.tar").exit_code(), 1);
}

TEST_F(TestIntegrity, PassesOtherTypesAfterTheSizeTest) {
  MariaDbServer server;
  count_by(server, "byte");
  for (const ArchiveType type : {0, 1, 3, 6})
    EXPECT_EQ(with_command("exit 1; %s", type), (Outcome{"", "", 0})) << type;
  sparse("a.tar", kLimit + 1);
  EXPECT_EQ(with_command("exit 0; %s", 0).exit_code(), 1) << "the size comes first";
  std::filesystem::remove(at("a.tar"));
  EXPECT_NE(with_command("exit 0; %s", 0).out.find("Unable to check directory entry"),
            std::string::npos);
  server.stop();
  EXPECT_NE(with_command("exit 0; %s", 0).out.find("Unable to connect to the mysql database"),
            std::string::npos);
}

TEST_F(TestIntegrity, NamesNoErrorOfTheDatabaseInALaterReport) {
  const MariaDbServer server;
  write_file(at("bad.tar"), std::string(2000, 'x'));
  const std::vector<std::string> words{TEMBRIX_PROGRAM, "--test-archive", "--filename",
                                       at("bad.tar"),   "--force-type",   "tar"};
  // The last thing that is sent before the command runs is the query; its sending fails.
  const auto traced = [&](const std::vector<std::string>& how) {
    std::vector<std::string> options{"-s", "200", "-o", at("calls"), "-e", "trace=sendto"};
    options.insert(options.end(), how.begin(), how.end());
    return testsupport::run_traced(options, words);
  };
  EXPECT_EQ(traced({}).exit_code(), 2);
  std::istringstream calls(testsupport::read_file(at("calls")));
  int query = 0;
  std::string line;
  for (int number = 1; query == 0 && std::getline(calls, line); ++number)
    if (line.find("size_count_type") != std::string::npos) query = number;
  ASSERT_GT(query, 0);
  const Outcome outcome =
      traced({"-e", "inject=sendto:error=EPIPE:when=" + std::to_string(query) + "+"});
  EXPECT_NE(outcome.out.find("Unable to query parameter by query"), std::string::npos);
  const std::string report =
      "tembrix: " + unsuccessful("tar -tf " + at("bad.tar") + " > /dev/null", 512);
  EXPECT_NE(outcome.out.find(report + "2\n"), std::string::npos) << outcome;
}

TEST_F(TestIntegrity, AnswersTwoForACommandThatIsEmptyOrDoesNotFit) {
  MariaDbServer server;
  EXPECT_EQ(with_command("%.0s"), (Outcome{"", "", 2 << 8}));
  const std::string fixed = "exit 0; ";
  const size_t path = at("a.tar").size();
  const std::string fits = fixed + std::string(4095 - fixed.size() - path, ' ') + "%s";
  EXPECT_EQ(with_command(fits.c_str()), (Outcome{"", "", 0}));
  const Outcome outcome = with_command((" " + fits).c_str());
  EXPECT_EQ(outcome.exit_code(), 2) << "never cut and run";
  EXPECT_EQ(outcome.out.rfind("Unsuccessfull execution of command ' exit 0; ", 0), 0U);
  EXPECT_NE(outcome.out.find("'. Exit status -1\n"), std::string::npos);
}

TEST_F(TestIntegrity, ReadsTheConnectionFromTheSettings) {
  testsupport::MariaDbOptions options;
  options.password = "other";
  options.socket = "/var/lib/mysql/other.sock";
  MariaDbServer server(options);
  write_file("/etc/oxa/oxa.conf", "MYSQL_SOCKET /var/lib/mysql/other.sock\n");
  write_file("/etc/oxa/private/dsn.ini", "[frask]\npassword = other\n", 0600);
  EXPECT_EQ(test("a.tgz"), answer(0));
}
