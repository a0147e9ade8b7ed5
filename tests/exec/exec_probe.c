/* The program that the routines under test start.
 *   exec_probe fds FILE            lists its descriptors
 *   exec_probe args FILE ...       lists its arguments, one a line
 *   exec_probe write OUT ERR       writes that many bytes of a pattern to each stream, by turns
 *   exec_probe complain N          writes N times 'x' to standard error, at once
 *   exec_probe chatter N             writes N times 'x' to standard output, 20 a second
 *   exec_probe exit N              exits with N
 * FILE may be "-" for standard output. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "exec/descriptor_listing.h"

enum { STEP = 8192, PERIOD = 251 };

static int list(const char* path) {
  static char text[65536];
  list_descriptors(text, sizeof text); /* before the file is opened */
  FILE* file = strcmp(path, "-") == 0 ? stdout : fopen(path, "w");
  if (file == NULL) return 96;
  fputs(text, file);
  return fclose(file) == 0 ? 0 : 96;
}

static int show_arguments(const char* path, int count, char** arguments) {
  FILE* file = strcmp(path, "-") == 0 ? stdout : fopen(path, "w");
  if (file == NULL) return 96;
  for (int i = 0; i < count; ++i) fprintf(file, "%s\n", arguments[i]);
  return fclose(file) == 0 ? 0 : 96;
}

/* Byte i of either stream is i modulo PERIOD, so that lost and repeated bytes show. */
static size_t write_some(int fd, size_t done, size_t total) {
  unsigned char piece[STEP];
  const size_t length = total - done < STEP ? total - done : STEP;
  for (size_t i = 0; i < length; ++i) piece[i] = (unsigned char)((done + i) % PERIOD);
  const ssize_t written = write(fd, piece, length);
  if (written < 0) exit(96);
  return done + (size_t)written;
}

static int write_pattern(size_t out_total, size_t err_total) {
  size_t out = 0;
  size_t err = 0;
  while (out < out_total || err < err_total) {
    if (out < out_total) out = write_some(STDOUT_FILENO, out, out_total);
    if (err < err_total) err = write_some(STDERR_FILENO, err, err_total);
  }
  return 0;
}

static int complain(size_t length) {
  static char text[65536];
  if (length > sizeof text) return 95;
  memset(text, 'x', length);
  return write(STDERR_FILENO, text, length) == (ssize_t)length ? 0 : 96;
}

static int chatter(int count) {
  for (int i = 0; i < count; ++i) {
    if (write(STDOUT_FILENO, "x", 1) != 1) return 96;
    usleep(50000);
  }
  return 0;
}

int main(int argc, char** argv) {
  if (argc >= 3 && strcmp(argv[1], "fds") == 0) return list(argv[2]);
  if (argc >= 3 && strcmp(argv[1], "args") == 0) return show_arguments(argv[2], argc, argv);
  if (argc == 4 && strcmp(argv[1], "write") == 0)
    return write_pattern(strtoul(argv[2], NULL, 10), strtoul(argv[3], NULL, 10));
  if (argc == 3 && strcmp(argv[1], "complain") == 0) return complain(strtoul(argv[2], NULL, 10));
  if (argc == 3 && strcmp(argv[1], "chatter") == 0) return chatter((int)strtol(argv[2], NULL, 10));
  if (argc == 3 && strcmp(argv[1], "exit") == 0) return (int)strtol(argv[2], NULL, 10);
  return 95;
}
