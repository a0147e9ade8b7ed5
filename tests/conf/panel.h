// The places of the panel's configuration, private to a child process.
#ifndef TESTS_CONF_PANEL_H
#define TESTS_CONF_PANEL_H

#include <functional>
#include <string>
#include <vector>

#include "support/child.h"

constexpr const char* kConfigurationFile = "/etc/oxa/oxa.conf";
constexpr const char* kSettingsFile = "/etc/oxa/private/dsn.ini";
constexpr const char* kShadowFile = "/etc/oxa/.oxa.shadow";

/// Runs `body` in a child that sees empty directories in place of the panel's. Expects that the
/// child passes: expectations may stand in `body`, and an exception counts as a failure.
testsupport::Outcome in_panel(const std::function<void()>& body);

/// Runs a program under strace with an injection ("read:error=EIO:when=2") into its calls on a path
/// that the panel sees.
testsupport::Outcome run_injected(const std::string& path, const std::string& injection,
                                  const std::vector<std::string>& program);

/// Moves this process into a network of its own with a loopback: the port is nobody else's.
void enter_private_network();

#endif
