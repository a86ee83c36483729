#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "codec/DhcpHdr.h"
#include "frontend/kernel/IntfStatusManager.h"
#include "frontend/kernel/KernelFrontEnd.h"
#include "model/ClientContext.h"
#include "model/Config.h"
#include "model/DhcpPacketQueues.h"
#include "model/IntfServerIpDir.h"
#include "model/Status.h"
#include "model/VrfWithCountDir.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/IpStatus.h"
#include "model/switch/VrfStatus.h"
#include "platform/loop/TimerWheel.h"
#include "platform/pam/EthDevTestPam.h"
#include "platform/pam/RawTxTestPam.h"
#include "platform/pam/UdpTestPam.h"
#include "platform/store/StateStore.h"
#include "relay4/DhcpRelaySm.h"

namespace Ip::Helper::DhcpRelay::Test {

using Platform::IntfId;
using Platform::IpAddr;
using Platform::make;
using Platform::NamespaceName;
using Platform::VrfName;

inline IpAddr ip(const char* text) {
   return *IpAddr::parse(text);
}
inline Platform::IpAddrWithMask net(const char* text) {
   return *Platform::IpAddrWithMask::parse(text);
}

using Bytes = std::vector<uint8_t>;

inline Platform::EthAddr mac(uint32_t n) {
   return Platform::EthAddr(
       {0x02, 0x00, uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
}
const Platform::EthAddr kClientMac = mac(0x42);

inline void put32(Bytes& b, size_t off, uint32_t v) {
   for (int i = 0; i < 4; ++i)
      b[off + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// The fields of a DHCP message the relay tests vary; the rest stays zero.
struct Msg {
   uint8_t op = bootRequest;
   uint8_t type = 3;  // DHCPREQUEST
   uint8_t hops = 0;
   uint16_t flags = 0;
   Platform::EthAddr client = kClientMac;
   IpAddr ciaddr = {};
   IpAddr yiaddr = {};
   IpAddr giaddr = {};
   std::optional<IpAddr> serverId = {};   // option 54
   std::optional<IpAddr> requested = {};  // option 50
};

// A 300-byte message with the magic cookie, the message type and the address options set.
inline Bytes message(const Msg& m) {
   Bytes b(240, 0);
   b[0] = m.op;
   b[1] = 1;
   b[2] = 6;
   b[3] = m.hops;
   put32(b, 4, 0x12345678);
   b[10] = static_cast<uint8_t>(m.flags >> 8);
   b[11] = static_cast<uint8_t>(m.flags);
   put32(b, 12, m.ciaddr.value());
   put32(b, 16, m.yiaddr.value());
   put32(b, 24, m.giaddr.value());
   std::copy(m.client.bytes().begin(), m.client.bytes().end(), b.begin() + 28);
   put32(b, 236, DhcpLayout::cookieValue);
   b.insert(b.end(), {53, 1, m.type});
   for (const auto& [code, addr] :
        {std::pair{uint8_t{54}, m.serverId}, {uint8_t{50}, m.requested}}) {
      if (addr) {
         b.insert(b.end(), {code, 4, 0, 0, 0, 0});
         put32(b, b.size() - 4, addr->value());
      }
   }
   b.push_back(255);
   b.resize(300, 0);
   return b;
}

// The DHCPv4 drops as show counters lists them: a reason the DHCPv4 relay drops for that is
// not one of its family's is missing here.
inline std::map<std::string, uint64_t> v4Drops(const Status& status) {
   std::map<std::string, uint64_t> out;
   status.forEachDrop([&](std::string_view name, uint64_t n) { out[std::string(name)] = n; },
                      kDropV4);
   return out;
}

// Socket doubles, kept by name so that a test can reach the ones a machine opened.
class TestPamFactory : public DhcpPamFactory {
 public:
   Ptr<Platform::UdpPam> udpPam(const std::string& name) override {
      return udp[name] = make<Platform::UdpTestPam>(name);
   }
   Ptr<Platform::RawTxPam> rawTxPam(const std::string& name) override {
      return raw[name] = make<Platform::RawTxTestPam>(name);
   }
   // Kept by device: the latest capture of each.
   Ptr<Platform::EthDevPam> ethDevPam(const std::string& device, const std::string& ns) override {
      return eth[device] = make<Platform::EthDevTestPam>(device, ns);
   }
   std::unique_ptr<Platform::RouteSocket> routeSocket(const std::string&,
                                                      std::string& error) override {
      error = "no netlink in unit tests";
      return nullptr;
   }

   std::map<std::string, Ptr<Platform::UdpTestPam>> udp;
   std::map<std::string, Ptr<Platform::RawTxTestPam>> raw;
   std::map<std::string, Ptr<Platform::EthDevTestPam>> eth;
};

// The records a relay machine reads, with a store and interface status managers that need
// no kernel: kernel tables are written by the tests as the follower would.
class RelayTestBed {
 public:
   // First: machines built on the bed cancel their timers on it when they go.
   Platform::ManualClock clock{1000.0};
   Platform::TimerWheel wheel{clock, clock};

   RelayTestBed() {
      store.publish("ip/vrf/status/local", vrfs);
      store.publish("interface/config/deviceName", deviceNames);
      vrfIs("default", "default", true);
      managers = std::make_unique<Frontend::IntfStatusManagerRoot>(store, allIntfStatus,
                                                                   allIntfStatusLocal);
   }

   Ptr<Ip::VrfStatusLocal> vrfIs(const std::string& vrf, const std::string& ns, bool active) {
      auto status = vrfs->vrfIs(VrfName(vrf));
      status->nsNameIs(NamespaceName(ns));
      status->stateIs(active ? Ip::VrfStatusLocal::State::active
                             : Ip::VrfStatusLocal::State::inactive);
      return status;
   }
   void activeVrfIs(const std::string& vrf, uint32_t count) {
      activeVrfDir->vrfCountIs(VrfName(vrf))->countIs(count);
   }
   Ptr<KernelNetInfo::KernelIntf> device(const std::string& ns, uint32_t ifindex,
                                         const std::string& name) {
      auto d = KernelNetInfo::kernelTableOf(store, ns)->interfaceByIndexIs(ifindex);
      d->deviceNameIs(name);
      return d;
   }
   // An interface's IP status in a VRF, primary address first (a relay interface unless
   // `relay` is false) and, given an ifindex, its kernel device: up, with the same addresses,
   // which makes them the relay's own in that VRF.
   Ptr<Ip::IpIntfStatus> intfIs(const char* intf, const char* vrf,
                                const std::vector<const char*>& addrs, uint32_t ifindex = 0,
                                bool relay = true) {
      if (relay)
         config->intfConfigIs(IntfId(intf));
      auto status = ipStatus->ipIntfStatusIs(IntfId(intf));
      status->vrfIs(VrfName(vrf));
      std::vector<Platform::IpAddrWithMask> all;
      for (const char* a : addrs)
         all.push_back(net(a));
      status->activeAddrWithMaskIs(all[0]);
      for (size_t i = 1; i < all.size(); ++i)
         status->activeSecondaryWithMaskIs(all[i]);
      if (ifindex) {
         auto d = device(vrfs->vrf(VrfName(vrf))->nsName().str(), ifindex, intf);
         d->macIs(mac(1));
         d->upIs(true);
         d->ipv4Is(all);
      }
      return status;
   }
   // Inputs for a relay machine (the tests' own subclasses included).
   DhcpRelaySm::Inputs inputs() {
      return {config,         status,       ipStatus,        vrfs,          deviceNames,
              packetQueues,   activeVrfDir, intfServerIpDir, clientContext, &store,
              managers.get(), &pams,        &wheel};
   }
   // Moves the test's clock on and fires what is due, as the event loop would.
   void advance(double seconds) {
      clock.advance(seconds);
      wheel.runExpired();
   }

   Platform::StateStore store{[](std::function<void()>) {}};
   Ptr<Ip::AllVrfStatusLocal> vrfs = make<Ip::AllVrfStatusLocal>("local");
   Ptr<Interface::DeviceNameConfig> deviceNames = make<Interface::DeviceNameConfig>("devices");
   Ptr<Interface::AllIntfStatusDir> allIntfStatus = make<Interface::AllIntfStatusDir>("all");
   Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocal =
       make<Interface::AllIntfStatusLocalDir>("local");
   std::unique_ptr<Frontend::IntfStatusManagerRoot> managers;
   Ptr<Config> config = make<Config>("config");
   Ptr<Status> status = make<Status>("status");
   Ptr<Ip::Status> ipStatus = make<Ip::Status>("ip");
   Ptr<DhcpPacketQueues> packetQueues = make<DhcpPacketQueues>("queues");
   Ptr<VrfWithCountDir> activeVrfDir = make<VrfWithCountDir>("activeVrfDirv4");
   Ptr<IntfServerIpDir> intfServerIpDir = make<IntfServerIpDir>("servers");
   Ptr<ClientContext> clientContext = make<ClientContext>("clients");
   TestPamFactory pams;
};

}  // namespace Ip::Helper::DhcpRelay::Test
