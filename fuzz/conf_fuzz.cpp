// Whatever the file, the table holds well-formed variables in order, and each of them, written into
// a file again, is read as it was.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "conf/oxaconf.h"
#include "memory_file.h"

namespace {

constexpr std::string_view kSpace = " \t\n\v\f\r";
constexpr std::string_view kNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

struct FreeConf {
  void operator()(ConfR* conf) const { conf_free_r(conf); }
};
using Table = std::unique_ptr<ConfR, FreeConf>;

Table read(std::string_view content) {
  const MemoryFile file(content);
  Table conf(static_cast<ConfR*>(calloc(1, sizeof(ConfR))));
  check(conf && conf_read_file_r(file.path(), conf.get()) == 0);
  return conf;
}

bool is_name(std::string_view name) {
  return !name.empty() && name.find_first_not_of(kNameCharacters) == std::string_view::npos;
}

/// No comment in it, no white space before it, none behind it or an even number of characters.
bool is_value(std::string_view value) {
  if (value.empty() || value.find('#') != std::string_view::npos) return false;
  const size_t end = value.find_last_not_of(kSpace) + 1;
  return kSpace.find(value[0]) == std::string_view::npos && (value.size() - end) % 2 == 0;
}

void check_table(const ConfR& conf) {
  check(conf.sorted == 1 && conf.count <= conf.capacity);
  check(std::all_of(conf.entries, conf.entries + conf.count, [](const ConfEntry& entry) {
    return is_name(entry.name) && is_value(entry.value);
  }));
  for (size_t i = 1; i < conf.count; ++i)
    check(cmp_conf(&conf.entries[i - 1], &conf.entries[i]) < 0);
  check(std::all_of(conf.entries + conf.count, conf.entries + conf.capacity,
                    [](const ConfEntry& slot) { return !slot.name && !slot.value; }));
}

/// The table as a file; a comment right behind a value keeps the white space at its end.
std::string written(const ConfR& conf) {
  std::string content;
  for (size_t i = 0; i < conf.count; ++i)
    content += std::string(conf.entries[i].name) + " " + conf.entries[i].value + "#\n";
  return content;
}

bool fits_on_a_line(const ConfEntry& entry) {
  return !std::string_view(entry.value).empty() &&
         std::string_view(entry.value).find('\n') == std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Table conf = read({reinterpret_cast<const char*>(data), size});
  check_table(*conf);
  const Table again = read(written(*conf));
  for (size_t i = 0; i < conf->count; ++i) {
    const ConfEntry& entry = conf->entries[i];
    check(conf_get_r(entry.name, conf.get()) == entry.value);
    const char* value = conf_get_r(entry.name, again.get());
    check(!fits_on_a_line(entry) || (value != nullptr && std::string_view(value) == entry.value));
  }
  return 0;
}
