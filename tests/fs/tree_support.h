// What the tests of the tree routines share.
#ifndef TESTS_FS_TREE_SUPPORT_H
#define TESTS_FS_TREE_SUPPORT_H

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/limits.h"
#include "support/odd_trees.h"
#include "support/scratch.h"

namespace fstest {

using testsupport::become_nobody_in;
using testsupport::limit_descriptors;
using testsupport::make_chain;
using testsupport::make_each_type;

/// chown_tree() or chmod_tree() on a path, with the texts in which they differ.
struct Change {
  std::string name;
  std::function<void(const std::string& path, int include_top)> run;
  std::string top_file;  ///< the text before the name, where a file given as the path resists
  std::string entry;     ///< the same for a file inside
  std::string dir;       ///< and for a directory
  long call;             ///< the system call that makes the change
};
/// chown_tree() to 7:8, and chmod_tree() to 0640 and 0750.
const std::vector<Change>& changes();

/// A report of a system call that failed with `error`, as it stands on either stream.
std::string report(const std::string& text, const std::string& name, int error);

/// And a result that was returned: how a child ends.
constexpr int kReturned = 40;

/// How a child ends that has written `reports` to both streams.
testsupport::Outcome ended(int exit_code, const std::string& reports);

/// Whether the kernel has the call that changes modes without following links (Linux 6.6 and
/// later).
bool has_fchmodat2();

/// From now on the system call that changes modes without following links fails in this process and
/// those that it starts: with ENOSYS as where the kernel lacks it, with EPERM as under filters that
/// are older than the call.
void refuse_fchmodat2(int error);

/// "top/sub/file", all of which belongs to nobody, who may enter.
void make_tree_of_nobody(const testsupport::ScratchDir& scratch);

std::string working_directory();

/// The program that runs one routine, under strace with these options, and what it wrote.
testsupport::Outcome run_traced(const std::vector<std::string>& strace_options,
                                const std::string& routine, const std::string& path,
                                const std::string& directory = {});

}  // namespace fstest

#endif
