#include "tree.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>

#include "fs/unique_fd.h"
#include "limit/limit.h"
#include "program.h"

namespace bench {
namespace {

constexpr size_t kLargestFile = 8192;

/// The same numbers, for the same trees, in every run.
std::minstd_rand random_numbers() {
  return std::minstd_rand(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): predictable on purpose
}

std::string some_text(size_t size) {
  constexpr std::array<const char*, 12> kWords{"<p>",  "site",   "of ",     "the ", "client",  "\n",
                                               " and", "</div>", "margin:", "0;",   "<a href", "="};
  std::minstd_rand random = random_numbers();
  std::string text;
  while (text.size() < size) text += kWords[random() % kWords.size()];
  return text;
}

void make_directory(const std::string& path) {
  require(mkdir(path.c_str(), 0755) == 0, path);
}

void make_file(int dir_fd, const std::string& name, const char* text, size_t size) {
  const frask::UniqueFd file(openat(dir_fd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644));
  require(file && write(file.get(), text, size) == static_cast<ssize_t>(size), name);
}

void make_file(const std::string& path, const std::string& text) {
  make_file(AT_FDCWD, path, text.data(), text.size());
}

class TreeMaker {
 public:
  explicit TreeMaker(std::vector<std::string> directories, bool with_content = true)
      : directories_(std::move(directories)), with_content_(with_content) {}

  void make(long entries) {
    for (size_t next = 0; entries > 0; ++next) {
      if (next == directories_.size()) {
        add_directory();
        --entries;
      }
      const long files = std::min(entries, between(20, 50));
      fill(directories_[next], files);
      entries -= files;
    }
  }

 private:
  long between(long least, long most) {
    return std::uniform_int_distribution<long>(least, most)(random_);
  }

  void add_directory() {
    const auto parent = static_cast<size_t>(between(0, static_cast<long>(directories_.size()) - 1));
    const std::string path =
        directories_[parent] + "/section-" + std::to_string(directories_.size());
    make_directory(path);
    directories_.push_back(path);
  }

  void fill(const std::string& directory, long files) {
    constexpr std::array<const char*, 5> kExtensions{".html", ".css", ".js", ".php", ".png"};
    const frask::UniqueFd here(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (long i = 0; i < files; ++i) {
      const auto size = static_cast<size_t>(between(1024, kLargestFile));
      const auto from = static_cast<size_t>(between(0, static_cast<long>(text_.size() - size)));
      const char* extension = kExtensions[static_cast<size_t>(i) % kExtensions.size()];
      make_file(here.get(), "page-" + std::to_string(i) + extension, text_.data() + from,
                with_content_ ? size : 0);
    }
  }

  std::vector<std::string> directories_;
  const bool with_content_;
  std::minstd_rand random_ = random_numbers();
  const std::string text_ = some_text(8 * kLargestFile);
};

std::string describe_content(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string content((std::istreambuf_iterator<char>(stream)), {});
  return std::to_string(content.size()) + " " + std::to_string(std::hash<std::string>()(content));
}

std::string describe_entry(const std::filesystem::path& path) {
  struct stat st = {};
  require(lstat(path.c_str(), &st) == 0, path);
  if (S_ISLNK(st.st_mode)) return " link " + std::filesystem::read_symlink(path).string();
  std::array<char, 64> owner_and_mode{};
  snprintf(owner_and_mode.data(), owner_and_mode.size(), " %07o %u:%u ", st.st_mode, st.st_uid,
           st.st_gid);
  return owner_and_mode.data() + (S_ISREG(st.st_mode) ? describe_content(path) : std::string());
}

}  // namespace

void make_tree(const std::string& top, long entries) {
  make_directory(top);
  TreeMaker({top}).make(entries);
}

void make_empty_tree(const std::string& top, long entries) {
  make_directory(top);
  TreeMaker({top}, false).make(entries);
}

void make_skeleton(const std::string& top, long entries) {
  make_directory(top);
  std::vector<std::string> sections;
  for (const char* name : {"httpdocs", "cgi-bin", "error_docs", "anon_ftp", "statistics"}) {
    sections.push_back(top + "/" + name);
    make_directory(sections.back());
  }
  const std::string documents = sections[0];
  TreeMaker(std::move(sections)).make(entries);

  make_directory(documents + "/.well-known");
  make_file(documents + "/.well-known/security.txt", "Contact: mailto:root@localhost\n");
  make_file(documents + "/.quota", "100\n");
  require(symlink("page-0.html", (documents + "/index.html").c_str()) == 0, documents);
  make_file(top + "/README.txt", "Not a section.\n");
  make_directory(top + "/conf");
  make_file(top + "/conf/httpd.include", "# not for clients\n");
  require(limit_set_perms(top.c_str(), 1000, 1000, 0664, 0775) == 0, top);
}

void clear_tree(const std::string& top) {
  if (access(top.c_str(), F_OK) == 0) require(limit_remove_tree(top.c_str()) == 0, top);
  errno = 0;
}

std::vector<std::string> describe_tree(const std::string& top) {
  namespace fs = std::filesystem;
  std::vector<std::string> lines{"." + describe_entry(top)};
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top))
    lines.push_back(entry.path().lexically_relative(top).string() + describe_entry(entry.path()));
  std::sort(lines.begin(), lines.end());
  return lines;
}

}  // namespace bench
