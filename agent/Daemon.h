#pragma once

#include <string>

namespace Ip::Helper::DhcpRelay {

struct DaemonOptions {
   std::string configPath;
   std::string socketPath;
};

// Runs the agent host with the DHCP relay agent until SIGTERM or SIGINT; SIGHUP
// reloads the configuration file. Returns the process exit code: 0 after a clean
// stop, 1 when the configuration or the control socket keeps the agent from
// starting.
int runDaemon(const DaemonOptions& options);

}  // namespace Ip::Helper::DhcpRelay
