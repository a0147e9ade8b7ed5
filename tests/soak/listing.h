// What lies in a client's store, and outside of all of them, as lines that can be compared.
#ifndef TESTS_SOAK_LISTING_H
#define TESTS_SOAK_LISTING_H

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace soak {

using Listing = std::vector<std::string>;

/// A directory itself and all below it: names, types, modes, owners, contents, targets of links.
Listing directory_listing(const std::filesystem::path& directory);

/// Everything that no operation may change: the panel's settings, the sites and whatever else lies
/// in the virtual hosts directory beside the stores, and `work`, all with their contents; and
/// what was changed in "/etc", "/usr/local" and "/srv", which lies in layers over them (run.sh):
/// names, types, modes, owners, sizes and times. What the host itself does there is not seen.
Listing outside_listing(const std::filesystem::path& work);

/// Up to `most` lines that stand in one listing only, "-" before those that are missing in `actual`
/// and "+" before those that `expected` lacks.
std::string differences(const Listing& expected, const Listing& actual, size_t most = 6);

}  // namespace soak

#endif
