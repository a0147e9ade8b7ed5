/* Writes as many bytes "x" as it is told to standard output, as fast as it can. */
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
  static char block[65536];
  if (argc != 2) return 2;
  for (size_t i = 0; i < sizeof block; ++i) block[i] = 'x';
  for (long left = strtol(argv[1], NULL, 10); left > 0;) {
    const size_t wanted = left < (long)sizeof block ? (size_t)left : sizeof block;
    const ssize_t written = write(STDOUT_FILENO, block, wanted);
    if (written <= 0) return 1;
    left -= written;
  }
  return 0;
}
