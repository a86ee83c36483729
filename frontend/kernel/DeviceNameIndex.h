#pragma once

#include <map>
#include <set>
#include <string>

#include "model/switch/IntfStatusDir.h"
#include "platform/addr/IntfId.h"

namespace Frontend {

using Platform::IntfId;

// A copy of the configured device names ("interface/config/deviceName") with the reverse
// map beside it: the interface a kernel device stands for is then one lookup, not a walk
// of the configuration, and a change can be compared with the entry it replaced (the
// record only says which interface changed).
class DeviceNameIndex {
 public:
   // Starts empty without a configuration.
   explicit DeviceNameIndex(const Interface::DeviceNameConfig* config);

   // What Interface::DeviceNameConfig::intfIdOf answers.
   IntfId intfIdOf(const std::string& device) const;
   // The name of the kernel device that stands for `intf`: its mapped device, or else a
   // device of its own name unless another interface maps that name. Empty when none can.
   std::string deviceOf(const IntfId& intf) const;
   // Takes the configuration's entry for `intf` and returns every interface whose device
   // may have changed with it.
   std::set<IntfId> update(const Interface::DeviceNameConfig& config, const IntfId& intf);

 private:
   void doAdd(const IntfId& intf, const std::string& device);
   void doDel(const IntfId& intf);

   std::map<IntfId, std::string> deviceOf_;
   // Several interfaces name one device only in the middle of a reload; the first wins.
   std::map<std::string, std::set<IntfId>> intfsOf_;
};

}  // namespace Frontend
