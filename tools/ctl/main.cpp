// dhcp-relay-ctl: asks the running agent over its control socket and shows the answer.
// Exit status: 0 done, 1 the agent refused or failed the request, 2 the agent could not
// be reached, 64 the command line was wrong.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <functional>
#include <iostream>
#include <string>

#include "frontend/control/ControlProtocol.h"
#include "tools/ctl/Render.h"

namespace {

using nlohmann::json;

constexpr int kExitRefused = 1;
constexpr int kExitUnreachable = 2;
constexpr int kExitUsage = 64;

struct Command {
   json request;
   std::function<std::string(const json&)> render;
   bool asJson = false;
};

void showCommand(CLI::App& show, Command& cmd, const std::string& what, const std::string& help,
                 std::string (*render)(const json&)) {
   CLI::App* sub = show.add_subcommand(what, help);
   sub->add_flag("--json", cmd.asJson, "print the agent's data as JSON");
   sub->callback([&cmd, what, render] {
      cmd.request = {{"cmd", "show"}, {"what", what}};
      cmd.render = render;
   });
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{
       "Shows the state of a running dhcp-relay-agent and applies a changed configuration.",
       "dhcp-relay-ctl"};
   // Options of the top level may also follow a subcommand.
   app.fallthrough();
   app.require_subcommand(1);
   std::string socketPath = Frontend::kDefaultControlSocket;
   app.add_option("--socket", socketPath, "control socket of the agent")->capture_default_str();
   app.set_version_flag("--version", "dhcp-relay-ctl " DHCP_RELAY_VERSION);

   Command cmd;
   CLI::App* show = app.add_subcommand("show", "show the agent's view of things");
   show->require_subcommand(1);
   showCommand(*show, cmd, "config", "the configuration in force", Ctl::renderConfig);
   showCommand(*show, cmd, "interfaces", "the kernel's devices of every VRF, with addresses",
               Ctl::renderInterfaces);
   showCommand(*show, cmd, "vrfs", "VRFs, their network namespaces and whether they are active",
               Ctl::renderVrfs);
   showCommand(*show, cmd, "status", "relay counters and per-interface state", Ctl::renderStatus);
   showCommand(*show, cmd, "routes",
               "routes of delegated DHCPv6 prefixes: next hop, interface, VRF, time left",
               Ctl::renderRoutes);
   showCommand(*show, cmd, "duid-bindings",
               "DHCPv6 clients' DUID-to-MAC bindings waiting for their other copy "
               "(client-link-layer-address)",
               Ctl::renderDuidBindings);
   std::string counterIntf;
   CLI::App* showCounters =
       show->add_subcommand("counters", "relay counters, fresh from the packet paths");
   showCounters->add_option("interface", counterIntf, "only this interface");
   showCounters->add_flag("--json", cmd.asJson, "print the agent's data as JSON");
   bool dropsOnly = false;
   showCounters->add_flag("--drops", dropsOnly, "why messages were dropped, by reason");
   showCounters->callback([&cmd, &counterIntf, &dropsOnly] {
      cmd.request = {{"cmd", "show"}, {"what", "counters"}};
      if (!counterIntf.empty())
         cmd.request["interface"] = counterIntf;
      cmd.render = dropsOnly ? Ctl::renderDrops : Ctl::renderStatus;
   });
   CLI::App* clear = app.add_subcommand("clear", "reset what the agent counts");
   clear->require_subcommand(1);
   CLI::App* clearCounters = clear->add_subcommand("counters", "reset the relay counters");
   clearCounters->add_option("interface", counterIntf, "only this interface's counters");
   clearCounters->callback([&cmd, &counterIntf] {
      cmd.request = {{"cmd", "clear"}, {"what", "counters"}};
      if (!counterIntf.empty())
         cmd.request["interface"] = counterIntf;
      cmd.render = Ctl::renderCleared;
   });
   std::string traceLevel;
   CLI::App* trace = app.add_subcommand(
       "trace", "show or set the text trace level at run time (0-9, off, all; 5: every message)");
   trace->add_option("level", traceLevel, "new level");
   trace->callback([&cmd, &traceLevel] {
      cmd.request = {{"cmd", "trace"}};
      if (!traceLevel.empty())
         cmd.request["level"] = traceLevel;
      cmd.render = Ctl::renderTrace;
   });
   app.add_subcommand("reload", "re-read the configuration file and apply it")->callback([&cmd] {
      cmd.request = {{"cmd", "reload"}};
      cmd.render = Ctl::renderReload;
   });

   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError& e) {
      int rc = app.exit(e);
      return rc == 0 ? 0 : kExitUsage;
   }

   Frontend::ControlClient client;
   std::string error;
   if (!client.connect(socketPath, error)) {
      std::cerr << "dhcp-relay-ctl: cannot reach the agent at " << socketPath << ": " << error
                << "; is dhcp-relay-agent running?\n";
      return kExitUnreachable;
   }
   auto reply = client.request(cmd.request, error);
   if (!reply) {
      std::cerr << "dhcp-relay-ctl: no reply from the agent at " << socketPath << ": " << error
                << "\n";
      return kExitUnreachable;
   }
   auto ok = reply->find("ok");
   if (ok == reply->end() || !ok->is_boolean() || !ok->get<bool>()) {
      auto message = reply->find("error");
      std::cerr << "dhcp-relay-ctl: "
                << (message != reply->end() && message->is_string()
                        ? message->get<std::string>()
                        : "the agent failed the request without saying why")
                << "\n";
      return kExitRefused;
   }
   const json data = reply->value("data", json());
   if (cmd.asJson) {
      std::cout << data.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
      return 0;
   }
   try {
      std::cout << cmd.render(data);
   } catch (const json::exception& e) {
      std::cerr << "dhcp-relay-ctl: the agent's reply has an unexpected shape (" << e.what()
                << "); --json shows it as sent\n";
      return kExitRefused;
   }
   return 0;
}
