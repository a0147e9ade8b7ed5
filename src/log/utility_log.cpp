#include "log/utility_log.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>

void (*frask_log)(int priority, const char* format, ...) = _frask_utility_log;
void (*frask_logv)(int priority, const char* format, va_list args) = _frask_utility_logv;

const char* LogLocation = nullptr;
int LogLevel = LOG_INFO;
unsigned int LogOpts = LOG_PID;
int LogFacility = LOG_MAIL;
char LogIdent[64] = "";
char LogTraceId[64] = "";

namespace {

constexpr size_t kSyslogLine = 8192;
constexpr unsigned int kPassedOptions = LOG_PID | LOG_CONS | LOG_PERROR;
constexpr int kLevelMask = 7;
constexpr int kLevelFromEnvironment = 8;

bool location_is(const char* name) {
  return LogLocation != nullptr && strcasecmp(LogLocation, name) == 0;
}

void write_line(FILE* stream, const char* format, va_list args) {
  vfprintf(stream, format, args);
  fputc('\n', stream);
  fflush(stream);
}

void choose_trace_id() {
  const char* inherited = getenv("FRASK_LOG_TRACE_ID");
  if (inherited != nullptr && *inherited != '\0') {
    snprintf(LogTraceId, sizeof LogTraceId, "%s", inherited);
    return;
  }
  const int initial = toupper(static_cast<unsigned char>(program_invocation_short_name[0]));
  snprintf(LogTraceId, sizeof LogTraceId, "%c%ld", initial, static_cast<long>(getpid()));
  setenv("FRASK_LOG_TRACE_ID", LogTraceId, 1);
}

/// The level that "FRASK_LOG_LEVEL" asks for, or `otherwise` where it holds none.
int level_from_environment(int otherwise) {
  const char* text = getenv("FRASK_LOG_LEVEL");
  if (text == nullptr || text[0] < '0' || text[0] > '7' || text[1] != '\0') return otherwise;
  return text[0] - '0';
}

}  // namespace

void _frask_utility_log(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  _frask_utility_logv(priority, format, args);
  va_end(args);
}

void _frask_utility_logv(int priority, const char* format, va_list args) {
  // Deliberate: a priority with a facility in it is above every level and is never written here,
  // while syslog takes it. Pinned by UtilityLog.NeverWritesAPriorityWithAFacilityToTheTerminal.
  if (priority > LogLevel) return;
  const bool both = LogLocation == nullptr || location_is("console");
  if (!both && !location_is("stderr")) return;
  va_list again;
  va_copy(again, args);
  const int error = errno;  // for a "%m" in the format, whatever becomes of the first line
  write_line(stderr, format, args);
  errno = error;
  if (both) write_line(stdout, format, again);
  va_end(again);
}

void _frask_utility_syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  _frask_utility_syslogv(priority, format, args);
  va_end(args);
}

void _frask_utility_syslogv(int priority, const char* format, va_list args) {
  if ((LogOpts & FRASK_LOG_TRACE) == 0 || LogTraceId[0] == '\0') {
    vsyslog(priority, format, args);
    return;
  }
  const int error = errno;  // for a "%m" in the format
  char line[kSyslogLine];
  const int prefix = snprintf(line, sizeof line, "%s: ", LogTraceId);
  errno = error;
  vsnprintf(line + prefix, sizeof line - static_cast<size_t>(prefix), format, args);
  syslog(priority, "%s", line);
}

void frask_log_init(const char* location, int level, int facility, unsigned int options,
                    const char* ident) {
  LogFacility = facility;
  LogLocation = location;
  if (location != nullptr) {
    frask_log = _frask_utility_log;
    frask_logv = _frask_utility_logv;
    frask_log_set_level(level);
    return;
  }
  closelog();
  LogOpts = options | LOG_PID;
  if (ident != LogIdent)  // a second call may hand in the identity that is in force
    snprintf(LogIdent, sizeof LogIdent, "%s",
             ident != nullptr ? ident : program_invocation_short_name);
  if ((LogOpts & FRASK_LOG_TRACE) != 0) choose_trace_id();
  openlog(LogIdent, static_cast<int>(LogOpts & kPassedOptions), LogFacility);
  frask_log = _frask_utility_syslog;
  frask_logv = _frask_utility_syslogv;
  frask_log_set_level(level);
}

void frask_log_set_level(int level) {
  int effective = level & kLevelMask;
  if ((level & kLevelFromEnvironment) != 0)
    effective = std::max(effective, level_from_environment(effective));
  LogLevel = effective;
  if (LogLocation == nullptr) setlogmask((1 << (effective + 1)) - 1);
}

unsigned int frask_log_get_opts(void) {
  return LogOpts;
}
