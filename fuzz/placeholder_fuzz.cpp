// However a file is cut into pieces, by this target or by the routine that copies files into a
// site, replacing its placeholders gives what a search at every byte gives.
#include <fcntl.h>
#include <stdint.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "fs/unique_fd.h"
#include "memory_file.h"
#include "vhost/deploy_file.private.h"
#include "vhost/placeholder.private.h"

namespace {

/// A socket does not hold many more.
constexpr size_t kMostPackets = 64;
/// Two placeholders; a real piece is large, and so is what it costs.
constexpr size_t kMostBefore = 26;

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

class OutFile {
 public:
  std::string content() const {
    std::string bytes(static_cast<size_t>(lseek(fd_.get(), 0, SEEK_END)), '\0');
    const ssize_t got = pread(fd_.get(), bytes.data(), bytes.size(), 0);
    check(got == static_cast<ssize_t>(bytes.size()));
    return bytes;
  }
  int fd() const { return fd_.get(); }

 private:
  frask::UniqueFd fd_{memfd_create("fuzz", MFD_CLOEXEC)};
};

/// What becomes of a file on its way into a site.
std::string copied(const frask::UniqueFd& from, std::string_view name, off_t size) {
  const OutFile to;
  frask::FileCopier(std::string(name)).copy(from.get(), to.fd(), size);
  return to.content();
}

/// Each read gets one packet, so that a file comes in the pieces that are asked for.
std::string copied_in_pieces(std::string_view text, std::string_view name, size_t piece) {
  int ends[2];
  check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
  const frask::UniqueFd from(ends[0]);
  frask::UniqueFd filling(ends[1]);
  const auto size = static_cast<off_t>(text.size());
  for (; !text.empty(); text.remove_prefix(std::min(piece, text.size())))
    check(send(filling.get(), text.data(), std::min(piece, text.size()), MSG_DONTWAIT) > 0);
  filling.reset();
  return copied(from, name, size);
}

/// With the text lying across the end of the first piece that is read.
void check_across(std::string_view text, std::string_view name, size_t before,
                  const std::string& expected) {
  const std::string filling(frask::FileCopier::kPiece - std::min(before, text.size()), '.');
  const MemoryFile from(filling + std::string(text));
  const frask::UniqueFd reading(open(from.path(), O_RDONLY | O_CLOEXEC));
  const auto size = static_cast<off_t>(filling.size() + text.size());
  check(copied(reading, name, size) == filling + expected);
}

/// With a hole before the text, and one behind it or none.
void check_behind_hole(std::string_view text, std::string_view name, const std::string& expected) {
  constexpr size_t kHole = 8192;
  const std::string hole(kHole, '\0');
  for (const size_t behind : {kHole, size_t{0}}) {
    const OutFile from;
    check(pwrite(from.fd(), text.data(), text.size(), kHole) == static_cast<ssize_t>(text.size()));
    check(ftruncate(from.fd(), static_cast<off_t>(kHole + text.size() + behind)) == 0);
    const OutFile to;
    frask::FileCopier(std::string(name)).copyWithHoles(from.fd(), to.fd());
    check(to.content() == hole + expected + hole.substr(0, behind));
  }
}

}  // namespace

/// The first byte is the size of the pieces, the second how much of the file lies before the end of
/// a piece of the real size; the name goes to the first newline, the rest is the file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data) + 2, size - 2);
  const size_t end = rest.find('\n');
  const std::string_view name = rest.substr(0, end);
  const std::string_view text = end == std::string_view::npos ? "" : rest.substr(end + 1);
  const std::string expected = replaced_at_every_byte(text, name);
  const size_t piece = 1 + size_t{data[0]};
  check(replaced_in_pieces(text, name, piece) == expected);
  check(replaced_in_pieces(text, name, size) == expected);
  if (text.size() / piece < kMostPackets) check(copied_in_pieces(text, name, piece) == expected);
  if (data[1] < kMostBefore) check_across(text, name, data[1], expected);
  check_behind_hole(text, name, expected);
  return 0;
}
