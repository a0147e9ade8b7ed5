#include "soak/archives.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "support/child.h"
#include "support/scratch.h"

namespace fs = std::filesystem;

namespace soak {
namespace {

constexpr uid_t kForeigner = 1234;

struct Commands {
  const char* type;
  const char* test;
  const char* unpack;  ///< the archive stands between this and `into`
  const char* into;
};

constexpr std::array<Commands, 3> kCommands{{{"zip", "unzip -t ", "unzip -o -qq ", " -d "},
                                             {"tgz", "tar -ztf ", "tar -xzf ", " -C "},
                                             {"tar", "tar -tf ", "tar -xf ", " -C "}}};

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(what);
}

testsupport::Outcome shell(const std::string& command) {
  return testsupport::run({"/bin/sh", "-c", command});
}

bool succeeds(const std::string& command) {
  return shell(command).exit_code() == 0;
}

/// Bytes that hardly compress, the same in every run.
std::string some_bytes(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    seed = seed * 1664525U + 1013904223U;
    byte = static_cast<char>(seed >> 24U);
  }
  return bytes;
}

void make_small(const fs::path& top) {
  testsupport::write_file(top / "httpdocs/index.html", "<html>@domain_name@</html>\n");
  testsupport::write_file(top / "httpdocs/css/site.css", "body { color: black }\n");
  testsupport::write_file(top / "error_docs/404.html", "<html>not found</html>\n");
}

/// With what does not belong into a store, or not as it is.
void make_odd(const fs::path& top) {
  make_small(top);
  for (const char* name :
       {"httpdocs/.quota", "httpdocs/deep/er/.quota", "cgi-bin/.quota/file", ".quota", "README",
        "httpdocs/.hidden/.quota", "notes/todo", ".htaccess", "conf/vhost.conf", "conf/.quota"})
    testsupport::write_file(top / name, std::string(name) + "\n", 0600);
  testsupport::write_file(top / "cgi-bin/run.cgi", "#!/bin/sh\n", 06777);
  testsupport::write_file(top / "httpdocs/two words.txt", "blank\n", 0);
  testsupport::write_file(top / "httpdocs/\xc3\xbc.txt", some_bytes(3000, 1));
  fs::create_directories(top / "anon_ftp/pub/incoming");
  require(chmod((top / "anon_ftp/pub/incoming").c_str(), 03777) == 0, "chmod");
  fs::create_symlink("../error_docs", top / "httpdocs/errors");
  fs::create_symlink("/etc/passwd", top / "httpdocs/passwords");
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top))
    if (!entry.is_symlink())
      require(lchown(entry.path().c_str(), kForeigner, kForeigner) == 0, entry.path().string());
}

void make_wide(const fs::path& top) {
  make_small(top);
  for (unsigned page = 0; page < 24; ++page)
    testsupport::write_file(top / "httpdocs/pages" / (std::to_string(page) + ".bin"),
                            some_bytes(100 + 150UL * page, page));
  fs::create_directories(top / "webspace");
}

void pack(const fs::path& tree) {
  const std::string name = tree.string();
  require(succeeds("cd " + name + " && tar -cf ../" + tree.filename().string() + ".tar . && " +
                   "tar -czf ../" + tree.filename().string() + ".tgz . && " + "zip -qry ../" +
                   tree.filename().string() + ".zip ."),
          "packing " + name);
}

/// A copy of a share of the bytes, the one at another share turned over.
void damage(const fs::path& from, const fs::path& to, double kept, double turned) {
  std::string bytes = testsupport::read_file(from);
  char& byte = bytes[static_cast<size_t>(static_cast<double>(bytes.size()) * turned)];
  byte = static_cast<char>(~byte);
  bytes.resize(static_cast<size_t>(static_cast<double>(bytes.size()) * kept));
  testsupport::write_file(to, bytes);
}

/// An archive with a good member, one that climbs out of the store, and one with an absolute name.
void make_climbing(const fs::path& work) {
  const std::string outside = (work / "outside/climbed").string();
  testsupport::write_file(outside, "as it was\n");
  testsupport::write_file(work / "trees/climbing/httpdocs/index.html", "climbing\n");
  require(succeeds("cd " + (work / "trees/climbing").string() +
                   " && tar -P -cf ../climbing.tar httpdocs ../../outside/climbed " + outside +
                   " 2>/dev/null"),
          "packing names that climb");
  testsupport::write_file(outside, "as it is\n");
}

