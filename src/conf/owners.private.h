// Not installed: the owners of streams, secrets and line buffers in this room. All of them leave
// errno as it was, for the report that follows.
#ifndef FRASK_CONF_OWNERS_PRIVATE_H
#define FRASK_CONF_OWNERS_PRIVATE_H

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>

namespace frask::conf {

struct CloseStream {
  void operator()(FILE* stream) const noexcept {
    const int error = errno;
    fclose(stream);
    errno = error;
  }
};
using Stream = std::unique_ptr<FILE, CloseStream>;

/// fopen() for reading that does not wait for the writer of a named pipe in the file's place.
inline FILE* open_without_waiting(const char* path) noexcept {
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return nullptr;
  FILE* stream = fdopen(fd, "r");
  if (stream == nullptr) {
    const int error = errno;
    close(fd);
    errno = error;
  }
  return stream;
}

/// A file that may hold a password: it is read through a buffer that is wiped after use. Not
/// movable, for the stream points into the object.
class SecretFile {
 public:
  explicit SecretFile(const char* path) noexcept : stream_(open_without_waiting(path)) {
    if (stream_) setvbuf(stream_.get(), buffer_, _IOFBF, sizeof buffer_);
  }
  ~SecretFile() {
    stream_.reset();
    explicit_bzero(buffer_, sizeof buffer_);
  }
  SecretFile(const SecretFile&) = delete;
  SecretFile& operator=(const SecretFile&) = delete;

  explicit operator bool() const noexcept { return stream_ != nullptr; }
  FILE* stream() const noexcept { return stream_.get(); }

 private:
  char buffer_[BUFSIZ];
  Stream stream_;
};

/// Memory that is wiped before it is freed.
class Wipe {
 public:
  explicit Wipe(size_t size = 0) noexcept : size_(size) {}
  void operator()(char* memory) const noexcept {
    explicit_bzero(memory, size_);
    free(memory);
  }

 private:
  size_t size_;
};
using Secret = std::unique_ptr<char, Wipe>;

/// The lines of a file, one after the other, in one growing buffer that is wiped before it is
/// freed.
class LineBuffer {
 public:
  LineBuffer() = default;
  /// Growing may leave a copy of the line behind in freed memory. A buffer that is large enough at
  /// the start never grows; without the memory for it, it grows after all.
  explicit LineBuffer(size_t size) noexcept : text_(static_cast<char*>(malloc(size))) {
    if (text_ != nullptr) size_ = size;
  }
  ~LineBuffer() {
    if (text_ != nullptr) explicit_bzero(text_, size_);
    free(text_);
  }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  /// Reads the next line, its newline included; false at the end, and when reading fails, with
  /// errno. The part of a line that was read before that is not one.
  bool read(FILE* stream) noexcept {
    return getline(&text_, &size_, stream) != -1 && ferror(stream) == 0;
  }
  char* text() const noexcept { return text_; }

 private:
  char* text_ = nullptr;
  size_t size_ = 0;
};

}  // namespace frask::conf

#endif
