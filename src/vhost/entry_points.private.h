// Not installed: from the plain record of options to the library's own.
#ifndef FRASK_VHOST_ENTRY_POINTS_PRIVATE_H
#define FRASK_VHOST_ENTRY_POINTS_PRIVATE_H

#include "vhost/entry_points.h"
#include "vhost/layout.h"

namespace frask {

/// Copies of the texts, "" for a null one; any nonzero number is true.
ExtractParams toExtractParams(const DocrootCleanOptions& options);

}  // namespace frask

#endif
