// Not installed: a host's content, emptied.
#ifndef FRASK_VHOST_CLEAN_PRIVATE_H
#define FRASK_VHOST_CLEAN_PRIVATE_H

#include <string>

#include "vhost/layout.h"

namespace frask {

/// Behind the plain clean_docroot(), which says what it does.
void cleanDocroot(const std::string& vhostDir, const ExtractParams& params);

}  // namespace frask

#endif
