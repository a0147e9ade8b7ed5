// What an enemy's archive may be as a whole: deep, large, damaged, locked, or no such archive.
#include <filesystem>
#include <map>

#include "support/scratch.h"
#include "tool/hostile_fixture.h"

namespace fs = std::filesystem;
using testsupport::Outcome;
using Lines = std::vector<std::string>;

namespace {

// The work is that of tar and unzip, which no sanitizer watches; but it slows down the rest.
#ifdef __SANITIZE_ADDRESS__
constexpr int kEntries = 66000;  // more than the 16-bit counter of a zip archive holds
#else
constexpr int kEntries = 200000;
#endif

class HostileEntries : public HostileArchives {
 protected:
  /// install() and remove() for so many empty files, all of which are to arrive.
  static void expect_entries(const std::string& name, std::string (*archive)(const Members&),
                             int count) {
    SCOPED_TRACE(name);
    Members members{directory("httpdocs")};
    for (int i = 0; i < count; ++i) members.push_back(file("httpdocs/" + std::to_string(i), ""));
    write_inside("/srv/archives/" + name, archive(members));
    if (name == "a.tgz") shell("mv a.tgz a; gzip -1 a; mv a.gz a.tgz");
    EXPECT_EQ(install(name), (Outcome{"0\n", "", 0}));
    const Outcome found = LayeredRoot::run({"/usr/bin/find", kStore, "-type", "f", "-printf", "."});
    EXPECT_EQ(found.out.size(), static_cast<size_t>(count));
    remove();
  }
};

}  // namespace

TEST_F(HostileArchives, MayNestTwoThousandLevelsDeep) {
  constexpr int kLevels = 2000;
  std::string levels;
  Lines directories;
  for (int level = 0; level < kLevels; ++level) {
    levels += "/d";
    directories.push_back("d httpdocs" + levels);
  }
  Lines arrived = directories;
  arrived.push_back("f httpdocs" + levels + "/x bottom");
  const HostileRow row = {
      "levels",
      {directory("httpdocs" + levels), file("httpdocs" + levels + "/x", "bottom")},
      {"", arrived},
      {"", arrived}};
  expect_harmless(row);
}

TEST_F(HostileArchives, MayDifferInTheirTwoListsOfNames) {
  Member outside = file("httpdocs/x");
  outside.local_name = climb + "/etc/evil";
  Member inside = file(climb + "/etc/evil");
  inside.local_name = "httpdocs/x";
  const HostileRow rows[] = {
      {"the one before the content", {outside}, "-", "mismatching \"local\" filename"},
      {"the one in the directory", {inside}, "-", "mismatching \"local\" filename"},
  };
  for (const HostileRow& row : rows) expect_harmless(row);
}

TEST_F(HostileEntries, MayBeTwoHundredThousandInATarArchive) {
  expect_entries("a.tar", tar_archive, kEntries);
}

TEST_F(HostileEntries, MayBeTwoHundredThousandInATgzArchive) {
  expect_entries("a.tgz", tar_archive, kEntries);
}

TEST_F(HostileEntries, MayBeTwoHundredThousandInAZipArchive) {
  expect_entries("a.zip", zip_archive, kEntries);
}

TEST_F(HostileArchives, MayBeDamagedAnywhere) {
  const Members members = {directory("httpdocs"), file("httpdocs/page", std::string(700, 'p')),
                           link_to("page", "httpdocs/link"), file("cgi-bin/x", "x", 0755)};
  write_inside("/srv/archives/a.tar", tar_archive(members));
  write_inside("/srv/archives/a.zip", zip_archive(members));
  shell("gzip -k a.tar; mv a.tar.gz a.tgz");
  for (const char* type : {"tar", "tgz", "zip"}) {
    SCOPED_TRACE(type);
    const std::string whole = read_inside(std::string("/srv/archives/a.") + type);
    // The parts of a tar archive that mean something are its headers: a byte in eight of those.
    const size_t size = std::string(type) == "tar" ? 4096 : whole.size();
    for (size_t i = 0; i < 16; ++i) {
      SCOPED_TRACE(i);
      std::string flipped = whole;
      char& byte = flipped[size * i / 16 + i % 7];
      byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << i % 8));
      const std::map<std::string, std::string> damaged = {
          {"flipped", flipped}, {"truncated", whole.substr(0, size * i / 16 + i % 7)}};
      for (const auto& [how, content] : damaged) {
        SCOPED_TRACE(how);
        write_inside("/srv/archives/damaged", content);
        install("damaged", {"--force-type", type});
        remove();
      }
    }
  }
}

