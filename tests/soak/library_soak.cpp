#include "soak/library_soak.h"

#include <fcntl.h>
#include <mysql.h>
#include <stdlib.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include "conf/database.h"
#include "conf/inifile.h"
#include "exec/forkexec.h"
#include "fs/tree.h"
#include "fs/unique_fd.h"
#include "soak/figures.h"
#include "soak/listing.h"
#include "support/scratch.h"
#include "tool/archive.h"
#include "tool/skeleton_store.h"
#include "vhost/entry_points.h"

namespace fs = std::filesystem;

namespace soak {
namespace {

using Text = std::unique_ptr<char, decltype(&free)>;
using Connection = std::unique_ptr<MYSQL, decltype(&mysql_close)>;

constexpr const char* kSite = "/var/www/vhosts/soak.example";
constexpr const char* kDocuments = "/var/www/vhosts/soak.example/httpdocs";
constexpr const char* kCgi = "/var/www/vhosts/soak.example/cgi-bin";
constexpr const char* kStore = "/var/www/vhosts/.skel/library";
constexpr const char* kSkeleton = "/usr/local/oxa/var/default_skeleton.tgz";

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(what);
}

/// What one round saw, of each step.
struct Round {
  Listing store;
  Listing deployed;
  Listing without_application;
  Listing cleaned;
  bool operator==(const Round& other) const {
    return store == other.store && deployed == other.deployed &&
           without_application == other.without_application && cleaned == other.cleaned;
  }
};

class Rounds {
 public:
  explicit Rounds(const fs::path& work)
      : work_(work), connection_(db_connect(), mysql_close), options_{kDocuments, 0, 0, 0, kCgi} {
    require(connection_ != nullptr, "no connection to the database");
    testsupport::write_file(work_ / "list.xml",
                            "<INSTANCE-DATA><SECTION PREFIX=\"htdocs\"><FILE>index.php</FILE>"
                            "<FILE>lib</FILE><FILE>lib/a.php</FILE></SECTION></INSTANCE-DATA>\n");
    testsupport::write_file(work_ / "soak.ini", "[section]\nkey = some value\n");
  }

  Round one() {
    Round seen;
    read_parameters();
    run_programs();
    install();
    seen.store = directory_listing(kStore);
    require(setup_skeleton(kSite, 0, "library", &options_) == 0, "setup_skeleton");
    seen.deployed = directory_listing(kSite);
    add_and_delete_application();
    seen.without_application = directory_listing(kSite);
    require(clean_docroot(kSite, &options_) == 0, "clean_docroot");
    seen.cleaned = directory_listing(kSite);
    rm_tree(kSite, 1);
    require(removeSkeleton("library") == 0 && !fs::exists(kStore), "removeSkeleton");
    return seen;
  }

 private:
  void read_parameters() {
    for (MYSQL* connection : {connection_.get(), static_cast<MYSQL*>(nullptr)}) {
      const char* value = get_param("size_count_type", connection);
      require(value != nullptr && std::string(value) == "byte", "get_param");
    }
    const Text value(get_ini_conf_var((work_ / "soak.ini").c_str(), "section", "key"), free);
    require(value != nullptr && std::string(value.get()) == "some value", "get_ini_conf_var");
  }

  static void run_programs() {
    char* out = nullptr;
    char* err = nullptr;
    char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                          const_cast<char*>("echo to out; echo to err >&2; exit 3"), nullptr};
    const int both = fork_execv_getouterr(&out, &err, "/bin/sh", argv);
    const Text both_out(out, free);
    const Text both_err(err, free);
    require(both == 3 && std::string(out) == "to out\n" && std::string(err) == "to err\n",
            "fork_execv_getouterr");
    char* const echo[] = {const_cast<char*>("echo"), const_cast<char*>("one"), nullptr};
    const int one = fork_execv_getout(&out, "/bin/echo", echo);
    const Text one_out(out, free);
    require(one == 0 && std::string(out) == "one\n", "fork_execv_getout");
  }

  static void install() {
    std::string name = kSkeleton;
    ArchiveDescriptor archive = {};
    require(getArchiveDc(name.data(), &archive, ARCHIVE_DETECT) == 0, "getArchiveDc");
    require(installSkeleton(&archive, "library") == 0, "installSkeleton");
    require(chdir("/") == 0, "chdir");
  }

  void add_and_delete_application() {
    for (const char* name : {"index.php", "lib/a.php"})
      testsupport::write_file(fs::path(kDocuments) / "app" / name, "<?php\n");
    const frask::UniqueFd list(open((work_ / "list.xml").c_str(), O_RDONLY | O_CLOEXEC));
    require(dup2(list.get(), STDIN_FILENO) == STDIN_FILENO, "dup2");
    wido_delete_instance(kSite, &options_, "app");
    require(!fs::exists(fs::path(kDocuments) / "app"), "wido_delete_instance");
  }

  fs::path work_;
  Connection connection_;
  DocrootCleanOptions options_;
};

}  // namespace

bool soak_library(size_t rounds, const fs::path& work) {
  Figure descriptors("descriptors", 0);
  Figure heap("allocated memory, bytes", 0);
  Figure memory("resident memory, KiB", 128);
  Rounds library(work);
  const Round first = library.one();
  bool same = true;
  for (size_t round = 0; round < rounds && same; ++round) {
    same = library.one() == first;
    const double progress = static_cast<double>(round) / static_cast<double>(rounds);
    descriptors.note(progress, count_descriptors(getpid()));
    heap.note(progress, allocated_memory());
    memory.note(progress, resident_memory(getpid()));
  }
  std::cout << "  " << rounds << " rounds of the library in one process, each "
            << (same ? "like the first" : "NOT LIKE THE FIRST") << " of " << first.deployed.size()
            << " entries\n"
            << descriptors.summary() << "\n"
            << heap.summary() << "\n"
            << memory.summary() << "\n";
  return same && descriptors.is_flat() && heap.is_flat() && memory.is_flat();
}

}  // namespace soak
