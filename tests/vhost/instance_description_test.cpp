#include <gtest/gtest.h>
#include <libxml/xmlerror.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <stdexcept>

#include "content_support.h"
#include "support/child.h"
#include "support/scratch.h"
#include "vhost/instance.private.h"

namespace {

using frask::CgiBin;
using frask::Htdocs;
using frask::InstanceEntry;
using frask::readInstance;
using Entries = std::vector<InstanceEntry>;

/// The text of the exception, or "" where there is none.
std::string failure_of(const std::string& description) {
  try {
    readInstance(description);
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "";
}

/// A description with this in its only section.
std::string with_section(const std::string& content) {
  return "<INSTANCE-DATA><SECTION PREFIX=\"htdocs\">" + content + "</SECTION></INSTANCE-DATA>";
}

std::string times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

TEST(ReadInstance, GivesTheFilesOfBothSectionsInTheirOrder) {
  EXPECT_EQ(readInstance("<?xml version=\"1.0\"?>\n<INSTANCE-DATA>\n"
                         "  <SECTION PREFIX=\"htdocs\">\n"
                         "    <FILE>index.php</FILE>\n    <FILE>lib</FILE>\n"
                         "    <FILE>lib/a.php</FILE>\n  </SECTION>\n"
                         "  <SECTION PREFIX='cgi-bin'><FILE>x.cgi</FILE></SECTION>\n"
                         "  <SECTION PREFIX='htdocs'><FILE>index.php</FILE></SECTION>\n"
                         "</INSTANCE-DATA>\n"),
            (Entries{{Htdocs, "index.php"},
                     {Htdocs, "lib"},
                     {Htdocs, "lib/a.php"},
                     {CgiBin, "x.cgi"},
                     {Htdocs, "index.php"}}));
}

TEST(ReadInstance, TakesTheTextAsItStands) {
  const std::vector<std::pair<std::string, std::string>> rows{
      {" a ", " a "},
      {"\n\ta\nb\n", "\n\ta\nb\n"},
      {"a&amp;b&lt;c&gt;&quot;&apos;", "a&b<c>\"'"},
      {"&#228;&#xE4;&#65;",
       "\xc3\xa4\xc3\xa4"
       "A"},
      {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x90\xa7", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x90\xa7"},
      {"a\xcc\x88", "a\xcc\x88"},
      {"<![CDATA[<a>&amp;]]>b", "<a>&amp;b"},
      {"a<!-- c -->b", "ab"},
      {"a<?b c?>d", "ad"},
      {"a<deeper>b<FILE>c</FILE></deeper>d", "ad"},
      {"/etc/passwd", "/etc/passwd"},
      {"../x", "../x"}};
  for (const auto& [content, text] : rows)
    EXPECT_EQ(readInstance(with_section("<FILE>" + content + "</FILE>")), (Entries{{Htdocs, text}}))
        << content;
}

TEST(ReadInstance, ReadsOtherEncodingsIntoUtf8) {
  EXPECT_EQ(readInstance("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" +
                         with_section("<FILE>\xe4</FILE>")),
            (Entries{{Htdocs, "\xc3\xa4"}}));
}

TEST(ReadInstance, PassesOverAllElse) {
  for (const char* content :
       {"", "text", "<FILE/>", "<FILE></FILE>", "<FILE><!-- a --></FILE>", "<FILE><b>a</b></FILE>",
        "<file>a</file>", "<FILES>a</FILES>", "<?FILE a?>", "<!-- <FILE>a</FILE> -->",
        "<other><FILE>a</FILE></other>", "<SECTION PREFIX='wrong'><FILE>a</FILE></SECTION>"})
    EXPECT_EQ(readInstance(with_section(content)), Entries{}) << content;
  for (const char* content : {"", "text", "<?SECTION PREFIX=\"wrong\"?>", "<section/>",
                              "<FILE>a</FILE>", "<other><SECTION PREFIX='wrong'/></other>",
                              "<!-- <SECTION/> -->", "<![CDATA[<SECTION/>]]>"})
    EXPECT_EQ(readInstance(std::string("<INSTANCE-DATA>") + content + "</INSTANCE-DATA>"),
              Entries{})
        << content;
  EXPECT_EQ(readInstance("<INSTANCE-DATA/><!-- SECTION --><?SECTION a?>\n"), Entries{});
}

TEST(ReadInstance, RefusesWhatIsNotWellFormed) {
  const std::string zero(1, '\0');
  for (const std::string& text :
       {std::string(), std::string("\n"), std::string("text"), std::string("<INSTANCE-DATA>"),
        std::string("<INSTANCE-DATA/><INSTANCE-DATA/>"), std::string("<INSTANCE-DATA/>x"),
        std::string(" <?xml version=\"1.0\"?><INSTANCE-DATA/>"), "<INSTANCE-DATA>" + zero,
        with_section("<FILE>" + zero + "</FILE>"), with_section("<FILE>&unknown;</FILE>"),
        with_section("<FILE>a</FILE"), with_section("<FILE>&#0;</FILE>"),
        with_section("<FILE>\xe4</FILE>"), std::string("<SECTION PREFIX='a' PREFIX='b'/>"),
        std::string("<OTHER><SECTION></OTHER>")})
    EXPECT_EQ(failure_of(text), "XML parse error") << testing::PrintToString(text);
}

TEST(ReadInstance, RefusesAnotherFirstNode) {
  for (const char* text :
       {"<OTHER/>", "<instance-data/>", "<INSTANCE-DATA2/>", "<!-- c --><INSTANCE-DATA/>",
        "<?xml version=\"1.0\"?><?INSTANCE-DATA a?><INSTANCE-DATA/>",
        "<!DOCTYPE INSTANCE-DATA><INSTANCE-DATA/>", "<!DOCTYPE OTHER><INSTANCE-DATA/>",
        "<!DOCTYPE INSTANCE-DATA [<!ENTITY a \"b\">]><INSTANCE-DATA>&a;</INSTANCE-DATA>",
        "<SECTION PREFIX='htdocs'><FILE>a</FILE></SECTION>"})
    EXPECT_EQ(failure_of(text), "Wrong root node name") << text;
}

TEST(ReadInstance, RefusesASectionWithoutItsAttribute) {
  for (const char* section : {"<SECTION/>", "<SECTION prefix='htdocs'/>", "<SECTION PREFIX2=''/>",
                              "<SECTION PREFI='htdocs'><FILE>a</FILE></SECTION>"})
    EXPECT_EQ(failure_of(std::string("<INSTANCE-DATA>") + section + "</INSTANCE-DATA>"),
              "Attribute name is required for section")
        << section;
}

TEST(ReadInstance, RefusesAnUnknownSection) {
  for (const char* prefix :
       {"", "httpdocs", "HTDOCS", " htdocs", "htdocs ", "cgi_bin", "htdocscgi-bin", "htdocs/"})
    EXPECT_EQ(failure_of(std::string("<INSTANCE-DATA><SECTION PREFIX='htdocs'/><SECTION PREFIX='") +
                         prefix + "'/></INSTANCE-DATA>"),
              "Bad sttribute name value")
        << prefix;
  EXPECT_EQ(failure_of("<INSTANCE-DATA><SECTION a='b' PREFIX='&#104;tdocs'/></INSTANCE-DATA>"), "");
}

TEST(ReadInstance, ReportsTheFirstFaultOfADocument) {
  EXPECT_EQ(failure_of("<INSTANCE-DATA><SECTION PREFIX='a'/><SECTION/></INSTANCE-DATA>"),
            "Bad sttribute name value");
  EXPECT_EQ(failure_of("<INSTANCE-DATA><SECTION/><SECTION PREFIX='a'/></INSTANCE-DATA>"),
            "Attribute name is required for section");
  EXPECT_EQ(failure_of("<OTHER><SECTION/></OTHER>"), "Wrong root node name");
  EXPECT_EQ(failure_of("<!-- --><OTHER><SECTION></OTHER>"), "XML parse error");
}

TEST(ReadInstance, TakesHugeTextsAndManyFiles) {
  const std::string text = times(2000000, "0123456789");
  EXPECT_EQ(readInstance(with_section("<FILE>" + text + "</FILE>"))[0].second.size(), text.size());
  EXPECT_EQ(readInstance(with_section(times(100000, "<FILE>a/b/c</FILE>"))).size(), 100000U);
}

/// Documents whose entities hold one another twice, 40 levels deep, and are used in one place.
std::vector<std::string> growing_documents() {
  std::string general = "<!ENTITY a0 \"ab\">";
  std::string parameter = "<!ENTITY % a0 \"<!-- a -->\">";
  for (int i = 1; i < 40; ++i) {
    const std::string name = "a" + std::to_string(i);
    const std::string below = "a" + std::to_string(i - 1) + ";";
    general.append("<!ENTITY ").append(name).append(" \"").append(times(2, "&" + below));
    general += "\">";
    parameter.append("<!ENTITY % ").append(name).append(" \"").append(times(2, "&#37;" + below));
    parameter += "\">";
  }
  const std::string begin = "<!DOCTYPE INSTANCE-DATA [";
  return {begin + general + "]>" + with_section("<FILE>&a39;</FILE>"),
          begin + general + "]>" + with_section("<FILE a='&a39;'/>"),
          begin + general + "<!ATTLIST FILE a CDATA '&a39;'>]>" + with_section("<FILE/>"),
          begin + general + "]><INSTANCE-DATA><SECTION PREFIX='&a39;'/></INSTANCE-DATA>",
          begin + parameter + "%a39;]>" + with_section("<FILE/>")};
}

TEST(ReadInstance, RefusesEntitiesThatGrowWithoutBound) {
  for (const std::string& document : growing_documents()) {
    const auto outcome = testsupport::in_child([&] {
      const rlimit seconds = {20, 20};
      if (setrlimit(RLIMIT_CPU, &seconds) != 0) _exit(97);
      if (failure_of(document) != "XML parse error") _exit(95);
      rusage usage = {};
      constexpr long kMostKilobytes = 512L * 1024;
      if (getrusage(RUSAGE_SELF, &usage) != 0 || usage.ru_maxrss > kMostKilobytes) _exit(94);
    });
    EXPECT_EQ(outcome, (testsupport::Outcome{"", "", 0})) << document;
  }
}

TEST(ReadInstance, TakesParameterEntitiesThatAPersonWrites) {
  EXPECT_EQ(failure_of("<!DOCTYPE INSTANCE-DATA [<!ENTITY % a \"<!ELEMENT b ANY>\">" +
                       times(20, "%a; <!ELEMENT c ANY>") + "]>" + with_section("")),
            "Wrong root node name");
}

TEST(ReadInstance, PrintsNothing) {
  std::vector<std::string> documents{
      "<a",
      "<a>&b;</a>",
      "<a xmlns:b=''/>",
      "<b:a/>",
      "<?xml version='7'?><a/>",
      "<?xml version='1.0' encoding='nonsense'?><a/>",
      "<?xml version='1.0' encoding='UTF-8'?><a>\xff</a>",
      "<!DOCTYPE a [<!ELEMENT b ANY><!ELEMENT b ANY>]><a/>",
      "<!DOCTYPE a [<!ATTLIST a b ID #IMPLIED><!ATTLIST a c ID #IMPLIED>]><a b='c' c='c'/>"};
  const std::string broken_utf16("\xff\xfe<\0a\0>\0\0\xd8<\0", 12);
  documents.push_back(broken_utf16);
  for (const std::string& text : documents) {
    const auto outcome = testsupport::in_child([&] { failure_of(text); });
    EXPECT_EQ(outcome, (testsupport::Outcome{"", "", 0})) << text;
  }
}

TEST(ReadInstance, LeavesTheCallersOwnReportsAsTheyAre) {
  const xmlStructuredErrorFunc none = nullptr;
  int data = 0;
  const auto report = [](void* /*data*/, auto* /*error*/) {};
  xmlSetStructuredErrorFunc(&data, report);
  failure_of("<a");
  EXPECT_EQ(xmlStructuredErrorContext, &data);
  EXPECT_NE(xmlStructuredError, none);
  xmlSetStructuredErrorFunc(nullptr, nullptr);
}

/// Descriptions that name other files in each way that there is.
std::vector<std::string> naming_documents(const std::string& file) {
  const std::string url = "file://" + file;
  const std::string body = with_section("<FILE>&a;</FILE>");
  return {"<!DOCTYPE INSTANCE-DATA [<!ENTITY a SYSTEM \"" + url + "\">]>" + body,
          "<!DOCTYPE INSTANCE-DATA [<!ENTITY a SYSTEM \"" + file + "\">]>" + body,
          "<!DOCTYPE INSTANCE-DATA [<!ENTITY a PUBLIC \"x\" \"" + url + "\">]>" + body,
          "<!DOCTYPE INSTANCE-DATA [<!ENTITY % a SYSTEM \"" + url + "\">%a;]>" + with_section(""),
          "<!DOCTYPE INSTANCE-DATA SYSTEM \"" + url + "\">" + with_section(""),
          "<!DOCTYPE INSTANCE-DATA PUBLIC \"-//x\" \"" + url + "\">" + body,
          "<?xml version=\"1.0\"?><?oasis-xml-catalog catalog=\"" + url +
              "\"?>"
              "<!DOCTYPE INSTANCE-DATA SYSTEM \"http://127.0.0.1:9/x\"><INSTANCE-DATA/>",
          "<?xml version=\"1.0\"?><?xml-stylesheet href=\"" + url + "\"?><INSTANCE-DATA/>",
          "<INSTANCE-DATA xmlns:xi=\"http://www.w3.org/2001/XInclude\"><xi:include href=\"" + url +
              "\"/></INSTANCE-DATA>"};
}

TEST(WidoDeleteInstance, OpensNothingThatItsDescriptionNames) {
  const vhosttest::Host host;
  testsupport::write_file(host / "named", "<!-- secret -->");
  for (const std::string& document : naming_documents(host / "named")) {
    const auto outcome =
        vhosttest::run_traced({"-f", "-o", host / "log", "-e", "trace=%file,%network"},
                              {"delete", host.site, host.documents, host.cgi, "."}, document);
    const std::string log = testsupport::read_file(host / "log");
    EXPECT_NE(log.find("execve("), std::string::npos);
    EXPECT_EQ(log.find("/named"), std::string::npos) << document << "\n" << log;
    EXPECT_EQ(log.find("catalog"), std::string::npos) << document << "\n" << log;
    EXPECT_EQ(log.find("socket("), std::string::npos) << document << "\n" << log;
    EXPECT_TRUE(outcome.err.empty() || outcome.err == "XML parse error" ||
                outcome.err == "Wrong root node name")
        << document << outcome;
  }
}

}  // namespace
