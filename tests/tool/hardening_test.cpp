// What the program does to its own process before it unpacks, seen from inside its children.
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <initializer_list>

#include "support/tree_listing.h"
#include "tool/skeleton_store.h"
#include "tool/tool_fixture.h"

namespace fs = std::filesystem;
using testsupport::in_child;
using testsupport::Outcome;
using testsupport::read_file;
using testsupport::tree_listing;
using testsupport::write_file;
using Lines = std::vector<std::string>;

namespace {

constexpr unsigned long long kMknod = 1ULL << CAP_MKNOD;
constexpr const char* kCapabilities = "grep -h ^Cap /proc/self/status";

void require(bool done) {
  if (!done) _exit(97);
}

/// Takes capabilities from this process and from all that it will run.
void give_up(std::initializer_list<int> capabilities) {
  for (const int capability : capabilities) require(prctl(PR_CAPBSET_DROP, capability) == 0);
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  require(syscall(SYS_capget, &header, sets) == 0);
  for (const int capability : capabilities)
    for (__user_cap_data_struct& set : sets)
      if (&set == &sets[CAP_TO_INDEX(capability)]) {
        set.effective &= ~CAP_TO_MASK(capability);
        set.permitted &= ~CAP_TO_MASK(capability);
      }
  require(syscall(SYS_capset, &header, sets) == 0);
}

/// Hands CAP_MKNOD on by the other way, too, which asks no bounding set.
void make_mknod_ambient() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  require(syscall(SYS_capget, &header, sets) == 0);
  sets[CAP_TO_INDEX(CAP_MKNOD)].inheritable |= CAP_TO_MASK(CAP_MKNOD);
  require(syscall(SYS_capset, &header, sets) == 0);
  require(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_MKNOD, 0, 0) == 0);
}

/// "CapEff:\t000001ff\n" and the like, as one number a line.
std::vector<unsigned long long> capability_sets(const std::string& lines) {
  std::vector<unsigned long long> sets;
  for (size_t at = 0; (at = lines.find(":\t", at)) != std::string::npos; ++at)
    sets.push_back(std::stoull(lines.substr(at + 2, 16), nullptr, 16));
  return sets;
}

Lines lines_of(const std::string& text) {
  Lines lines;
  for (size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos;
       begin = end + 1)
    lines.push_back(text.substr(begin, end - begin));
  return lines;
}

class Hardening : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    write_file(at("empty.tar"), "");
    pack("mkdir httpdocs; echo page > httpdocs/index.html");
  }

  /// A "tar" of the test's own leaves in "seen" what a script prints, and then is the real one.
  void put_tar_behind(const std::string& script) const {
    write_file(at("bin/tar"),
               "#!/bin/sh\n(" + script + ") >" + at("seen") + "\nexec /bin/tar \"$@\"\n", 0755);
  }

  void use_own_tools() const { setenv("PATH", (at("bin") + ":/usr/bin:/bin").c_str(), 1); }

  /// Installs, and gives what the script says inside the program's child.
  std::string seen_in_child(const std::string& script, const std::function<void()>& prepare) const {
    put_tar_behind(script);
    EXPECT_EQ(prepared(
                  [&] {
                    use_own_tools();
                    prepare();
                  },
                  {"--install-skel", "--filename", at("skel.tar"), "--id", "7"}),
              answer(0));
    return read_file(at("seen"));
  }

  /// What a program that makes system calls by itself says of those whose names hold some text.
  Lines lines_of_system_caller(const std::string& calls) const {
    fs::create_directory(at("bin"));
    fs::copy_file(SYSTEM_CALLER, at("bin/tar"));
    EXPECT_EQ(prepared(
                  [this] {
                    use_own_tools();
                    fs::current_path(at(""));
                  },
                  {"--install-skel", "--filename", at("skel.tar"), "--id", "7"}),
              answer(0));
    Lines lines;
    for (const std::string& line : lines_of(read_file(at("seen"))))
      if (line.find(calls) != std::string::npos) lines.push_back(line);
    EXPECT_GE(lines.size(), 4U);
    return lines;
  }

  /// Packs devices: null, the first disk, and the number 0:0, which the kernel gives to anyone.
  void pack_devices() const {
    shell(
        "rm -rf skel; mkdir -p skel/httpdocs; cd skel; echo page > httpdocs/index.html\n"
        "mknod httpdocs/null c 1 3; mknod httpdocs/disk b 8 0; mknod httpdocs/nothing c 0 0\n"
        "mkfifo httpdocs/pipe; tar -cf ../skel.tar .");
  }

  /// The installation of that, with the report of a failed extraction and nothing else wrong.
  void expect_no_device(const std::function<void()>& prepare) const {
    fs::create_directories(store("7"));
    const Outcome outcome =
        prepared(prepare, {"--install-skel", "--filename", at("skel.tar"), "--id", "7"});
    EXPECT_EQ(outcome.out, "tembrix: Unsuccessfull execution of command 'tar -xf " +
                               at("skel.tar") + " -C " + store("7") + "'. Exit status 512\n0\n");
    EXPECT_EQ(outcome.exit_code(), 0);
    for (const char* name : {"null", "disk", "nothing"})
      EXPECT_NE(outcome.err.find(std::string(name) + ": Cannot mknod: Operation not permitted"),
                std::string::npos)
          << outcome.err;
    EXPECT_EQ(tree_listing(store("7")),
              (Lines{"d 0755 0:0 httpdocs", "f 0644 0:0 httpdocs/index.html page\n",
                     "p 0644 0:0 httpdocs/pipe"}));
  }
};

