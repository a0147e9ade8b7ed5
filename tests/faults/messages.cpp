#include "faults/messages.h"

#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <string_view>

using testsupport::CallFault;
using testsupport::Outcome;

namespace faults {
namespace {

/// Whether the process ends behind a report, goes on, or does the one in some routines and the
/// other in others.
enum class Then { kEnds, kGoesOn, kEither };

struct Report {
  std::string_view beginning;
  Then then;
};

/// Everything that the plain layer reports begins with one of these.
constexpr std::array<Report, 57> kReports{{
    {"Unable to get ROOT permissions: ", Then::kEnds},
    {"Unable to open /dev/null: ", Then::kEnds},
    {"Unable to set the environment: ", Then::kEnds},
    {"Can't detect archive type", Then::kEnds},
    {"Some parameters in command string are left unprocessed.", Then::kEnds},
    {"Missing parameter '", Then::kEnds},
    {"Unsuccessfull execution of command '", Then::kGoesOn},
    {"The skeleton file size is too large.", Then::kGoesOn},
    {"Unable to connect to the mysql database", Then::kEither},
    {"Unable to connect to mysql database", Then::kGoesOn},
    {"Unable to connect to Frask Database: ", Then::kGoesOn},
    {"Unable to initialize MySQL connection structure: ", Then::kGoesOn},
    {"Unable to open admin password file: ", Then::kGoesOn},
    {"Unable to get admin password file stat: ", Then::kGoesOn},
    {"Unable to allocate memory for password", Then::kGoesOn},
    {"Unable to read admin password file: ", Then::kGoesOn},
    {"Unable to query parameter by query ", Then::kGoesOn},
    {"Unable to query domain parameter ", Then::kGoesOn},
    {"DB error (", Then::kGoesOn},
    {"Unable to check directory entry ", Then::kEnds},
    {"Problems with creating directory ", Then::kEnds},
    {"Problems with opening directory '", Then::kEnds},
    {"Unable to change dir ", Then::kEither},
    {"Unable to close dir ", Then::kEither},
    {"Unable to open dir ", Then::kEither},
    {"Directory entry ", Then::kGoesOn},
    {"Unable to get entry ", Then::kEither},
    {"Unable to chown directory entry ", Then::kEnds},
    {"Unable to chown dir ", Then::kEnds},
    {"Unable to chmod entry ", Then::kEnds},
    {"Unable to chmod directory entry ", Then::kEnds},
    {"Unable to chmod dir ", Then::kEnds},
    {"Unable to get file descriptor of current dir: ", Then::kEither},
    {"Unable to restore & close current dir: ", Then::kEither},
    {"Unable to unlink entry ", Then::kEither},
    {"Unable to unlink directory entry ", Then::kEither},
    {"Unable to remove dir ", Then::kEither},
    {"Cannot allocate memory", Then::kEnds},
    {"Can't allocate memory for error message", Then::kEither},
    {"malloc() failed: ", Then::kEnds},
    {"Allocation failed", Then::kEnds},
    {"idn_toascii_safe(", Then::kEnds},
    {"idn_email_toascii_safe(", Then::kEnds},
    {"idn_toascii() failed: ", Then::kGoesOn},
    {"regcomp() failed: ", Then::kEither},
    {"regexec() failed: ", Then::kGoesOn},
    {"fork_execv_pipes: fork() failed", Then::kEnds},
    {"fork_execv_getouterr: pipe() failed", Then::kEnds},
    {"fork_execv_getouterr: fcntl(O_NONBLOCK) failed", Then::kEnds},
    {"fork_execv: fork() failed", Then::kEnds},
    {"fork_exec_fd pipe(): ", Then::kEnds},
    {"Error occured during fork():", Then::kEnds},
    {"Error occured during ", Then::kGoesOn},
    {"Unable to fork", Then::kEnds},
    {"Failed to execute command with input: ", Then::kGoesOn},
    {"popen_exec: ", Then::kGoesOn},
    {"alloc(", Then::kEnds},
}};

/// What else the program writes on standard error when none of its children does.
constexpr std::array<std::string_view, 9> kLines{{
    "tembrix: ",
    "System error ",
    "waitpid(",
    "fork before spawning '",
    "Failed to open ",
    "fork_execv: execv(",
    "fork_execv: dup() failed: ",
    "fork_exec*: read(pipe) failed: ",
    "Not enough memory to allocate Frask runtime configuration structure",
}};

constexpr std::string_view kRefused = "Unsuccessfull execution of command '";

bool begins(std::string_view line, std::string_view beginning) {
  return line.substr(0, beginning.size()) == beginning;
}

const Report* report_of(std::string_view line) {
  const auto* found = std::find_if(kReports.begin(), kReports.end(), [line](const Report& report) {
    return begins(line, report.beginning);
  });
  return found != kReports.end() ? found : nullptr;
}

bool may_end_behind(const std::string& report) {
  const Report* known = report_of(report);
  return known != nullptr && known->then != Then::kGoesOn;
}

bool begins_with_one(const std::string& line, const std::vector<std::string>& beginnings) {
  return std::any_of(beginnings.begin(), beginnings.end(),
                     [&line](const std::string& beginning) { return begins(line, beginning); });
}

/// The reports of the program, without the prefix.
Lines reports_in(const std::string& text) {
  const std::string prefix = "tembrix: ";
  Lines reports;
  for (const std::string& line : lines_of(text))
    if (begins(line, prefix)) reports.push_back(line.substr(prefix.size()));
  return reports;
}

/// A report that ends in a newline is followed by an empty line.
bool is_line_of_the_program(const std::string& line) {
  return line.empty() || std::any_of(kLines.begin(), kLines.end(), [&line](std::string_view known) {
           return begins(line, known);
         });
}

bool is_number(const std::string& line) {
  const size_t sign = begins(line, "-") ? 1 : 0;
  return line.size() > sign && line.find_first_not_of("0123456789", sign) == std::string::npos;
}

bool is_own_write(const CallFault& fault) {
  return fault.process == 0 && fault.number == SYS_write;
}

/// Whether a child can fail of it: of what fails in a child, around all, or in starting one and
/// waiting for it, for which the C library maps a stack.
bool reaches_children(const CallFault& fault) {
  switch (fault.number) {
    case SYS_clone:
    case SYS_clone3:
    case SYS_wait4:
    case SYS_mmap:
      return true;
    default:
      return fault.process != 0;
  }
}

Verdict wrong(const std::string& complaint) {
  return {"undocumented", complaint};
}

/// `reports` stand ahead of an answer.
Verdict verdict_of_answer(int answer, const Lines& reports, const Road& road,
                          const CallFault& fault) {
  for (const std::string& report : reports)
    if (!begins_with_one(report, road.answers.at(answer)))
      return wrong("answers in spite of its report");
  const bool refused = std::any_of(reports.begin(), reports.end(),
                                   [](const std::string& line) { return begins(line, kRefused); });
  if ((answer == 2) && !refused) return wrong("answers 2 and does not say why");
  if ((answer != 0 || refused) && !reaches_children(fault))
    return wrong("blames a child for a call of its own");
  return {"answer " + std::to_string(answer) + (reports.empty() ? "" : ", reported"), ""};
}

Verdict verdict_of_end(const Lines& lines, const CallFault& fault) {
  const auto last = std::find_if(lines.rbegin(), lines.rend(), report_of);
  if (last == lines.rend()) {
    if (is_own_write(fault)) return {"fatal, unwritten", ""};
    return wrong("ends without a documented report");
  }
  return may_end_behind(*last) ? Verdict{"fatal", ""} : wrong("ends behind a report that is none");
}

/// What is wrong with "threw ..." lines, which its children write on standard error.
std::string unexpected_exception(const Outcome& outcome, const Road& road) {
  const std::string threw = "threw ";
  for (const std::string* text : {&outcome.out, &outcome.err})
    for (const std::string& line : lines_of(*text))
      if (begins(line, threw) && !begins_with_one(line.substr(threw.size()), road.exceptions))
        return "throws what it is not documented to throw";
  return "";
}

std::string changed_descriptor(const Lines& lines, const Road& road) {
  int kept = 0;
  for (const std::string& line : lines) {
    if (begins(line, "lost ")) return "closes a descriptor that it was not given";
    if (!begins(line, "left ")) continue;
    const size_t target = line.find(' ', line.find(' ') + 1) + 1;
    const bool allowed = !road.keeps.empty() && begins(line.substr(target), road.keeps);
    if (!allowed || ++kept > 1) return "leaves a descriptor open";
  }
  return "";
}

}  // namespace

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

bool contains(const Lines& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

Verdict verdict_of_tool(const Outcome& outcome, const Road& road, const CallFault& fault) {
  const int code = outcome.exit_code();
  if (code < 0) return {"killed", "is ended by a signal"};
  const Lines shown = reports_in(outcome.out);
  const Lines said = reports_in(outcome.err);
  if (shown != said && !is_own_write(fault)) return wrong("reports on one stream alone");
  const Lines& reports = said.size() >= shown.size() ? said : shown;
  for (const std::string& report : reports)
    if (report_of(report) == nullptr) return wrong("writes an undocumented report");
  const Lines errors = lines_of(outcome.err);
  if (!reaches_children(fault) &&
      !std::all_of(errors.begin(), errors.end(), is_line_of_the_program))
    return wrong("writes an undocumented line");
  const Lines lines = lines_of(outcome.out);
  const int answer = code == 255 ? -1 : code;
  const bool known = road.answers.count(answer) != 0;
  if (!lines.empty() && is_number(lines.back())) {
    if (lines.back() != std::to_string(answer)) return wrong("answers otherwise than it ends");
    if (!known) return wrong("gives an answer that cannot be");
    return verdict_of_answer(answer, reports, road, fault);
  }
  if (known && is_own_write(fault)) {
    const Verdict verdict = verdict_of_answer(answer, reports, road, fault);
    return {verdict.complaint.empty() ? "unwritten" : verdict.kind, verdict.complaint};
  }
  if (code != 1) return wrong("ends with an undocumented status");
  return reports.empty() ? wrong("ends without a report") : verdict_of_end(reports, fault);
}

Verdict verdict_of_routine(const Outcome& outcome, const Road& road, const CallFault& fault) {
  const int code = outcome.exit_code();
  if (code < 0) return {"killed", "is ended by a signal"};
  if (const std::string complaint = unexpected_exception(outcome, road); !complaint.empty())
    return {"exception", complaint};
  const Lines lines = lines_of(outcome.out);
  // The reports stand on both streams; what was captured of a child may stand before.
  if (code == 1) return verdict_of_end(lines, fault);
  if (code != 0) return wrong("ends with an undocumented status");
  if (lines.empty() || lines.back() != "descriptors compared") return wrong("says nothing");
  if (const std::string complaint = changed_descriptor(lines, road); !complaint.empty())
    return {"leak", complaint};
  if (outcome.out.find("threw ") != std::string::npos) return {"exception", ""};
  return {outcome.err.empty() ? "returned" : "returned, reported", ""};
}

}  // namespace faults
