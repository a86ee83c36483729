#pragma once

#include <string>
#include <vector>

#include "frontend/config/ConfigDocument.h"

namespace Frontend {

struct ParsedConfig {
   // Meaningful only when there is no error: a file is applied whole or not at all.
   ConfigDocument document;
   // "FILE:LINE: FIELD: what is wrong", ordered by line.
   std::vector<std::string> errors;

   bool ok() const { return errors.empty(); }
};

// Reads and validates a whole configuration file. An empty file, or one holding only
// comments, is a valid empty configuration.
ParsedConfig parseConfigFile(const std::string& path);

// The same for text already in memory; `fileName` only labels the errors.
ParsedConfig parseConfigText(const std::string& text, const std::string& fileName);

}  // namespace Frontend
