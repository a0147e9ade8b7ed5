// However a file is cut into pieces, replacing its placeholders gives what a search at every byte
// gives.
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <string_view>

#include "check.h"
#include "vhost/placeholder.private.h"

namespace {

std::string replaced_at_every_byte(std::string_view text, std::string_view name) {
  std::string result;
  while (!text.empty()) {
    const bool here = text.substr(0, frask::kPlaceholder.size()) == frask::kPlaceholder;
    result += here ? name : text.substr(0, 1);
    text.remove_prefix(here ? frask::kPlaceholder.size() : 1);
  }
  return result;
}

std::string replaced_in_pieces(std::string_view text, std::string_view name, size_t piece) {
  std::string result;
  std::string pending;
  std::string out;
  for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) {
    pending += text.substr(0, piece);
    const frask::ReplacedPiece done = frask::replacePlaceholders(pending, name, out);
    check(done.unfinished < frask::kPlaceholder.size());
    result += done.text;
    pending.erase(0, pending.size() - done.unfinished);
  }
  return result + pending;
}

}  // namespace

/// The first byte is the size of the pieces; the name goes to the first newline, the rest is the
/// file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  const size_t end = rest.find('\n');
  const std::string_view name = rest.substr(0, end);
  const std::string_view text = end == std::string_view::npos ? "" : rest.substr(end + 1);
  const std::string expected = replaced_at_every_byte(text, name);
  check(replaced_in_pieces(text, name, 1 + size_t{data[0]}) == expected);
  check(replaced_in_pieces(text, name, size) == expected);
  return 0;
}
