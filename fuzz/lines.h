// How the models of the line by line formats see a file.
#ifndef FUZZ_LINES_H
#define FUZZ_LINES_H

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "check.h"

inline constexpr std::string_view kSpace = " \t\n\v\f\r";

/// The lines of a file, each with its newline, as C strings are read.
inline std::vector<std::string> lines_of(std::string_view content) {
  std::vector<std::string> lines;
  while (!content.empty()) {
    const size_t size = std::min(content.find('\n'), content.size() - 1) + 1;
    lines.push_back(c_string(std::string(content.substr(0, size))));
    content.remove_prefix(size);
  }
  return lines;
}

#endif
