#include "tool/archive.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <string_view>

#include "conf/database.h"
#include "exec/forkexec.h"
#include "log/c_string.private.h"
#include "log/messlog.h"

// clang-format off
const ArchiveDescriptor adc_zip = {
    ARCHIVE_ZIP, "Zip", "unzip -h > /dev/null",
    "unzip -t %s > /dev/null", "unzip -o -qq %s -d %s", nullptr};
const ArchiveDescriptor adc_tgz = {
    ARCHIVE_TGZ, "Tgz", "gzip --version > /dev/null && tar --version > /dev/null",
    "tar -ztf %s > /dev/null", "tar -xzf %s -C %s", nullptr};
const ArchiveDescriptor adc_tar = {
    ARCHIVE_TAR, "Tar", "tar --version > /dev/null",
    "tar -tf %s > /dev/null", "tar -xf %s -C %s", nullptr};
// clang-format on

namespace {

constexpr off_t kSizeLimit = 2147483648;
constexpr off_t kBlockSize = 512;
constexpr int kSignalOrExitCode = 0xff7f;
using Command = std::array<char, 4096>;

struct Sign {
  const char* text;
  const ArchiveDescriptor* record;
};

// The order matters: file(1) also writes "zip" where it writes "gzip".
constexpr std::array<Sign, 3> kContentSigns{
    {{"gzip", &adc_tgz}, {"tar", &adc_tar}, {"zip", &adc_zip}}};

constexpr std::array<Sign, 3> kExtensions{
    {{".zip", &adc_zip}, {".tgz", &adc_tgz}, {".tar", &adc_tar}}};

const ArchiveDescriptor* record_of_type(ArchiveType type) {
  for (const ArchiveDescriptor* record : {&adc_zip, &adc_tgz, &adc_tar})
    if (record->type == type) return record;
  return nullptr;
}

const ArchiveDescriptor* record_by_content(const char* file_name) {
  char* collected = nullptr;
  fork_execl_getout(&collected, "/usr/bin/file", "/usr/bin/file", "-ib", file_name,
                    static_cast<char*>(nullptr));
  const frask::CString output(collected);
  if (output == nullptr) return nullptr;
  for (const Sign& sign : kContentSigns)
    if (strstr(output.get(), sign.text) != nullptr) return sign.record;
  return nullptr;
}

bool ends_in_tar(std::string_view stem) {
  constexpr std::string_view kTar = ".tar";
  return stem.size() >= kTar.size() &&
         strncasecmp(stem.data() + stem.size() - kTar.size(), kTar.data(), kTar.size()) == 0;
}

const ArchiveDescriptor* record_by_extension(const char* file_name) {
  const char* extension = strrchr(file_name, '.');
  if (extension == nullptr) return nullptr;
  for (const Sign& sign : kExtensions)
    if (strcasecmp(extension, sign.text) == 0) return sign.record;
  const std::string_view stem(file_name, static_cast<size_t>(extension - file_name));
  return strcasecmp(extension, ".gz") == 0 && ends_in_tar(stem) ? &adc_tgz : nullptr;
}

const ArchiveDescriptor* detect(const char* file_name) {
  const ArchiveDescriptor* record = record_by_content(file_name);
  return record != nullptr ? record : record_by_extension(file_name);
}

// Deliberate: the status is the raw one, 256 for exit code 1, and the text is misspelled; the
// panel's log readers look for both. Pinned by TestIntegrity.ReportsTheRawStatusOfACorruptArchive.
void report_unsuccessful(const char* command, int status) {
  messlog2(0, 1, "Unsuccessfull execution of command '%s'. Exit status %d", command, status);
}

/// Archive commands are lines for a shell; the names in them have been looked at.
int run_by_shell(const char* command) {
  return system(command);  // NOLINT(cert-env33-c,bugprone-command-processor)
}

/// system(), with the report of any status but 0.
int run_reported(const char* command) {
  const int status = run_by_shell(command);
  if (status == 0) return 0;
  report_unsuccessful(command, status);
  return -1;
}

/// Runs a command that was formatted with `wanted` as the length it takes.
int run_formed(const Command& command, int wanted) {
  if (wanted <= 0) return -1;
  if (static_cast<size_t>(wanted) < command.size()) return run_reported(command.data());
  // A command that was cut would name another file or directory to a root shell: it is not run,
  // and reported as one that system() cannot run.
  report_unsuccessful(command.data(), -1);
  return -1;
}

bool counts_length(MYSQL* connection) {
  const char* counting = get_param("size_count_type", connection);
  if (counting == nullptr) errno = 0;  // reported, and of no later report the reason
  return counting != nullptr && strcmp(counting, "byte") == 0;
}

bool is_too_large(const struct stat& archive, MYSQL* connection) {
  const off_t size = counts_length(connection) ? archive.st_size : archive.st_blocks * kBlockSize;
  return size > kSizeLimit;
}

}  // namespace

int getArchiveDc(char* file_name, ArchiveDescriptor* descriptor, ArchiveType forced) {
  const ArchiveDescriptor* record =
      forced == ARCHIVE_DETECT ? detect(file_name) : record_of_type(forced);
  if (record == nullptr) return -1;
  *descriptor = *record;
  descriptor->file_name = file_name;
  return 0;
}

int testSupport(const ArchiveDescriptor* descriptor) {
  // Deliberate: the tar types count as supported wherever the tool runs; only the zip tools are
  // probed, being no part of a base system. Pinned by TestSupport.NeverProbesTheTarTools.
  if (descriptor->type == ARCHIVE_TGZ || descriptor->type == ARCHIVE_TAR) return 0;
  if (descriptor->type != ARCHIVE_ZIP) return -1;
  const char* command = descriptor->support_command;
  if (command == nullptr || *command == '\0') return -1;
  const int status = run_by_shell(command);
  return status == -1 || (status & kSignalOrExitCode) != 0 ? -1 : 0;
}

int testIntegrity(const ArchiveDescriptor* descriptor) {
  // The process ends right after; static, so that the handle is not lost but left to its end.
  static MYSQL* connection = nullptr;
  connection = db_connect();
  if (connection == nullptr) messlog2(1, 1, "Unable to connect to the mysql database\n");
  struct stat archive = {};
  if (stat(descriptor->file_name, &archive) != 0)
    messlog2(1, 1, "Unable to check directory entry %s: %s\n", descriptor->file_name,
             strerror(errno));
  if (is_too_large(archive, connection)) {
    messlog2(0, 1, "The skeleton file size is too large.\n");
    return 1;
  }
  if (record_of_type(descriptor->type) == nullptr) return 0;
  Command command;
  const int wanted =
      snprintf(command.data(), command.size(), descriptor->test_command, descriptor->file_name);
  return run_formed(command, wanted) == 0 ? 0 : 2;
}

int extractTo(const ArchiveDescriptor* descriptor, const char* directory) {
  if (record_of_type(descriptor->type) == nullptr) return -1;
  Command command;
  const int wanted = snprintf(command.data(), command.size(), descriptor->extract_command,
                              descriptor->file_name, directory);
  return run_formed(command, wanted);
}

int executeCommand(const char* command) {
  if (command == nullptr || *command == '\0') return -1;
  return run_reported(command);
}

int execute(const char* command) {
  if (command == nullptr || *command == '\0') return -1;
  const int status = run_by_shell(command);
  if (status == -1 || WTERMSIG(status) != 0) return -1;
  return WEXITSTATUS(status);
}
