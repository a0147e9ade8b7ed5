// The soak, in the private mounts (tests/soak/run.sh):
//   soak tool LAUNCHER TEMBRIX OPERATIONS CLIENTS SEED SERVER WORK   SERVER: the database server's
//   process soak library ROUNDS WORK                                WORK: an empty directory
#include <signal.h>
#include <string.h>

#include <exception>
#include <iostream>
#include <string>

#include "log/messlog.h"
#include "soak/library_soak.h"
#include "soak/tool_soak.h"

namespace {

bool soak_tool(char** arguments) {
  sigset_t of_children;
  sigemptyset(&of_children);
  sigaddset(&of_children, SIGCHLD);
  sigprocmask(SIG_BLOCK, &of_children, nullptr);
  soak::ToolSoakOptions options;
  options.launcher = arguments[0];
  options.program = arguments[1];
  options.operations = std::stoul(arguments[2]);
  options.clients = std::stoul(arguments[3]);
  options.seed = static_cast<unsigned>(std::stoul(arguments[4]));
  options.server = std::stoi(arguments[5]);
  options.work = arguments[6];
  return soak::ToolSoak(options).run();
}

bool run(int argc, char** argv) {
  if (argc == 9 && strcmp(argv[1], "tool") == 0) return soak_tool(argv + 2);
  if (argc == 4 && strcmp(argv[1], "library") == 0)
    return soak::soak_library(std::stoul(argv[2]), argv[3]);
  std::cerr << "soak: see the first lines of main.cpp\n";
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  PROGNAME = argv[0];
  try {
    return run(argc, argv) ? 0 : 1;
  } catch (const std::exception& failure) {
    std::cerr << "soak: " << failure.what() << "\n";
    return 1;
  }
}
