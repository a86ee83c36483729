#pragma once

#include <nlohmann/json.hpp>

#include "frontend/config/ConfigDocument.h"

namespace Frontend {

// The configuration in force, keyed like the configuration file, for
// "show config" (shape in frontend/ControlProtocol.h).
nlohmann::json configDocumentJson(const ConfigDocument& doc);

}  // namespace Frontend
