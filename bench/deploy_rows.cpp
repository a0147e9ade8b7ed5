// Skeletons deployed into a site, called in the process, against the commands that do the same.
#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "limit/limit.h"
#include "program.h"
#include "rows.h"
#include "tree.h"
#include "vhost/entry_points.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

const std::string kStore = "/var/www/vhosts/.skel";
const std::string kSkeleton = kStore + "/7";
const std::string kHost = "/var/www/vhosts/example.com";
const std::string kDocuments = kHost + "/httpdocs";
const std::string kDomain = "example.com";
constexpr gid_t kGroup = 4242;
constexpr size_t kLargeFile = 268435456;

/// "/etc/group" in the private mounts, with the group that sites have.
void add_group() {
  const std::string file = "/mnt/group";
  if (access(file.c_str(), F_OK) == 0) return;
  fs::copy_file("/etc/group", file);
  std::ofstream(file, std::ios::app) << "oxacln:x:" << kGroup << ":\n";
  require(mount(file.c_str(), "/etc/group", nullptr, MS_BIND, nullptr) == 0, file);
}

/// A skeleton for as long as it is needed, and the site that it is deployed into.
class Skeleton {
 public:
  Skeleton() {
    add_group();
    fs::create_directories(kStore);
    clear_tree(kSkeleton);
    require(mkdir(kSkeleton.c_str(), 0755) == 0, kSkeleton);
  }
  Skeleton(const Skeleton&) = delete;
  Skeleton& operator=(const Skeleton&) = delete;
  ~Skeleton() {
    clear_tree(kSkeleton);
    clear_tree(kHost);
  }
};

using SharedSkeleton = std::shared_ptr<const Skeleton>;

/// Every page of the tree names the site.
SharedSkeleton skeleton_of_pages(long entries) {
  auto skeleton = std::make_shared<const Skeleton>();
  make_tree(kSkeleton + "/httpdocs", entries);
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(kSkeleton))
    if (entry.path().extension() == ".html")
      std::ofstream(entry.path(), std::ios::app) << "<a href=\"http://@domain_name@/\">\n";
  return skeleton;
}

/// Lines of text, of which every `distance`-th has a placeholder; none for 0.
SharedSkeleton skeleton_of_large_file(size_t distance) {
  auto skeleton = std::make_shared<const Skeleton>();
  fs::create_directory(kSkeleton + "/httpdocs");
  std::string block;
  for (size_t line = 1; block.size() < kLargeFile / 256; ++line)
    block += distance != 0 && line % distance == 0 ? "<a href=\"http://@domain_name@/\">\n"
                                                   : "the margin of the client's site\n";
  std::ofstream file(kSkeleton + "/httpdocs/large");
  for (size_t size = 0; size < kLargeFile; size += block.size()) file << block;
  return skeleton;
}

void empty_host() {
  clear_tree(kHost);
  require(mkdir(kHost.c_str(), 0755) == 0, kHost);
}

Contender ours(const SharedSkeleton& skeleton) {
  return {empty_host, [skeleton] {
            const DocrootCleanOptions options = {kDocuments.c_str(), 0, 0, 0, ""};
            require(setup_skeleton(kHost.c_str(), 0, "7", &options) == 0, kHost);
          }};
}

Contender limit(const SharedSkeleton& skeleton) {
  return {empty_host, [skeleton] {
            require(limit_deploy(kSkeleton.c_str(), kHost.c_str(), kDomain.c_str(), kGroup) == 0,
                    kHost);
          }};
}

Contender by_command(const SharedSkeleton& skeleton, const std::vector<std::string>& words) {
  return {empty_host, [skeleton, words] { run_or_die(words); }};
}

std::vector<std::string> documents_left_by(const Contender& contender) {
  contender.prepare();
  contender.run();
  return describe_tree(kDocuments);
}

Contenders set_up_deployment(long entries) {
  const SharedSkeleton skeleton = skeleton_of_pages(entries);
  Contenders contenders;
  contenders.ours = ours(skeleton);
  contenders.instead =
      by_command(skeleton, {BENCH_SOURCES "/instead/deploy_skel.sh", kSkeleton, kHost, kDomain});
  contenders.limit = limit(skeleton);
  const std::vector<std::string> left = documents_left_by(contenders.ours);
  errno = 0;
  require(left == documents_left_by(*contenders.instead) &&
              left == documents_left_by(*contenders.limit),
          "the contenders leave different sites");
  return contenders;
}

/// What a run leaves as the large file, kept for a comparison.
std::string large_file_left_by(const Contender& contender, const std::string& name) {
  contender.prepare();
  contender.run();
  fs::copy_file(kDocuments + "/large", "/mnt/" + name);
  return "/mnt/" + name;
}

Contenders set_up_replacement(size_t distance, const std::string& command, bool with_limit) {
  const SharedSkeleton skeleton = skeleton_of_large_file(distance);
  const std::string redirected =
      command + " <" + kSkeleton + "/httpdocs/large >" + kDocuments + "/large";
  Contenders contenders;
  contenders.ours = ours(skeleton);
  contenders.instead = by_command(skeleton, {"sh", "-c", redirected});
  contenders.instead->prepare = [] {
    empty_host();
    require(mkdir(kDocuments.c_str(), 0755) == 0, kDocuments);
  };
  if (with_limit) contenders.limit = limit(skeleton);
  const std::string left = large_file_left_by(contenders.ours, "ours");
  const std::string other = large_file_left_by(*contenders.instead, "other");
  run_or_die({"cmp", left, other});
  require(unlink(left.c_str()) == 0 && unlink(other.c_str()) == 0, left);
  return contenders;
}

struct Density {
  const char* name;
  const char* work;
  size_t distance;
};

constexpr Density kDensities[] = {{"none", "no placeholder", 0},
                                  {"few", "few placeholders", 30000},
                                  {"dense", "dense placeholders", 2}};

}  // namespace

void add_deploy_rows(std::vector<Row>& rows, const std::vector<long>& sizes) {
  for (const long entries : sizes)
    rows.push_back({"deploy", "setup_skeleton", entries,
                    Aim{"cp -r -n, grep -rlZ into sed -i, chgrp -R", entries > 100 ? 0.7 : 0.15},
                    Aim{"a C program that lists, sorts, looks at both sides and copies", 1.15},
                    [entries] { return set_up_deployment(entries); }});
  for (const Density& density : kDensities) {
    const std::string work = std::string("256 MiB, ") + density.work;
    rows.push_back({std::string("replace-sed-") + density.name, work + ", sed", 0, Aim{"sed", 0.4},
                    Aim{"read whole, memmem(), write once", 1.3}, [density] {
                      return set_up_replacement(density.distance,
                                                "sed s/@domain_name@/" + kDomain + "/g", true);
                    }});
    rows.push_back({std::string("replace-perl-") + density.name, work + ", perl", 0,
                    Aim{"perl -0777 -pe", 0.8}, std::nullopt, [density] {
                      return set_up_replacement(
                          density.distance,
                          "perl -0777 -pe 's/\\@domain_name\\@/" + kDomain + "/g'", false);
                    }});
  }
}

}  // namespace bench
