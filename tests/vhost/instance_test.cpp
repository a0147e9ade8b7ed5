#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "content_support.h"
#include "support/stopped_child.h"
#include "support/tree_listing.h"
#include "vhost/instance.private.h"

namespace {

using testsupport::Outcome;
using testsupport::tree_listing;
using testsupport::write_file;
using vhosttest::description;
using vhosttest::failed;
using vhosttest::Host;
using vhosttest::Lines;
using vhosttest::reported;

const std::string kEmpty = "<INSTANCE-DATA/>";

/// The names below a directory, each type and mode left out.
Lines names_in(const std::string& top) {
  Lines names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(top))
    names.push_back(entry.path().lexically_relative(top).string());
  std::sort(names.begin(), names.end());
  return names;
}

TEST(WidoDeleteInstance, RemovesWhatIsListedAndItsEmptyDirectories) {
  const Host host;
  for (const char* file : {"blog/index.php", "blog/lib/a.php", "blog/lib/b.php", "other/index.php"})
    write_file(host / ("documents/" + std::string(file)), "");
  write_file(host / "cgi/blog/x.cgi", "");
  EXPECT_EQ(host.delete_instance(
                "blog",
                "<INSTANCE-DATA><SECTION PREFIX='cgi-bin'><FILE>x.cgi</FILE></SECTION>"
                "<SECTION PREFIX='htdocs'><FILE>lib</FILE><FILE>index.php</FILE>"
                "<FILE>lib/a.php</FILE><FILE>lib/b.php</FILE></SECTION></INSTANCE-DATA>"),
            reported(""));
  EXPECT_EQ(names_in(host / "documents"), (Lines{"other", "other/index.php"}));
  EXPECT_EQ(names_in(host / "cgi"), Lines{"blog"}) << "that one is not listed";
}

TEST(WidoDeleteInstance, RemovesInDescendingOrderTheDocumentRootFirst) {
  const Host host;
  Lines files{"lib", "lib/a.php", "index.php", "lib.d", "lib-d", "lib/a"};
  for (const char* name : {"documents/blog/", "cgi/blog/"})
    for (const std::string& file : files)
      if (file != "lib") write_file(host / (name + file), "");
  std::string text = "<INSTANCE-DATA>";
  for (const char* prefix : {"cgi-bin", "htdocs"}) {
    text += std::string("<SECTION PREFIX='") + prefix + "'>";
    for (const std::string& file : files) text += "<FILE>" + file + "</FILE>";
    text += "</SECTION>";
  }
  const std::string log = host / "log";
  ASSERT_EQ(vhosttest::run_traced({"-o", log, "-e", "trace=unlinkat", "-e", "signal=none"},
                                  {"delete", host.site, host.documents, host.cgi, "blog"},
                                  text + "</INSTANCE-DATA>"),
            (Outcome{"", "", 0}));
  const std::string calls = testsupport::read_file(log);
  Lines order;
  for (size_t at = 0; (at = calls.find(", \"", at)) != std::string::npos; at += 3) {
    const std::string name = calls.substr(at + 3, calls.find('"', at + 3) - at - 3);
    const bool refused =
        calls.substr(at, calls.find('\n', at) - at).find("EISDIR") != std::string::npos;
    if (!refused) order.push_back(name);
  }
  const Lines expected{"lib.d", "lib-d", "a.php", "a", "lib", "index.php", "blog",
                       "lib.d", "lib-d", "a.php", "a", "lib", "index.php"};
  EXPECT_EQ(order, expected);
  EXPECT_EQ(names_in(host / "documents"), Lines{});
}

TEST(WidoDeleteInstance, LeavesADirectoryThatHoldsAUsersFiles) {
  const Host host;
  write_file(host / "documents/blog/lib/a.php", "");
  write_file(host / "documents/blog/lib/mine", "");
  EXPECT_EQ(host.delete_instance("blog", description("htdocs", {"lib", "lib/a.php"})),
            reported(failed("rmdir", host / "documents/blog/lib", ENOTEMPTY) +
                     failed("rmdir", host / "documents/blog/", ENOTEMPTY)));
  EXPECT_EQ(names_in(host / "documents"), (Lines{"blog", "blog/lib", "blog/lib/mine"}));
}

