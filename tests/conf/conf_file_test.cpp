#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "conf/oxaconf.h"
#include "conf_table.h"
#include "log_recorder.h"
#include "memory_path.h"
#include "panel.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/scratch.h"

using testsupport::FailingAllocation;
using testsupport::in_child;
using testsupport::live_blocks;
using testsupport::open_descriptors;
using testsupport::Outcome;
using testsupport::ScratchDir;
using testsupport::write_file;

namespace {

using Content = std::map<std::string, std::string>;

/// Reads a file of this content into a new table.
ConfTable read(const std::string& content) {
  const MemoryPath file(content);
  ConfTable conf = new_table();
  EXPECT_EQ(conf_read_file_r(file.c_str(), conf.get()), 0);
  return conf;
}

std::string visible(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    const bool plain = c > ' ' && c < '\x7f';
    shown += plain ? std::string(1, c) : "\\" + std::to_string(static_cast<unsigned char>(c));
  }
  return shown;
}

constexpr const char* kNoSpace = "\nExpected a space after variable name\n";
constexpr const char* kNoValue = "\nExpected a value";

LogLine invalid(const std::string& line, const char* reason) {
  return {12, "Invalid variable definition " + line + reason};
}

}  // namespace

TEST(ConfReadFileR, ReadsNamesAndValues) {
  struct Row {
    const char* content;
    Content expected;
  };
  const std::vector<Row> rows = {
      {"", {}},
      {"HTTPD_VHOSTS_D /srv/www\n", {{"HTTPD_VHOSTS_D", "/srv/www"}}},
      {"SNI_SUPPORT false", {{"SNI_SUPPORT", "false"}}},
      {"A 1\nB 2\nC 3", {{"A", "1"}, {"B", "2"}, {"C", "3"}}},
      {"A\tx\n", {{"A", "x"}}},
      {"A \t \v\f\r x\n", {{"A", "x"}}},
      {" \t\v\f\rA x\n", {{"A", "x"}}},
      {"9LIVES x\n", {{"9LIVES", "x"}}},
      {"_ x\n", {{"_", "x"}}},
      {"a_Z0 x\n", {{"a_Z0", "x"}}},
      {"A x", {{"A", "x"}}},
      {"A = x\n", {{"A", "= x"}}},
      {"A one two\tthree\n", {{"A", "one two\tthree"}}},
      {"A one  two   three\n", {{"A", "one  two   three"}}},
      {"A \"x\" ; y\n", {{"A", "\"x\" ; y"}}},
      {"A \xc3\xa4\n", {{"A", "\xc3\xa4"}}},
      {"\n\n \t\nA x\n\n", {{"A", "x"}}},
      {"# A y\n  # A z\nA x\n#\n", {{"A", "x"}}},
      {"A x#y\n", {{"A", "x"}}},
      {"A x#y#z\n", {{"A", "x"}}},
      {"A x # y\n", {{"A", "x"}}},
      {"HTTPD_VHOSTS_D /srv/www # moved\n", {{"HTTPD_VHOSTS_D", "/srv/www"}}},
      {"HTTPD_VHOSTS_D /srv/www  # moved\n", {{"HTTPD_VHOSTS_D", "/srv/www  "}}},
      {"HTTPD_VHOSTS_D /srv/www \n", {{"HTTPD_VHOSTS_D", "/srv/www \n"}}},
      {"HTTPD_VHOSTS_D /srv/www\r\n", {{"HTTPD_VHOSTS_D", "/srv/www\r\n"}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(visible(row.content));
    const LogRecorder log;
    EXPECT_EQ(content_of(read(row.content)), row.expected);
    EXPECT_EQ(log.lines(), std::vector<LogLine>{});
  }
}

TEST(ConfReadFileR, CutsOneCharacterOfATrailingRunOfOddLength) {
  struct Ending {
    const char* what;
    std::string run;  ///< what of it belongs to the run of white space
    std::string rest;
  };
  const std::vector<Ending> endings = {
      {"at the end of the file", "", ""},
      {"before the newline, which is one of the run", "\n", ""},
      {"before a comment", "", "# comment\n"},
      {"before a comment at the end of the file", "", "#"},
      {"before a comment and another line", "", "#\nB b"},
  };
  for (const Ending& ending : endings) {
    SCOPED_TRACE(ending.what);
    for (const char* value : {"v", "/srv/www", "two words", "three  inner   runs"}) {
      for (const std::string kind : {" ", "\t", "\v", "\f", "\r", " \t"}) {
        std::string run;
        for (size_t length = 0; length <= 6; ++length) {
          const std::string whole = run + ending.run;
          const std::string kept =
              whole.size() % 2 == 1 ? whole.substr(0, whole.size() - 1) : whole;
          SCOPED_TRACE(visible(value + whole));
          const ConfTable conf = read("A " + (value + whole) + ending.rest);
          EXPECT_EQ(visible(conf_get_r("A", conf.get())), visible(value + kept));
          run += kind[length % kind.size()];
        }
      }
    }
  }
}

TEST(ConfReadFileR, LeavesInnerRunsOfAnyLengthAlone) {
  std::string inner;
  for (size_t length = 0; length <= 6; ++length) {
    const ConfTable conf = read("A a" + inner + "b\n");
    EXPECT_EQ(visible(conf_get_r("A", conf.get())), visible("a" + inner + "b"));
    inner += " ";
  }
}

TEST(ConfReadFileR, SkipsAndReportsALineWithoutASpaceAfterItsName) {
  struct Row {
    const char* line;
    const char* from_name;
  };
  const std::vector<Row> rows = {
      {"SNI_SUPPORT=false\n", "SNI_SUPPORT=false\n"},
      {"SNI_SUPPORT", "SNI_SUPPORT"},
      {"  A-B x\n", "A-B x\n"},
      {"\t=x\n", "=x\n"},
      {"-A x # c\n", "-A x # c\n"},
      {"A# x\n", "A# x\n"},
      {"; x\n", "; x\n"},
      {"\xc3\xa4 x\n", "\xc3\xa4 x\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(visible(row.line));
    const LogRecorder log;
    EXPECT_EQ(content_of(read(row.line)), Content{});
    EXPECT_EQ(log.lines(), std::vector<LogLine>{invalid(row.from_name, kNoSpace)});
  }
}

TEST(ConfReadFileR, SkipsAndReportsALineWithoutAValue) {
  struct Row {
    const char* line;
    const char* from_name;
  };
  const std::vector<Row> rows = {
      {"SNI_SUPPORT\n", "SNI_SUPPORT\n"},
      {" A \t \n", "A \t \n"},
      {"A ", "A "},
      {"A #x\n", "A #x\n"},
      {"A\t# x y\n", "A\t# x y\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(visible(row.line));
    const LogRecorder log;
    EXPECT_EQ(content_of(read(row.line)), Content{});
    EXPECT_EQ(log.lines(), std::vector<LogLine>{invalid(row.from_name, kNoValue)});
  }
}

TEST(ConfReadFileR, GoesOnAfterMalformedLines) {
  const LogRecorder log;
  const ConfTable conf = read("A=1\nB 2\nC\nD 4\n");
  EXPECT_EQ(content_of(conf), (Content{{"B", "2"}, {"D", "4"}}));
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{invalid("A=1\n", kNoSpace), invalid("C\n", kNoValue)}));
}

TEST(ConfReadFileR, IgnoresWhatStandsBehindANulInALine) {
  const std::string content("A x\0y\nB\0 z\nC 1\n", 15);
  const LogRecorder log;
  EXPECT_EQ(content_of(read(content)), (Content{{"A", "x"}, {"C", "1"}}));
  EXPECT_EQ(log.lines(), std::vector<LogLine>{invalid("B", kNoSpace)});
}

TEST(ConfReadFileR, KeepsTheLaterValueOfAName) {
  const ConfTable conf = read("A first\nB b\nA second\n");
  EXPECT_EQ(content_of(conf), (Content{{"A", "second"}, {"B", "b"}}));
  EXPECT_EQ(conf->count, 2U);
}

TEST(ConfReadFileR, SortsTheTable) {
  const ConfTable conf = read("C 3\nA 1\nB 2\n");
  EXPECT_EQ(conf->sorted, 1);
  EXPECT_STREQ(conf->entries[0].name, "A");
  EXPECT_STREQ(conf->entries[2].name, "C");
}

TEST(ConfReadFileR, AddsToWhatIsInTheTable) {
  const ScratchDir scratch;
  write_file(scratch / "conf", "B file\nC file\n");
  const ConfTable conf = new_table();
  ASSERT_EQ(conf_set_r("A", "before", conf.get()), 0);
  ASSERT_EQ(conf_set_r("B", "before", conf.get()), 0);
  EXPECT_EQ(conf_read_file_r((scratch / "conf").c_str(), conf.get()), 0);
  EXPECT_EQ(content_of(conf), (Content{{"A", "before"}, {"B", "file"}, {"C", "file"}}));
}

TEST(ConfReadFileR, ReadsMoreVariablesAndLongerLinesThanFitAtFirst) {
  Content expected;
  std::string content;
  for (int i = 0; i < 100; ++i) {
    const std::string name = "NAME_" + std::to_string(i);
    expected[name] = std::string(static_cast<size_t>(i) * 100 + 1, 'v');
    content += name + " " + expected[name] + "\n";
  }
  const ConfTable conf = read(content);
  EXPECT_EQ(content_of(conf), expected);
  EXPECT_EQ(conf->capacity, 160U);
}

TEST(ConfReadFileR, FailsWithoutTheFile) {
  const ScratchDir scratch;
  const std::string path = scratch / "absent";
  const LogRecorder log;
  const ConfTable conf = new_table();
  errno = 0;
  EXPECT_EQ(conf_read_file_r(path.c_str(), conf.get()), -1);
  EXPECT_EQ(errno, ENOENT) << "the log's own errno is not the reader's";
  EXPECT_EQ(conf->capacity, 20U) << "the table was made before";
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{12, "unable to open configuration file " + path +
                                                        ": No such file or directory\n"}}));
}

