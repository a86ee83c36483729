#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace Ctl {

// Text for an operator from the data of a reply (shapes in frontend/ControlProtocol.h).
// Fields the agent adds later are shown too rather than dropped; a reply of the wrong
// shape throws nlohmann::json::exception.
std::string renderConfig(const nlohmann::json& data);
std::string renderInterfaces(const nlohmann::json& data);
std::string renderVrfs(const nlohmann::json& data);
std::string renderRoutes(const nlohmann::json& data);
std::string renderStatus(const nlohmann::json& data);
std::string renderDuidBindings(const nlohmann::json& data);
// The drop counters by reason, those that are not zero.
std::string renderDrops(const nlohmann::json& data);
std::string renderReload(const nlohmann::json& data);
std::string renderCleared(const nlohmann::json& data);
std::string renderTrace(const nlohmann::json& data);

}  // namespace Ctl
