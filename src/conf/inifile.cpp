#include "conf/inifile.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>

#include "conf/owners.private.h"
#include "conf/white_space.private.h"
#include "log/c_string.private.h"

using frask::CString;
using frask::conf::is_space;
using frask::conf::LineBuffer;
using frask::conf::SecretFile;
using frask::conf::skip_space;

namespace {

/// A line with a password in it that is longer may leave copies of it in freed memory.
constexpr size_t kLongestLine = 65536;
constexpr std::array<const char*, 3> kTrueWords{"on", "true", "yes"};

/// Whether a stripped line is a section header; "[]" is not, it names nothing.
bool is_header(const char* line, size_t length) {
  return length > 2 && line[0] == '[' && line[length - 1] == ']';
}

/// The value in a stripped "key = value" line, within the line; null where the key is another.
const char* value_of(const char* key, char* line) {
  char* separator = strchr(line, '=');
  if (separator == nullptr) return nullptr;
  *separator = '\0';
  strip_line(line);
  if (strcmp(line, key) != 0) return nullptr;
  strip_line(separator + 1);
  return separator + 1;
}

/// Reads on to the first line that gives the key a value in the section; null at the end.
const char* find_value(FILE* stream, LineBuffer& line, const char* section, const char* key) {
  bool inside = false;
  while (line.read(stream)) {
    char* text = line.text();
    const size_t length = strip_line(text);
    if (is_header(text, length)) {
      text[length - 1] = '\0';
      inside = strcmp(text + 1, section) == 0;
    } else if (inside) {
      if (const char* value = value_of(key, text)) return value;
    }
  }
  return nullptr;
}

}  // namespace

size_t strip_line(char* line) {
  char* first = skip_space(line);
  char* last = first + strcspn(first, ";");
  while (last > first && is_space(last[-1])) --last;
  const auto length = static_cast<size_t>(last - first);
  memmove(line, first, length);
  line[length] = '\0';
  return length;
}

char* get_ini_conf_var(const char* path, const char* section, const char* key) {
  errno = 0;
  struct stat st = {};
  if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  const SecretFile file(path);
  if (!file) {
    fprintf(stderr, "Failed to open %s: %s", path, strerror(errno));
    return nullptr;
  }
  LineBuffer line(std::min(static_cast<size_t>(st.st_size) + 1, kLongestLine));
  const char* value = find_value(file.stream(), line, section, key);
  return value != nullptr ? strdup(value) : nullptr;
}

int get_ini_conf_var_bool(const char* path, const char* section, const char* key,
                          int default_value) {
  const CString value(get_ini_conf_var(path, section, key));
  if (!value || *value == '\0') return default_value;
  const bool known = std::any_of(kTrueWords.begin(), kTrueWords.end(), [&value](const char* word) {
    return strcasecmp(value.get(), word) == 0;
  });
  return known || strcmp(value.get(), "1") == 0 ? 1 : 0;
}
