// Not installed: the tool's options, as the parser and the shells' completion know them.
#ifndef FRASK_TOOL_OPTION_TABLE_PRIVATE_H
#define FRASK_TOOL_OPTION_TABLE_PRIVATE_H

#include <array>
#include <string_view>

#include "tool/archive.h"
#include "tool/options.private.h"

namespace frask::tool {

/// What the word behind an option is.
enum class ValueKind { kNone, kArchiveType, kArchive, kClient, kDirectory, kHostName };

struct OptionRow {
  const char* name;
  char letter;  ///< a name inside the program; also one on the command line if kShortOptions has it
  ValueKind value;
  Mode mode;  ///< what the option selects; kNone for one that selects nothing
  const char* summary;
};

// Letters that the short string lacks ("wWcCE") have long names only; "s" in it selects nothing.
// Deliberate: callers pass the option set of the panel's site tools, most of which means nothing
// here. Pinned by Options.IgnoresWhatOnlyTheSiteToolsUse.
inline constexpr const char* kShortOptions = "tirdshS:F:T:I:V:";
inline constexpr std::array<OptionRow, 15> kOptions{{
    {"test-archive", 't', ValueKind::kNone, Mode::kTestArchive, "test an archive"},
    {"install-skel", 'i', ValueKind::kNone, Mode::kInstallSkel,
     "make an archive a client's skeleton"},
    {"remove-skel", 'r', ValueKind::kNone, Mode::kRemoveSkel, "remove a client's skeleton"},
    {"install-default", 'd', ValueKind::kNone, Mode::kInstallDefault,
     "give a client the default skeleton"},
    {"test-support", 'S', ValueKind::kArchiveType, Mode::kTestSupport,
     "tell whether archives of a type can be handled"},
    {"filename", 'F', ValueKind::kArchive, Mode::kNone, "the archive"},
    {"force-type", 'T', ValueKind::kArchiveType, Mode::kNone, "the type of the archive"},
    {"id", 'I', ValueKind::kClient, Mode::kNone, "the client"},
    {"vhost-name", 'V', ValueKind::kHostName, Mode::kNone, "a host name to check"},
    {"www-root", 'w', ValueKind::kDirectory, Mode::kNone, "without effect"},
    {"skip-www-root", 'W', ValueKind::kNone, Mode::kNone, "without effect"},
    {"cgi-bin-path", 'c', ValueKind::kDirectory, Mode::kNone, "without effect"},
    {"skip-cgi-bin", 'C', ValueKind::kNone, Mode::kNone, "without effect"},
    {"skip-error-docs", 'E', ValueKind::kNone, Mode::kNone, "without effect"},
    {"help", 'h', ValueKind::kNone, Mode::kHelp, "print the usage text"},
}};

struct TypeWord {
  std::string_view word;
  ArchiveType type;
};
inline constexpr std::array<TypeWord, 4> kTypeWords{
    {{"zip", ARCHIVE_ZIP}, {"tgz", ARCHIVE_TGZ}, {"tar.gz", ARCHIVE_TGZ}, {"tar", ARCHIVE_TAR}}};

}  // namespace frask::tool

#endif
