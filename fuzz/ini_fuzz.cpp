// Whatever the file, each line is stripped as a plain model strips it, and a section and a key have
// the value, or none, that the model finds: those that the input names, and those of the file.
#include <stdint.h>
#include <stdlib.h>
#include <strings.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "conf/inifile.h"
#include "lines.h"
#include "memory_file.h"

namespace {

constexpr int kDefault = 7;
constexpr size_t kMostLookups = 16;

struct Setting {
  std::string section;
  std::string key;
  std::string value;
};

std::string stripped_by_model(const std::string& line) {
  const std::string text = line.substr(0, line.find(';'));
  const size_t begin = text.find_first_not_of(kSpace);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kSpace) + 1 - begin);
}

/// In the order of the file; what stands before the first header belongs to no section.
std::vector<Setting> settings_by_model(std::string_view file) {
  std::vector<Setting> settings;
  std::optional<std::string> section;
  for (const std::string& line : lines_of(file)) {
    const std::string text = stripped_by_model(line);
    const size_t equals = text.find('=');
    if (text.size() > 2 && text.front() == '[' && text.back() == ']')
      section = text.substr(1, text.size() - 2);
    else if (section && equals != std::string::npos)
      settings.push_back({*section, stripped_by_model(text.substr(0, equals)),
                          stripped_by_model(text.substr(equals + 1))});
  }
  return settings;
}

/// The first one counts.
std::optional<std::string> value_by_model(const std::vector<Setting>& settings,
                                          const std::string& section, const std::string& key) {
  for (const Setting& setting : settings)
    if (setting.section == section && setting.key == key) return setting.value;
  return std::nullopt;
}

int flag_by_model(const std::optional<std::string>& value) {
  if (!value || value->empty()) return kDefault;
  for (const char* word : {"on", "true", "yes", "1"})
    if (strcasecmp(value->c_str(), word) == 0) return 1;
  return 0;
}

void check_strip_line(const std::string& before) {
  const std::string expected = stripped_by_model(before);
  std::string line = before;
  check(strip_line(line.data()) == expected.size() && c_string(line) == expected);
}

struct Free {
  void operator()(char* text) const { free(text); }
};

void check_lookup(std::string_view content, const std::vector<Setting>& settings,
                  const std::string& section, const std::string& key) {
  const MemoryFile file(content);
  const std::optional<std::string> expected = value_by_model(settings, section, key);
  const std::unique_ptr<char, Free> value(
      get_ini_conf_var(file.path(), section.c_str(), key.c_str()));
  check((value != nullptr) == expected.has_value() && (!expected || *expected == value.get()));
  const int flag = get_ini_conf_var_bool(file.path(), section.c_str(), key.c_str(), kDefault);
  check(flag == flag_by_model(expected));
}

/// Cuts off the text up to the first newline.
std::string next_line(std::string_view& rest) {
  const size_t end = rest.find('\n');
  const std::string line(rest.substr(0, end));
  rest = end == std::string_view::npos ? "" : rest.substr(end + 1);
  return c_string(line);
}

}  // namespace

/// The first line is the section to look for, the second the key, the rest is the file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  check_strip_line(c_string(std::string(rest)));
  const std::string section = next_line(rest);
  const std::string key = next_line(rest);
  for (const std::string& line : lines_of(rest)) check_strip_line(line);
  const std::vector<Setting> settings = settings_by_model(rest);
  check_lookup(rest, settings, section, key);
  for (size_t i = 0; i < std::min(settings.size(), kMostLookups); ++i)
    check_lookup(rest, settings, settings[i].section, settings[i].key);
  return 0;
}
