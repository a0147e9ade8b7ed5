// How often a test repeats what must leave nothing behind.
#ifndef TESTS_SUPPORT_REPETITIONS_H
#define TESTS_SUPPORT_REPETITIONS_H

namespace testsupport {

/// `count`, and a fifth of it under the sanitizers: a process takes ten times as long there, and
/// what a run leaves behind shows after a few.
constexpr int repetitions(int count) {
#ifdef __SANITIZE_ADDRESS__
  return count / 5;
#else
  return count;
#endif
}

}  // namespace testsupport

#endif