TEST(ConfReadFileR, FailsOnAFileThatMayNotBeRead) {
  const ScratchDir scratch;
  chmod(scratch.path().c_str(), 0755);
  const std::string path = scratch / "conf";
  write_file(path, "A x\n", 0);
  const Outcome outcome = in_child([&path] {
    if (setuid(65534) != 0) _exit(97);
    const LogRecorder log;
    const ConfTable conf = new_table();
    const int result = conf_read_file_r(path.c_str(), conf.get());
    printf("%d %d %s", result, errno, log.lines().at(0).text.c_str());
  });
  EXPECT_EQ(outcome.out,
            "-1 13 unable to open configuration file " + path + ": Permission denied\n");
}

TEST(ConfReadFileR, FailsOnADirectoryWhichOpensButCannotBeRead) {
  const ScratchDir scratch;
  const LogRecorder log;
  const ConfTable conf = new_table();
  ASSERT_EQ(conf_set_r("B", "b", conf.get()), 0);
  ASSERT_EQ(conf_set_r("A", "a", conf.get()), 0);
  errno = 0;
  EXPECT_EQ(conf_read_file_r(scratch.path().c_str(), conf.get()), -1);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{12, "Unable to read configuration file: Is a directory"}}));
  EXPECT_EQ(conf->sorted, 1) << "what is there can be looked up";
  EXPECT_STREQ(conf->entries[0].name, "A");
}

