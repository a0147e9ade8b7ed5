// What the tool is asked for, and what it must answer.
#ifndef TESTS_SOAK_OPERATIONS_H
#define TESTS_SOAK_OPERATIONS_H

#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "soak/archives.h"
#include "soak/stores.h"

namespace soak {

struct Operation {
  std::string kind;                ///< as the summary counts it
  std::vector<std::string> words;  ///< after the program's name
  std::string last_line;           ///< of standard output
  int exit_status = 0;
  bool reports = false;                  ///< whether standard error gets anything
  std::optional<size_t> client;          ///< whose store it works on
  std::shared_ptr<const Listing> store;  ///< what that store must be afterwards; null for none
  bool alone = false;                    ///< whether the tool runs no other program
};

/// Chooses operations at random, the same ones for the same seed. Only the clients that they are
/// for depend on what is under way as well.
class Choice {
 public:
  Choice(std::vector<Archive> archives, Archive default_skeleton, unsigned seed);

  /// One that works on no store that another one is working on.
  Operation next(const Stores& stores);
  /// A client whose store no operation works on. How often this is asked changes no operation.
  size_t client_to_read(const Stores& stores);

 private:
  size_t below(size_t limit);
  const Archive& any_archive() { return archives_[below(archives_.size())]; }

  Operation install(size_t client);
  Operation install_default(size_t client) const;
  Operation test_archive();
  Operation test_support();
  Operation refusal(const Stores& stores);

  std::vector<Archive> archives_;
  Archive default_skeleton_;
  std::minstd_rand random_;
  std::minstd_rand reader_;
};

}  // namespace soak

#endif
