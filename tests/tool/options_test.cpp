#include <getopt.h>

#include <string>
#include <vector>

#include "support/child.h"
#include "tool/options.private.h"
#include "tool/tool_fixture.h"

namespace {

Options parse(std::vector<std::string> words) {
  words.insert(words.begin(), "tembrix");
  std::vector<char*> argv;
  argv.reserve(words.size() + 2);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  optind = 0;  // a new scan
  Options options = parse_options(static_cast<int>(words.size()), argv.data());
  static std::string client_id;
  if (options.client_id != nullptr) {
    client_id = options.client_id;
    options.client_id = client_id.c_str();
  }
  return options;
}

struct ModeCase {
  std::vector<std::string> words;
  Mode mode;
};

void expect_modes(const std::vector<ModeCase>& cases) {
  for (const ModeCase& one : cases) {
    std::string line;
    for (const std::string& word : one.words) line += " " + word;
    SCOPED_TRACE(line);
    EXPECT_EQ(parse(one.words).mode, one.mode);
  }
}

}  // namespace

TEST(Options, SelectTheirModesByLongAndShortNames) {
  expect_modes({{{}, Mode::kNone},
                {{"--test-archive"}, Mode::kTestArchive},
                {{"-t"}, Mode::kTestArchive},
                {{"--install-skel"}, Mode::kInstallSkel},
                {{"-i"}, Mode::kInstallSkel},
                {{"--remove-skel"}, Mode::kRemoveSkel},
                {{"-r"}, Mode::kRemoveSkel},
                {{"--install-default"}, Mode::kInstallDefault},
                {{"-d"}, Mode::kInstallDefault},
                {{"--test-support", "zip"}, Mode::kTestSupport},
                {{"-S", "zip"}, Mode::kTestSupport},
                {{"--help"}, Mode::kHelp},
                {{"-h"}, Mode::kHelp}});
}

TEST(Options, PutAWorkingDirectoryBeforeNamesThatArchiveToolsMisread) {
  for (const auto& [name, taken] : {std::pair("-", "./-"),
                                    {"-C", "./-C"},
                                    {"-d/a.zip", "./-d/a.zip"},
                                    {"host:a.tar", "./host:a.tar"},
                                    {":", "./:"},
                                    {"a.tar", "a.tar"},
                                    {"./-C", "./-C"},
                                    {"d/-a", "d/-a"},
                                    {"d/b:a.tar", "d/b:a.tar"},
                                    {"/b:a.tar", "/b:a.tar"},
                                    {"", ""}})
    EXPECT_STREQ(parse({"--filename", name}).file_name, taken);
}

TEST(Options, CountWhatIsPutBeforeAName) {
  const std::string fits = "-" + std::string(4092, 'a');
  EXPECT_FALSE(parse({"--filename", fits}).file_name_too_long);
  EXPECT_EQ(parse({"--filename", fits}).file_name, "./" + fits);
  EXPECT_TRUE(parse({"--filename", fits + "a"}).file_name_too_long);
  EXPECT_FALSE(parse({"--filename", "a" + fits + "a"}).file_name_too_long);
}

TEST(Options, KeepTheFirstMode) {
  expect_modes({{{"--remove-skel", "--test-archive", "--id", "7"}, Mode::kRemoveSkel},
                {{"--test-support", "zip", "--install-skel"}, Mode::kTestSupport},
                {{"--install-skel", "--test-support", "tar"}, Mode::kInstallSkel},
                {{"-t", "-d"}, Mode::kTestArchive},
                {{"-d", "-t"}, Mode::kInstallDefault},
                {{"-ir"}, Mode::kInstallSkel}});
}

TEST(Options, LetHelpWinWhereverItStands) {
  expect_modes({{{"--test-archive", "--help", "--filename", "x"}, Mode::kHelp},
                {{"--help", "--test-archive"}, Mode::kHelp},
                {{"-h", "-r"}, Mode::kHelp},
                {{"-r", "-h", "-i"}, Mode::kHelp}});
}

TEST(Options, TakeAbbreviationsOfLongNames) {
  expect_modes({{{"--test-a"}, Mode::kTestArchive},
                {{"--install-s"}, Mode::kInstallSkel},
                {{"--rem"}, Mode::kRemoveSkel},
                {{"--install-d"}, Mode::kInstallDefault},
                {{"--he"}, Mode::kHelp}});
  EXPECT_STREQ(parse({"--file=a.zip"}).file_name, "a.zip");
}

TEST(Options, ReadTheFourTypeWordsExactly) {
  const std::vector<std::pair<std::string, ArchiveType>> words{
      {"zip", 2},    {"tgz", 4},  {"tar.gz", 4}, {"tar", 5},  {"TGZ", 0},    {"Zip", 0},
      {"tar.bz", 0}, {"zipx", 0}, {"", 0},       {" zip", 0}, {"tar.GZ", 0}, {"gz", 0}};
  for (const auto& [word, type] : words) {
    SCOPED_TRACE(word);
    EXPECT_EQ(parse({"--force-type", word}).forced_type, type);
    EXPECT_EQ(parse({"-T", word}).forced_type, type);
    EXPECT_EQ(parse({"--test-support", word}).forced_type, type);
  }
}

