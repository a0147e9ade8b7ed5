/* Deploys a skeleton: deploy_calls HOST SKELETON DOCROOT CGI. */
#include <stdio.h>

#include "support/counted_part.h"
#include "vhost/entry_points.h"

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: deploy_calls HOST SKELETON DOCROOT CGI\n");
    return 2;
  }
  const DocrootCleanOptions options = {.docrootDir = argv[3], .cgiBinDir = argv[4]};
  counted_part_mark();
  const int result = setup_skeleton(argv[1], 0, argv[2], &options);
  counted_part_mark();
  return result;
}
