#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "log/messlog.h"
#include "tool/command_line.h"
#include "tool/modes.private.h"
#include "tool/skeleton_store.h"

namespace {

[[noreturn]] void finish(int result) {
  printf("%i\n", result);
  exit(result);
}

/// Whether a word may stand unquoted in a shell command and means itself there: no blank or control
/// character, and none of those that quote, expand or separate (POSIX Shell Command Language, 2.2,
/// and the braces and "!" of common shells). Bytes above ASCII pass.
bool is_plain_word(const char* word) {
  for (; *word != '\0'; ++word) {
    const auto byte = static_cast<unsigned char>(*word);
    if (byte == ' ' || iscntrl(byte) != 0) return false;
    if (strchr("|&;<>()$`\\\"'*?[]#~!{}", *word) != nullptr) return false;
  }
  return true;
}

/// A client id becomes a directory name and part of a command: it must be one and stay one.
bool is_client_id(const char* id) {
  if (*id == '\0' || strcmp(id, ".") == 0 || strcmp(id, "..") == 0) return false;
  return strchr(id, '/') == nullptr && is_plain_word(id);
}

void require_file_name(const Options& options) {
  if (options.file_name[0] == '\0') messlog2(1, 1, "Error: parameter 'filename' wasn't specified");
  if (options.file_name_too_long) messlog2(1, 1, "Error: parameter 'filename' is too long");
  if (!is_plain_word(options.file_name))
    messlog2(1, 1, "Error: parameter 'filename' holds unsupported characters");
}

void require_client_id(const Options& options) {
  if (options.client_id == nullptr)
    messlog2(1, 1, "Error: parameter 'id' wasn't specified");
  else if (!is_client_id(options.client_id))
    messlog2(1, 1, "Error: parameter 'id' is not a valid client id");
}

ArchiveDescriptor require_archive(char* file_name, ArchiveType forced_type) {
  ArchiveDescriptor descriptor = {};
  if (getArchiveDc(file_name, &descriptor, forced_type) != 0)
    messlog2(1, 1, "Can't detect archive type");
  return descriptor;
}

[[noreturn]] void test_archive(Options& options) {
  require_file_name(options);
  const ArchiveDescriptor archive = require_archive(options.file_name, options.forced_type);
  finish(testIntegrity(&archive));
}

[[noreturn]] void test_support(const Options& options) {
  char no_name[] = "";  // so that a type that was not given cannot be detected either
  const ArchiveDescriptor archive = require_archive(no_name, options.forced_type);
  finish(testSupport(&archive));
}

[[noreturn]] void install(char* file_name, const Options& options) {
  const ArchiveDescriptor archive = require_archive(file_name, options.forced_type);
  finish(installSkeleton(&archive, options.client_id));
}

[[noreturn]] void install_skeleton(Options& options) {
  require_file_name(options);
  require_client_id(options);
  install(options.file_name, options);
}

[[noreturn]] void install_default(const Options& options) {
  require_client_id(options);
  char file_name[] = "/usr/local/oxa/var/default_skeleton.tgz";
  install(file_name, options);
}

[[noreturn]] void remove_skeleton(const Options& options) {
  require_client_id(options);
  finish(removeSkeleton(options.client_id));
}

}  // namespace

void run_mode(Options options) {
  switch (options.mode) {
    case Mode::kTestArchive:
      test_archive(options);
    case Mode::kTestSupport:
      test_support(options);
    case Mode::kInstallSkel:
      install_skeleton(options);
    case Mode::kRemoveSkel:
      remove_skeleton(options);
    case Mode::kInstallDefault:
      install_default(options);
    case Mode::kNone:
    case Mode::kHelp:
      showUsage();
      finish(0);
  }
  abort();
}
