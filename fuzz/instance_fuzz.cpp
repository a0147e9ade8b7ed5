// Whatever the description, it is refused with one of four texts or gives entries; and these,
// written as a description again, are read as they were.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "memory_file.h"
#include "vhost/instance.private.h"

namespace {

using Entries = std::vector<frask::InstanceEntry>;

constexpr std::array<std::string_view, 4> kFailures{"XML parse error", "Wrong root node name",
                                                    "Attribute name is required for section",
                                                    "Bad sttribute name value"};

Entries read(const std::string& description) {
  try {
    return frask::readInstance(description);
  } catch (const std::runtime_error& failure) {
    check(std::find(kFailures.begin(), kFailures.end(), failure.what()) != kFailures.end());
    return {};
  }
}

std::string escaped(const std::string& text) {
  std::string written;
  for (const char byte : text) {
    // A carriage return as it is would be read as the end of a line.
    if (byte == '<' || byte == '&' || byte == '>' || byte == '\r')
      written += "&#" + std::to_string(static_cast<int>(byte)) + ";";
    else
      written += byte;
  }
  return written;
}

std::string written(const Entries& entries) {
  std::string description = "<INSTANCE-DATA>";
  for (const auto& [section, path] : entries) {
    const char* prefix = section == frask::CgiBin ? "cgi-bin" : "htdocs";
    description += std::string("<SECTION PREFIX=\"") + prefix + "\"><FILE>" + escaped(path) +
                   "</FILE></SECTION>";
  }
  return description + "</INSTANCE-DATA>";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Entries entries = read({reinterpret_cast<const char*>(data), size});
  for (const auto& [section, path] : entries) {
    check(section == frask::CgiBin || section == frask::Htdocs);
    check(!path.empty() && path.find('\0') == std::string::npos);
  }
  check(frask::readInstance(written(entries)) == entries);
  return 0;
}
