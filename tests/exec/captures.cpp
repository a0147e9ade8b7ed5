#include "exec/captures.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include "exec/forkexec.h"
#include "log/c_string.private.h"

namespace exectest {
namespace {

std::string shown(const frask::CString& text) {
  return text == nullptr ? "(null)" : text.get();
}

char some_text[] = "set before the call";

}  // namespace

Captured capture_out(const Argv& argv) {
  char* out = some_text;
  const int result = fork_execv_getout(&out, argv.path(), argv.get());
  return {result, shown(frask::CString(out)), ""};
}

Captured capture_both(const Argv& argv) {
  char* out = some_text;
  char* err = some_text;
  const int result = fork_execv_getouterr(&out, &err, argv.path(), argv.get());
  return {result, shown(frask::CString(out)), shown(frask::CString(err))};
}

void print(const Captured& captured) {
  printf("%d|%s|%s\n", captured.result, captured.out.c_str(), captured.err.c_str());
}

Gate::Gate() {
  if (mkfifo(path().c_str(), 0600) != 0) throw std::runtime_error("mkfifo failed");
}

void Gate::release() const {
  close(open(path().c_str(), O_WRONLY | O_CLOEXEC));
}

}  // namespace exectest
