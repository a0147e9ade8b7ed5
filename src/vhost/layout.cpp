#include "vhost/layout.h"

#include <algorithm>
#include <boost/format.hpp>
#include <iterator>
#include <stdexcept>

#include "conf/oxaconf.h"
#include "vhost/skeldir.h"

namespace fs = std::filesystem;

namespace frask {
namespace {

constexpr std::size_t kElementsOfSite = 1;
constexpr std::size_t kElementsOfSubdomain = 3;

std::vector<fs::path> sectionsWithout(const std::string& skipped) {
  std::vector<fs::path> sections;
  for (const char* const* name = skeldir; *name != nullptr; ++name)
    if (*name != skipped) sections.emplace_back(*name);
  return sections;
}

[[noreturn]] void throwOutsideOfRoot(const fs::path& dir, const fs::path& root) {
  boost::format text("Virtual host %1% is not a subdirectory of %2%");
  throw std::runtime_error((text % dir.string() % root.string()).str());
}

[[noreturn]] void throwNoHost(const fs::path& dir) {
  boost::format text("Directory %1% does not represent a virtual host");
  throw std::runtime_error((text % dir.string()).str());
}

/// The elements of `dir` behind those of `root`.
std::vector<fs::path> elementsBelow(const fs::path& root, const fs::path& dir) {
  const auto [rootEnd, below] = std::mismatch(root.begin(), root.end(), dir.begin(), dir.end());
  if (rootEnd != root.end()) throwOutsideOfRoot(dir, root);
  return {below, dir.end()};
}

/// A host's name cannot be one that stands for another directory: "..", as an element of a
/// sub-domain's path, would even lead out of the root.
bool isName(const fs::path& element) {
  return !element.empty() && element != "." && element != "..";
}

bool isSite(const std::vector<fs::path>& elements) {
  return elements.size() == kElementsOfSite;
}

bool isSubdomain(const std::vector<fs::path>& elements) {
  return elements.size() == kElementsOfSubdomain && elements[1] == "subdomains";
}

}  // namespace

const std::vector<fs::path>& vhostAllDirs() {
  static const auto* const dirs =
      new std::vector<fs::path>{"cgi-bin", "private", "httpsdocs", "httpdocs"};
  return *dirs;
}

std::vector<fs::path> vhostUsedDirs(SetupSkeletonMode mode) {
  switch (mode) {
    case SETUP_SKELETON_ALL:
      return sectionsWithout("");
    case SETUP_SKELETON_CONTENT:
      return {"httpdocs", "cgi-bin", "private"};
    case SETUP_SKELETON_NO_DOCROOT:
      return sectionsWithout("httpdocs");
  }
  return {};
}

int pathLength(const fs::path& p) {
  const auto elements = std::distance(p.begin(), p.end());
  return static_cast<int>(p.filename() == "." ? elements - 1 : elements);
}

VhostPath vhostPathFromDir(const fs::path& dir) {
  VhostPath host;
  // Not oxaConfGetDefaultByIndex(), which prefers what the configuration file says.
  host.vhostsDir = theOxaConfDefauls[OXA_CONF_HTTPD_VHOSTS_D];
  const std::vector<fs::path> elements = elementsBelow(host.vhostsDir, dir);
  host.isSubdomain = isSubdomain(elements);
  if (!isSite(elements) && !host.isSubdomain) throwNoHost(dir);
  if (!std::all_of(elements.begin(), elements.end(), isName)) throwNoHost(dir);
  for (const fs::path& element : elements) host.relativePath /= element;
  host.fullPath = dir;
  host.domainName = elements.front().string();
  return host;
}

}  // namespace frask
