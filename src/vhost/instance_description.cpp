#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <limits.h>

#include <memory>
#include <stdexcept>
#include <string_view>

#include "vhost/instance.private.h"

namespace frask {
namespace {

struct FreeDocument {
  void operator()(xmlDoc* document) const noexcept { xmlFreeDoc(document); }
};
using Document = std::unique_ptr<xmlDoc, FreeDocument>;

std::string_view bytes(const xmlChar* text) {
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

bool isElement(const xmlNode& node, const char* name) {
  return node.type == XML_ELEMENT_NODE && bytes(node.name) == name;
}

/// The text right among these nodes, not that of elements between them. References to characters
/// have become text when the document was read; others cannot stand in one that declares no entity.
std::string textAmong(const xmlNode* nodes) {
  std::string text;
  for (const xmlNode* node = nodes; node != nullptr; node = node->next)
    if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE)
      text += bytes(node->content);
  return text;
}

const xmlAttr& prefixOf(const xmlNode& section) {
  const xmlAttr* attribute = section.properties;
  while (attribute != nullptr && bytes(attribute->name) != "PREFIX") attribute = attribute->next;
  if (attribute == nullptr) throw std::runtime_error("Attribute name is required for section");
  return *attribute;
}

InstallSection sectionNamed(const std::string& prefix) {
  if (prefix == "htdocs") return Htdocs;
  if (prefix == "cgi-bin") return CgiBin;
  // Deliberate: misspelt, and callers know the text. Pinned by
  // WidoDeleteInstance.RefusesAnUnknownSection.
  throw std::runtime_error("Bad sttribute name value");
}

void readSection(const xmlNode& section, std::vector<InstanceEntry>& entries) {
  const InstallSection place = sectionNamed(textAmong(prefixOf(section).children));
  for (const xmlNode* node = section.children; node != nullptr; node = node->next) {
    if (!isElement(*node, "FILE")) continue;
    std::string path = textAmong(node->children);
    if (!path.empty()) entries.emplace_back(place, std::move(path));
  }
}

struct FreeContext {
  void operator()(xmlParserCtxt* context) const noexcept { xmlFreeParserCtxt(context); }
};
using Context = std::unique_ptr<xmlParserCtxt, FreeContext>;

/// More references to parameter entities than these are no document type that a person wrote.
constexpr int kMostReferences = 10000;

/// The parser bounds what the entities of a text expand to, but not how often those of a document
/// type are expanded: each that holds two of another doubles the time that it takes.
xmlEntity* countedParameterEntity(void* context, const xmlChar* name) {
  int& references = *static_cast<int*>(static_cast<xmlParserCtxt*>(context)->_private);
  return references++ < kMostReferences ? xmlSAX2GetParameterEntity(context, name) : nullptr;
}

/// Keeps libxml2 from printing, for which XML_PARSE_NOERROR is not enough: the validity of a
/// document type and the conversion of encodings are reported in spite of it.
class SilentParser {
 public:
  SilentParser() {
    xmlSetStructuredErrorFunc(nullptr, [](void* /*data*/, auto* /*error*/) {});
  }
  ~SilentParser() { xmlSetStructuredErrorFunc(data_, report_); }
  SilentParser(const SilentParser&) = delete;
  SilentParser& operator=(const SilentParser&) = delete;

 private:
  xmlStructuredErrorFunc report_ = xmlStructuredError;
  void* data_ = xmlStructuredErrorContext;
};

/// Without the option to substitute entities the parser opens no external one, and without the one
/// to load document types none that lies beside the document.
Document parse(const std::string& description) {
  const SilentParser silent;
  const Context context(xmlNewParserCtxt());
  if (!context || description.size() > INT_MAX) return nullptr;
  int references = 0;
  context->_private = &references;
  context->sax->getParameterEntity = countedParameterEntity;
  Document document(xmlCtxtReadMemory(context.get(), description.data(),
                                      static_cast<int>(description.size()), nullptr, nullptr,
                                      XML_PARSE_NONET));
  if (references > kMostReferences) document.reset();
  return document;
}

}  // namespace

std::vector<InstanceEntry> readInstance(const std::string& description) {
  const Document document = parse(description);
  if (!document) throw std::runtime_error("XML parse error");
  const xmlNode* root = document->children;
  // A document type could go by this name, too.
  if (root == nullptr || !isElement(*root, "INSTANCE-DATA"))
    throw std::runtime_error("Wrong root node name");
  std::vector<InstanceEntry> entries;
  for (const xmlNode* node = root->children; node != nullptr; node = node->next)
    if (isElement(*node, "SECTION")) readSection(*node, entries);
  return entries;
}

}  // namespace frask
