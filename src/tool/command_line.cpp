#include "tool/command_line.h"

#include <stdio.h>

#include "error/terminate.h"
#include "log/messlog.h"

void wido_cpp_init(void) {
  oxa_set_terminate();
}

// NOLINTNEXTLINE(readability-non-const-parameter): argv as main() has it
void check_unprocessed_parameters(int argc, int next, char** /*argv*/) {
  if (argc != next)
    messlog2(1, 1,
             "Some parameters in command string are left unprocessed. Check parameters please.");
}

void check_parameter(int required, const char* value, const char* name) {
  if (required != 0 && (value == nullptr || *value == '\0'))
    messlog2(1, 1, "Missing parameter '%s' or previous parameter is empty.\n", name);
}

void showUsage(void) {
  // Deliberate: "analisys", and the blanks at the ends of lines, which the panel's documentation
  // compares against. Pinned by Usage.IsTheTextToTheLetter.
  puts(
      "Tembrix (Skeletons Manager) Utility\n"
      "\n"
      "Usage:\n"
      "\n"
      "  tembrix --test-support <type> \n"
      "  tembrix --test-archive --filename <filename> [ --force-type <type> ]\n"
      "  tembrix --install-skel --filename <filename> [ --force-type <type> ] --id <client_id>\n"
      "  tembrix --remove-skel --id <client_id> \n"
      "  tembrix --install-default --id <client_id> \n"
      "\n"
      "  Archive type detection is performed by analisys of its filename extension. \n"
      "  Accepted extensions are '.zip', '.tgz', '.tar.gz' and '.tar'.\n"
      "  Also you may specify it manually via <type> parameter of --force-type option \n"
      "  (possible values: 'zip', 'tgz', 'tar.gz', 'tar'). \n"
      "  <client_id> is the number from the Frask's database that identifies a user account.");
}
