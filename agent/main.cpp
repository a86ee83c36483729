#include <CLI/CLI.hpp>
#include <cstdio>

#include "agent/Daemon.h"
#include "frontend/config/ConfigParser.h"
#include "frontend/config/ConfigReader.h"
#include "frontend/control/ControlProtocol.h"

int main(int argc, char** argv) {
   CLI::App app{"dhcp-relay-agent: DHCPv4/DHCPv6 relay and DHCP snooping for Linux"};
   Ip::Helper::DhcpRelay::DaemonOptions options;
   options.socketPath = Frontend::kDefaultControlSocket;
   bool check = false;
   app.add_option("--config", options.configPath, "configuration file (YAML)")->required();
   app.add_option("--socket", options.socketPath, "control socket path")->capture_default_str();
   app.add_option("--state-file", options.stateFile,
                  "where DHCPv6 prefix bindings are kept (default: prefix-bindings.json beside "
                  "the control socket)");
   app.add_flag("--check", check, "validate the configuration file, print what is wrong or \"ok\"");
   app.set_version_flag("--version", "dhcp-relay-agent " DHCP_RELAY_VERSION);
   CLI11_PARSE(app, argc, argv);

   if (check) {
      Frontend::ParsedConfig parsed = Frontend::readConfigFile(options.configPath);
      for (const std::string& e : parsed.errors)
         std::printf("%s\n", e.c_str());
      for (const auto* list : {&parsed.warnings, &parsed.deviceWarnings}) {
         for (const std::string& w : *list)
            std::printf("warning: %s\n", w.c_str());
      }
      if (parsed.ok())
         std::printf("ok\n");
      return parsed.ok() ? 0 : 1;
   }
   return Ip::Helper::DhcpRelay::Daemon(options).run();
}
