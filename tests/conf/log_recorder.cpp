#include "log_recorder.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include "log/utility_log.h"

namespace {

LogRecorder* current = nullptr;

}  // namespace

struct RecordingWriters {
  static void logv(int priority, const char* format, va_list args) {
    char text[8192];
    vsnprintf(text, sizeof text, format, args);
    current->lines_.push_back({priority, text});
    errno = 0;
  }
  static void log(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    logv(priority, format, args);
    va_end(args);
  }
};

bool operator==(const LogLine& a, const LogLine& b) {
  return a.priority == b.priority && a.text == b.text;
}

std::ostream& operator<<(std::ostream& stream, const LogLine& line) {
  return stream << '<' << line.priority << ">" << line.text;
}

LogRecorder::LogRecorder() {
  current = this;
  frask_log = RecordingWriters::log;
  frask_logv = RecordingWriters::logv;
}

LogRecorder::~LogRecorder() {
  frask_log = _frask_utility_log;
  frask_logv = _frask_utility_logv;
  current = nullptr;
}
