#include "support/tree_listing.h"

#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <stdexcept>

#include "support/scratch.h"

namespace fs = std::filesystem;

namespace testsupport {
namespace {

char type_letter(mode_t mode) {
  if (S_ISDIR(mode)) return 'd';
  if (S_ISREG(mode)) return 'f';
  if (S_ISLNK(mode)) return 'l';
  if (S_ISFIFO(mode)) return 'p';
  if (S_ISSOCK(mode)) return 's';
  return S_ISBLK(mode) ? 'b' : 'c';
}

std::string describe(const fs::path& top, const fs::path& entry) {
  struct stat st = {};
  if (lstat(entry.c_str(), &st) != 0) throw std::runtime_error("cannot examine " + entry.string());
  char head[64];
  if (S_ISLNK(st.st_mode))
    snprintf(head, sizeof head, "l - %u:%u ", st.st_uid, st.st_gid);
  else
    snprintf(head, sizeof head, "%c %04o %u:%u ", type_letter(st.st_mode), st.st_mode & 07777U,
             st.st_uid, st.st_gid);
  std::string line = head + entry.lexically_relative(top).string();
  if (S_ISREG(st.st_mode)) line += " " + read_file(entry);
  if (S_ISLNK(st.st_mode)) line += " " + fs::read_symlink(entry).string();
  return line;
}

}  // namespace

std::vector<std::string> tree_listing(const fs::path& top) {
  std::vector<fs::path> entries;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top))
    entries.push_back(entry.path());
  std::sort(entries.begin(), entries.end());
  std::vector<std::string> lines;
  lines.reserve(entries.size());
  for (const fs::path& entry : entries) lines.push_back(describe(top, entry));
  return lines;
}

}  // namespace testsupport
