#include <mysql.h>
#include <stdio.h>

#include "conf/database.h"
#include "faults/routines.h"
#include "fs/tree.h"
#include "tool/archive.h"
#include "tool/command_line.h"
#include "tool/skeleton_store.h"
#include "vhost/FileList.h"
#include "vhost/entry_points.h"
#include "vhost/misc.h"

namespace faults {
namespace {

constexpr auto kNone = Scene::kNothing;
constexpr auto kWhole = Share::kWhole;
constexpr auto kSister = Share::kSister;
constexpr const char* kTree = "/mnt/site/tree";
constexpr const char* kFile = "/mnt/site/tree/file";
constexpr const char* kHost = "/var/www/vhosts/example.com";
const DocrootCleanOptions kOptions = {"/var/www/vhosts/example.com/httpdocs", 0, 0, 0,
                                      "/var/www/vhosts/example.com/cgi-bin"};

const std::vector<std::string> kOfMemory{"std::bad_alloc"};
/// A missing file has a class of its own, and so do some of the ways in which a call fails.
const std::vector<std::string> kOfReading{"frask::SystemError: ", "frask::ExSystemError<",
                                          "std::bad_alloc"};
const std::vector<std::string> kOfPrograms{"frask::sys::TSysCallErr: ", "std::bad_alloc"};
const std::vector<std::string> kOfDeployment{
    "std::runtime_error: Skeleton directory `", "std::runtime_error: group oxacln not found",
    "std::filesystem::__cxx11::filesystem_error: filesystem error: ", "std::bad_alloc"};
const std::vector<std::string> kOfDescriptions{
    "std::runtime_error: XML parse error", "std::runtime_error: Wrong root node name",
    "std::runtime_error: Attribute name is required for section",
    "std::runtime_error: Bad sttribute name value", "std::bad_alloc"};

template <typename Call>
std::string silent(Call call) {
  call();
  return done();
}

ArchiveDescriptor archive() {
  ArchiveDescriptor descriptor = adc_tgz;
  descriptor.file_name = "/mnt/archives/skel.tgz";
  return descriptor;
}

std::string detected() {
  char name[] = "/mnt/archives/skel.tgz";
  ArchiveDescriptor descriptor = {};
  const int result = getArchiveDc(name, &descriptor, ARCHIVE_DETECT);
  return number(result) + " " + number(descriptor.type);
}

std::string tested() {
  const ArchiveDescriptor descriptor = archive();
  const int result = testIntegrity(&descriptor);
  if (result == 1) throw Broken("a small archive is too large");
  return number(result);
}

std::string listed() {
  std::vector<std::filesystem::path> entries;
  const int result = frask::readDirContent(&entries, kTree, 0);
  return number(result) + " " + number(static_cast<int>(entries.size()));
}

std::string cleaned() {
  std::vector<std::filesystem::path> entries{"httpdocs/blog", "httpdocs/blog/a.php", "private/file",
                                             "httpdocs"};
  frask::ExtractParams params;
  params.docrootDir = kOptions.docrootDir;
  frask::cleanDirContent(&entries, kHost, params);
  return done();
}

std::string description() {
  return "<INSTANCE-DATA><SECTION PREFIX='htdocs'><FILE>a.php</FILE><FILE>lib</FILE>"
         "<FILE>lib/b</FILE></SECTION><SECTION PREFIX='cgi-bin'><FILE>c.cgi</FILE></SECTION>"
         "</INSTANCE-DATA>";
}

}  // namespace

Routines tree_routines() {
  const auto tree = Scene::kTree;
  return {
      {"chown_tree", [] { return silent([] { chown_tree(kTree, 7, 8, 1); }); }, tree},
      {"chmod_tree", [] { return silent([] { chmod_tree(kTree, 0640, 0750, 1); }); }, tree},
      {"tree_set_perms", [] { return number(tree_set_perms(kTree, 7, 8, 0640, 0750, 1)); }, tree,
       kSister},
      {"rm_tree_aux", [] { return number(rm_tree_aux(kTree, 1, 0)); }, tree},
      {"rm_tree", [] { return silent([] { rm_tree(kTree, 1); }); }, tree},
      {"rm_entry", [] { return number(rm_entry(kTree)); }, tree, kSister},
      {"remove_forbid_entries", [] { return silent([] { remove_forbid_entries(kTree); }); }, tree},
  };
}

Routines tool_routines() {
  return {
      {"getArchiveDc", detected, kNone, kSister},
      {"testSupport", [] { return number(testSupport(&adc_zip)); }, kNone, kSister},
      {"testIntegrity", tested, kNone, kSister, {}, true, 0, "socket:"},
      {"extractTo",
       [] {
         const ArchiveDescriptor descriptor = archive();
         return number(extractTo(&descriptor, "/mnt/unpacked"));
       },
       Scene::kUnpacked, kSister},
      {"executeCommand", [] { return number(executeCommand("exit 3")); }, kNone, kSister},
      {"execute", [] { return number(execute("exit 3")); }, kNone, kSister},
      {"installSkeleton",
       [] {
         const ArchiveDescriptor descriptor = archive();
         return number(installSkeleton(&descriptor, "7"));
       },
       Scene::kStore, kSister},
      {"removeSkeleton", [] { return number(removeSkeleton("7")); }, Scene::kStore, kSister},
      {"showUsage",
       [] {
         showUsage();
         return number(fflush(stdout));
       },
       kNone, kSister},
      {"check_parameter", [] { return silent([] { check_parameter(1, "", "name"); }); }, kNone,
       kSister},
      {"check_unprocessed_parameters",
       [] { return silent([] { check_unprocessed_parameters(2, 1, nullptr); }); }, kNone, kSister},
      {"wido_cpp_init", [] { return silent(wido_cpp_init); }, kNone, kSister, {}, false},
  };
}

Routines site_routines() {
  const auto files = Scene::kFiles;
  return {
      {"setup_skeleton", [] { return number(setup_skeleton(kHost, 0, "9", &kOptions)); },
       Scene::kNoSite, kWhole, kOfDeployment},
      {"setup_skeleton_on_subdomain",
       [] { return number(setup_skeleton_on_subdomain("example.com", "shop", "9", &kOptions)); },
       Scene::kNoShop, kWhole, kOfDeployment},
      {"clean_docroot", [] { return number(clean_docroot(kHost, &kOptions)); }, Scene::kSite,
       kWhole, kOfMemory},
      {"wido_delete_instance",
       [] { return silent([] { wido_delete_instance(kHost, &kOptions, "blog"); }); }, Scene::kSite,
       kWhole, kOfDescriptions, true, 0, "", description()},
      {"cleanDirContent", cleaned, Scene::kSite, kSister, kOfMemory},
      {"copy_if_no_dontedit", [] { return silent([] { copy_if_no_dontedit(kFile); }); },
       Scene::kCopied, kWhole, kOfReading},
      {"get_dontedit_tag", [] { return text(get_dontedit_tag()); }, kNone, kSister, {}, false},
      {"readDirContent", listed, files, kWhole, kOfMemory},
      {"typeFromPath", [] { return frask::typeFromPath(kFile); }, files, kWhole, kOfPrograms},
      {"readFile", [] { return frask::readFile(kFile); }, files, kWhole, kOfReading},
      {"getCtID", frask::getCtID, kNone, kWhole, kOfReading},
  };
}

}  // namespace faults
