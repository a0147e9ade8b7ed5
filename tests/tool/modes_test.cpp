// The command line end to end, as far as it needs no database.
#include <grp.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>

#include "support/traced.h"
#include "tool/tool_fixture.h"

using testsupport::Outcome;
using testsupport::write_file;

namespace {

constexpr unsigned int kNobody = 65534;

class Modes : public ToolTest {
 protected:
  /// A copy that users other than root can reach and run.
  std::string public_program() const {
    std::filesystem::permissions(at(""), std::filesystem::perms(0755));
    std::filesystem::copy_file(TEMBRIX_PROGRAM, at("tembrix"),
                               std::filesystem::copy_options::overwrite_existing);
    return at("tembrix");
  }

  Outcome as_nobody(std::vector<std::string> words) const {
    return as_nobody(public_program(), std::move(words));
  }

  static Outcome as_nobody(const std::string& program, std::vector<std::string> words) {
    const auto become_nobody = [] {
      if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(97);
    };
    return prepared(become_nobody, std::move(words), program);
  }
};

}  // namespace

TEST_F(Modes, PrintTheUsageAndZeroForHelpAndForNothing) {
  EXPECT_EQ(tembrix({}), answer(0, kUsage));
  EXPECT_EQ(tembrix({"--help"}), answer(0, kUsage));
  EXPECT_EQ(tembrix({"--test-archive", "--help", "--filename", "x"}), answer(0, kUsage));
  EXPECT_EQ(tembrix({"-s", "--skip-error-docs"}), answer(0, kUsage));
}

TEST_F(Modes, GoOnAfterWhatGetoptReports) {
  EXPECT_EQ(tembrix({"--bogus"}),
            (Outcome{kUsage + "0\n",
                     std::string(TEMBRIX_PROGRAM) + ": unrecognized option '--bogus'\n", 0}));
}

TEST_F(Modes, EndOnStrayWordsWhereverTheyStand) {
  const Outcome left =
      fatal("Some parameters in command string are left unprocessed. Check parameters please.");
  EXPECT_EQ(tembrix({"--test-archive", "--filename", "a.zip", "extra"}), left);
  EXPECT_EQ(tembrix({"extra", "--help"}), left);
  EXPECT_EQ(tembrix({"--", "--help"}), left);
  EXPECT_EQ(tembrix({""}), left);
}

TEST_F(Modes, CheckForStrayWordsBeforeReadingTheConfiguration) {
  std::filesystem::remove("/etc/oxa/oxa.conf");  // whose absence would show behind the report
  EXPECT_EQ(
      tembrix({"extra"}),
      fatal("Some parameters in command string are left unprocessed. Check parameters please."));
}

TEST_F(Modes, CheckForStrayWordsBeforeTakingRootIdentity) {
  EXPECT_EQ(
      as_nobody({"extra"}),
      fatal("Some parameters in command string are left unprocessed. Check parameters please."));
}

TEST_F(Modes, TakeRootIdentityEvenForHelp) {
  EXPECT_EQ(as_nobody({"--help"}), fatal("Unable to get ROOT permissions: Operation not permitted\n"
                                         "System error 1: Operation not permitted"));
}

TEST_F(Modes, ReportAFailedSetgidInTheSameWords) {
  const std::string program = public_program();
  const auto drop_setgid = [] {
    if (setgid(kNobody) != 0 || prctl(PR_CAPBSET_DROP, CAP_SETGID) != 0) _exit(97);
  };
  const Outcome outcome = prepared(drop_setgid, {"--help"}, program);
  EXPECT_EQ(outcome, fatal("Unable to get ROOT permissions: Operation not permitted\n"
                           "System error 1: Operation not permitted"));
}

TEST_F(Modes, AttemptSetgidOnlyAfterSetuid) {
  ASSERT_EQ(testsupport::run_traced({"-o", at("good"), "-e", "trace=setuid,setgid"},
                                    {TEMBRIX_PROGRAM, "--help"})
                .exit_code(),
            0);
  const std::string good = testsupport::read_file(at("good"));
  EXPECT_LT(good.find("setuid(0)"), good.find("setgid(0)"));
  EXPECT_NE(good.find("setgid(0)"), std::string::npos);
  EXPECT_EQ(testsupport::run_traced(
                {"-o", at("bad"), "-e", "trace=setuid,setgid", "-e", "inject=setuid:error=EPERM"},
                {TEMBRIX_PROGRAM, "--help"})
                .exit_code(),
            1);
  EXPECT_EQ(testsupport::read_file(at("bad")).find("setgid"), std::string::npos);
}

