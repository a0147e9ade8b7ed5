// Not installed: the removal of a site application by its description.
#ifndef FRASK_VHOST_INSTANCE_PRIVATE_H
#define FRASK_VHOST_INSTANCE_PRIVATE_H

#include <string>
#include <utility>
#include <vector>

#include "vhost/FileList.h"
#include "vhost/layout.h"

namespace frask {

/// A path as the description gives it, and the section that it counts from.
using InstanceEntry = std::pair<InstallSection, std::string>;

/// The entries of an instance description, in its order. Nothing but the description is read: no
/// document type, no external entity. libxml2's own reports are not printed, the exception is the
/// report.
///
/// @throws std::runtime_error as wido_delete_instance()
std::vector<InstanceEntry> readInstance(const std::string& description);

/// Behind the plain wido_delete_instance(), which says what it does and throws.
void deleteInstance(const std::string& vhostDir, const ExtractParams& params,
                    const std::string& prefix, const std::string& description);

}  // namespace frask

#endif
