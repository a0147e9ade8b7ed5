#include "log/messlog.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include "log/c_string.private.h"

const char* PROGNAME = nullptr;

namespace {

constexpr size_t kFirstSize = 4096;

/// A message under construction: the text, and the length that its formatting wanted.
struct Message {
  frask::CString text;
  size_t size = 0;
  size_t length = 0;

  /// False when memory is exhausted; the text is then as it was.
  bool resize(size_t wanted) {
    char* grown = static_cast<char*>(realloc(text.get(), wanted));
    if (grown == nullptr) return false;
    static_cast<void>(text.release());
    text.reset(grown);
    size = wanted;
    return true;
  }
};

/// The last component of a path as POSIX basename() gives it, without its writing to the argument.
std::string_view base_name(std::string_view path) {
  if (path.empty()) return ".";
  const size_t last = path.find_last_not_of('/');
  if (last == std::string_view::npos) return "/";
  path = path.substr(0, last + 1);
  return path.substr(path.find_last_of('/') + 1);
}

void format_message(Message& message, const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  const int wanted = vsnprintf(message.text.get(), message.size, format, args);
  if (wanted < 0) message.text.get()[0] = '\0';
  message.length = wanted < 0 ? 0 : static_cast<size_t>(wanted);
  if (message.length >= message.size && message.resize(message.length + 1))
    vsnprintf(message.text.get(), message.size, format, again);
  va_end(again);
}

/// Appends the system error where it fits whole behind the message.
void append_system_error(Message& message, int error) {
  const size_t room = message.length < message.size ? message.size - message.length : 0;
  if (room > 0) {
    const int wanted = snprintf(message.text.get() + message.length, room, "\nSystem error %d: %s",
                                error, strerror(error));
    if (wanted >= 0 && static_cast<size_t>(wanted) < room) return;
  }
  // Deliberate: a message that leaves too little room is written without the suffix, since readers
  // of the panel's logs take the text of a long message as it is. Pinned by
  // Messlog2.LosesTheSystemErrorWhenItDoesNotFitWhole.
  if (message.resize(message.length + 2)) message.text.get()[message.length] = '\0';
}

void write_line(FILE* stream, const char* text) {
  const size_t length = strlen(text);
  const char* newline = length > 0 && text[length - 1] == '\n' ? "" : "\n";
  if (PROGNAME == nullptr) {
    fprintf(stream, "%s%s", text, newline);
  } else {
    const std::string_view prefix = base_name(PROGNAME);
    fprintf(stream, "%.*s: %s%s", static_cast<int>(prefix.size()), prefix.data(), text, newline);
  }
  fflush(stream);
}

}  // namespace

void messlog2(int exit_code, int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vmesslog2(exit_code, level, format, args);
  va_end(args);
}

void vmesslog2(int exit_code, int level, const char* format, va_list args) {
  const int error = errno;
  Message message;
  if (!message.resize(kFirstSize)) {
    ex_messlog("Can't allocate memory for error message", exit_code, level);
    errno = error;
    return;
  }
  errno = error;  // for a "%m" in the format
  format_message(message, format, args);
  if (error != 0) append_system_error(message, error);
  ex_messlog(message.text.get(), exit_code, level);
  message.text.reset();
  errno = error;
}

int ex_messlog(const char* text, int exit_code, int /*level*/) {
  write_line(stderr, text);
  write_line(stdout, text);
  if (exit_code != 0) exit(exit_code);
  return 0;
}
