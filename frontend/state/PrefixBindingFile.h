#pragma once

#include <functional>
#include <string>
#include <vector>

#include "model/PrefixBindingJournal.h"
#include "platform/loop/EventLoop.h"

namespace Frontend {

// The DHCPv6 relay's prefix bindings kept in a file, so that an agent started again (after a
// crash as well) knows which routes of the kernel are its own: with "proto dhcp" other
// programs place routes too, and only those recorded here are ever removed. The file lives
// beside the control socket, under /run by default: like the routes, it is gone after a
// reboot.
//
// Every change is written, whole, once per loop turn, to a new file that then replaces the
// old one, so a crash leaves either the old list or the new one.
class PrefixBindingFile final : public Ip::Helper::DhcpRelay::PrefixBindingJournal {
 public:
   using Source = std::function<std::vector<Ip::Helper::DhcpRelay::SavedPrefixBinding>()>;

   PrefixBindingFile(Platform::EventLoop& loop, std::string path, Source source);

   // The bindings of the file; none when it does not exist. Entries that do not read are
   // skipped, each named in `errors`.
   static std::vector<Ip::Helper::DhcpRelay::SavedPrefixBinding> load(
       const std::string& path, std::vector<std::string>& errors);

   void handlePrefixBindingsChanged() override;
   // Writes now; false, with the reason, when the file could not be replaced.
   bool write(std::string& error);

   const std::string& path() const { return path_; }

 private:
   Platform::EventLoop& loop_;
   std::string path_;
   Source source_;
   bool writePending_ = false;
};

}  // namespace Frontend