/// One line of this process's status, with its newline.
std::string status_line(const std::string& field) {
  const std::string status = read_file("/proc/self/status");
  const size_t at = status.find("\n" + field + ":") + 1;
  return status.substr(at, status.find('\n', at) + 1 - at);
}

/// Everything that a process hands on to the programs that it runs and that the tool changes.
std::string state_of_this_process() {
  const mode_t mask = umask(0);
  umask(mask);
  rlimit limit = {};
  require(getrlimit(RLIMIT_NOFILE, &limit) == 0);
  std::string state = "umask " + std::to_string(mask) + " descriptors " +
                      std::to_string(limit.rlim_cur) + " " + std::to_string(limit.rlim_max) + "\n";
  for (char** variable = environ; *variable != nullptr; ++variable)
    state += std::string(*variable) + "\n";
  for (const char* field :
       {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb", "NoNewPrivs", "Seccomp"})
    state += status_line(field);
  return state;
}

}  // namespace

TEST_F(Hardening, GivesItsChildrenAUmaskThatLetsNobodyElseWrite) {
  for (const mode_t mask : {0U, 077U, 0777U}) {
    SCOPED_TRACE(mask);
    EXPECT_EQ(seen_in_child("umask", [&] { umask(mask); }), "0022\n");
  }
}

TEST_F(Hardening, ReplacesTheOptionsThatItsCallerHasForArchiveTools) {
  const auto prepare = [this] {
    use_own_tools();
    setenv("TAR_OPTIONS", "--same-owner -p --to-command=/bin/false", 1);
    for (const char* name : {"UNZIP", "UNZIPOPT", "GZIP", "MAGIC"}) setenv(name, "-X", 1);
  };
  fs::create_directories("/usr/local/oxa/var");
  fs::copy_file(at("skel.tgz"), "/usr/local/oxa/var/default_skeleton.tgz");
  const std::vector<std::vector<std::string>> roads = {
      {"--install-skel", "--filename", at("skel.tar"), "--id", "7"},
      {"--install-default", "--id", "7"}};
  for (const std::vector<std::string>& words : roads) {
    SCOPED_TRACE(words[0]);
    put_tar_behind("env | grep -E '^(TAR_|UNZIP|GZIP|MAGIC)'");
    EXPECT_EQ(prepared(prepare, words), answer(0));
    EXPECT_EQ(read_file(at("seen")), "TAR_OPTIONS=--no-same-owner --no-same-permissions\n");
    fs::remove(at("seen"));
  }
}

TEST_F(Hardening, LetsNoVariableOfItsCallerEmptyAStoreOrChangeAType) {
  const std::string archive = at("no-extension");
  fs::copy_file(at("skel.tgz"), archive);
  const auto prepare = [] {
    setenv("GZIP", "-t", 1);
    setenv("MAGIC", "/dev/null", 1);
  };
  EXPECT_EQ(prepared(prepare, {"--install-skel", "--filename", archive, "--id", "7"}), answer(0));
  EXPECT_EQ(tree_listing(store("7")),
            (Lines{"d 0755 0:0 httpdocs", "f 0644 0:0 httpdocs/index.html page\n"}));
}

TEST_F(Hardening, LetsTarMakeNothingThatIsForeignSetIdOrWritableForOthers) {
  pack(
      "mkdir -p httpdocs/dir; echo x > httpdocs/file; echo x > httpdocs/run; ln -s x "
      "httpdocs/link\n"
      "chmod 06777 httpdocs/run; chmod 0666 httpdocs/file; chmod 03777 httpdocs/dir\n"
      "chown -Rh 1234:2345 httpdocs; chmod 07777 .; chown 1234 .");
  for (const char* type : {"tar", "tgz"}) {
    SCOPED_TRACE(type);
    write_file(at("bin/tar"),
               "#!/bin/sh\n/bin/tar \"$@\"\nfind " + store("7") +
                   " -printf '%m %U:%G %y %P\\n' | sort >" + at("seen") + "\n",
               0755);
    EXPECT_EQ(prepared([this] { use_own_tools(); }, {"--install-skel", "--filename",
                                                     at(std::string("skel.") + type), "--id", "7"}),
              answer(0));
    EXPECT_EQ(read_file(at("seen")),
              "644 0:0 f httpdocs/file\n755 0:0 d \n755 0:0 d httpdocs\n755 0:0 d httpdocs/dir\n"
              "755 0:0 f httpdocs/run\n777 0:0 l httpdocs/link\n");
  }
}

TEST_F(Hardening, LetsUnzipKeepNeitherOwnerNorSetIdBitNorLetOthersWrite) {
  pack(
      "mkdir -p httpdocs/dir; echo x > httpdocs/file; echo x > httpdocs/run; echo x > "
      "httpdocs/own\n"
      "chmod 06777 httpdocs/run; chmod 0666 httpdocs/file; chmod 0700 httpdocs/own\n"
      "chmod 02777 httpdocs/dir; chown -Rh 1234:2345 httpdocs");
  write_file(at("bin/unzip"),
             "#!/bin/sh\n/usr/bin/unzip \"$@\"\nstatus=$?\nfind " + store("7") +
                 " -mindepth 1 -printf '%m %U:%G %y %P\\n' | sort >" + at("seen") +
                 "\nexit $status\n",
             0755);
  EXPECT_EQ(prepared(
                [this] {
                  use_own_tools();
                  setenv("UNZIP", "-K", 1);
                  setenv("UNZIPOPT", "-X", 1);
                },
                {"--install-skel", "--filename", at("skel.zip"), "--id", "7"}),
            answer(0));
  EXPECT_EQ(read_file(at("seen")),
            "644 0:0 f httpdocs/file\n644 0:0 f httpdocs/run\n700 0:0 f httpdocs/own\n"
            "755 0:0 d httpdocs\n755 0:0 d httpdocs/dir\n");
}

TEST_F(Hardening, MakesNoDeviceAndTellsSoAsOfAnyFailedExtraction) {
  pack_devices();
  expect_no_device([] {});
}

TEST_F(Hardening, RefusesDevicesByEachSystemCallThatMakesThemAndNothingElse) {
  for (const std::string& line : lines_of_system_caller("mknod")) {
    SCOPED_TRACE(line);
    const bool is_device = line.rfind("character ", 0) == 0 || line.rfind("block ", 0) == 0;
    EXPECT_EQ(line.substr(line.find(": ")), is_device ? ": Operation not permitted" : ": made");
  }
}

TEST_F(Hardening, LeavesOutSetIdBitsAndTheWritingOfOthersByEachSystemCallThatSetsThem) {
  const Lines lines = lines_of_system_caller("chmod");
  EXPECT_EQ(lines.size(), 4U * 12U);
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    const std::string asked = line.substr(line.find(' ') + 1, 4);
    const bool is_unwanted = (std::stoul(asked, nullptr, 8) & 06022) != 0;
    EXPECT_EQ(line.substr(line.find(": ")), ": 0, now " + (is_unwanted ? "0600" : asked));
  }
}

