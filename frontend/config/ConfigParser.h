#pragma once

#include <map>
#include <string>
#include <vector>

#include "frontend/config/ConfigDocument.h"

namespace Frontend {

// Where the file names an interface's kernel device: its devices entry, or else its key
// under interfaces (an interface without an entry is the device of the same name).
struct DevicePlace {
   int line = 0;
   std::string field;
};

struct ParsedConfig {
   // Meaningful only when there is no error: a file is applied whole or not at all.
   ConfigDocument document;
   // "FILE:LINE: FIELD: what is wrong", ordered by line; after kMaxReportedErrors of
   // them one line says how many more there are.
   std::vector<std::string> errors;
   // Valid but probably not what the operator meant ("FILE: what"), such as a file that
   // relays nothing.
   std::vector<std::string> warnings;
   // Devices the kernel did not have when the file was read (readConfigFile).
   std::vector<std::string> deviceWarnings;
   std::map<Platform::IntfId, DevicePlace> devicePlaces;

   bool ok() const { return errors.empty(); }
};

// What a file may cost before it is refused: the largest real configurations (a hundred
// thousand servers) are a few megabytes, and reading one must never take the agent's
// memory or stall it for long.
inline constexpr size_t kMaxConfigBytes = 16 * 1024 * 1024;
inline constexpr size_t kMaxReportedErrors = 20;

// Reads and validates a whole configuration file. A file that holds no configuration
// (empty, or only comments) is refused: a truncated file must not silently stop all
// relaying. Only regular files up to kMaxConfigBytes are read.
ParsedConfig parseConfigFile(const std::string& path);

// The same for text already in memory; `fileName` only labels the errors.
ParsedConfig parseConfigText(const std::string& text, const std::string& fileName);

}  // namespace Frontend