TEST(WidoDeleteInstance, ReportsTheDirectoryOfTheApplication) {
  const Host host;
  write_file(host / "documents/blog/mine", "");
  EXPECT_EQ(host.delete_instance("blog", kEmpty),
            reported("rmdir(\"" + host.documents + "/blog/\"): Directory not empty\n"));
  std::filesystem::remove(host / "documents/blog/mine");
  EXPECT_EQ(host.delete_instance("blog", kEmpty), reported(""));
  EXPECT_EQ(names_in(host / "documents"), Lines{});
  EXPECT_EQ(host.delete_instance("blog", kEmpty), reported("")) << "gone already";
  write_file(host / "documents/blog", "a file");
  EXPECT_EQ(host.delete_instance("blog", kEmpty),
            reported(failed("lstat", host / "documents/blog/", ENOTDIR)));
}

TEST(WidoDeleteInstance, NeverRemovesTheSectionsThemselves) {
  for (const char* prefix : {".", "", "/"}) {
    SCOPED_TRACE(prefix);
    const Host host;
    EXPECT_EQ(host.delete_instance(prefix, kEmpty), reported(""));
    EXPECT_EQ(names_in(host.path()), (Lines{"cgi", "documents", "site", "site/private"}));
  }
  const Host host;
  EXPECT_EQ(host.delete_instance(".", description("htdocs", {"/", "."})),
            reported(failed("rmdir", "/", EBUSY) + failed("rmdir", host / "documents/.", EINVAL)));
  EXPECT_EQ(names_in(host.path()), (Lines{"cgi", "documents", "site", "site/private"}));
}

// ".." is what it is in any path: the names alone are protected.
TEST(WidoDeleteInstance, RemovesAnEmptySectionThatIsReachedThroughAnother) {
  Host host;
  host.documents = host / "site/httpdocs";
  std::filesystem::create_directories(host.documents);
  const std::string text = description("htdocs", {"../httpdocs", "../private"});
  write_file(host / "site/private/file", "kept");
  EXPECT_EQ(host.delete_instance(".", text),
            reported(failed("rmdir", host / "site/httpdocs/../private", ENOTEMPTY)));
  EXPECT_EQ(names_in(host.site), (Lines{"private", "private/file"}));
  std::filesystem::create_directories(host.documents);
  std::filesystem::remove(host / "site/private/file");
  EXPECT_EQ(host.delete_instance(".", text), reported(""));
  EXPECT_EQ(names_in(host.site), Lines{});
}

TEST(WidoDeleteInstance, TakesThePrefixAsAPath) {
  struct Row {
    std::string prefix;
    const char* file;
    const char* removed;
    Lines left;
  };
  for (const Row& row :
       {Row{".", "a", "documents/a", {}},
        {"", "a", "documents/a", {}},
        {"apps/blog", "a/b", "documents/apps/blog/a/b", {"apps", "apps/blog", "apps/blog/a"}},
        {"apps/blog/", "a", "documents/apps/blog/a", {"apps"}},
        {"./blog", "a", "documents/blog/a", {}},
        {"blog/../other", "a", "documents/other/a", {"blog"}}}) {
    SCOPED_TRACE(row.prefix);
    const Host host;
    if (row.prefix == "blog/../other") std::filesystem::create_directories(host / "documents/blog");
    write_file(host / row.removed, "");
    const Outcome outcome = host.delete_instance(row.prefix, description("htdocs", {row.file}));
    EXPECT_EQ(names_in(host / "documents"), row.left) << outcome;
    EXPECT_EQ(outcome.exit_code(), vhosttest::kReturned);
  }
}

TEST(WidoDeleteInstance, TakesAnAbsolutePrefixFromTheRoot) {
  const Host host;
  write_file(host / "elsewhere/app/a", "");
  write_file(host / "elsewhere/b", "");
  write_file(host / "documents/a", "");
  EXPECT_EQ(host.delete_instance(host / "elsewhere/app", description("htdocs", {"a"})),
            reported(""));
  EXPECT_EQ(names_in(host / "elsewhere"), Lines{"b"});
  EXPECT_EQ(host.delete_instance("/", description("cgi-bin", {(host / "elsewhere/b").substr(1)})),
            reported(""));
  EXPECT_EQ(names_in(host / "elsewhere"), Lines{});
  EXPECT_EQ(names_in(host / "documents"), Lines{"a"});
}