TEST_F(Modes, RunWithAllIdentitiesOfRoot) {
  // The one way to begin with two of them only. Nobody should install it so: see docs/security.md.
  const std::string program = public_program();
  ASSERT_EQ(chown(program.c_str(), 0, 0), 0);
  ASSERT_EQ(chmod(program.c_str(), 06755), 0);
  write_file(store("7") + "/httpdocs/index.html", "text");
  EXPECT_EQ(as_nobody(program, {"--remove-skel", "--id", "7"}), answer(0));
  EXPECT_FALSE(std::filesystem::exists(store("7")));
}

TEST_F(Modes, RequireAFileNameFirst) {
  const Outcome missing = fatal("Error: parameter 'filename' wasn't specified");
  EXPECT_EQ(tembrix({"--test-archive"}), missing);
  EXPECT_EQ(tembrix({"--test-archive", "--filename", ""}), missing);
  EXPECT_EQ(tembrix({"--install-skel"}), missing) << "before the id is missed";
  EXPECT_EQ(tembrix({"--install-skel", "--id", "/"}), missing) << "before the id is looked at";
}

TEST_F(Modes, CarryTheSystemErrorOfAMissingConfigurationFile) {
  std::filesystem::remove("/etc/oxa/oxa.conf");
  EXPECT_EQ(tembrix({"--test-archive"}), fatal("Error: parameter 'filename' wasn't specified\n"
                                               "System error 2: No such file or directory"));
}

TEST_F(Modes, RefuseFileNamesThatAreTooLong) {
  const Outcome too_long = fatal("Error: parameter 'filename' is too long");
  const std::string name(4096, 'a');
  EXPECT_EQ(tembrix({"--test-archive", "--filename", name}), too_long);
  EXPECT_EQ(tembrix({"--install-skel", "--filename", name}), too_long) << "before the id is missed";
  EXPECT_EQ(tembrix({"--test-archive", "--filename", std::string(5000, ' ')}), too_long);
  EXPECT_EQ(tembrix({"--test-archive", "--filename", name.substr(1)}),
            fatal("Can't detect archive type"));
}

TEST_F(Modes, RefuseFileNamesThatAShellWouldReadOtherwise) {
  const Outcome refused = fatal("Error: parameter 'filename' holds unsupported characters");
  for (const char character : std::string(" \t\n\r\v\f\x01\x1f\x7f|&;<>()$`\\\"'*?[]#~!{}")) {
    SCOPED_TRACE(static_cast<int>(character));
    const std::string name = std::string("/tmp/a") + character + "b.tar";
    EXPECT_EQ(tembrix({"--test-archive", "--filename", name}), refused);
    EXPECT_EQ(tembrix({"--install-skel", "--filename", name}), refused) << "before the id";
  }
}

TEST_F(Modes, TakeEveryFileNameForAFile) {
  shell(
      "mkdir httpdocs; echo text > httpdocs/index.html\n"
      "zip -qr good.zip httpdocs; tar -czf good.tgz httpdocs; tar -cf good.tar httpdocs\n"
      "cp good.zip ./-z.tar; cp good.zip ./-m.zip; cp good.tgz ./-x; cp good.tgz ./-C\n"
      "cp good.tar ./-; cp good.tar host:a.tar; ls -A > /mnt/before");
  testsupport::RunOptions here;
  here.directory = at("");
  for (const char* name : {"-z.tar", "-m.zip", "-x", "-C", "-", "host:a.tar"}) {
    SCOPED_TRACE(name);
    std::filesystem::remove_all(store("7"));
    EXPECT_EQ(tembrix({"--install-skel", "--id", "7", "--filename", name}, here), answer(0));
    EXPECT_EQ(testsupport::read_file(store("7") + "/httpdocs/index.html"), "text\n");
  }
  shell("ls -A | diff /mnt/before -");
}

TEST_F(Modes, RequireAClientId) {
  const Outcome missing = fatal("Error: parameter 'id' wasn't specified");
  EXPECT_EQ(tembrix({"--install-skel", "--filename", "nothing"}), missing) << "before detection";
  EXPECT_EQ(tembrix({"--remove-skel"}), missing);
  EXPECT_EQ(tembrix({"--install-default"}), missing);
}

TEST_F(Modes, RefuseClientIdsThatAreNoPlainDirectoryName) {
  const Outcome refused = fatal("Error: parameter 'id' is not a valid client id");
  write_file("/var/www/vhosts/.skel/keep/file", "kept");
  for (const std::string id :
       {"",     ".",     "..",  "/",     "a/b",  "../x", "7/",  " ",   "7 8", "a\tb", "a\nb",
        "\x01", "a\x7f", "a;b", "$(id)", "`id`", "a|b",  "a&b", "a>b", "a<b", "(a)",  "a\\b",
        "a\"b", "a'b",   "*",   "?",     "[a]",  "~",    "#a",  "a!b", "{a}"}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(tembrix({"--remove-skel", "--id", id}), refused);
    EXPECT_EQ(tembrix({"--install-default", "--id", id}), refused);
    EXPECT_EQ(tembrix({"--install-skel", "--filename", "nothing", "--id", id}), refused)
        << "before detection";
  }
  EXPECT_TRUE(std::filesystem::exists("/var/www/vhosts/.skel/keep/file"));
}

