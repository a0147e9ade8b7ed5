// Not installed: an argument vector in the form that exec takes.
#ifndef FRASK_EXEC_ARGV_PRIVATE_H
#define FRASK_EXEC_ARGV_PRIVATE_H

#include <string>
#include <vector>

#include "exec/TEArgs.h"
#include "exec/keep_errno.private.h"

namespace frask::sys {

/// Copies of the strings behind a NULL-terminated array. The destructor leaves errno as it was.
class Argv {
 public:
  explicit Argv(const TEArgs& args) {
    copies_.reserve(args.size());
    pointers_.reserve(args.size() + 1);
    for (unsigned long i = 0; i < args.size(); ++i) {
      copies_.emplace_back(args[i].c_str(), args[i].c_str() + args[i].size() + 1);
      pointers_.push_back(copies_.back().data());
    }
    pointers_.push_back(nullptr);
  }
  Argv(const Argv&) = delete;
  Argv& operator=(const Argv&) = delete;
  ~Argv() {
    const KeepErrno keep;
    copies_.clear();
  }

  char* const* get() const noexcept { return pointers_.data(); }

 private:
  std::vector<std::vector<char>> copies_;
  std::vector<char*> pointers_;
};

}  // namespace frask::sys

#endif
