#include "vhost/entry_points.h"

#include <iostream>

#include "vhost/clean.private.h"
#include "vhost/entry_points.private.h"
#include "vhost/instance.private.h"
#include "vhost/misc.h"

namespace frask {
namespace {

std::string textOf(const char* text) {
  return text != nullptr ? text : "";
}

}  // namespace

ExtractParams toExtractParams(const DocrootCleanOptions& options) {
  ExtractParams params;
  params.docrootDir = textOf(options.docrootDir);
  params.skipHttpdocs = options.skipHttpdocs != 0;
  params.keepErrorDocs = options.keepErrorDocs != 0;
  params.keepCgiBin = options.keepCgiBin != 0;
  params.cgiBinDir = textOf(options.cgiBinDir);
  return params;
}

}  // namespace frask

int clean_docroot(const char* vhostDir, const DocrootCleanOptions* options) {
  frask::cleanDocroot(vhostDir, frask::toExtractParams(*options));
  return 0;  // failures are reported, and are no result
}

void wido_delete_instance(const char* vhostDir, const DocrootCleanOptions* options,
                          const char* prefix) {
  const std::string place = prefix;
  frask::deleteInstance(vhostDir, frask::toExtractParams(*options), place,
                        frask::readFile(std::cin));
}