TEST_F(Modes, TakeAnyOtherTextAsClientId) {
  for (const std::string id : {"7", "00", "client", "a.b", "...", ".a", "-7", "a-b_c", "a:b@c,d",
                               "100%", "a=b", "a^b", "+", "\xd0\xb8\xd0\xb4"}) {
    SCOPED_TRACE(id);
    write_file(store(id) + "/httpdocs/index.html", "text");
    EXPECT_EQ(tembrix({"--remove-skel", "--id=" + id}), answer(0));
    EXPECT_FALSE(std::filesystem::exists(store(id)));
  }
  EXPECT_TRUE(std::filesystem::is_directory("/var/www/vhosts/.skel"));
}

TEST_F(Modes, EndWhenTheArchiveTypeCannotBeDetected) {
  write_file(at("archive"), "no archive\n");
  const Outcome undetected = fatal("Can't detect archive type");
  EXPECT_EQ(tembrix({"--test-archive", "--filename", at("archive")}), undetected);
  EXPECT_EQ(tembrix({"--install-skel", "--filename", at("archive"), "--id", "7"}), undetected);
  EXPECT_EQ(tembrix({"--test-archive", "--filename", at("archive"), "--force-type", "TGZ"}),
            undetected)
      << "a type word in capitals is ignored";
  EXPECT_FALSE(std::filesystem::exists(store("7"))) << "nothing was touched";
}

TEST_F(Modes, AnswerForSupportedTypes) {
  for (const char* type : {"zip", "tgz", "tar.gz", "tar"}) {
    SCOPED_TRACE(type);
    EXPECT_EQ(tembrix({"--test-support", type}), answer(0));
  }
}

TEST_F(Modes, EndWhenTheTypeToSupportIsNoneOfTheFour) {
  for (const char* type : {"rar", "ZIP", ""}) {
    SCOPED_TRACE(type);
    EXPECT_EQ(tembrix({"--test-support", type}), fatal("Can't detect archive type"));
  }
}

TEST_F(Modes, GoByTheTypeToSupportAloneWhateverFileIsNamed) {
  shell("echo text > file; zip -q real.zip file");
  EXPECT_EQ(tembrix({"--test-support", "rar", "--filename", at("real.zip")}),
            fatal("Can't detect archive type"));
}

TEST_F(Modes, LearnTheStatusOfACommandUnderACallerThatIgnoresChildren) {
  const auto ignore_children = [] { signal(SIGCHLD, SIG_IGN); };
  EXPECT_EQ(prepared(ignore_children, {"--test-support", "zip"}), answer(0));
}

TEST_F(Modes, AnswerMinusOneForZipWithoutItsTools) {
  testsupport::RunOptions no_tools;
  no_tools.environment = {{"PATH", at("")}};
  const Outcome outcome = tembrix({"--test-support", "zip"}, no_tools);
  EXPECT_EQ(outcome.out, "-1\n");
  EXPECT_EQ(outcome.exit_code(), 255);
  EXPECT_EQ(tembrix({"--test-support", "tgz"}, no_tools), answer(0));
  EXPECT_EQ(tembrix({"--test-support", "tar"}, no_tools), answer(0));
}

TEST_F(Modes, EndOnVirtualHostNamesThatCannotBeConverted) {
  EXPECT_EQ(tembrix({"--vhost-name", "b\303\274cher.example", "--remove-skel", "--id", "7"}),
            answer(0));
  const std::string bad = std::string(64, 'a') + ".example";
  const Outcome refused = fatal("idn_toascii_safe(" + bad + ") failed: Invalid length");
  EXPECT_EQ(tembrix({"--vhost-name", bad}), refused);
  EXPECT_EQ(tembrix({"-V", bad}), refused);
  EXPECT_EQ(tembrix({"--help", "stray", "--vhost-name", bad}), refused) << "while options are read";
}

TEST_F(Modes, NameThemselvesByTheBaseNameOfTheProgram) {
  std::filesystem::create_symlink(TEMBRIX_PROGRAM, at("other-name"));
  const Outcome outcome = testsupport::run({at("other-name"), "--remove-skel"});
  EXPECT_EQ(outcome.err, "other-name: Error: parameter 'id' wasn't specified\n");
}
