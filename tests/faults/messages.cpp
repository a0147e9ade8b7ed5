#include "faults/messages.h"

#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <string_view>

using testsupport::Outcome;

namespace faults {
namespace {

/// Everything that the plain layer reports begins with one of these.
constexpr std::array<std::string_view, 46> kReports{{
    "Unable to get ROOT permissions: ",
    "Unable to open /dev/null: ",
    "Can't detect archive type",
    "Unsuccessfull execution of command '",
    "The skeleton file size is too large.",
    "Unable to connect to the mysql database",
    "Unable to connect to mysql database",
    "Unable to connect to Frask Database: ",
    "Unable to initialize MySQL connection structure: ",
    "Unable to open admin password file: ",
    "Unable to get admin password file stat: ",
    "Unable to allocate memory for password",
    "Unable to read admin password file: ",
    "Unable to query parameter by query ",
    "Unable to query domain parameter ",
    "DB error (",
    "Unable to check directory entry ",
    "Problems with creating directory ",
    "Problems with opening directory '",
    "Unable to change dir ",
    "Unable to close dir ",
    "Unable to open dir ",
    "Directory entry ",
    "Unable to get entry ",
    "Unable to chown directory entry ",
    "Unable to chown dir ",
    "Unable to chmod entry ",
    "Unable to chmod directory entry ",
    "Unable to chmod dir ",
    "Unable to get file descriptor of current dir: ",
    "Unable to restore & close current dir: ",
    "Unable to unlink entry ",
    "Unable to unlink directory entry ",
    "Unable to remove dir ",
    "Cannot allocate memory",
    "Can't allocate memory for error message",
    "fork_execv_pipes: fork() failed",
    "fork_execv_getouterr: pipe() failed",
    "fork_execv_getouterr: fcntl(O_NONBLOCK) failed",
    "fork_execv: fork() failed",
    "fork_exec_fd pipe(): ",
    "Error occured during ",
    "Unable to fork",
    "Failed to execute command with input: ",
    "popen_exec: ",
    "alloc(",
}};

bool is_report(std::string_view line) {
  return std::any_of(kReports.begin(), kReports.end(), [line](std::string_view report) {
    return line.substr(0, report.size()) == report;
  });
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

/// How many reports of the program there are, or -1 where one is not documented.
int count_reports(const std::string& text) {
  const std::string prefix = "tembrix: ";
  int count = 0;
  for (const std::string& line : lines_of(text)) {
    if (line.rfind(prefix, 0) != 0) continue;
    if (!is_report(std::string_view(line).substr(prefix.size()))) return -1;
    ++count;
  }
  return count;
}

}  // namespace

Verdict verdict_of_tool(const Outcome& outcome, const std::vector<int>& results, long failed_call) {
  const int code = outcome.exit_code();
  if (code < 0) return {"killed", "is ended by a signal"};
  const int number = code == 255 ? -1 : code;
  const std::vector<std::string> lines = lines_of(outcome.out);
  const bool answered = !lines.empty() && lines.back() == std::to_string(number);
  const int reports = count_reports(outcome.out);
  if (reports < 0) return {"undocumented", "writes an undocumented report"};
  const bool known = std::find(results.begin(), results.end(), number) != results.end();
  if (answered && known) return {"answer " + lines.back() + (reports > 0 ? ", reported" : ""), ""};
  if (code == 1 && reports > 0) return {"fatal", ""};
  if (failed_call == SYS_write && (known || code == 1)) return {"unwritten", ""};
  return {"undocumented", "ends with an undocumented result"};
}

Verdict verdict_of_routine(const Outcome& outcome, long failed_call) {
  const int code = outcome.exit_code();
  if (code < 0) return {"killed", "is ended by a signal"};
  const std::vector<std::string> lines = lines_of(outcome.out);
  if (code == 1) {
    // The reports stand on both streams; what was captured of a child may stand before.
    const bool reported = std::any_of(lines.begin(), lines.end(), is_report);
    if (reported || failed_call == SYS_write) return {"fatal", ""};
    return {"undocumented", "ends without a documented report"};
  }
  if (code != 0) return {"undocumented", "ends with an undocumented status"};
  if (lines.empty() || lines.back().rfind("leaked ", 0) != 0)
    return {"undocumented", "says nothing"};
  if (lines.back() != "leaked 0") return {"leak", "leaves descriptors open"};
  if (outcome.out.find("threw ") != std::string::npos) return {"exception", ""};
  return {outcome.err.empty() ? "returned" : "returned, reported", ""};
}

}  // namespace faults
