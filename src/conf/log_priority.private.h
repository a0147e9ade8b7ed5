// Not installed: the priority of this room's messages about configuration files.
#ifndef FRASK_CONF_LOG_PRIORITY_PRIVATE_H
#define FRASK_CONF_LOG_PRIORITY_PRIVATE_H

#include <syslog.h>

namespace frask::conf {

// Deliberate: with a facility in it the priority is above every terminal's level. An installation
// without a configuration file is in order, and what the tools print, which callers parse, does not
// mention it. Pinned by ConfReadFileR.IsSilentOnTheTerminal.
constexpr int kConfWarning = LOG_USER | LOG_WARNING;

}  // namespace frask::conf

#endif
