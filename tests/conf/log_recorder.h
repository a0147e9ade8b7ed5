// Takes the place of the utility log and keeps what is written to it.
#ifndef TESTS_CONF_LOG_RECORDER_H
#define TESTS_CONF_LOG_RECORDER_H

#include <ostream>
#include <string>
#include <vector>

struct LogLine {
  int priority;
  std::string text;
};

bool operator==(const LogLine& a, const LogLine& b);
std::ostream& operator<<(std::ostream& stream, const LogLine& line);

/// While it lives, frask_log and frask_logv write here; errno is 0 after each line, as after a
/// writer that cares nothing for it. One at a time.
class LogRecorder {
 public:
  LogRecorder();
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  const std::vector<LogLine>& lines() const { return lines_; }

 private:
  friend struct RecordingWriters;
  std::vector<LogLine> lines_;
};

#endif
