// Whatever the file, the table holds exactly the variables that a plain model of the format finds
// in it, sorted, and exactly the lines that the model refuses are reported.
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "conf/oxaconf.h"
#include "lines.h"
#include "log/utility_log.h"
#include "memory_file.h"

namespace {

constexpr std::string_view kNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
constexpr auto npos = std::string::npos;

struct Content {
  std::map<std::string, std::string> variables;
  std::vector<std::string> reports;
};

/// What follows the value on its line, the newline included, is one run of white space: of an odd
/// number it loses the last one.
std::string cut_value(const std::string& text) {
  const std::string value = text.substr(0, text.find('#'));
  const size_t run = value.size() - (value.find_last_not_of(kSpace) + 1);
  return value.substr(0, value.size() - run % 2);
}

void read_line_by_model(const std::string& line, Content& content) {
  const size_t begin = line.find_first_not_of(kSpace);
  if (begin == npos || line[begin] == '#') return;
  const std::string definition = line.substr(begin);
  const size_t end = definition.find_first_not_of(kNameCharacters);
  if (end == 0 || end == npos || kSpace.find(definition[end]) == npos) {
    content.reports.push_back("12 Invalid variable definition " + definition +
                              "\nExpected a space after variable name\n");
    return;
  }
  const size_t value = definition.find_first_not_of(kSpace, end);
  if (value == npos || definition[value] == '#') {
    content.reports.push_back("12 Invalid variable definition " + definition +
                              "\nExpected a value");
    return;
  }
  content.variables[definition.substr(0, end)] = cut_value(definition.substr(value));
}

Content content_by_model(std::string_view file) {
  Content content;
  for (const std::string& line : lines_of(file)) read_line_by_model(line, content);
  return content;
}

std::vector<std::string> reports;

void keep_report(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* text = nullptr;
  check(vasprintf(&text, format, args) >= 0);
  va_end(args);
  reports.push_back(std::to_string(priority) + " " + text);
  free(text);
}

struct FreeConf {
  void operator()(ConfR* conf) const { conf_free_r(conf); }
};
using Table = std::unique_ptr<ConfR, FreeConf>;

Table read(std::string_view content) {
  const MemoryFile file(content);
  Table conf(static_cast<ConfR*>(calloc(1, sizeof(ConfR))));
  reports.clear();
  frask_log = keep_report;
  check(conf && conf_read_file_r(file.path(), conf.get()) == 0);
  return conf;
}

void check_table(ConfR& conf, const std::map<std::string, std::string>& variables) {
  check(conf.sorted == 1 && conf.count <= conf.capacity && conf.count == variables.size());
  check(std::equal(variables.begin(), variables.end(), conf.entries,
                   [](const auto& variable, const ConfEntry& entry) {
                     return entry.name == variable.first && entry.value == variable.second;
                   }));
  check(std::all_of(conf.entries + conf.count, conf.entries + conf.capacity,
                    [](const ConfEntry& slot) { return !slot.name && !slot.value; }));
  for (const auto& [name, value] : variables) {
    const char* found = conf_get_r(name.c_str(), &conf);
    check(found != nullptr && found == value);
    check((conf_get_r((name + "_").c_str(), &conf) != nullptr) ==
          (variables.count(name + "_") != 0));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view file(reinterpret_cast<const char*>(data), size);
  const Content expected = content_by_model(file);
  const Table conf = read(file);
  check_table(*conf, expected.variables);
  check(reports == expected.reports);
  return 0;
}
