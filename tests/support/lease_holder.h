// A file that another process has a lease on.
#ifndef TESTS_SUPPORT_LEASE_HOLDER_H
#define TESTS_SUPPORT_LEASE_HOLDER_H

#include <sys/types.h>

#include <string>

namespace testsupport {

/// A process that has a write lease on a file, and gives it up as soon as someone opens the file,
/// or after a minute.
class LeaseHolder {
 public:
  explicit LeaseHolder(const std::string& path);
  ~LeaseHolder();
  LeaseHolder(const LeaseHolder&) = delete;
  LeaseHolder& operator=(const LeaseHolder&) = delete;

  /// Whether someone has opened the file; waits for that.
  bool was_asked() const;

 private:
  pid_t pid_;
};

}  // namespace testsupport

#endif
