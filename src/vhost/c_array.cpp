#include <stdio.h>

#include <ostream>
#include <string>

#include "vhost/misc.h"

namespace frask {
namespace {

constexpr int kBytesInALine = 8;

/// The bytes from `first` up to `end`, and what separates them from the next ones.
std::string bytesText(const unsigned char* data, int first, int end, int len) {
  std::string text;
  for (int i = first; i < end; ++i) {
    char byte[sizeof "0x00"];
    snprintf(byte, sizeof byte, "0x%02x", data[i]);
    text += byte;
    if (i != len - 1) text += ", ";
  }
  return text;
}

}  // namespace

void printCArray(std::ostream& os, const char* name, const unsigned char* data, int len) {
  os << "#define " << name << "_LEN " << std::to_string(len) << std::endl;
  if (len < 1) return;
  os << "#define " << name << "_DATA ";
  for (int first = 0, end = 0; first < len; first = end) {
    end = len - first > kBytesInALine ? first + kBytesInALine : len;
    if (first > 0) os << "\t\t\t";
    // Deliberate: the line before a single last byte is not continued, so that byte lies outside of
    // the definition. Pinned by PrintCArray.BreaksTheDefinitionBeforeASingleLastByte.
    os << bytesText(data, first, end, len) << (end < len - 1 ? "\\\n" : "\n");
  }
}

}  // namespace frask
