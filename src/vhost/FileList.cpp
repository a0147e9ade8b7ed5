#include "vhost/FileList.h"

#include <algorithm>

#include "vhost/delete_entry.private.h"
#include "vhost/listing.private.h"
#include "vhost/path_text.private.h"

namespace frask {

int readDirContent(std::vector<std::filesystem::path>* out, const std::filesystem::path& dir,
                   unsigned int skip) {
  TreeListing listing;
  listing.add(dir.native(), "");
  // Room for just one listing takes the least memory; many into one must not copy all each time.
  const size_t wanted = out->size() + listing.size();
  if (wanted > out->capacity()) out->reserve(std::max(wanted, 2 * out->capacity()));
  listing.inReadingOrder([&](const std::string& path, bool /*isDirectory*/) {
    const std::string full = path.empty() ? dir.native() : joinedPaths(dir.native(), path);
    out->emplace_back(withoutLeadingElements(full, skip));
  });
  return 0;
}

std::vector<std::filesystem::path> readDirContent(const std::filesystem::path& dir) {
  std::vector<std::filesystem::path> entries;
  readDirContent(&entries, dir, static_cast<unsigned>(pathLength(dir)));
  return entries;
}

void cleanDirContent(std::vector<std::filesystem::path>* entries, const std::filesystem::path& base,
                     const ExtractParams& params) {
  std::sort(entries->begin(), entries->end(),
            [](const auto& a, const auto& b) { return comparePaths(a.native(), b.native()) > 0; });
  DeleteDirEntry remove(base.native(), params);
  for (const std::filesystem::path& entry : *entries) remove(entry.native());
}

}  // namespace frask
