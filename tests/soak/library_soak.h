// The library's routines again and again in one process.
#ifndef TESTS_SOAK_LIBRARY_SOAK_H
#define TESTS_SOAK_LIBRARY_SOAK_H

#include <cstddef>
#include <filesystem>

namespace soak {

/// Each round installs, deploys, cleans, removes an application and the store, runs a program and
/// reads a parameter, on a connection of its own and on one that stays; what each gives is compared
/// with what it gave in the first round.
///
/// @param work  an empty directory
/// @return whether every round gave the same and descriptors and memory stayed flat; the summary is
/// on standard output
bool soak_library(size_t rounds, const std::filesystem::path& work);

}  // namespace soak

#endif
