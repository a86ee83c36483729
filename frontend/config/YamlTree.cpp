#include "frontend/config/YamlTree.h"

#include <yaml.h>

#include <map>
#include <string_view>

namespace Frontend::Yaml {

namespace {

// Plain scalars that stand for "no value".
bool isNullText(std::string_view text) {
   return text.empty() || text == "~" || text == "null" || text == "Null" || text == "NULL";
}

std::string tagOf(const yaml_char_t* tag, bool plain) {
   if (tag)
      return reinterpret_cast<const char*>(tag);
   return plain ? "?" : "!";
}

int lineOf(const yaml_mark_t& mark) {
   return static_cast<int>(mark.line);
}

struct Parser {
   Parser() { yaml_parser_initialize(&p); }
   ~Parser() { yaml_parser_delete(&p); }
   Parser(const Parser&) = delete;
   Parser& operator=(const Parser&) = delete;
   yaml_parser_t p;
};

struct Event {
   ~Event() { yaml_event_delete(&e); }
   yaml_event_t e;
};

}  // namespace

Stream::Stream(const std::string& text) {
   Parser parser;
   yaml_parser_set_input_string(&parser.p, reinterpret_cast<const unsigned char*>(text.data()),
                                text.size());
   std::map<std::string, const Node*> anchors;
   // The collections being read, innermost last.
   std::vector<Node*> open;
   size_t expanded = 0;  // of the current document
   auto add = [&](Node& node, const yaml_char_t* anchor) {
      ++expanded;
      if (anchor)
         anchors[reinterpret_cast<const char*>(anchor)] = &node;
      if (open.empty())
         documents_.push_back(&node);
      else
         open.back()->children.push_back(&node);
   };
   for (;;) {
      Event ev;
      if (!yaml_parser_parse(&parser.p, &ev.e)) {
         std::string what = parser.p.problem ? parser.p.problem : "not YAML";
         if (parser.p.context)
            what += std::string(" (") + parser.p.context + ")";
         error_ = SyntaxError{lineOf(parser.p.problem_mark), std::move(what)};
         return;
      }
      const yaml_event_t& e = ev.e;
      switch (e.type) {
         case YAML_STREAM_END_EVENT:
            return;
         case YAML_DOCUMENT_START_EVENT:
            anchors.clear();
            expanded = 0;
            break;
         case YAML_SCALAR_EVENT: {
            Node& n = nodes_.emplace_back();
            const auto& s = e.data.scalar;
            const bool plain = s.style == YAML_PLAIN_SCALAR_STYLE;
            n.text.assign(reinterpret_cast<const char*>(s.value), s.length);
            n.kind = plain && !s.tag && isNullText(n.text) ? Kind::null : Kind::scalar;
            n.line = lineOf(e.start_mark);
            n.tag = tagOf(s.tag, plain);
            n.complete = true;
            add(n, s.anchor);
            break;
         }
         case YAML_SEQUENCE_START_EVENT:
         case YAML_MAPPING_START_EVENT: {
            Node& n = nodes_.emplace_back();
            const bool seq = e.type == YAML_SEQUENCE_START_EVENT;
            n.kind = seq ? Kind::sequence : Kind::map;
            n.line = lineOf(e.start_mark);
            n.tag = tagOf(seq ? e.data.sequence_start.tag : e.data.mapping_start.tag, true);
            add(n, seq ? e.data.sequence_start.anchor : e.data.mapping_start.anchor);
            open.push_back(&n);
            break;
         }
         case YAML_SEQUENCE_END_EVENT:
         case YAML_MAPPING_END_EVENT: {
            Node& n = *open.back();
            for (const Node* child : n.children)
               n.expanded += child->expanded;  // each at most kMaxExpandedNodes: no overflow
            n.complete = true;
            open.pop_back();
            break;
         }
         case YAML_ALIAS_EVENT: {
            auto it = anchors.find(reinterpret_cast<const char*>(e.data.alias.anchor));
            if (it == anchors.end()) {
               error_ = SyntaxError{lineOf(e.start_mark), "the referenced anchor is not defined"};
               return;
            }
            if (!it->second->complete) {
               error_ = SyntaxError{lineOf(e.start_mark),
                                    "an alias inside the node it refers to makes an endless tree"};
               return;
            }
            expanded += it->second->expanded;
            if (expanded > kMaxExpandedNodes) {
               error_ = SyntaxError{lineOf(e.start_mark), "aliases expand the document beyond " +
                                                              std::to_string(kMaxExpandedNodes) +
                                                              " nodes"};
               return;
            }
            if (open.empty())
               documents_.push_back(it->second);
            else
               open.back()->children.push_back(it->second);
            break;
         }
         default:
            break;
      }
   }
}

}  // namespace Frontend::Yaml