TEST(ConfReadFileR, KeepsTheWholeLinesBeforeAFailureToRead) {
  in_panel([] {
    write_file("/mnt/conf", "B 1\nA 2\nbad\nC " + std::string(100000, 'x') + "\nD 4\n");
    for (const char* injection : {"read:error=EIO:when=2", "read:error=EIO:when=2+"}) {
      SCOPED_TRACE(injection);
      const Outcome traced =
          run_injected("/mnt/conf", injection, {TEMBRIX_READING_HELPER, "conf", "/mnt/conf"});
      EXPECT_EQ(traced.out,
                "-1, errno 5\n"
                "<12>Invalid variable definition bad\n\nExpected a value\n"
                "<12>Unable to read configuration file: Input/output error\n"
                "A: 2\nB: 1\n");
    }
  });
}

TEST(ConfReadFileR, FailsAtALineThatDoesNotFitIntoMemory) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer needs more address space than any limit leaves";
#endif
  const ScratchDir scratch;
  const std::string path = scratch / "conf";
  write_file(path, "A x\n");
  ASSERT_EQ(truncate(path.c_str(), off_t{256} << 20U), 0);
  const Outcome outcome = in_child([&path] {
    const rlimit limit = {rlim_t{128} << 20U, rlim_t{128} << 20U};
    if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(97);
    const LogRecorder log;
    const ConfTable conf = new_table();
    const int result = conf_read_file_r(path.c_str(), conf.get());
    printf("%d %d %s %s", result, errno, conf_get_r("A", conf.get()),
           log.lines().at(0).text.c_str());
  });
  EXPECT_EQ(outcome.out, "-1 12 x Unable to read configuration file: Cannot allocate memory");
}