TEST(Options, KeepAnEarlierTypeWhenALaterWordIsNone) {
  EXPECT_EQ(parse({"--force-type", "zip", "--force-type", "bogus"}).forced_type, ARCHIVE_ZIP);
  EXPECT_EQ(parse({"--force-type", "zip", "--force-type", "tar"}).forced_type, ARCHIVE_TAR);
  EXPECT_EQ(parse({"--force-type", "tgz", "--test-support", "rar"}).forced_type, ARCHIVE_TGZ);
}

TEST(Options, ForceTheTypeThroughTestSupportInAnyMode) {
  EXPECT_EQ(parse({"--install-skel", "--test-support", "tar"}).forced_type, ARCHIVE_TAR);
}

TEST(Options, KeepTheLastFileNameAndClientId) {
  const Options options =
      parse({"-F", "a.longer.name.zip", "-I", "7", "--filename", "b.tar", "--id", "x8"});
  EXPECT_STREQ(options.file_name, "b.tar");
  EXPECT_STREQ(options.client_id, "x8");
}

TEST(Options, LeaveFileNameAndClientIdUnsetWhenNotGiven) {
  const Options options = parse({"-t"});
  EXPECT_STREQ(options.file_name, "");
  EXPECT_FALSE(options.file_name_too_long);
  EXPECT_EQ(options.client_id, nullptr);
  EXPECT_EQ(options.forced_type, ARCHIVE_DETECT);
}

TEST(Options, HoldFileNamesOf4095BytesAndMarkLongerOnes) {
  const std::string longest(4095, 'a');
  const Options fits = parse({"-F", longest});
  EXPECT_EQ(fits.file_name, longest);
  EXPECT_FALSE(fits.file_name_too_long);
  const Options cut = parse({"-F", longest + "b"});
  EXPECT_EQ(cut.file_name, longest);
  EXPECT_TRUE(cut.file_name_too_long);
  EXPECT_FALSE(parse({"-F", longest + "b", "-F", "short"}).file_name_too_long)
      << "a later name replaces the earlier one whole";
}

TEST(Options, IgnoresWhatOnlyTheSiteToolsUse) {
  const Options options =
      parse({"-s", "--www-root", "/srv", "--skip-www-root", "--cgi-bin-path", "/cgi",
             "--skip-cgi-bin", "--skip-error-docs", "--vhost-name", "example.com"});
  EXPECT_EQ(optind, 11) << "each took its argument, and only those that have one";
  EXPECT_EQ(options.mode, Mode::kNone);
  EXPECT_EQ(options.forced_type, ARCHIVE_DETECT);
  EXPECT_STREQ(options.file_name, "");
  EXPECT_EQ(options.client_id, nullptr);
}

TEST(Options, TakeNoArgumentBehindTheFlags) {
  parse({"--skip-www-root", "a", "--skip-cgi-bin", "b", "--skip-error-docs", "c", "-s", "d"});
  EXPECT_EQ(optind, 5) << "four flags, then the four words that no option took";
}

TEST(Options, LeaveTheLettersOfLongOnlyOptionsUnknown) {
  for (const char* letter : {"-w", "-W", "-c", "-C", "-E"}) {
    SCOPED_TRACE(letter);
    const testsupport::Outcome outcome = testsupport::in_child([letter] { parse({letter}); });
    EXPECT_EQ(outcome.err, std::string("tembrix: invalid option -- '") + letter[1] + "'\n");
  }
}

TEST(Options, AreReportedByGetoptAloneWhenUnknownOrIncomplete) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{"--bogus"}, "tembrix: unrecognized option '--bogus'\n"},
      {{"-x"}, "tembrix: invalid option -- 'x'\n"},
      {{"--filename"}, "tembrix: option '--filename' requires an argument\n"},
      {{"--www-root"}, "tembrix: option '--www-root' requires an argument\n"},
      {{"--cgi-bin-path"}, "tembrix: option '--cgi-bin-path' requires an argument\n"},
      {{"-I"}, "tembrix: option requires an argument -- 'I'\n"},
      {{"-V"}, "tembrix: option requires an argument -- 'V'\n"},
      {{"--i"},
       "tembrix: option '--i' is ambiguous; possibilities: '--install-skel' '--install-default' "
       "'--id'\n"},
      {{"--s"},
       "tembrix: option '--s' is ambiguous; possibilities: '--skip-www-root' '--skip-cgi-bin' "
       "'--skip-error-docs'\n"},
      {{"--test-archive=1"}, "tembrix: option '--test-archive' doesn't allow an argument\n"},
      {{"--test"},
       "tembrix: option '--test' is ambiguous; possibilities: '--test-archive' "
       "'--test-support'\n"}};
  for (const auto& [words, report] : cases) {
    SCOPED_TRACE(words[0]);
    const testsupport::Outcome outcome = testsupport::in_child([&words = words] { parse(words); });
    EXPECT_EQ(outcome.err, report);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.exit_code(), 0);
  }
}
