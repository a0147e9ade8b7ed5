#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <optional>

#include "conf/log_priority.private.h"
#include "conf/owners.private.h"
#include "conf/oxaconf.h"
#include "conf/white_space.private.h"
#include "log/utility_log.h"

using frask::conf::is_space;
using frask::conf::kConfWarning;
using frask::conf::LineBuffer;
using frask::conf::skip_space;
using frask::conf::Stream;

namespace {

/// Both strings lie in the line they were read from.
struct Definition {
  const char* name;
  const char* value;
};

bool is_of_name(char c) {
  return c == '_' || isalnum(static_cast<unsigned char>(c)) != 0;
}

bool ends_text(char c) {
  return c == '\0' || c == '#';
}

char* skip_name(char* text) {
  while (is_of_name(*text)) ++text;
  return text;
}

// Deliberate: in a run of white space every second character takes back what the one before it
// marked, so at the end of a value a run of even length stays, and one of odd length loses its last
// character alone. A line that ends right behind its value has a run of one, the newline. Pinned by
// ConfReadFileR.CutsOneCharacterOfATrailingRunOfOddLength.
char* end_of_value(char* value) {
  char* marked = nullptr;
  char* position = value + 1;
  for (; !ends_text(*position); ++position)
    marked = is_space(*position) && marked == nullptr ? position : nullptr;
  return marked != nullptr ? marked : position;
}

/// Cuts a line into its name and value; none for a line that says nothing or is malformed, which is
/// reported.
std::optional<Definition> definition_in(char* line) {
  char* name = skip_space(line);
  if (ends_text(*name)) return std::nullopt;
  char* name_end = skip_name(name);  // where it began, when the first character is no name's
  if (!is_space(*name_end)) {
    frask_log(kConfWarning,
              "Invalid variable definition %s\nExpected a space after variable name\n", name);
    return std::nullopt;
  }
  char* value = skip_space(name_end);
  if (ends_text(*value)) {
    frask_log(kConfWarning, "Invalid variable definition %s\nExpected a value", name);
    return std::nullopt;
  }
  *end_of_value(value) = '\0';
  *name_end = '\0';
  return Definition{name, value};
}

}  // namespace

int conf_read_file_r(const char* path, ConfR* conf) {
  if (conf_init_r(conf) != 0) return -1;
  const Stream stream(fopen(path, "re"));
  if (!stream) {
    const int error = errno;
    frask_log(kConfWarning, "unable to open configuration file %s: %s\n", path, strerror(error));
    errno = error;
    return -1;
  }
  LineBuffer line;
  while (line.read(stream.get())) {
    const std::optional<Definition> found = definition_in(line.text());
    if (found && conf_set_r(found->name, found->value, conf) != 0) return -1;
  }
  const int error = errno;
  conf_finalize_r(conf);
  if (feof(stream.get()) != 0 && ferror(stream.get()) == 0) return 0;
  frask_log(kConfWarning, "Unable to read configuration file: %s", strerror(error));
  errno = error;
  return -1;
}
