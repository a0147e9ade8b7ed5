#include "support/hidden_text.h"

#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace testsupport {
namespace {

constexpr char kDisguise = 0x40;
constexpr size_t kWord = 16;
constexpr size_t kChunk = size_t{1} << 20U;
/// The sanitizer's shadow, of which nothing can be said, is far larger; no other mapping is.
constexpr uint64_t kLargestMapping = uint64_t{1} << 30U;

char uncovered(char disguised) {
  return static_cast<char>(disguised ^ kDisguise);
}

/// What was read of the process's memory; it does not look at itself.
class Window {
 public:
  Window()
      : memory_(open("/proc/self/mem", O_RDONLY | O_CLOEXEC)),
        bytes_(static_cast<char*>(
            mmap(nullptr, kChunk, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
    if (memory_ < 0 || bytes_ == MAP_FAILED) throw std::runtime_error("cannot read own memory");
  }
  ~Window() {
    munmap(bytes_, kChunk);
    close(memory_);
  }
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  size_t read_at(uint64_t address, size_t wanted) {
    const ssize_t n = pread(memory_, bytes_, wanted, static_cast<off_t>(address));
    return n > 0 ? static_cast<size_t>(n) : 0;
  }
  size_t copies(size_t size, const std::string& disguised) const {
    const auto first = static_cast<unsigned char>(uncovered(disguised[0]));
    const char* end = bytes_ + size - disguised.size() + 1;
    size_t count = 0;
    for (const char* at = bytes_; at < end; ++at) {
      at = static_cast<const char*>(memchr(at, first, static_cast<size_t>(end - at)));
      if (at == nullptr) break;
      if (is_at(at, disguised)) ++count;
    }
    return count;
  }
  uint64_t begin() const { return reinterpret_cast<uint64_t>(bytes_); }
  uint64_t end() const { return begin() + kChunk; }

 private:
  static bool is_at(const char* at, const std::string& disguised) {
    for (size_t i = 0; i < disguised.size(); ++i)
      if (at[i] != uncovered(disguised[i])) return false;
    return true;
  }

  int memory_;
  char* bytes_;
};

/// Chunks overlap by less than a word, so that one across a border counts once.
size_t copies_between(Window& window, uint64_t begin, uint64_t end, const std::string& disguised) {
  size_t copies = 0;
  const size_t overlap = disguised.size() - 1;
  while (begin + disguised.size() <= end) {
    const size_t wanted = end - begin < kChunk ? static_cast<size_t>(end - begin) : kChunk;
    const size_t size = window.read_at(begin, wanted);
    if (size < disguised.size()) break;
    copies += window.copies(size, disguised);
    begin += size - overlap;
  }
  return copies;
}

/// Leaves out the window itself, which the kernel may have merged with its neighbours.
size_t copies_in_mapping(Window& window, uint64_t begin, uint64_t end,
                         const std::string& disguised) {
  if (window.begin() < begin || window.end() > end)
    return copies_between(window, begin, end, disguised);
  return copies_between(window, begin, window.begin(), disguised) +
         copies_between(window, window.end(), end, disguised);
}

}  // namespace

HiddenText::HiddenText(size_t repetitions) : repetitions_(repetitions) {
  std::random_device random;
  for (size_t i = 0; i < kWord; ++i)
    disguised_word_ += static_cast<char>(('a' + static_cast<char>(random() % 26)) ^ kDisguise);
}

size_t HiddenText::size() const {
  return disguised_word_.size() * repetitions_;
}

void HiddenText::append_to(const std::string& path) const {
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("cannot append to " + path);
  bool written = true;
  for (size_t i = 0; i < size(); ++i) {
    const char c = uncovered(disguised_word_[i % kWord]);
    written = written && write(fd, &c, 1) == 1;
  }
  close(fd);
  if (!written) throw std::runtime_error("cannot append to " + path);
}

size_t HiddenText::copies_of_the_word() const {
  Window window;
  std::ifstream maps("/proc/self/maps");
  size_t copies = 0;
  for (std::string line; std::getline(maps, line);) {
    uint64_t begin = 0;
    uint64_t end = 0;
    char dash = 0;
    std::string permissions;
    if (!(std::istringstream(line) >> std::hex >> begin >> dash >> end >> permissions))
      throw std::runtime_error("cannot read own mappings");
    if (permissions.rfind("rw", 0) != 0 || end - begin > kLargestMapping) continue;
    copies += copies_in_mapping(window, begin, end, disguised_word_);
  }
  return copies;
}

}  // namespace testsupport
