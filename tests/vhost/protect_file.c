/* Protects the files that are its arguments, as a C program does. */
#include "vhost/entry_points.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) copy_if_no_dontedit(argv[i]);
  return 0;
}
