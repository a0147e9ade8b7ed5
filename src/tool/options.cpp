#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <string_view>

#include "error/asprintf_safe.h"
#include "text/idn.h"
#include "tool/options.private.h"

namespace {

// Letters that the short string lacks ("wWcCE") have long names only; "s" in it selects nothing.
// Deliberate: callers pass the option set of the panel's site tools, most of which means nothing
// here. Pinned by Options.IgnoresWhatOnlyTheSiteToolsUse.
constexpr const char* kShortOptions = "tirdshS:F:T:I:V:";
constexpr std::array<option, 16> kLongOptions{{
    {"test-archive", no_argument, nullptr, 't'},
    {"install-skel", no_argument, nullptr, 'i'},
    {"remove-skel", no_argument, nullptr, 'r'},
    {"install-default", no_argument, nullptr, 'd'},
    {"test-support", required_argument, nullptr, 'S'},
    {"filename", required_argument, nullptr, 'F'},
    {"force-type", required_argument, nullptr, 'T'},
    {"id", required_argument, nullptr, 'I'},
    {"vhost-name", required_argument, nullptr, 'V'},
    {"www-root", required_argument, nullptr, 'w'},
    {"skip-www-root", no_argument, nullptr, 'W'},
    {"cgi-bin-path", required_argument, nullptr, 'c'},
    {"skip-cgi-bin", no_argument, nullptr, 'C'},
    {"skip-error-docs", no_argument, nullptr, 'E'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
}};

struct ModeLetter {
  int letter;
  Mode mode;
};
constexpr std::array<ModeLetter, 5> kModeLetters{{{'t', Mode::kTestArchive},
                                                  {'i', Mode::kInstallSkel},
                                                  {'r', Mode::kRemoveSkel},
                                                  {'d', Mode::kInstallDefault},
                                                  {'S', Mode::kTestSupport}}};

struct TypeWord {
  std::string_view word;
  ArchiveType type;
};
constexpr std::array<TypeWord, 4> kTypeWords{
    {{"zip", ARCHIVE_ZIP}, {"tgz", ARCHIVE_TGZ}, {"tar.gz", ARCHIVE_TGZ}, {"tar", ARCHIVE_TAR}}};

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
  for (const ModeLetter& known : kModeLetters)
    if (known.letter == letter) return known.mode;
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
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the process has one thread
  while ((letter = getopt_long(argc, argv, kShortOptions, kLongOptions.data(), nullptr)) != -1)
    apply(options, letter, optarg);
  return options;
}