TEST_F(Hardening, TakesOneCapabilityFromItsChildrenAndNoOther) {
  const Outcome own = testsupport::run({"/bin/sh", "-c", kCapabilities});
  const auto before = capability_sets(own.out);
  ASSERT_EQ(before.size(), 5U) << own;
  ASSERT_NE(before[2] & kMknod, 0U) << "the tests run without CAP_MKNOD";
  const auto after = capability_sets(seen_in_child(kCapabilities, make_mknod_ambient));
  ASSERT_EQ(after.size(), 5U);
  for (size_t i = 0; i < 5; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(after[i], before[i] & ~kMknod);
  }
}

TEST_F(Hardening, MakesNoDeviceWhereTheBoundingSetCannotBeChanged) {
  pack_devices();
  expect_no_device([] { give_up({CAP_SETPCAP}); });
  expect_no_device([] { give_up({CAP_SETPCAP, CAP_SYS_ADMIN}); });
}

TEST_F(Hardening, ReportsNothingOfWhatTheSystemRefuses) {
  const auto bare = [] { give_up({CAP_SETPCAP, CAP_SYS_ADMIN, CAP_MKNOD}); };
  EXPECT_EQ(prepared(bare, {"--remove-skel"}), fatal("Error: parameter 'id' wasn't specified"));
  EXPECT_EQ(prepared(bare, {"--install-skel", "--filename", at("skel.tgz"), "--id", "7"}),
            answer(0));
}

