// A text that is longer than an int can tell.
#ifndef TESTS_TEXT_ENDLESS_TEXT_H
#define TESTS_TEXT_ENDLESS_TEXT_H

#include <stddef.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

/// A text of 4 GiB of "a" and a tail behind them, which takes up one megabyte.
class EndlessText {
 public:
  static constexpr size_t kLetters = size_t{4} << 30U;

  explicit EndlessText(const std::string& tail) : file_(memfd_create("text", MFD_CLOEXEC)) {
    const std::string content(kPiece, 'a');
    if (write(file_, content.data(), kPiece) != static_cast<ssize_t>(kPiece)) return;
    text_ = map(nullptr, kSize, -1, 0);
    for (size_t at = 0; text_ != MAP_FAILED && at < kLetters; at += kPiece)
      map(static_cast<char*>(text_) + at, kPiece, file_, MAP_FIXED);
    if (text_ != MAP_FAILED) tail.copy(static_cast<char*>(text_) + kLetters, tail.size());
  }
  ~EndlessText() {
    if (text_ != MAP_FAILED) munmap(text_, kSize);
    close(file_);
  }
  EndlessText(const EndlessText&) = delete;
  EndlessText& operator=(const EndlessText&) = delete;

  const char* get() const { return text_ != MAP_FAILED ? static_cast<char*>(text_) : nullptr; }

 private:
  static constexpr size_t kPiece = size_t{1} << 20U;
  static constexpr size_t kSize = kLetters + 4096;

  static void* map(void* where, size_t size, int file, int more) {
    const int kind = file >= 0 ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    return mmap(where, size, PROT_READ | PROT_WRITE, kind | more, file, 0);
  }

  int file_;
  void* text_ = MAP_FAILED;
};

#endif
