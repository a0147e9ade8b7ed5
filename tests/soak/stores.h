// The model: what each client's store must hold, and the comparison with what it does hold.
#ifndef TESTS_SOAK_STORES_H
#define TESTS_SOAK_STORES_H

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "soak/listing.h"

namespace soak {

/// The stores of the clients "0" to the last one, none of which exists at first. Numbers of clients
/// are indexes.
class Stores {
 public:
  Stores(std::filesystem::path place, size_t clients);

  size_t size() const { return stores_.size(); }
  bool is_busy(size_t client) const { return stores_[client].busy; }

  /// An operation works on this store: it can be anything for the time being.
  void begin(size_t client) { stores_[client].busy = true; }
  /// It has ended, and the store must be this from now on; null for none.
  void end(size_t client, std::shared_ptr<const Listing> store);
  /// What the store must be unless an operation works on it.
  const std::shared_ptr<const Listing>& model(size_t client) const { return stores_[client].model; }

  /// What is wrong with one store; empty when it is as it must be.
  std::string examine(size_t client) const;
  /// What is wrong with the directory of all of them: a store too many or too few, or a stranger.
  std::string examine_directory() const;

 private:
  struct Store {
    std::shared_ptr<const Listing> model;
    bool busy = false;
  };

  std::filesystem::path place_;
  std::vector<Store> stores_;
};

}  // namespace soak

#endif