TEST_F(Hardening, RaisesTheLimitOfDescriptorsToWhatMayBeHad) {
  const auto seen = seen_in_child("ulimit -Sn; ulimit -Hn", [] {
    const rlimit few = {64, 100};
    require(setrlimit(RLIMIT_NOFILE, &few) == 0);
  });
  EXPECT_EQ(seen, "100\n100\n");
}

TEST_F(Hardening, StandsTheHighestLimitOfDescriptorsThatThereIs) {
  // In containers it is a million and more, which nothing may count through.
  for (const char* archive : {"skel.zip", "skel.tgz", "skel.tar"}) {
    SCOPED_TRACE(archive);
    EXPECT_EQ(testsupport::run({"/bin/sh", "-c",
                                "ulimit -Hn $(cat /proc/sys/fs/nr_open) 2>/dev/null; ulimit -Sn 64;"
                                " exec " TEMBRIX_PROGRAM " --install-skel --id 7 --filename " +
                                    at(archive)}),
              answer(0));
  }
}

TEST_F(Hardening, LeavesTheProcessOfALibraryCallerAlone) {
  put_tar_behind(
      "umask; ulimit -Sn; env | grep ^TAR_; grep -hE '^(CapBnd|Seccomp):' /proc/self/status");
  const std::string archive_name = at("skel.tar");
  const Outcome outcome = in_child([&] {
    use_own_tools();
    umask(0027);
    setenv("TAR_OPTIONS", "--no-same-owner --numeric-owner", 1);
    setenv("UNZIP", "-K", 1);
    const rlimit few = {64, 100};
    require(setrlimit(RLIMIT_NOFILE, &few) == 0);
    const std::string before = state_of_this_process();
    ArchiveDescriptor archive = adc_tar;
    archive.file_name = archive_name.c_str();
    require(installSkeleton(&archive, "7") == 0 && removeSkeleton("8") == 0);
    const std::string after = state_of_this_process();
    printf("%s", before == after ? "unchanged" : (before + "---\n" + after).c_str());
  });
  EXPECT_EQ(outcome, (Outcome{"unchanged", "", 0}));
  EXPECT_EQ(read_file(at("seen")), "0027\n64\nTAR_OPTIONS=--no-same-owner --numeric-owner\n" +
                                       status_line("CapBnd") + status_line("Seccomp"));
}
