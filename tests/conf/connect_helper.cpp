// Connects once and prints the failure's text, for tests in which strace makes a system call fail.
#include <errno.h>
#include <stdio.h>

#include "conf/database.h"

int main() {
  char error[4096] = "";
  MYSQL* handle = frask_db_connect_raw_ex(error, sizeof error);
  printf("%s, errno %d", handle != nullptr ? "connected" : error, errno);
  if (handle != nullptr) mysql_close(handle);
  return 0;
}
