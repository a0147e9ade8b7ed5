// A description that is built from the input with known entries is read as exactly these, or
// refused with the text for the first thing wrong in it. Arbitrary bytes are read as a plain model
// reads the parsed document.
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <stdint.h>
#include <stdlib.h>

#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "check.h"
#include "vhost/instance.private.h"

namespace {

using Entries = std::vector<frask::InstanceEntry>;
/// The entries, or what the exception says.
using Reading = std::variant<Entries, std::string>;

Reading read(const std::string& description) {
  try {
    return frask::readInstance(description);
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
}

/// A description that grows by what the bytes of the input choose, and what is to be read from it.
class Description {
 public:
  explicit Description(std::string_view choices) : choices_(choices) {}

  void build() {
    if (chosen(8) == 1) {
      text_ += "<!-- first -->";
      failure_ = "Wrong root node name";
    }
    const std::string root = chosen(8) == 1 ? "INSTANCE" : "INSTANCE-DATA";
    if (root == "INSTANCE") fail("Wrong root node name");
    text_ += "<" + root + (chosen(4) == 1 ? " PREFIX='x'>" : ">");
    while (!choices_.empty()) child_of_root();
    text_ += "</" + root + ">";
  }

  /// Cut off before its end it is no document.
  const std::string& text() const { return text_; }
  Reading expected() const {
    if (!failure_.empty()) return failure_;
    return entries_;
  }

 private:
  /// A number below `most`; 0 at the end of the input.
  size_t chosen(size_t most) {
    if (choices_.empty()) return 0;
    const auto byte = static_cast<unsigned char>(choices_[0]);
    choices_.remove_prefix(1);
    return byte % most;
  }

  /// The first failure counts.
  void fail(const char* what) {
    if (failure_.empty()) failure_ = what;
  }

  void child_of_root() {
    switch (chosen(8)) {
      case 0:
        text_ += "<section PREFIX='htdocs'><FILE>small letters</FILE></section>";
        break;
      case 1:
        text_ += "<OTHER><SECTION PREFIX='htdocs'><FILE>deep</FILE></SECTION></OTHER>";
        break;
      case 2:
        text_ += "\n<!-- <FILE>comment</FILE> --><FILE>beside</FILE> text";
        break;
      case 3:
        refused_section();
        break;
      default:
        section();
    }
  }

  void refused_section() {
    switch (chosen(4)) {
      case 0:
        text_ += "<SECTION><FILE>x</FILE></SECTION>";
        fail("Attribute name is required for section");
        break;
      case 1:
        text_ += "<SECTION prefix='htdocs'/>";
        fail("Attribute name is required for section");
        break;
      case 2:
        text_ += "<SECTION PREFIX='httpdocs'/>";
        fail("Bad sttribute name value");
        break;
      default:
        text_ += "<SECTION PREFIX=' cgi-bin'/>";
        fail("Bad sttribute name value");
    }
  }

  void section() {
    const bool cgi = chosen(2) == 1;
    const std::string other = chosen(4) == 1 ? " NAME='htdocs' x='cgi-bin'" : "";
    text_ += "<SECTION" + other + " PREFIX=" + (cgi ? "'cgi-bin'" : "\"ht&#100;ocs\"") + ">";
    for (size_t files = chosen(8); files > 0; --files) {
      if (chosen(8) == 1) text_ += "<file>x</file> text <OTHER><FILE>deep</FILE></OTHER>\n";
      file(cgi ? frask::CgiBin : frask::Htdocs);
    }
    text_ += "</SECTION>";
  }

  void file(frask::InstallSection section) {
    std::string path;
    text_ += "<FILE>";
    for (size_t parts = chosen(6); parts > 0; --parts) path += part_of_path();
    text_ += "</FILE>";
    if (!path.empty()) entries_.emplace_back(section, path);
  }

  /// Appends it as it is written, and returns what it means.
  std::string part_of_path() {
    struct Part {
      const char* written;
      const char* meant;
    };
    static constexpr Part kParts[] = {
        {"index.php", "index.php"},
        {"/", "/"},
        {"..", ".."},
        {"&amp;&lt;&gt;", "&<>"},
        {"&#10;", "\n"},
        {"\xc3\xa4", "\xc3\xa4"},
        {"&#xE4;", "\xc3\xa4"},
        {" ", " "},
        {"\r\n", "\n"},
        {"<![CDATA[<a>&amp;]]>", "<a>&amp;"},
        {"<b>not</b>", ""},
        {"<!--not-->", ""},
        {"<?not this?>", ""},
        {"]]", "]]"},
    };
    const size_t choice = chosen(std::size(kParts) + 2);
    if (choice < std::size(kParts)) {
      text_ += kParts[choice].written;
      return kParts[choice].meant;
    }
    // A byte of the input by its number; XML has none for most control characters.
    std::string byte(1, static_cast<char>(' ' + chosen(0x5f)));
    text_ += "&#" + std::to_string(static_cast<int>(byte[0])) + ";";
    return byte;
  }

  std::string_view choices_;
  std::string text_;
  Entries entries_;
  std::string failure_;
};

void check_built(std::string_view choices) {
  Description description(choices);
  description.build();
  check(read(description.text()) == description.expected());
  const std::string cut = description.text().substr(0, description.text().size() - 1);
  check(read(cut) == Reading("XML parse error"));
}

struct Free {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
  void operator()(xmlChar* text) const { xmlFree(text); }
};
using Text = std::unique_ptr<xmlChar, Free>;

bool is_named(const xmlNode* node, const char* name) {
  return node != nullptr && node->type == XML_ELEMENT_NODE &&
         xmlStrEqual(node->name, reinterpret_cast<const xmlChar*>(name)) == 1;
}

Reading reading_by_model(xmlDoc* document) {
  if (document == nullptr) return "XML parse error";
  if (!is_named(document->children, "INSTANCE-DATA")) return "Wrong root node name";
  Entries entries;
  for (xmlNode* section = document->children->children; section; section = section->next) {
    if (!is_named(section, "SECTION")) continue;
    const Text prefix(xmlGetProp(section, reinterpret_cast<const xmlChar*>("PREFIX")));
    if (!prefix) return "Attribute name is required for section";
    const std::string place = reinterpret_cast<const char*>(prefix.get());
    if (place != "htdocs" && place != "cgi-bin") return "Bad sttribute name value";
    for (xmlNode* file = section->children; file; file = file->next) {
      if (!is_named(file, "FILE")) continue;
      const Text path(xmlNodeListGetString(document, file->children, 1));
      if (path && *path != '\0')
        entries.emplace_back(place == "htdocs" ? frask::Htdocs : frask::CgiBin,
                             reinterpret_cast<const char*>(path.get()));
    }
  }
  return entries;
}

/// Parameter entities, which are written with "%", can make the parser go on for years; the reader
/// gives up in time, the model would not.
void check_as_it_is(const std::string& bytes) {
  const Reading reading = read(bytes);
  if (bytes.find('%') != std::string::npos) return;
  const std::unique_ptr<xmlDoc, Free> document(
      xmlReadMemory(bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  check(reading == reading_by_model(document.get()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(data, data + size);
  check_built(bytes);
  check_as_it_is(bytes);
  return 0;
}
