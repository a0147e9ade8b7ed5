// fork_execl_getout against the other ways of getting a program's output.
#include <malloc.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <memory>

#include "capture.h"
#include "exec/forkexec.h"
#include "program.h"
#include "rows.h"

namespace bench {
namespace {

constexpr size_t kHeld = 536870912;
constexpr size_t kPage = 4096;

/// Whether a text is that of bench/producer, at no cost that would be measured.
bool is_whole(char* text, size_t length) {
  if (malloc_usable_size(text) <= length || text[length] != '\0') return false;
  return length == 0 || text[length - 1] == 'x';
}

bool ours_once(const Command& command) {
  char* text = nullptr;
  const char* path = command.words[0].c_str();
  const char* argument = command.words.size() > 1 ? command.words[1].c_str() : nullptr;
  const int result = fork_execl_getout(&text, path, path, argument, static_cast<char*>(nullptr));
  const bool done = result == 0 && text != nullptr && is_whole(text, command.output);
  free(text);
  return done;
}

Contenders set_up_capture(const Command& command) {
  return {capturing(command, ours_once), by_popen(command), by_posix_spawn(command), command.runs};
}

/// Memory in use, in pages of the smallest size: a fork copies an entry of the page table for each.
class HeldMemory {
 public:
  HeldMemory()
      : pages_(mmap(nullptr, kHeld, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
    require(pages_ != MAP_FAILED && madvise(pages_, kHeld, MADV_NOHUGEPAGE) == 0, "mmap");
    for (size_t at = 0; at < kHeld; at += kPage) static_cast<volatile char*>(pages_)[at] = 1;
  }
  HeldMemory(const HeldMemory&) = delete;
  HeldMemory& operator=(const HeldMemory&) = delete;
  ~HeldMemory() { munmap(pages_, kHeld); }

 private:
  void* pages_;
};

Contenders set_up_beside_much_memory() {
  const auto memory = std::make_shared<HeldMemory>();
  Contenders contenders = set_up_capture(many_short(50));
  contenders.ours.prepare = [memory] {};  // the memory goes when the contenders go
  return contenders;
}

}  // namespace

void add_capture_rows(std::vector<Row>& rows) {
  const std::string popen_name = "popen(), read into a growing buffer";
  const std::string spawn_name = "posix_spawn(), read into a growing buffer";
  rows.push_back({"getout-true", "fork_execl_getout, /bin/true", 0, Aim{popen_name, 0.6},
                  Aim{spawn_name, 1.15}, [] { return set_up_capture(many_short(200)); }});
  rows.push_back({"getout-1g", "fork_execl_getout, 1 GiB", 0, Aim{popen_name, 0.7},
                  Aim{spawn_name, 1.15}, [] { return set_up_capture(one_long()); }});
  rows.push_back({"getout-held", "the same, /bin/true, 512 MiB held", 0, Aim{popen_name, 0.8},
                  Aim{spawn_name, 1.3}, set_up_beside_much_memory});
}

}  // namespace bench
