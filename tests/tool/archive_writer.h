// Writes tar and zip archives byte by byte: the tools refuse to make what a stranger would send.
#ifndef TESTS_TOOL_ARCHIVE_WRITER_H
#define TESTS_TOOL_ARCHIVE_WRITER_H

#include <string>
#include <vector>

/// One member. `type` is the type flag of a tar header (POSIX ustar, and GNU's own): '0' a file,
/// '1' a hard link, '2' a symbolic link, '3' and '4' devices, '5' a directory, '6' a pipe, 'x' and
/// 'g' extended headers. A zip archive has no hard links and extended headers: the first become
/// files, the second are left out.
struct Member {
  std::string name;
  char type = '0';
  std::string content = {};
  std::string link = {};  ///< what a link leads to
  unsigned mode = 0644;
  unsigned owner = 0;  ///< and group
  unsigned major = 0;
  unsigned minor = 0;
  std::string local_name = {};  ///< zip: the name before the content, where it is to differ
};
using Members = std::vector<Member>;

Member file(const std::string& name, const std::string& content = "evil", unsigned mode = 0644);
Member directory(const std::string& name, unsigned mode = 0755);
Member link_to(const std::string& target, const std::string& name);
Member hard_link_to(const std::string& target, const std::string& name);
Member special(char type, const std::string& name, unsigned major = 0, unsigned minor = 0);
/// Records of an extended header (POSIX pax), which change the member that follows, or all.
Member extended(const std::vector<std::string>& records, char type = 'x');

std::string tar_archive(const Members& members);
std::string zip_archive(const Members& members);

#endif