TEST(WidoDeleteInstance, TakesAnEntryAsAPath) {
  struct Row {
    std::string file;
    std::string removed;
  };
  for (const Row& row : {Row{"../beside", "documents/beside"},
                         {"../../outside", "outside"},
                         {"a//./b", "documents/blog/a/b"},
                         {"line\nbreak", "documents/blog/line\nbreak"},
                         {" blank ", "documents/blog/ blank "},
                         {"&#228;&amp;\xc3\xa4", "documents/blog/\xc3\xa4&\xc3\xa4"}}) {
    SCOPED_TRACE(row.file);
    const Host host;
    write_file(host / "documents/blog/stays", "");
    write_file(host / row.removed, "");
    EXPECT_EQ(host.delete_instance("blog", description("htdocs", {row.file})),
              reported(failed("rmdir", host / "documents/blog/", ENOTEMPTY)));
    EXPECT_FALSE(std::filesystem::exists(host / row.removed));
  }
  const Host host;
  write_file(host / "outside", "");
  EXPECT_EQ(host.delete_instance("blog", description("cgi-bin", {host / "outside"})), reported(""));
  EXPECT_FALSE(std::filesystem::exists(host / "outside")) << "an absolute one stands for itself";
}

TEST(WidoDeleteInstance, LeavesAKeptCgiDirectoryAlone) {
  Host host;
  write_file(host / "cgi/blog/a", "");
  write_file(host / "documents/blog/a", "");
  const std::string both =
      "<INSTANCE-DATA><SECTION PREFIX='cgi-bin'><FILE>a</FILE></SECTION>"
      "<SECTION PREFIX='htdocs'><FILE>a</FILE></SECTION></INSTANCE-DATA>";
  host.keep_cgi_bin = 1;
  host.keep_error_docs = 1;
  EXPECT_EQ(host.delete_instance("blog", both), reported(""));
  EXPECT_EQ(names_in(host / "cgi"), (Lines{"blog", "blog/a"}));
  EXPECT_EQ(names_in(host / "documents"), Lines{});
  host.keep_cgi_bin = 0;
  EXPECT_EQ(host.delete_instance("blog", both), reported(""));
  EXPECT_EQ(names_in(host / "cgi"), Lines{"blog"});
}

TEST(WidoDeleteInstance, PassesNoLinkBelowTheSections) {
  const Host host;
  for (const char* file : {"victim/a", "victim/lib/a", "documents/blog/b"})
    write_file(host / file, "kept");
  const Lines victim = tree_listing(host / "victim");
  std::filesystem::create_symlink("../../victim/lib", host / "documents/blog/lib");
  std::filesystem::create_symlink("../victim", host / "documents/app");
  EXPECT_EQ(host.delete_instance("blog", description("htdocs", {"lib/a", "lib/", "b"})),
            reported(failed("lstat", host / "documents/blog/lib/a", ELOOP) +
                     failed("lstat", host / "documents/blog/lib/", ELOOP) +
                     failed("rmdir", host / "documents/blog/", ENOTEMPTY)));
  EXPECT_EQ(host.delete_instance("app", description("htdocs", {"a", "lib/a", "lib"})),
            reported(failed("lstat", host / "documents/app/lib/a", ELOOP) +
                     failed("lstat", host / "documents/app/lib", ELOOP) +
                     failed("lstat", host / "documents/app/a", ELOOP) +
                     failed("lstat", host / "documents/app/", ELOOP)));
  EXPECT_EQ(host.delete_instance("blog", description("htdocs", {"lib"})), reported(""))
      << "the link itself may go";
  EXPECT_EQ(tree_listing(host / "victim"), victim);
}

TEST(WidoDeleteInstance, NeverPassesALinkThatAppearsAtTheWorstMoment) {
  struct Row {
    const char* replaced;  ///< by a link to its like in the victim
    const char* like;
    long call;            ///< that the routine stands before,
    const char* name;     ///< of that name
    std::string reports;  ///< "HOST" stands for the host's directory
  };
  const std::string unentered = failed("lstat", "HOST/documents/blog/lib/a", ELOOP);
  const std::string unemptied = failed("rmdir", "HOST/documents/blog/", ENOTEMPTY);
  const std::string unpassed = failed("lstat", "HOST/documents/blog/", ELOOP);
  const Row rows[] = {{"documents/blog/lib", "lib", SYS_openat, "lib", unentered + unemptied},
                      {"documents/blog/lib", "lib", SYS_unlinkat, "a", unemptied},
                      {"documents/blog", "", SYS_openat, "blog", unentered + unpassed},
                      {"documents/blog", "", SYS_openat, "lib", unpassed},
                      {"documents/blog", "", SYS_newfstatat, "blog", unpassed},
                      {"documents/blog", "", SYS_unlinkat, "blog", ""}};  // the link itself goes

  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.replaced) + " before " + std::to_string(row.call));
    const Host host;
    write_file(host / "victim/lib/a", "kept");
    const Lines victim = testsupport::exact_listing(host / "victim");
    write_file(host / "documents/blog/lib/a", "");
    const std::string text = description("htdocs", {"lib/a"});
    const Outcome outcome = testsupport::in_child_stopped_at(
        {row.call, row.name},
        [&] {
          std::filesystem::rename(host / row.replaced, host / "documents/blog.moved");
          std::filesystem::create_symlink(host / "victim/" + row.like, host / row.replaced);
        },
        [&] {
          frask::ExtractParams params;
          params.docrootDir = host.documents;
          frask::deleteInstance(host.site, params, "blog", text);
          exit(vhosttest::kReturned);
        });
    std::string reports = row.reports;
    for (size_t at = 0; (at = reports.find("HOST")) != std::string::npos;)
      reports.replace(at, 4, host.path().string());
    EXPECT_EQ(outcome, reported(reports));
    EXPECT_EQ(testsupport::exact_listing(host / "victim"), victim);
  }
}

