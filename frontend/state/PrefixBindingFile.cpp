#include "frontend/state/PrefixBindingFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/trace/Trace.h"

namespace Frontend {

using Ip::Helper::DhcpRelay::SavedPrefixBinding;
using json = nlohmann::json;

namespace {

constexpr int kVersion = 1;

json toJson(const SavedPrefixBinding& b) {
   return {{"interface", b.intf.toString()},
           {"prefix", b.prefix.toString()},
           {"vrf", b.attrs.vrf.toString()},
           {"nextHop", b.attrs.nextHop.toString()},
           {"preferredLifetime", b.attrs.preferredLifetime},
           {"validLifetime", b.attrs.validLifetime},
           {"writeTime", b.attrs.writeTime}};
}

std::optional<SavedPrefixBinding> fromJson(const json& j) {
   if (!j.is_object())
      return std::nullopt;
   const auto text = [&](const char* key) {
      auto it = j.find(key);
      return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
   };
   const auto intf = Platform::IntfId::parse(text("interface"));
   const auto prefix = Platform::Ip6Prefix::parse(text("prefix"));
   const auto vrf = Platform::VrfName::parse(text("vrf"));
   const auto nextHop = Platform::Ip6Addr::parse(text("nextHop"));
   const auto preferred = j.find("preferredLifetime");
   const auto valid = j.find("validLifetime");
   const auto written = j.find("writeTime");
   if (!intf || !prefix || !vrf || !nextHop || preferred == j.end() ||
       !preferred->is_number_unsigned() || valid == j.end() || !valid->is_number_unsigned() ||
       written == j.end() || !written->is_number())
      return std::nullopt;
   SavedPrefixBinding b;
   b.intf = *intf;
   b.prefix = *prefix;
   b.attrs.vrf = *vrf;
   b.attrs.nextHop = *nextHop;
   b.attrs.preferredLifetime = preferred->get<uint32_t>();
   b.attrs.validLifetime = valid->get<uint32_t>();
   b.attrs.writeTime = written->get<double>();
   return b;
}

}  // namespace

PrefixBindingFile::PrefixBindingFile(Platform::EventLoop& loop, std::string path, Source source)
    : loop_(loop), path_(std::move(path)), source_(std::move(source)) {}

std::vector<SavedPrefixBinding> PrefixBindingFile::load(const std::string& path,
                                                        std::vector<std::string>& errors) {
   std::ifstream in(path);
   if (!in)
      return {};
   std::stringstream text;
   text << in.rdbuf();
   const json doc = json::parse(text.str(), nullptr, false);
   if (doc.is_discarded() || !doc.is_object() || !doc.contains("bindings") ||
       !doc["bindings"].is_array()) {
      errors.push_back(path + ": not a list of prefix bindings; none restored");
      return {};
   }
   std::vector<SavedPrefixBinding> out;
   size_t index = 0;
   for (const json& entry : doc["bindings"]) {
      if (auto b = fromJson(entry))
         out.push_back(*b);
      else
         errors.push_back(path + ": bindings[" + std::to_string(index) +
                          "] does not read: " + entry.dump());
      ++index;
   }
   return out;
}

void PrefixBindingFile::handlePrefixBindingsChanged() {
   if (writePending_)
      return;
   writePending_ = true;
   loop_.post([this] {
      writePending_ = false;
      std::string error;
      if (!write(error))
         TRACE(1, "prefix bindings not saved: ", error);
   });
}

bool PrefixBindingFile::write(std::string& error) {
   json bindings = json::array();
   for (const SavedPrefixBinding& b : source_())
      bindings.push_back(toJson(b));
   const std::string text = json{{"version", kVersion}, {"bindings", bindings}}.dump(1) + "\n";
   const std::string temp = path_ + ".new";
   const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
   if (fd < 0) {
      error = temp + ": " + std::strerror(errno);
      return false;
   }
   const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
   const int writeErrno = errno;
   ::close(fd);
   if (!written || ::rename(temp.c_str(), path_.c_str()) != 0) {
      error = path_ + ": " + std::strerror(written ? errno : writeErrno);
      ::unlink(temp.c_str());
      return false;
   }
   return true;
}

}  // namespace Frontend
