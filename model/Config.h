#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "model/VrfIpSrcIntfSrcIp.h"
#include "platform/addr/EthAddr.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/VrfName.h"
#include "platform/store/Entity.h"

namespace Ip::Helper::DhcpRelay {

using Platform::Ptr;

// What the relay does with a client request that already carries option 82 and has no
// giaddr: a first-hop agent (an access switch) added it, or the client forged it. RFC 3046
// section 2.1.1 has a relay discard such requests from a circuit it does not trust.
enum class InfoOptionPolicy : uint8_t {
   drop,     // the first hop is not trusted: such requests are dropped
   keep,     // trusted: the option travels on, with the relay's own sub-options added where
             // a copy needs them, and comes back down to the first hop as it went up
   replace,  // trusted, but the relay's option replaces it (or none goes, without
             // information-option)
};

// Relay settings of one interface. An interface relays exactly while it has one.
class IntfConfig : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::IntfConfig")
   explicit IntfConfig(const Platform::IntfId& intf) : Entity(intf.toString()), intfId_(intf) {}

   class Reactor : public Platform::ReactorOf<const IntfConfig> {
    public:
      virtual void handleServerIp(const VrfIpSrcIntfSrcIp& /*key*/) {}
      virtual void handleServerHostname(const VrfHostnameSrcIntfSrcIp& /*key*/) {}
      virtual void handleServerIp6(const VrfIpSrcIntfSrcIp& /*key*/) {}
      virtual void handleCcapCores(const Platform::Ip6Addr& /*addr*/) {}
      virtual void handleSmartRelay() {}
      virtual void handleInformationOption() {}
      virtual void handleInformationOptionPolicy() {}
      virtual void handleCircuitId() {}
      virtual void handleVrf() {}
      virtual void handleRouteInstall() {}
   };

   const Platform::IntfId& intfId() const { return intfId_; }

   // Servers: the value is true while the server is configured.
   PLATFORM_VALUES(serverIp, ServerIp, VrfIpSrcIntfSrcIp, bool, false)
   PLATFORM_VALUES(serverHostname, ServerHostname, VrfHostnameSrcIntfSrcIp, bool, false)
   PLATFORM_VALUES(serverIp6, ServerIp6, VrfIpSrcIntfSrcIp, bool, false)

   // CCAP core addresses, carried in DHCPv6 relay messages in this order.
   const std::map<Platform::Ip6Addr, bool>& ccapCores() const { return ccapCores_; }
   void ccapCoresIs(const Platform::Ip6Addr& a) {
      mapEntryIs(ccapCores_, a, true, &Reactor::handleCcapCores);
   }
   void ccapCoresDel(const Platform::Ip6Addr& a) {
      mapEntryDel(ccapCores_, a, &Reactor::handleCcapCores);
   }

   bool smartRelay() const { return smartRelay_; }
   void smartRelayIs(bool v) { attrIs(smartRelay_, v, &Reactor::handleSmartRelay); }
   // Relay agent information option (option 82) on requests from this interface.
   bool informationOption() const { return informationOption_; }
   void informationOptionIs(bool v) {
      attrIs(informationOption_, v, &Reactor::handleInformationOption);
   }
   InfoOptionPolicy informationOptionPolicy() const { return informationOptionPolicy_; }
   void informationOptionPolicyIs(InfoOptionPolicy v) {
      attrIs(informationOptionPolicy_, v, &Reactor::handleInformationOptionPolicy);
   }
   // Circuit-id sub-option text; empty means the interface name.
   const std::string& circuitId() const { return circuitId_; }
   void circuitIdIs(const std::string& v) { attrIs(circuitId_, v, &Reactor::handleCircuitId); }
   const Platform::VrfName& vrf() const { return vrf_; }
   void vrfIs(const Platform::VrfName& v) { attrIs(vrf_, v, &Reactor::handleVrf); }
   // Install routes for prefixes delegated to clients of this interface.
   bool routeInstall() const { return routeInstall_; }
   void routeInstallIs(bool v) { attrIs(routeInstall_, v, &Reactor::handleRouteInstall); }

 private:
   Platform::IntfId intfId_;
   std::map<Platform::Ip6Addr, bool> ccapCores_;
   bool smartRelay_ = false;
   bool informationOption_ = false;
   InfoOptionPolicy informationOptionPolicy_ = InfoOptionPolicy::drop;
   std::string circuitId_;
   Platform::VrfName vrf_ = Platform::VrfName::defaultVrf();
   bool routeInstall_ = false;
};

// The relay configuration ("ip/helper/dhcprelay/config"), read only to the agent.
class Config : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::Config")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const Config> {
    public:
      virtual void handleIntfConfig(const Platform::IntfId& /*intf*/) {}
      virtual void handleSmartRelayGlobal() {}
      virtual void handleDscpV4() {}
      virtual void handleDscpV6() {}
      virtual void handleAlwaysOn() {}
      virtual void handleClientLinkLayerAddrOpt() {}
      virtual void handleRemoteId() {}
   };

   PLATFORM_RECORDS(intfConfig, IntfConfig, Platform::IntfId, IntfConfig)

   bool smartRelayGlobal() const { return smartRelayGlobal_; }
   void smartRelayGlobalIs(bool v) {
      attrIs(smartRelayGlobal_, v, &Reactor::handleSmartRelayGlobal);
   }
   // DSCP of relayed DHCPv4 / DHCPv6 packets (0..63).
   uint8_t dscpV4() const { return dscpV4_; }
   void dscpV4Is(uint8_t v) { attrIs(dscpV4_, v, &Reactor::handleDscpV4); }
   uint8_t dscpV6() const { return dscpV6_; }
   void dscpV6Is(uint8_t v) { attrIs(dscpV6_, v, &Reactor::handleDscpV6); }
   // Keep the DHCPv6 relay's run control on with no interface configured.
   bool alwaysOn() const { return alwaysOn_; }
   void alwaysOnIs(bool v) { attrIs(alwaysOn_, v, &Reactor::handleAlwaysOn); }
   // Add the DHCPv6 client link-layer address option (79).
   bool clientLinkLayerAddrOpt() const { return clientLinkLayerAddrOpt_; }
   // The relay's own DHCPv6 Remote-Id: enterprise number, and MAC (zero: the system MAC).
   uint32_t remoteIdEnterprise() const { return remoteIdEnterprise_; }
   void remoteIdEnterpriseIs(uint32_t v) {
      attrIs(remoteIdEnterprise_, v, &Reactor::handleRemoteId);
   }
   const Platform::EthAddr& remoteIdMac() const { return remoteIdMac_; }
   void remoteIdMacIs(const Platform::EthAddr& v) {
      attrIs(remoteIdMac_, v, &Reactor::handleRemoteId);
   }
   void clientLinkLayerAddrOptIs(bool v) {
      attrIs(clientLinkLayerAddrOpt_, v, &Reactor::handleClientLinkLayerAddrOpt);
   }

 private:
   bool smartRelayGlobal_ = false;
   uint8_t dscpV4_ = 0;
   uint8_t dscpV6_ = 0;
   bool alwaysOn_ = false;
   bool clientLinkLayerAddrOpt_ = false;
   uint32_t remoteIdEnterprise_ = 32473;
   Platform::EthAddr remoteIdMac_;
};

}  // namespace Ip::Helper::DhcpRelay