/// What a child prints that catches the exception.
Outcome outcome_of(const Host& host, const std::string& text) {
  return vhosttest::run_traced({"-o", "/dev/null", "-e", "trace=none"},
                               {"delete", host.site, host.documents, host.cgi, "blog"}, text);
}

TEST(WidoDeleteInstance, RemovesNothingWhenAnyPartOfTheDescriptionIsBad) {
  const Host host;
  write_file(host / "documents/blog/a", "");
  const Lines before = tree_listing(host.path());
  const std::string good = "<SECTION PREFIX='htdocs'><FILE>a</FILE></SECTION>";
  for (const auto& [text, failure] : std::vector<std::pair<std::string, std::string>>{
           {"<INSTANCE-DATA>" + good + "<SECTION PREFIX='httpdocs'/></INSTANCE-DATA>",
            "Bad sttribute name value"},
           {"<INSTANCE-DATA>" + good + "<SECTION/></INSTANCE-DATA>",
            "Attribute name is required for section"},
           {"<INSTANCE-DATA>" + good, "XML parse error"},
           {"", "XML parse error"},
           {"<!-- c --><INSTANCE-DATA>" + good + "</INSTANCE-DATA>", "Wrong root node name"}}) {
    EXPECT_EQ(outcome_of(host, text), (Outcome{"", failure, 1 << 8})) << text;
    EXPECT_EQ(tree_listing(host.path()), before) << text;
  }
}

TEST(WidoDeleteInstance, ThrowsForAPrefixThatIsNull) {
  const Host host;
  const DocrootCleanOptions options = host.options();
  EXPECT_THROW(wido_delete_instance(host.site.c_str(), &options, nullptr), std::logic_error);
}

TEST(WidoDeleteInstance, ReadsStandardInputToItsEndHoweverItComes) {
  const Host host;
  Lines files;
  for (int i = 0; i < 20000; ++i) files.push_back("missing/" + std::to_string(i));
  files.emplace_back("last");
  write_file(host / "documents/last", "");
  const std::string text = description("htdocs", files);
  const auto outcome = testsupport::in_child([&] {
    int ends[2];
    if (pipe(ends) != 0) _exit(97);
    if (fork() == 0) {
      for (size_t at = 0; at < text.size(); at += 50000) {
        if (at < 4) usleep(50000);
        if (write(ends[1], text.data() + at, std::min<size_t>(50000, text.size() - at)) < 0)
          _exit(97);
        usleep(1000);
      }
      _exit(0);
    }
    close(ends[1]);
    dup2(ends[0], 0);
    const DocrootCleanOptions options = host.options();
    wido_delete_instance(host.site.c_str(), &options, ".");
    char more = 0;
    exit(read(0, &more, 1) == 0 ? vhosttest::kReturned : 95);
  });
  EXPECT_EQ(outcome, reported(""));
  EXPECT_EQ(names_in(host / "documents"), Lines{});
}

TEST(WidoDeleteInstance, TakesAClosedStandardInputForAnEmptyOne) {
  const Host host;
  const auto outcome = testsupport::in_child([&] {
    close(0);
    const DocrootCleanOptions options = host.options();
    try {
      wido_delete_instance(host.site.c_str(), &options, ".");
    } catch (const std::runtime_error& failure) {
      std::cerr << failure.what();
      exit(vhosttest::kReturned);
    }
  });
  EXPECT_EQ(outcome, reported("XML parse error"));
}

TEST(InstallSection, PutsTheCgiDirectoryBeforeTheDocumentRoot) {
  EXPECT_EQ(static_cast<int>(frask::CgiBin), 0);
  EXPECT_EQ(static_cast<int>(frask::Htdocs), 1);
}

}  // namespace
