// Whatever the file, a stripped line is stripped, and a value that is found for a section and a
// key, written into a file again, is found as it was.
#include <stdint.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <string_view>

#include "conf/inifile.h"
#include "memory_file.h"

namespace {

constexpr std::string_view kSpace = " \t\n\v\f\r";

struct Free {
  void operator()(char* text) const { free(text); }
};
using Text = std::unique_ptr<char, Free>;

bool is_stripped(std::string_view text) {
  if (text.find(';') != std::string_view::npos) return false;
  return text.empty() || (kSpace.find(text.front()) == std::string_view::npos &&
                          kSpace.find(text.back()) == std::string_view::npos);
}

void check_strip_line(const std::string& before) {
  std::string line = before;
  const size_t length = strip_line(line.data());
  const std::string once = c_string(line);
  check(length == once.size() && is_stripped(once));
  check(before.find(once) != std::string::npos);
  check(strip_line(line.data()) == length && once == c_string(line));
}

/// Cuts off the text up to the first newline.
std::string next_line(std::string_view& rest) {
  const size_t end = rest.find('\n');
  const std::string line(rest.substr(0, end));
  rest = end == std::string_view::npos ? "" : rest.substr(end + 1);
  return c_string(line);
}

Text find(std::string_view content, const std::string& section, const std::string& key) {
  const MemoryFile file(content);
  return Text(get_ini_conf_var(file.path(), section.c_str(), key.c_str()));
}

void check_found_again(const std::string& section, const std::string& key, const char* value) {
  check(is_stripped(value));
  const std::string content = "[" + section + "]\n" + key + "=" + value + "\n";
  const Text again = find(content, section, key);
  check(again && std::string_view(again.get()) == value);
}

}  // namespace

/// The first line is the section to look for, the second the key, the rest is the file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  check_strip_line(c_string(std::string(rest)));
  const std::string section = next_line(rest);
  const std::string key = next_line(rest);
  const Text value = find(rest, section, key);
  if (value) check_found_again(section, key, value.get());
  const MemoryFile file(rest);
  const int flag = get_ini_conf_var_bool(file.path(), section.c_str(), key.c_str(), 7);
  check((flag == 7) == (!value || *value == '\0') && (flag == 7 || flag == 0 || flag == 1));
  return 0;
}
