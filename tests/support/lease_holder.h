// A file that another process has a lease on.
#ifndef TESTS_SUPPORT_LEASE_HOLDER_H
#define TESTS_SUPPORT_LEASE_HOLDER_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace testsupport {

/// A process that has a write lease on a file, and gives it up a while after someone has opened the
/// file, or after a minute.
class LeaseHolder {
 public:
  /// @param before_the_end  what it does to the file before it gives the lease up: by the
  /// descriptor,
  ///                        since by the path it would wait for itself
  explicit LeaseHolder(
      const std::string& path, const std::function<void(int fd)>& before_the_end = [](int) {});
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
