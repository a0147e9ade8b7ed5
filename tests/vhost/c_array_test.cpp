#include <gtest/gtest.h>

#include <climits>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/child.h"
#include "support/scratch.h"
#include "vhost/misc.h"

namespace {

using frask::printCArray;
using testsupport::Outcome;
using testsupport::ScratchDir;
using testsupport::write_file;
using Bytes = std::vector<unsigned char>;

Bytes bytes_of(int len) {
  Bytes bytes;
  for (int i = 0; i < len; ++i) bytes.push_back(static_cast<unsigned char>(i * 37 + 5));
  return bytes;
}

std::string printed(const char* name, const Bytes& bytes) {
  std::ostringstream os;
  printCArray(os, name, bytes.data(), static_cast<int>(bytes.size()));
  return os.str();
}

/// The definitions, told another way: all bytes in one row, which is then cut behind every eighth.
std::string expected(const std::string& name, const Bytes& bytes) {
  std::string text = "#define " + name + "_LEN " + std::to_string(bytes.size()) + "\n";
  if (bytes.empty()) return text;
  std::ostringstream row;
  for (const unsigned char byte : bytes)
    row << "0x" << std::hex << std::setw(2) << std::setfill('0') << unsigned{byte} << ", ";
  std::string rest = row.str();
  rest.resize(rest.size() - 2);
  constexpr size_t kWidth = 8 * std::string_view("0x00, ").size();
  text += "#define " + name + "_DATA ";
  while (rest.size() > kWidth) {
    const std::string line = rest.substr(0, kWidth);
    rest.erase(0, kWidth);
    const bool single = rest.size() == 4;
    text += line + (single ? "\n\t\t\t" : "\\\n\t\t\t");
  }
  return text + rest + "\n";
}

TEST(PrintCArray, WritesEveryLengthFrom0To40) {
  for (int len = 0; len <= 40; ++len) {
    SCOPED_TRACE(len);
    EXPECT_EQ(printed("KEY", bytes_of(len)), expected("KEY", bytes_of(len)));
  }
}

TEST(PrintCArray, WritesAShortArrayInOneLine) {
  EXPECT_EQ(printed("K", {1, 2, 3}), "#define K_LEN 3\n#define K_DATA 0x01, 0x02, 0x03\n");
}

TEST(PrintCArray, ContinuesALineBeforeTwoMoreBytes) {
  EXPECT_EQ(printed("K", {0, 1, 2, 3, 4, 5, 6, 7, 0xfe, 0xff}),
            "#define K_LEN 10\n"
            "#define K_DATA 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, \\\n"
            "\t\t\t0xfe, 0xff\n");
}

TEST(PrintCArray, BreaksTheDefinitionBeforeASingleLastByte) {
  EXPECT_EQ(printed("K", {0, 1, 2, 3, 4, 5, 6, 7, 0xff}),
            "#define K_LEN 9\n"
            "#define K_DATA 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, \n"
            "\t\t\t0xff\n");
}

TEST(PrintCArray, WritesTheLengthAloneBelow1) {
  for (const int len : {0, -1, INT_MIN}) {
    SCOPED_TRACE(len);
    std::ostringstream os;
    printCArray(os, "K", nullptr, len);
    EXPECT_EQ(os.str(), "#define K_LEN " + std::to_string(len) + "\n");
  }
}

struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(PrintCArray, WritesDecimalsWhateverTheStreamIsSetTo) {
  std::ostringstream os;
  os.imbue(std::locale(std::locale::classic(), new Grouping));
  os << std::hex << std::showbase << std::uppercase << std::showpos;
  printCArray(os, "K", nullptr, -1234);
  EXPECT_EQ(os.str(), "#define K_LEN -1234\n");
  os.str("");
  printCArray(os, "K", Bytes{171}.data(), 1);
  EXPECT_EQ(os.str(), "#define K_LEN 1\n#define K_DATA 0xab\n");
}

TEST(PrintCArray, SetsTheBadStateForANullName) {
  std::ostringstream os;
  printCArray(os, nullptr, Bytes{1}.data(), 1);
  EXPECT_TRUE(os.bad());
  EXPECT_EQ(os.str(), "#define ");
}

/// Counts what reaches the buffer, and when.
class CountingBuffer : public std::stringbuf {
 public:
  int sync() override {
    at_sync = str();
    return 0;
  }
  std::string at_sync;
};

TEST(PrintCArray, FlushesBehindTheLength) {
  CountingBuffer buffer;
  std::ostream os(&buffer);
  printCArray(os, "K", Bytes{1}.data(), 1);
  EXPECT_EQ(buffer.at_sync, "#define K_LEN 1\n");
}

/// A program that includes the definitions and writes the bytes.
Outcome compile(const ScratchDir& dir, int len) {
  std::ofstream header(dir / "key.h");
  printCArray(header, "KEY", bytes_of(len).data(), len);
  header.close();
  write_file(dir / "main.c",
             "#include <stdio.h>\n"
             "#include \"key.h\"\n"
             "static const unsigned char key[] = {KEY_DATA};\n"
             "_Static_assert(sizeof key == KEY_LEN, \"length\");\n"
             "int main(void) { return fwrite(key, 1, sizeof key, stdout) != KEY_LEN; }\n");
  testsupport::RunOptions options;
  options.directory = dir.path().string();
  options.environment["LC_ALL"] = "C";
  return testsupport::run({TEST_C_COMPILER, "-std=c11", "-Wall", "-Wextra", "-Werror", "-pedantic",
                           "-o", "main", "main.c"},
                          options);
}

TEST(PrintCArray, GivesTheBytesBackThroughACompiler) {
  for (const int len : {1, 2, 7, 8, 10, 15, 16, 18, 24, 40, 255}) {
    SCOPED_TRACE(len);
    const ScratchDir dir;
    const Outcome compiled = compile(dir, len);
    ASSERT_EQ(compiled.exit_code(), 0) << compiled;
    const Bytes bytes = bytes_of(len);
    EXPECT_EQ(testsupport::run({dir / "main"}).out, std::string(bytes.begin(), bytes.end()));
  }
}

TEST(PrintCArray, IsNotCompiledWithASingleLastByte) {
  for (const int len : {9, 17}) {
    SCOPED_TRACE(len);
    const ScratchDir dir;
    const Outcome compiled = compile(dir, len);
    EXPECT_NE(compiled.exit_code(), 0);
    // The byte stands outside of any definition, alone in its line.
    const std::string line = len == 9 ? "key.h:3:" : "key.h:4:";
    EXPECT_NE(compiled.err.find(line), std::string::npos) << compiled;
    EXPECT_NE(compiled.err.find("expected identifier or"), std::string::npos) << compiled;
  }
}

}  // namespace
