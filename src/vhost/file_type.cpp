#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <memory>

#include "exec/texec.h"
#include "vhost/layout.h"

namespace frask {
namespace {

constexpr int kExecFailed = 255;

struct Unmap {
  void operator()(int* number) const noexcept { ::munmap(number, sizeof *number); }
};

/// Ends a child that fails before the program runs, and leaves the reason to the parent: thrown in
/// the child, the failure would make a second process go on in the caller's code.
class EndsFailedChild : public sys::TExec::TPrepare {
 public:
  EndsFailedChild() {
    void* shared =
        ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) throw sys::TSysCallErr(errno);
    reason_.reset(static_cast<int*>(shared));
  }

  void aft_fork4d(sys::TExec&) override { in_child_ = true; }
  bool exec_failed(sys::TExec&) override { end(errno); }

  /// For what is thrown where no program was tried.
  void endChild() {
    if (in_child_) end(ENOMEM);
  }

  /// The errno value of the child's failure, 0 when the program has run.
  int reason() const noexcept { return *reason_; }

 private:
  [[noreturn]] void end(int error) {
    *reason_ = error;
    ::_exit(kExecFailed);
  }

  std::unique_ptr<int, Unmap> reason_;
  bool in_child_ = false;
};

/// A relative path that begins with "-" would be read as options, and "-" as standard input.
std::string asOperand(const std::string& path) {
  return path.rfind('-', 0) == 0 ? "./" + path : path;
}

}  // namespace

std::string typeFromPath(const std::string& path) {
  auto* const child = new EndsFailedChild;
  const Handle<sys::TExec::TPrepare> owner(child);
  sys::TEArgs args = sys::el;
  args.push_back("file");
  args.push_back("-bL");
  args.push_back(asOperand(path));
  sys::TExec command(args, sys::fork_mode | sys::path_mode);
  command += owner;
  std::string type;
  int status = 0;
  try {
    sys::execGetOutput(&type, &status, command);
  } catch (...) {
    child->endChild();
    throw;
  }
  if (child->reason() != 0) throw sys::TSysCallErr(child->reason());
  return type;
}

}  // namespace frask
