// Execution objects against the other ways of getting a program's output.
#include <string>

#include "capture.h"
#include "exec/texec.h"
#include "program.h"
#include "rows.h"

namespace bench {
namespace {

using frask::sys::TEArgs;
using frask::sys::TExec;

TExec to_exec(const std::vector<std::string>& words) {
  TEArgs args = frask::sys::el;
  for (const std::string& word : words) args.push_back(word);
  return TExec(args);
}

bool ours_once(const Command& command) {
  std::string output;
  output <<= to_exec(command.words);  // throws unless the program ends well
  return output.size() == command.output;
}

Contenders set_up_objects() {
  const Command command = many_short(1000);
  return {capturing(command, ours_once), by_popen(command), by_posix_spawn(command), command.runs};
}

const std::string kCounted = std::to_string(kGibibyte) + "\n";

/// No command is waited for before the next one runs: what lies between them does not fit in a
/// pipe.
TExec running(const std::vector<std::string>& words) {
  return to_exec(words) ^ frask::sys::wait_mode;
}

bool pipeline_ours(const Command& command) {
  std::string counted;
  int status = -1;
  frask::sys::execGetOutput(&counted, &status,
                            running(command.words) | running({"cat"}) | running({"wc", "-c"}));
  return status == 0 && counted == kCounted;
}

Contenders set_up_pipeline() {
  const Command command = one_long();
  Command in_shell = command;
  in_shell.words = {"/bin/sh", "-c",
                    "'" + command.words[0] + "' " + command.words[1] + " | cat | wc -c"};
  in_shell.output = kCounted.size();
  return {capturing(command, pipeline_ours), by_posix_spawn(in_shell), std::nullopt, 1};
}

}  // namespace

void add_object_rows(std::vector<Row>& rows) {
  rows.push_back({"texec-true", "TExec <<=, /bin/true", 0,
                  Aim{"popen(), read into a growing buffer", 0.8},
                  Aim{"posix_spawn(), read into a growing buffer", 1.15}, set_up_objects});
  rows.push_back({"texec-pipeline", "TExec | TExec | TExec, 1 GiB", 0,
                  Aim{"the same pipeline in /bin/sh", 1.05}, std::nullopt, set_up_pipeline});
}

}  // namespace bench