TEST_F(HostileArchives, MayBeEncrypted) {
  shell(
      "mkdir httpdocs; echo x > httpdocs/x; echo y > httpdocs/y; zip -q -P secret a.zip httpdocs/x;"
      " zip -q a.zip httpdocs/y");
  const Outcome outcome = install("a.zip");
  EXPECT_NE(outcome.err.find("unable to get password"), std::string::npos) << outcome;
  EXPECT_EQ(testsupport::read_file(in_store("httpdocs/y")), "y\n");
  EXPECT_FALSE(fs::exists(in_store("httpdocs/x")));
  remove();
}

TEST_F(HostileArchives, MayBeHighlyCompressed) {
  shell(
      "mkdir httpdocs; truncate -s 64M httpdocs/zeros; tar -czf a.tgz httpdocs\n"
      "zip -q a.zip httpdocs/zeros; tar -cSf a.tar httpdocs; rm -r httpdocs");
  for (const char* archive : {"a.tgz", "a.zip", "a.tar"}) {
    SCOPED_TRACE(archive);
    ASSERT_LT(fs::file_size(LayeredRoot::at(std::string("/srv/archives/") + archive)), 1U << 17U);
    EXPECT_EQ(install(archive), (Outcome{"0\n", "", 0}));
    EXPECT_EQ(fs::file_size(in_store("httpdocs/zeros")), 64U << 20U);
    remove();
  }
}

TEST_F(HostileArchives, AreNotUnpackedWithinArchives) {
  const Members inner = {file(climb + "/etc/evil"), file("/etc/evil"), file("httpdocs/inner")};
  const HostileRow row = {
      "archives",
      {file("httpdocs/inner.tar", tar_archive(inner)),
       file("httpdocs/inner.zip", zip_archive(inner)), file("a.tar", tar_archive(inner))},
      "",
      ""};
  expect_harmless(row);
}

TEST_F(HostileArchives, MayLieAboutTheirType) {
  const Members members = {directory("httpdocs"), file("httpdocs/x", "x"), file(climb + "/evil")};
  write_inside("/srv/archives/a.tar", tar_archive(members));
  write_inside("/srv/archives/a.zip", zip_archive(members));
  shell(
      "gzip -k a.tar; mv a.tar.gz a.tgz; cp a.tar tar.zip; cp a.zip zip.tgz; cp a.tgz tgz.tar\n"
      "gzip -k a.zip; mv a.zip.gz zipped.tgz; cat a.zip a.tar > zip-tar.tar; cat a.tar a.zip > "
      "tar-zip.zip; echo text > text.zip; : > empty.tgz");
  for (const char* archive : {"tar.zip", "zip.tgz", "tgz.tar", "zipped.tgz", "zip-tar.tar",
                              "tar-zip.zip", "text.zip", "empty.tgz"})
    for (const Lines& forced : {Lines{}, Lines{"--force-type", "zip"}, Lines{"--force-type", "tgz"},
                                Lines{"--force-type", "tar"}}) {
      SCOPED_TRACE(archive + testing::PrintToString(forced));
      install(archive, forced);
      remove();
    }
  for (const auto& [archive, page] : std::map<std::string, bool>{
           {"tar.zip", true}, {"zip.tgz", true}, {"tgz.tar", true}, {"text.zip", false}}) {
    SCOPED_TRACE(archive);
    install(archive);
    EXPECT_EQ(fs::exists(in_store("httpdocs/x")), page);
    remove();
  }
}
