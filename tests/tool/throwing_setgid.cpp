// Preloaded into the tool: an exception that nobody catches, from a call that it makes.
#include <sys/types.h>

#include <stdexcept>

extern "C" [[gnu::visibility("default")]] int setgid(gid_t /*group*/);

extern "C" int setgid(gid_t /*group*/) {
  throw std::runtime_error("setgid() throws");
}