bool is_section(const std::string& name, bool of_panel) {
  constexpr std::array<const char*, 6> kOfClients{"httpdocs",   "cgi-bin",    "anon_ftp",
                                                  "error_docs", "statistics", "webspace"};
  if (name == "conf") return of_panel;
  return std::find(kOfClients.begin(), kOfClients.end(), name) != kOfClients.end();
}

/// ".quota", but for one in a hidden directory.
bool is_forbidden(const fs::path& relative) {
  for (const fs::path& part : relative) {
    if (part == ".quota") return true;
    if (part.native()[0] == '.') return false;
  }
  return false;
}

void prune(const fs::path& store, bool of_panel) {
  std::vector<fs::path> unwanted;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(store)) {
    const fs::path relative = entry.path().lexically_relative(store);
    if (!is_section(relative.begin()->string(), of_panel) || is_forbidden(relative))
      unwanted.push_back(entry.path());
  }
  for (const fs::path& path : unwanted) fs::remove_all(path);
}

void give_to_root(const fs::path& path) {
  const mode_t mode = fs::is_directory(path) ? 0755 : 0644;
  require(chown(path.c_str(), 0, 0) == 0 && chmod(path.c_str(), mode) == 0, path.string());
}

std::shared_ptr<const Listing> listing_of_store(const fs::path& store, bool of_panel) {
  prune(store, of_panel);
  give_to_root(store);
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(store))
    if (!entry.is_symlink()) give_to_root(entry.path());
  return std::make_shared<const Listing>(directory_listing(store));
}

}  // namespace

Archive an_archive(const fs::path& path, const std::string& type, bool forced) {
  Archive archive;
  archive.path = path;
  archive.type = type;
  archive.forced = forced;
  return archive;
}

Archive tried(Archive archive, const fs::path& work) {
  const auto* const commands =
      std::find_if(kCommands.begin(), kCommands.end(),
                   [&archive](const Commands& row) { return archive.type == row.type; });
  require(commands != kCommands.end(), "no such type: " + archive.type);
  const fs::path store = work / "reference";
  fs::create_directory(store);
  const testsupport::Outcome test = shell(commands->test + archive.path);
  archive.exists = fs::exists(archive.path);
  archive.fits = test.exit_code() == 0;
  archive.reports = !test.err.empty();
  archive.unpacks = succeeds(commands->unpack + archive.path + commands->into + store.string());
  archive.panel_store = listing_of_store(store, true);
  archive.store = listing_of_store(store, false);
  fs::remove_all(store);
  return archive;
}

std::vector<Archive> make_archives(const fs::path& work) {
  const fs::path trees = work / "trees";
  make_small(trees / "small");
  make_odd(trees / "odd");
  make_wide(trees / "wide");
  std::vector<Archive> archives;
  const auto add = [&](const std::string& name, const std::string& type, bool forced = false) {
    archives.push_back(tried(an_archive(trees / name, type, forced), work));
  };
  for (const std::string tree : {"small", "odd", "wide"}) {
    pack(trees / tree);
    for (const std::string type : {"zip", "tgz", "tar"}) add(tree + "." + type, type);
  }
  const size_t good = archives.size();
  damage(trees / "wide.tgz", trees / "cut.tgz", 0.6, 0.9);
  damage(trees / "wide.tar", trees / "cut.tar", 0.617, 0.9);
  damage(trees / "wide.zip", trees / "cut.zip", 0.6, 0.9);
  damage(trees / "wide.zip", trees / "turned.zip", 1, 0.4);
  damage(trees / "odd.tgz", trees / "turned.tgz", 1, 0.5);
  testsupport::write_file(trees / "text.tar.gz", "This is no archive.\n");
  for (const std::string type : {"zip", "tgz", "tar"}) add("cut." + type, type);
  add("turned.zip", "zip");
  add("turned.tgz", "tgz");
  add("text.tar.gz", "tgz");
  add("small.zip", "tar", true);
  add("missing.zip", "zip");
  make_climbing(work);
  add("climbing.tar", "tar");
  for (size_t i = 0; i < archives.size(); ++i)
    require(archives[i].unpacks == (i < good), archives[i].path + " is not what it was made for");
  fs::copy_file(trees / "wide.tgz", trees / "upload");  // told by its content
  add("upload", "tgz");
  add("wide.tgz", "tgz", true);
  return archives;
}

}  // namespace soak
