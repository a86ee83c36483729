#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace Frontend::Yaml {

enum class Kind : uint8_t { null, scalar, sequence, map };

// One node of a YAML document. An alias is the node it refers to.
struct Node {
   Kind kind = Kind::null;
   // 0-based line the node starts on.
   int line = 0;
   // The resolved tag ("tag:yaml.org,2002:int" for "!!int"); untagged, "?" for plain
   // scalars and collections and "!" for quoted and block scalars, as YAML's tag
   // resolution has it.
   std::string tag;
   std::string text;  // a scalar's
   // A sequence's items; a map's keys and values in turns, in file order, repeated
   // keys included.
   std::vector<const Node*> children;
   // How many nodes this one stands for with its aliases expanded: what a walk over it
   // costs.
   size_t expanded = 1;
   bool complete = false;  // an alias may refer only to a node that has ended
};

// A walk over a document visits every alias's node again, so a few lines of nested
// aliases can stand for billions of nodes. Real configurations with a hundred thousand
// servers stay well below this.
inline constexpr size_t kMaxExpandedNodes = 4'000'000;

struct SyntaxError {
   int line;  // 0-based
   std::string what;
};

// A YAML stream read into trees. libyaml does the reading: it is several times faster
// than a parser building nodes of its own, which matters for files with a hundred
// thousand servers.
class Stream {
 public:
   explicit Stream(const std::string& text);
   Stream(const Stream&) = delete;
   Stream& operator=(const Stream&) = delete;

   // The root node of each document.
   const std::vector<const Node*>& documents() const { return documents_; }
   // Set when the text is no YAML; the documents are then incomplete.
   const std::optional<SyntaxError>& error() const { return error_; }

 private:
   std::deque<Node> nodes_;
   std::vector<const Node*> documents_;
   std::optional<SyntaxError> error_;
};

}  // namespace Frontend::Yaml
