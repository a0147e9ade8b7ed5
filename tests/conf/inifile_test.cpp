#include "conf/inifile.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "memory_path.h"
#include "panel.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/hidden_text.h"
#include "support/scratch.h"

using testsupport::FailingAllocation;
using testsupport::HiddenText;
using testsupport::in_child;
using testsupport::live_blocks;
using testsupport::open_descriptors;
using testsupport::Outcome;
using testsupport::ScratchDir;
using testsupport::write_file;

namespace {

/// The value of "key" in section "frask"; none for null.
std::optional<std::string> lookup(const std::string& content) {
  const MemoryPath file(content);
  char* value = get_ini_conf_var(file.c_str(), "frask", "key");
  if (value == nullptr) return std::nullopt;
  std::string copy = value;
  free(value);
  return copy;
}

int lookup_bool(const std::string& value, int default_value) {
  const MemoryPath file("[frask]\nkey = " + value + "\n");
  return get_ini_conf_var_bool(file.c_str(), "frask", "key", default_value);
}

}  // namespace

TEST(StripLine, CutsWhiteSpaceAndComments) {
  struct Row {
    const char* line;
    const char* expected;
  };
  const std::vector<Row> rows = {
      {"", ""},
      {" ", ""},
      {" \t\n\v\f\r", ""},
      {"a", "a"},
      {"abc\n", "abc"},
      {"  abc", "abc"},
      {" \t\n\v\f\rabc \t\n\v\f\r", "abc"},
      {"a  b\tc", "a  b\tc"},
      {"abc;def", "abc"},
      {"abc ; def", "abc"},
      {"  host = db1 ; primary\n", "host = db1"},
      {"a;b;c", "a"},
      {";abc", ""},
      {"  ;abc", ""},
      {"# abc", "# abc"},
      {"\"a;b\"", "\"a"},
      {"\xa0\xff ", "\xa0\xff"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    std::string line = row.line;
    EXPECT_EQ(strip_line(line.data()), strlen(row.expected));
    EXPECT_STREQ(line.c_str(), row.expected);
  }
}

TEST(GetIniConfVar, FindsAKeyInItsSection) {
  struct Row {
    const char* content;
    std::optional<std::string> expected;
  };
  const std::vector<Row> rows = {
      {"[frask]\nkey=db1\n", "db1"},
      {"[frask]\nkey   =   db1\n", "db1"},
      {"[frask]\n  key = db1 ; primary\n", "db1"},
      {"[frask]\nkey = db1", "db1"},
      {"[frask]\r\nkey = db1\r\n", "db1"},
      {"  [frask]  ; comment\nkey=x\n", "x"},
      {"[frask]\nkey = a  b\n", "a  b"},
      {"[frask]\nkey = a=b\n", "a=b"},
      {"[frask]\nkey = # x\n", "# x"},
      {"[frask]\nkey =\n", ""},
      {"[frask]\nkey = ; none\n", ""},
      {"[frask]\nkey\nkey = x\n", "x"},
      {"[frask]\n= y\nother = z\nkey = x\n", "x"},
      {"[frask]\nkey = first\nkey = second\n", "first"},
      {"[frask]\nKey = x\n", std::nullopt},
      {"[frask]\nkeys = x\nke = y\n", std::nullopt},
      {"[frask]\n; key = x\n", std::nullopt},
      {"[frask]\nk;ey = x\n", std::nullopt},
      {"", std::nullopt},
      {"key = x\n", std::nullopt},
      {"key = x\n[frask]\n", std::nullopt},
      {"[other]\nkey = x\n", std::nullopt},
      {"[Frask]\nkey = x\n", std::nullopt},
      {"[ frask ]\nkey = x\n", std::nullopt},
      {"[frask]\n[other]\nkey = x\n", std::nullopt},
      {"[frask]\nhost = h\n[other]\nkey = y\n[frask]\nkey = x\n", "x"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.content);
    EXPECT_EQ(lookup(row.content), row.expected);
  }
}

TEST(GetIniConfVar, TakesALineThatIsNoWholeHeaderForAnOrdinaryOne) {
  EXPECT_EQ(lookup("[frask]\n[other\nkey = x\n"), "x");
  EXPECT_EQ(lookup("[frask]\n[]\nkey = x\n"), "x");
  EXPECT_EQ(lookup("[frask]\nother]\nkey = x\n"), "x");
  EXPECT_EQ(lookup("[frask]\n[other] x\nkey = x\n"), "x");
  EXPECT_EQ(lookup("[frask]\n[;]\nkey = x\n"), "x");
  const MemoryPath file("[frask]\n[x = y\n[] = z\n");
  const std::unique_ptr<char, decltype(&free)> value(get_ini_conf_var(file.c_str(), "frask", "[x"),
                                                     free);
  EXPECT_STREQ(value.get(), "y");
}

TEST(GetIniConfVar, MatchesBlanksInsideTheBrackets) {
  const MemoryPath file("[ frask ]\nkey = x\n[a]\nkey = y\n");
  const std::unique_ptr<char, decltype(&free)> blanks(
      get_ini_conf_var(file.c_str(), " frask ", "key"), free);
  EXPECT_STREQ(blanks.get(), "x");
  const std::unique_ptr<char, decltype(&free)> shortest(get_ini_conf_var(file.c_str(), "a", "key"),
                                                        free);
  EXPECT_STREQ(shortest.get(), "y");
}

TEST(GetIniConfVar, ReadsLinesOfAnyLength) {
  const std::string value(100000, 'v');
  EXPECT_EQ(lookup(std::string(50000, ';') + "\n[frask]\nkey = " + value + "\n"), value);
}

TEST(GetIniConfVar, ReadsAFileThatClaimsToBeEmpty) {
  char name[16] = "";
  ASSERT_EQ(prctl(PR_GET_NAME, name), 0);
  ASSERT_EQ(prctl(PR_SET_NAME, "[frask]\nkey=x"), 0);
  const std::unique_ptr<char, decltype(&free)> value(
      get_ini_conf_var("/proc/self/comm", "frask", "key"), free);
  prctl(PR_SET_NAME, name);
  EXPECT_STREQ(value.get(), "x");
}

TEST(GetIniConfVar, IgnoresWhatStandsBehindANulInALine) {
  EXPECT_EQ(lookup(std::string("[frask]\nkey = x\0y\n", 18)), "x");
}

TEST(GetIniConfVar, IsSilentWithoutARegularFile) {
  const ScratchDir scratch;
  ASSERT_EQ(mkfifo((scratch / "fifo").c_str(), 0600), 0);
  const Outcome outcome = in_child([&scratch] {
    if (get_ini_conf_var((scratch / "absent").c_str(), "frask", "key") != nullptr) _exit(1);
    if (errno != ENOENT) _exit(2);
    if (get_ini_conf_var(scratch.path().c_str(), "frask", "key") != nullptr) _exit(3);
    if (errno != 0) _exit(4);
    alarm(10);
    if (get_ini_conf_var((scratch / "fifo").c_str(), "frask", "key") != nullptr) _exit(5);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "");
}

TEST(GetIniConfVar, SaysWhichFileCannotBeOpened) {
  const ScratchDir scratch;
  ASSERT_EQ(chmod(scratch.path().c_str(), 0755), 0);
  const std::string path = scratch / "dsn.ini";
  write_file(path, "[frask]\nkey = x\n", 0);
  const Outcome outcome = in_child([&path] {
    if (setuid(65534) != 0) _exit(97);
    if (get_ini_conf_var(path.c_str(), "frask", "key") != nullptr) _exit(1);
  });
  EXPECT_EQ(outcome.exit_code(), 0);
  EXPECT_EQ(outcome.err, "Failed to open " + path + ": Permission denied");
  EXPECT_EQ(outcome.out, "");
}

TEST(GetIniConfVar, ClearsErrnoOnEntry) {
  const MemoryPath file("[frask]\nkey = x\n");
  errno = EPERM;
  const std::unique_ptr<char, decltype(&free)> value(get_ini_conf_var(file.c_str(), "frask", "key"),
                                                     free);
  EXPECT_EQ(errno, 0);
  EXPECT_STREQ(value.get(), "x");
}

TEST(GetIniConfVar, ReadsTheFileAnewEachTime) {
  const ScratchDir scratch;
  const std::string path = scratch / "dsn.ini";
  for (const std::string expected : {"one", "two"}) {
    write_file(path, "[frask]\nkey = " + expected + "\n");
    const std::unique_ptr<char, decltype(&free)> value(
        get_ini_conf_var(path.c_str(), "frask", "key"), free);
    EXPECT_EQ(value.get(), expected);
  }
}

TEST(GetIniConfVar, ReleasesTheFileAndTheLineInEveryCase) {
  const MemoryPath file("[frask]\nkey = x\n" + std::string(10000, 'x') + "\n");
  const std::vector<int> descriptors = open_descriptors();
  for (const char* key : {"key", "absent"}) {
    SCOPED_TRACE(key);
    const long before = live_blocks();
    char* value = get_ini_conf_var(file.c_str(), "frask", key);
    free(value);
    const long after = live_blocks();
    EXPECT_EQ(after, before);
  }
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(GetIniConfVar, LeavesNothingBehindWhicheverAllocationFails) {
  const MemoryPath file("[frask]\nkey = x\n");
  const std::vector<int> descriptors = open_descriptors();
  const long before = live_blocks();
  int nulls = 0;
  for (unsigned long number = 1;; ++number) {
    const FailingAllocation failure(number);
    char* value = get_ini_conf_var(file.c_str(), "frask", "key");
    if (!FailingAllocation::happened()) {
      EXPECT_STREQ(value, "x");
      free(value);
      break;
    }
    // Without its first buffer the line makes room as it goes.
    if (value == nullptr) {
      ++nulls;
    } else {
      EXPECT_STREQ(value, "x") << "allocation " << number;
    }
    free(value);
    ASSERT_EQ(live_blocks(), before) << "allocation " << number;
  }
  EXPECT_EQ(nulls, 2) << "the stream and the copy of the value";
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(GetIniConfVar, GivesNoPartOfAValueWhoseReadingStopsPartWay) {
  in_panel([] {
    write_file("/mnt/dsn.ini", "[frask]\nkey = " + std::string(100000, 'x') + "\nkey = y\n");
    for (const char* injection : {"read:error=EIO:when=2", "read:error=EIO:when=2+"}) {
      SCOPED_TRACE(injection);
      const Outcome traced =
          run_injected("/mnt/dsn.ini", injection, {TEMBRIX_READING_HELPER, "ini", "/mnt/dsn.ini"});
      EXPECT_EQ(traced.out, "null, errno 5\n") << traced;
    }
  });
}

TEST(GetIniConfVar, LeavesNoPasswordInMemory) {
  for (const size_t words : {3U, 60U}) {  // a longer line than getline() first makes room for
    for (const char* key : {"host", "absent"}) {
      SCOPED_TRACE(std::to_string(words) + " words, " + key);
      const HiddenText password(words);
      const ScratchDir scratch;
      const std::string path = scratch / "dsn.ini";
      write_file(path, "[frask]\npassword = ");
      password.append_to(path);
      std::ofstream(path, std::ios::app) << "\nhost = db1\n";
      free(get_ini_conf_var(path.c_str(), "frask", key));
      EXPECT_EQ(password.copies_of_the_word(), 0U);
    }
  }
}

TEST(GetIniConfVar, LeavesThePasswordInTheResultAlone) {
  const HiddenText password(3);
  const ScratchDir scratch;
  const std::string path = scratch / "dsn.ini";
  write_file(path, "[frask]\npassword = ");
  password.append_to(path);
  char* value = get_ini_conf_var(path.c_str(), "frask", "password");
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(password.copies_of_the_word(), 3U) << "the scan must find what is there";
  explicit_bzero(value, strlen(value));
  free(value);
  EXPECT_EQ(password.copies_of_the_word(), 0U);
}

TEST(GetIniConfVarBool, KnowsTheWordsForTrue) {
  for (const char* word : {"on", "ON", "On", "true", "True", "TRUE", "yes", "YES", "yEs", "1"})
    EXPECT_EQ(lookup_bool(word, 0), 1) << word;
}

TEST(GetIniConfVarBool, TakesAnyOtherTextForFalse) {
  for (const char* word : {"0", "off", "no", "false", "2", "10", "01", "on.", "yess", "tru", "+1"})
    EXPECT_EQ(lookup_bool(word, 1), 0) << word;
}

TEST(GetIniConfVarBool, GivesTheDefaultWithoutAValue) {
  for (const int default_value : {0, 1, 42}) {
    EXPECT_EQ(lookup_bool("", default_value), default_value);
    EXPECT_EQ(lookup_bool("; on", default_value), default_value);
    EXPECT_EQ(get_ini_conf_var_bool("/nonexistent/file", "frask", "key", default_value),
              default_value);
    const MemoryPath file("[frask]\nother = on\n[else]\nkey = on\n");
    EXPECT_EQ(get_ini_conf_var_bool(file.c_str(), "frask", "key", default_value), default_value);
  }
}

TEST(GetIniConfVarBool, FreesTheValue) {
  const MemoryPath file("[frask]\nkey = on\n");
  const long before = live_blocks();
  const int result = get_ini_conf_var_bool(file.c_str(), "frask", "key", 0);
  const long after = live_blocks();
  EXPECT_EQ(result, 1);
  EXPECT_EQ(after, before);
}
