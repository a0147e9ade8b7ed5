// Whether an operator who sees a message of the configuration, the database or the domain names
// finds it in the documentation, with what to do. The texts are taken from the sources themselves.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/scratch.h"
#include "text/idn.h"

using testsupport::read_file;

namespace {

const std::vector<std::string> kSources = {"conf/conf_table.cpp", "conf/conf_file.cpp",
                                           "conf/oxaconf.cpp",    "conf/inifile.cpp",
                                           "conf/database.cpp",   "conf/database_parameters.cpp",
                                           "text/idn.cpp",        "error/asprintf_safe.cpp"};

/// The matches of a pattern's group, one after the other.
std::vector<std::string> all_of(const std::string& text, const std::string& pattern, int group) {
  const std::regex regex(pattern);
  std::vector<std::string> found;
  for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at)
    found.push_back(at->str(static_cast<size_t>(group)));
  return found;
}

/// The formats of what a source reports; adjacent literals are one.
std::vector<std::string> formats_in(const std::string& source) {
  const std::string code = read_file(TEMBRIX_SOURCES "/" + source);
  std::vector<std::string> formats =
      all_of(code,
             R"re((messlog2\(\d, \d,|frask_log\(\w+,|failure\.write\(|fprintf\(stderr,)\s*)re"
             R"re((("([^"\\]|\\.)*"\s*)+))re",
             2);
  for (std::string& format : formats)
    format = std::regex_replace(format, std::regex(R"re("\s*"|^"|"\s*$)re"), "");
  return formats;
}

/// The rows of the page's tables in which a message, a cause and a remedy stand.
std::vector<std::string> message_rows() {
  std::istringstream page(read_file(TEMBRIX_DOCS "/configuration.md"));
  std::vector<std::string> rows;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line == "| Message | Cause | Remedy |") inside = true;
    if (line.empty()) inside = false;
    if (inside && line.substr(0, 3) == "| `") rows.push_back(line);
  }
  return rows;
}

/// A pattern for the rows that document a format: its texts as they are, something for each
/// conversion, and nothing behind it.
std::string row_pattern(const std::string& format) {
  static const std::regex special(R"re([.*+?()\[\]{}|^$])re");
  std::string pattern = std::regex_replace(format, special, R"(\$&)");
  pattern = std::regex_replace(pattern, std::regex("(\\\\n)+$"), "");
  pattern = std::regex_replace(pattern, std::regex("\\\\n"), "`, `");
  pattern = std::regex_replace(pattern, std::regex("%[a-z]+"), "[^|`]+");
  pattern.insert(0, R"(\| `)");
  return pattern.append(R"(` \| [^|]+ \| [^|]+ \|)");
}

}  // namespace

TEST(ConfigurationPage, TellsTheCauseAndTheRemedyOfEveryMessage) {
  const std::vector<std::string> rows = message_rows();
  size_t messages = 0;
  for (const std::string& source : kSources) {
    for (const std::string& format : formats_in(source)) {
      if (format == "%s") continue;  // prints a text that was made elsewhere
      SCOPED_TRACE(testing::Message() << source << ": " << format);
      ++messages;
      const std::regex pattern(row_pattern(format));
      EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [&pattern](const std::string& row) {
        return std::regex_match(row, pattern);
      }));
    }
  }
  EXPECT_EQ(messages, 29U) << "as many as the sources hold";
}

TEST(ConfigurationPage, TellsTheMeaningOfEveryTextAboutADomain) {
  const std::string page = read_file(TEMBRIX_DOCS "/configuration.md");
  for (const int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 201, 202})
    EXPECT_NE(page.find(std::string("\n| `") + idn_strerror(code) + "` | "), std::string::npos)
        << idn_strerror(code);
}
