// A panel tool in C++: deploys a skeleton into a site, lists what the site then holds, and empties
// it.
//
//     c++ -std=c++17 -o site_report site_report.cpp $(pkg-config --cflags --libs frask)
//
//     site_report VHOST SKELETON
//
// Unlike a C program it can catch what the library throws.
#include <vhost/FileList.h>
#include <vhost/layout.h>
#include <vhost/misc.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <iostream>
#include <vector>

namespace {

frask::ExtractParams paramsOf(const frask::VhostPath& host) {
  frask::ExtractParams params;
  params.docrootDir = (host.fullPath / "httpdocs").string();
  params.cgiBinDir = (host.fullPath / "cgi-bin").string();
  return params;
}

void list(const frask::VhostPath& host) {
  std::vector<std::filesystem::path> entries = frask::readDirContent(host.fullPath);
  std::sort(entries.begin(), entries.end());
  for (const std::filesystem::path& entry : entries) {
    if (entry.empty()) continue;  // the host's directory itself
    const std::filesystem::path full = host.fullPath / entry;
    std::cout << entry.string();
    if (std::filesystem::is_regular_file(std::filesystem::symlink_status(full)))
      std::cout << ": " << frask::typeFromPath(full.string());
    else
      std::cout << '\n';
  }
}

void empty(const frask::VhostPath& host, const frask::ExtractParams& params) {
  for (const std::filesystem::path& section : frask::vhostUsedDirs(frask::SETUP_SKELETON_CONTENT)) {
    std::vector<std::filesystem::path> entries;
    frask::readDirContent(&entries, host.fullPath / section,
                          static_cast<unsigned>(frask::pathLength(host.fullPath)));
    frask::cleanDirContent(&entries, host.fullPath, params);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: site_report VHOST SKELETON\n";
    return 2;
  }
  try {
    const frask::VhostPath host = frask::vhostPathFromDir(argv[1]);
    const frask::ExtractParams params = paramsOf(host);
    frask::setup_skeleton(host, frask::SETUP_SKELETON_ALL, argv[2], params);
    std::cout << host.domainName << (host.isSubdomain ? " (sub-domain)" : " (site)") << '\n';
    list(host);
    empty(host, params);
    std::cout << "emptied\n";
    list(host);
  } catch (const std::exception& failure) {
    std::cerr << "site_report: " << failure.what() << '\n';
    return 1;
  }
  return 0;
}
