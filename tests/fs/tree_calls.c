/* Runs one routine on one path: tree_calls chown|chmod|perms|remove PATH. */
#include <stdio.h>
#include <string.h>

#include "fs/tree.h"
#include "support/counted_part.h"

static int run(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "chown") == 0) {
    chown_tree(argv[2], 7, 8, 1);
    return 0;
  }
  if (argc == 3 && strcmp(argv[1], "chmod") == 0) {
    chmod_tree(argv[2], 0640, 0750, 1);
    return 0;
  }
  if (argc == 3 && strcmp(argv[1], "perms") == 0)
    return tree_set_perms(argv[2], 7, 8, 0640, 0750, 1);
  if (argc == 3 && strcmp(argv[1], "remove") == 0) return rm_tree_aux(argv[2], 1, 0);
  fprintf(stderr, "usage: tree_calls chown|chmod|perms|remove PATH\n");
  return 2;
}

int main(int argc, char** argv) {
  counted_part_mark();
  const int result = run(argc, argv);
  counted_part_mark();
  return result;
}
