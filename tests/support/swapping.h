// A tree whose entries another process swaps for links while a routine walks it.
#ifndef TESTS_SUPPORT_SWAPPING_H
#define TESTS_SUPPORT_SWAPPING_H

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/child.h"

namespace testsupport {

/// Two names that are exchanged again and again, both from one directory.
struct SwappedPair {
  std::string entry;
  std::string decoy;
};

/// What is swapped under which routine, and what must not be touched.
struct SwapPlan {
  std::filesystem::path directory;     ///< the names of the pairs are taken from here
  std::vector<SwappedPair> pairs;      ///< one that does not exist is swapped once it does
  std::function<void()> rebuild;       ///< makes the tree anew, while nothing is swapped
  std::function<void()> routine;       ///< runs in a child, which it may end
  std::filesystem::path victim;        ///< compared whole, by exact_listing(), after each run
  std::function<void()> inspect = {};  ///< more expectations after each run
  std::string input = {};              ///< the routine's standard input
};

/// How much a test of one routine makes at least. A process with the sanitizers takes fifty times
/// as long to start and end.
#ifdef __SANITIZE_ADDRESS__
constexpr long kLeastSwaps = 300;
constexpr long kLeastRuns = 15;
#else
constexpr long kLeastSwaps = 3000;
constexpr long kLeastRuns = 150;
#endif

struct SwapCounts {
  long runs = 0;
  long swaps = 0;  ///< that were made while the routine ran, and not before or after it
};

/// Runs the routine again and again while another process swaps all pairs in turn, in bursts,
/// until `swaps` swaps and `runs` runs were made, or two minutes are over. The result of the
/// routine does not matter: it may well meet a link where a directory was. Expects the victim to be
/// exactly as it was after each run; the first harm ends it. The caller asserts the counts.
SwapCounts run_under_swapping(const SwapPlan& plan, long swaps, long runs);

}  // namespace testsupport

#endif
