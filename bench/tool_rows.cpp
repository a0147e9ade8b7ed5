// The tool, run as the panel runs it.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "limit/limit.h"
#include "program.h"
#include "rows.h"
#include "tree.h"

namespace bench {
namespace {

const std::string kStore = "/var/www/vhosts/.skel/7";
constexpr int kHelpRuns = 50;

struct Format {
  const char* name;
  const char* pack;  ///< shell command in the skeleton; the archive's path follows
  std::vector<std::string> extract;
  const char* target_option;
};

const std::vector<Format>& formats() {
  static const std::vector<Format> kFormats{
      {"tgz", "tar -cz . -f", {"tar", "-xzf"}, "-C"},
      {"tar", "tar -c . -f", {"tar", "-xf"}, "-C"},
      {"zip", "zip -qr", {"unzip", "-o", "-qq"}, "-d"},
  };
  return kFormats;
}

/// An archive for as long as it is needed.
class Archive {
 public:
  Archive(const Format& format, long entries) : path_(std::string("/mnt/skeleton.") + format.name) {
    const std::string top = "/mnt/skeleton";
    const std::string what = format.name == std::string("zip") ? " ." : "";
    make_skeleton(top, entries);
    run_or_die({"sh", "-c", "cd " + top + " && " + format.pack + " " + path_ + what});
    clear_tree(top);
  }
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;
  ~Archive() {
    unlink(path_.c_str());
    clear_tree(kStore);
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::vector<std::string> with_words(std::vector<std::string> words,
                                    const std::vector<std::string>& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

void clear_store() {
  std::filesystem::create_directories("/var/www/vhosts/.skel");
  clear_tree(kStore);
}

Contender installer(const std::shared_ptr<Archive>& archive, std::vector<std::string> words) {
  return {clear_store, [archive, words = std::move(words)] { run_or_die(words); }};
}

Contender extraction_and_walk(const std::shared_ptr<Archive>& archive,
                              std::vector<std::string> words) {
  return {clear_store, [archive, words = std::move(words)] {
            require(mkdir(kStore.c_str(), 0755) == 0, kStore);
            run_or_die(words);
            require(limit_walk(kStore.c_str()) == 0, kStore);
          }};
}

std::vector<std::string> store_left_by(const Contender& contender) {
  contender.prepare();
  contender.run();
  return describe_tree(kStore);
}

Contenders set_up_install(const Format& format, long entries) {
  const auto archive = std::make_shared<Archive>(format, entries);
  const std::string& path = archive->path();
  Contenders contenders;
  contenders.ours =
      installer(archive, {BENCH_TEMBRIX, "--install-skel", "--filename", path, "--id", "7"});
  contenders.instead = installer(archive, {BENCH_SOURCES "/instead/install_skel.sh", path, kStore});
  contenders.limit = extraction_and_walk(
      archive, with_words(format.extract, {path, format.target_option, kStore}));
  errno = 0;
  require(store_left_by(contenders.ours) == store_left_by(*contenders.instead),
          "the tool and the script leave different stores");
  return contenders;
}

Contender repeated(const std::string& program, const std::string& option) {
  return {nullptr, [program, option] {
            for (int i = 0; i < kHelpRuns; ++i) run_or_die({program, option});
          }};
}

Contenders set_up_help() {
  Contenders contenders;
  contenders.ours = repeated(BENCH_TEMBRIX, "--help");
  contenders.limit = repeated(BENCH_EMPTY, "--help");
  contenders.repeats = kHelpRuns;
  return contenders;
}

}  // namespace

void add_tool_rows(std::vector<Row>& rows, const std::vector<long>& sizes) {
  rows.push_back({"help", "tembrix --help", 0, std::nullopt,
                  Aim{"an empty C++ program linked to the same libraries", 1.1}, set_up_help});
  for (const Format& format : formats())
    for (const long entries : sizes)
      rows.push_back({std::string("install-") + format.name,
                      std::string("--install-skel, ") + format.name, entries,
                      Aim{"a shell script of the extraction, find, chown -R and chmod", 0.9},
                      Aim{"extraction and one fstatat() an entry", 1.15},
                      [&format, entries] { return set_up_install(format, entries); }});
}

}  // namespace bench
