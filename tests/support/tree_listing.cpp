#include "support/tree_listing.h"

#include <stdint.h>
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

std::vector<fs::path> entries_below(const fs::path& top) {
  std::vector<fs::path> entries;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top))
    entries.push_back(entry.path());
  std::sort(entries.begin(), entries.end());
  return entries;
}

std::string identity(const fs::path& entry) {
  struct stat st = {};
  if (lstat(entry.c_str(), &st) != 0) throw std::runtime_error("cannot examine " + entry.string());
  char text[160];
  snprintf(text, sizeof text, "%ju:%ju links %ju size %jd modified %jd.%09ld changed %jd.%09ld ",
           uintmax_t{st.st_dev}, uintmax_t{st.st_ino}, uintmax_t{st.st_nlink}, intmax_t{st.st_size},
           intmax_t{st.st_mtim.tv_sec}, st.st_mtim.tv_nsec, intmax_t{st.st_ctim.tv_sec},
           st.st_ctim.tv_nsec);
  return text;
}

}  // namespace

std::vector<std::string> tree_listing(const fs::path& top) {
  std::vector<std::string> lines;
  for (const fs::path& entry : entries_below(top)) lines.push_back(describe(top, entry));
  return lines;
}

std::vector<std::string> exact_listing(const fs::path& top) {
  std::vector<std::string> lines{identity(top) + describe(top, top)};
  for (const fs::path& entry : entries_below(top))
    lines.push_back(identity(entry) + describe(top, entry));
  return lines;
}

}  // namespace testsupport
