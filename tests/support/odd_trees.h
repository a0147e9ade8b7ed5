// Trees that a walk meets rarely, and must stand.
#ifndef TESTS_SUPPORT_ODD_TREES_H
#define TESTS_SUPPORT_ODD_TREES_H

#include <filesystem>
#include <string>

namespace testsupport {

/// A directory holding one entry of each type: "dir" with "file" in it, "file", "link" to that
/// file, "dirlink" to that directory, "dangling", "pipe", "socket" and "device". All of mode 0604
/// or 0705.
void make_each_type(const std::filesystem::path& top);

/// `names` below `top`, one inside the other, each of mode 0755.
void make_chain(const std::filesystem::path& top, int depth, const std::string& name);

}  // namespace testsupport

#endif
