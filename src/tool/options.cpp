#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <string_view>

#include "error/asprintf_safe.h"
#include "text/idn.h"
#include "tool/option_table.private.h"

using frask::tool::kOptions;
using frask::tool::kShortOptions;
using frask::tool::kTypeWords;
using frask::tool::OptionRow;
using frask::tool::TypeWord;
using frask::tool::ValueKind;

namespace {

using LongOptions = std::array<option, kOptions.size() + 1>;

/// The table as getopt_long() takes it, with the row of zeros at its end.
constexpr LongOptions long_options() {
  LongOptions rows{};
  for (size_t index = 0; index < kOptions.size(); ++index) {
    const OptionRow& row = kOptions[index];
    const int argument = row.value == ValueKind::kNone ? no_argument : required_argument;
    rows[index] = option{row.name, argument, nullptr, row.letter};
  }
  return rows;
}
constexpr LongOptions kLongOptions = long_options();

/// The type that `word` names, or `earlier`: a wrong second --force-type leaves the first in force.
ArchiveType type_from_word(std::string_view word, ArchiveType earlier) {
  for (const TypeWord& known : kTypeWords)
    if (known.word == word) return known.type;
  return earlier;
}

/// The mode that `letter` selects while none is selected, else the one selected `earlier`.
Mode mode_from_letter(int letter, Mode earlier) {
  if (letter == 'h') return Mode::kHelp;
  if (earlier != Mode::kNone) return earlier;
  for (const OptionRow& row : kOptions)
    if (row.letter == letter) return row.mode;
  return earlier;
}

/// Whether the archive tools read a name otherwise: as an option or their standard input, or, with
/// a colon in its first element, as a file of another machine.
bool is_misread(std::string_view name) {
  return name.substr(0, 1) == "-" || name.substr(0, name.find('/')).find(':') != name.npos;
}

void set_file_name(Options& options, const char* name) {
  const int length = snprintf(options.file_name, sizeof options.file_name, "%s%s",
                              is_misread(name) ? "./" : "", name);
  options.file_name_too_long =
      length < 0 || sizeof options.file_name <= static_cast<size_t>(length);
}

void apply(Options& options, int letter, const char* argument) {
  options.mode = mode_from_letter(letter, options.mode);
  switch (letter) {
    case 'S':
    case 'T':
      options.forced_type = type_from_word(argument, options.forced_type);
      break;
    case 'F':
      set_file_name(options, argument);
      break;
    case 'I':
      options.client_id = argument;
      break;
    case 'V':
      free(idn_toascii_safe(argument));  // for its report: a name that is none ends the process
      break;
    case 'w':
    case 'c':
      free(asprintf_safe("%s", argument));
      break;
    default:
      break;
  }
}

}  // namespace

Options parse_options(int argc, char** argv) {
  Options options;
  int letter = 0;
  while ((letter = getopt_long(argc, argv, kShortOptions, kLongOptions.data(), nullptr)) != -1)
    apply(options, letter, optarg);
  return options;
}
