#include <syslog.h>

#include "log/utility_log.h"

int main() {
  frask_log_init(nullptr, LOG_INFO, LOG_USER, FRASK_LOG_TRACE, "child");
  frask_log(LOG_INFO, "from the child");
  return 0;
}