TEST(ConfReadFileR, FailsWithTheTableWhenMemoryIsExhausted) {
  const ScratchDir scratch;
  const std::string path = scratch / "conf";
  write_file(path, "A 1\nB 2\n");
  const ConfTable full = new_table();
  for (int i = 0; i < 20; ++i)
    ASSERT_EQ(conf_set_r(("NAME" + std::to_string(i)).c_str(), "", full.get()), 0);
  const LogRecorder log;
  {
    const FailingAllocation failure(1);
    errno = 0;
    EXPECT_EQ(conf_read_file_r(path.c_str(), full.get()), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text, "Unable to read configuration: Cannot allocate memory");
}

TEST(ConfReadFileR, LeavesNothingBehindWhicheverAllocationFails) {
  const ScratchDir scratch;
  const std::string path = scratch / "conf";
  write_file(path, "A 1\nB 2\nC 3\n");
  const std::vector<int> descriptors = open_descriptors();
  const long before = live_blocks();
  int failures = 0;
  for (unsigned long number = 1;; ++number) {
    ConfTable conf = new_table();
    int result = 0;
    {
      const FailingAllocation failure(number);
      errno = 0;
      result = conf_read_file_r(path.c_str(), conf.get());
    }
    if (!FailingAllocation::happened()) {
      ASSERT_EQ(result, 0);
      break;
    }
    // The stream does without a buffer of its own where it gets none.
    if (result == 0) continue;
    ++failures;
    ASSERT_EQ(result, -1) << "allocation " << number;
    ASSERT_EQ(errno, ENOMEM) << "allocation " << number;
    conf.reset();
    ASSERT_EQ(live_blocks(), before) << "allocation " << number;
  }
  EXPECT_GE(failures, 9) << "the slots, the stream, the line, and six strings";
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(ConfReadFileR, ClosesTheFileAndFreesTheLine) {
  const ScratchDir scratch;
  const std::string path = scratch / "conf";
  write_file(path, std::string(10000, '#') + "\nbad\nA \n");
  const ConfTable conf = new_table();
  ASSERT_EQ(conf_init_r(conf.get()), 0);
  const std::vector<int> descriptors = open_descriptors();
  const long before = live_blocks();
  ASSERT_EQ(conf_read_file_r(path.c_str(), conf.get()), 0);
  EXPECT_EQ(live_blocks(), before);
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(ConfReadFileR, IsSilentOnTheTerminal) {
  const ScratchDir scratch;
  write_file(scratch / "conf", "A=1\nB\n");
  const Outcome outcome = in_child([&scratch] {
    ConfTable conf = new_table();
    if (conf_read_file_r((scratch / "conf").c_str(), conf.get()) != 0) _exit(1);
    if (conf_read_file_r((scratch / "absent").c_str(), conf.get()) != -1) _exit(2);
    if (conf_read_file_r(scratch.path().c_str(), conf.get()) != -1) _exit(3);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "");
}
