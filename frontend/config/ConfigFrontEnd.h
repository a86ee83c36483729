#pragma once

#include <string>
#include <vector>

#include "frontend/config/ConfigApply.h"
#include "frontend/config/ConfigDocument.h"
#include "frontend/config/ConfigParser.h"
#include "model/CounterConfig.h"
#include "model/snooping/SnoopingConfig.h"
#include "model/switch/Bridging.h"
#include "model/switch/MlagStatus.h"
#include "platform/store/StateStore.h"

namespace Frontend {

// The configuration side of the system: owns the records the configuration file
// is the source of, publishes them in the state store, and brings them to what the
// file says. A file is applied whole or not at all; a reload changes only what
// differs, so reactors of unchanged records see nothing.
class ConfigFrontEnd {
 public:
   static constexpr const char* kName = "ConfigFile";

   ConfigFrontEnd(Platform::StateStore& store, std::string path);

   // Reads, validates and applies the file. On error nothing is applied and the
   // errors ("FILE:LINE: FIELD: what is wrong") are returned.
   std::vector<std::string> load();
   // The second half of a load, for a file read elsewhere (ConfigReader): applies it, or
   // returns its errors and changes nothing.
   std::vector<std::string> apply(ParsedConfig parsed);
   // What the last successful load found valid but probably unintended, devices the
   // kernel did not have at the time included.
   std::vector<std::string> warnings() const;
   // Those of them that the file alone decides; they hold until the next load.
   const std::vector<std::string>& fileWarnings() const { return fileWarnings_; }

   const std::string& path() const { return path_; }
   // When the configuration in force was read (UTC seconds since the epoch).
   double loadedAt() const { return loadedAt_; }
   // One line on what the configuration in force does, for the operator's log.
   std::string summary() const;
   const ConfigDocument& document() const { return document_; }
   const Targets& targets() const { return targets_; }
   const Platform::Ptr<Ip::Helper::DhcpRelay::CounterConfig>& counterConfig() const {
      return counterConfig_;
   }

 private:
   void doApplyVlanMembership();

   Platform::StateStore& store_;
   std::string path_;
   ConfigDocument document_;
   std::vector<std::string> fileWarnings_;
   std::vector<std::string> deviceWarnings_;
   double loadedAt_ = 0;
   Targets targets_;
   // Written by operator commands, not by the file; published here as the rest of
   // the configuration side.
   Platform::Ptr<Ip::Helper::DhcpRelay::CounterConfig> counterConfig_;
   Platform::Ptr<Bridging::DhcpSnooping::CounterConfig> snoopingCounterConfig_;
   Platform::Ptr<Bridging::DhcpSnooping::CounterConfig> snooping6CounterConfig_;
   // A Linux host is never half of an MLAG pair: the peer's relay status stays empty.
   Platform::Ptr<MlagDhcpRelay::Status> mlagStatus_;
   // Without a switch ASIC the VLAN membership of ports is what the file says.
   Platform::Ptr<Bridging::VlanStatusDir> vlanStatus_;
};

}  // namespace Frontend
