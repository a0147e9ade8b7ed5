#include "program.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

void die(const std::string& what) {
  const char* reason = errno != 0 ? strerror(errno) : nullptr;
  fprintf(stderr, "bench: %s%s%s\n", what.c_str(), reason ? ": " : "", reason ? reason : "");
  exit(EXIT_FAILURE);
}

void require(bool done, const std::string& what) {
  if (!done) die(what);
}

int run_program(const std::vector<std::string>& words) {
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  errno = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  require(errno == 0, words[0]);

  int status = 0;
  require(waitpid(pid, &status, 0) == pid, "waitpid");
  return status;
}

void run_or_die(const std::vector<std::string>& words) {
  const int status = run_program(words);
  if (status == 0) return;
  errno = 0;
  die(words[0] + " gave the status " + std::to_string(status));
}

}  // namespace bench
