// Not installed: the tool's command line, parsed.
#ifndef FRASK_TOOL_OPTIONS_PRIVATE_H
#define FRASK_TOOL_OPTIONS_PRIVATE_H

#include "tool/archive.h"

/// What the process is to do; the first mode option decides, but for help, which always wins.
enum class Mode {
  kNone,
  kHelp,
  kTestArchive,
  kTestSupport,
  kInstallSkel,
  kRemoveSkel,
  kInstallDefault
};

struct Options {
  Mode mode = Mode::kNone;
  ArchiveType forced_type = ARCHIVE_DETECT;
  char file_name[4096] = "";        ///< with "./" before what the archive tools would misread
  bool file_name_too_long = false;  ///< whether it took 4096 bytes or more and was cut
  const char* client_id = nullptr;  ///< points into argv
};

/// Reads the options with getopt_long(), which reports what it does not know on standard error;
/// such words are ignored otherwise. optind is left at the first word that is no option.
Options parse_options(int argc, char** argv);

#endif
