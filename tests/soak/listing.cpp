#include "soak/listing.h"

#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <stdexcept>

#include "support/tree_listing.h"

namespace fs = std::filesystem;

namespace soak {
namespace {

constexpr size_t kLongestLine = 200;

struct stat examine(const fs::path& path) {
  struct stat st = {};
  if (lstat(path.c_str(), &st) != 0) throw std::runtime_error("cannot examine " + path.string());
  return st;
}

/// Without the contents: what is there at all has been changed.
std::string outline(const fs::path& path) {
  const struct stat st = examine(path);
  std::array<char, 128> numbers{};
  snprintf(numbers.data(), numbers.size(), " %07o %u:%u %ld %ld.%09ld", st.st_mode, st.st_uid,
           st.st_gid, static_cast<long>(st.st_size), static_cast<long>(st.st_ctim.tv_sec),
           st.st_ctim.tv_nsec);
  return path.string() + numbers.data();
}

void add_outlines(Listing& lines, const fs::path& directory) {
  if (!fs::is_directory(directory)) return;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory))
    lines.push_back(outline(entry.path()));
}

void add_tree(Listing& lines, const fs::path& directory) {
  for (const std::string& line : directory_listing(directory))
    lines.push_back(directory.string() + ": " + line);
}

std::string shortened(const std::string& line) {
  return line.size() <= kLongestLine ? line : line.substr(0, kLongestLine) + "...";
}

void add_missing(std::string& text, size_t& most, char sign, const Listing& from,
                 const Listing& in) {
  Listing missing;
  std::set_difference(from.begin(), from.end(), in.begin(), in.end(), std::back_inserter(missing));
  for (auto line = missing.begin(); line != missing.end() && most > 0; ++line, --most)
    text += std::string("    ") + sign + " " + shortened(*line) + "\n";
}

}  // namespace

Listing directory_listing(const fs::path& directory) {
  const struct stat st = examine(directory);
  std::array<char, 64> head{};
  snprintf(head.data(), head.size(), "%07o %u:%u .", st.st_mode, st.st_uid, st.st_gid);
  Listing lines = testsupport::tree_listing(directory);
  lines.insert(lines.begin(), head.data());
  return lines;
}

Listing outside_listing(const fs::path& work) {
  Listing lines;
  for (const char* place : {"/etc/oxa", "/usr/local/oxa"}) add_tree(lines, place);
  add_tree(lines, work);
  for (const fs::directory_entry& entry : fs::directory_iterator("/var/www/vhosts"))
    if (entry.path().filename() != ".skel") add_tree(lines, entry.path());
  for (const char* layer : {"/mnt/layer-etc", "/mnt/layer-usr-local", "/mnt/layer-srv"})
    add_outlines(lines, fs::path(layer) / "upper");
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::string differences(const Listing& expected, const Listing& actual, size_t most) {
  Listing before = expected;
  Listing after = actual;
  std::sort(before.begin(), before.end());
  std::sort(after.begin(), after.end());
  std::string text;
  add_missing(text, most, '-', before, after);
  add_missing(text, most, '+', after, before);
  return text;
}

}  // namespace soak
