// The archives that the clients upload, and the stores that they give.
#ifndef TESTS_SOAK_ARCHIVES_H
#define TESTS_SOAK_ARCHIVES_H

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "soak/listing.h"

namespace soak {

struct Archive {
  std::string path;
  std::string type;     ///< what it is unpacked as: "zip", "tgz", "tar"
  bool forced = false;  ///< whether --force-type has to say so
  bool exists = true;
  bool fits = true;      ///< whether the archive program's own test finds it good
  bool reports = false;  ///< whether that test writes on standard error
  bool unpacks = true;   ///< whether the archive program unpacks it without a complaint
  std::shared_ptr<const Listing> store;        ///< an ordinary client's
  std::shared_ptr<const Listing> panel_store;  ///< that of the client "0", who keeps "conf"
};

/// One that is not tried() yet.
Archive an_archive(const std::filesystem::path& path, const std::string& type, bool forced = false);

/// Makes archives, good and damaged ones, below `work`.
std::vector<Archive> make_archives(const std::filesystem::path& work);

/// Fills in what an archive gives: the archive programs unpack it below `work`, and what may stay
/// in a store is decided here anew, not by the tool's code.
Archive tried(Archive archive, const std::filesystem::path& work);

}  // namespace soak

#endif
