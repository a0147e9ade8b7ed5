// Reads a file once and prints what it found, for tests in which strace makes a system call fail:
//   reading_helper conf PATH    the result, errno, every message, and the table
//   reading_helper ini PATH     the value of "key" in section "frask", and errno
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "conf/inifile.h"
#include "conf_table.h"
#include "log_recorder.h"

namespace {

void read_conf(const char* path) {
  const LogRecorder log;
  const ConfTable conf = new_table();
  const int result = conf_read_file_r(path, conf.get());
  printf("%d, errno %d\n", result, errno);
  for (const LogLine& line : log.lines()) printf("<%d>%s\n", line.priority, line.text.c_str());
  for (const auto& [name, value] : content_of(conf))
    printf("%s: %s\n", name.c_str(), value.c_str());
}

void read_ini(const char* path) {
  char* value = get_ini_conf_var(path, "frask", "key");
  printf("%s, errno %d\n", value != nullptr ? value : "null", errno);
  free(value);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  if (strcmp(argv[1], "conf") == 0)
    read_conf(argv[2]);
  else
    read_ini(argv[2]);
  return 0;
}
