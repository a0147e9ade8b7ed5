#include <algorithm>
#include <filesystem>

#include "vhost/delete_entry.private.h"
#include "vhost/instance.private.h"
#include "vhost/path_text.private.h"

namespace frask {
namespace {

/// Descending, so that what a directory holds goes before it.
void sortForRemoval(std::vector<InstanceEntry>& entries) {
  std::sort(entries.begin(), entries.end(), [](const InstanceEntry& a, const InstanceEntry& b) {
    if (a.first != b.first) return a.first > b.first;
    return comparePaths(a.second, b.second) > 0;
  });
}

/// Deliberate: appended as paths are, so that an absolute prefix or entry stands for itself, and
/// the application's own directory has a separator at its end. Pinned by
/// WidoDeleteInstance.TakesAnAbsolutePrefixFromTheRoot and .ReportsTheDirectoryOfTheApplication.
void deleteInstanceEntry(const InstanceEntry& entry, const std::string& prefix,
                         DeleteDirEntry& remove) {
  std::filesystem::path path = entry.first == CgiBin ? "cgi-bin" : "httpdocs";
  if (prefix != ".") path /= prefix;
  path /= entry.second;
  remove(path.native());
}

}  // namespace

void deleteInstance(const std::string& vhostDir, const ExtractParams& params,
                    const std::string& prefix, const std::string& description) {
  std::vector<InstanceEntry> entries = readInstance(description);
  if (prefix != "." && prefix != "/") entries.emplace_back(Htdocs, "");
  sortForRemoval(entries);
  DeleteDirEntry remove(vhostDir, params);
  for (const InstanceEntry& entry : entries) deleteInstanceEntry(entry, prefix, remove);
}

}  // namespace frask
