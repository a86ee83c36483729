#pragma once

#include <string>
#include <vector>

#include "frontend/config/ConfigParser.h"

namespace Frontend {

// Interfaces can appear after the file is written (a VLAN created later, a namespace
// made at boot), so a device the kernel does not have is no error; but an interface
// without its device relays nothing, and the operator must hear of it at --check, at
// start and at reload. One warning per interface whose device is missing from its VRF's
// namespace, one per VRF whose namespace is missing, each naming the file's place:
// "FILE:LINE: FIELD: what". At most kMaxReportedErrors of them, then a count.
std::vector<std::string> missingDeviceWarnings(const ParsedConfig& parsed, const std::string& file);

}  // namespace Frontend
