#include "capture.h"

#include "instead/capture_popen.h"
#include "limit/limit.h"
#include "log/c_string.private.h"
#include "program.h"

namespace bench {
namespace {

std::string quoted(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "'" : " '") + word + "'";
  return line;
}

bool popen_once(const Command& command) {
  char* text = nullptr;
  size_t length = 0;
  int status = 0;
  if (capture_popen(quoted(command.words).c_str(), &text, &length, &status) != 0) return false;
  const frask::CString owner(text);
  return status == 0 && length == command.output;
}

bool posix_spawn_once(const Command& command) {
  std::vector<char*> argv;
  argv.reserve(command.words.size() + 1);
  for (const std::string& word : command.words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  char* text = nullptr;
  size_t length = 0;
  int status = 0;
  if (limit_capture(argv.data(), &text, &length, &status) != 0) return false;
  const frask::CString owner(text);
  return status == 0 && length == command.output;
}

}  // namespace

Command many_short(int runs) {
  return {{"/bin/true"}, 0, runs};
}

Command one_long() {
  return {{BENCH_PRODUCER, std::to_string(kGibibyte)}, kGibibyte, 1};
}

Contender capturing(const Command& command, bool (*capture)(const Command& command)) {
  return {nullptr, [command, capture] {
            for (int i = 0; i < command.runs; ++i)
              require(capture(command), command.words[0] + " failed, or its output was lost");
          }};
}

Contender by_popen(const Command& command) {
  return capturing(command, popen_once);
}
Contender by_posix_spawn(const Command& command) {
  return capturing(command, posix_spawn_once);
}

}  // namespace bench
