#include "vhost/entry_points.h"

#include "vhost/entry_points.private.h"

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
