#include "soak/stores.h"

#include <set>
#include <stdexcept>
#include <utility>

namespace fs = std::filesystem;

namespace soak {

Stores::Stores(fs::path place, size_t clients) : place_(std::move(place)), stores_(clients) {}

void Stores::end(size_t client, std::shared_ptr<const Listing> store) {
  stores_[client] = {std::move(store), false};
}

std::string Stores::examine(size_t client) const {
  const fs::path path = place_ / std::to_string(client);
  const std::shared_ptr<const Listing>& expected = model(client);
  try {
    const bool exists = fs::exists(fs::symlink_status(path));
    if (!expected) return exists ? path.string() + " must not exist\n" : "";
    if (!exists) return path.string() + " is missing\n";
    const Listing actual = directory_listing(path);
    if (actual == *expected) return "";
    return path.string() + " is not what it must be:\n" + differences(*expected, actual);
  } catch (const std::exception& failure) {
    return path.string() + " changes while it is read: " + failure.what() + "\n";
  }
}

std::string Stores::examine_directory() const {
  std::set<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(place_))
    names.insert(entry.path().filename().string());
  for (size_t client = 0; client < size(); ++client) {
    const bool found = names.erase(std::to_string(client)) != 0;
    if (!is_busy(client) && found != (model(client) != nullptr))
      return (place_ / std::to_string(client)).string() +
             (found ? " must not exist\n" : " is missing\n");
  }
  return names.empty() ? "" : place_.string() + " holds " + *names.begin() + "\n";
}

}  // namespace soak
