#include "frontend/kernel/KernelFrontEnd.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "frontend/kernel/IntfStatusManager.h"
#include "tests/support/NetnsFixture.h"

namespace Frontend {
namespace {

using namespace Platform;
using KernelNetInfo::kernelTableOf;
using KernelNetInfo::kernelTablePath;

namespace fs = std::filesystem;
using Names = std::set<std::string>;
using Lines = std::vector<std::string>;
using State = Ip::VrfStatusLocal::State;

IpAddrWithMask v4(const char* text) {
   return *IpAddrWithMask::parse(text);
}
Ip6Prefix v6(const char* text) {
   return *Ip6Prefix::parse(text);
}

// Every notification of the IPv4 status, as "<interface> <what changed>".
struct IpLog : Ip::Status::Reactor {
   struct Intf : Ip::IpIntfStatus::Reactor {
      Intf(Lines& lines, Ptr<const Ip::IpIntfStatus> intf) : lines(lines) { notifierIs(intf); }
      void log(const std::string& what) { lines.push_back(notifier()->name() + what); }
      void handleActiveAddrWithMask() override { log(" primary"); }
      void handleActiveSecondaryWithMask(const IpAddrWithMask& a) override {
         log(" secondary " + a.toString());
      }
      void handleVrf() override { log(" vrf"); }
      Lines& lines;
   };
   explicit IpLog(const Ptr<Ip::Status>& status) { notifierIs(status); }
   void onNotifierAttached() override {
      for (const auto& [id, intf] : notifier()->ipIntfStatus())
         intfs.push_back(std::make_unique<Intf>(lines, intf));
   }
   void handleIpIntfStatus(const IntfId& id) override {
      lines.push_back(id.toString() + " record");
      if (auto intf = notifier()->ipIntfStatus(id))
         intfs.push_back(std::make_unique<Intf>(lines, intf));
   }
   Lines lines;
   std::vector<std::unique_ptr<Intf>> intfs;
};

// The records the configuration front end publishes, as it publishes them.
class ConfiguredStoreTest : public TestNet::LoopTest {
 protected:
   ConfiguredStoreTest() {
      store_.publish("ip/vrf/status/local", vrfs_);
      store_.publish("interface/config/deviceName", deviceNames_);
      vrfIs("default", "default");
   }

   Ptr<Ip::VrfStatusLocal> vrfIs(const std::string& vrf, const std::string& ns) {
      auto status = vrfs_->vrfIs(VrfName(vrf));
      status->nsNameIs(NamespaceName(ns));
      return status;
   }
   Ptr<KernelNetInfo::KernelIntf> device(const std::string& ns, uint32_t ifindex,
                                         const std::string& name,
                                         const std::vector<IpAddrWithMask>& ipv4 = {},
                                         const std::vector<Ip6Prefix>& ipv6 = {}) {
      auto d = kernelTableOf(store_, ns)->interfaceByIndexIs(ifindex);
      d->deviceNameIs(name);
      d->ipv4Is(ipv4);
      for (const Ip6Prefix& a : ipv6)
         d->ipv6Is(a);
      return d;
   }

   StateStore store_{[this](std::function<void()> fn) { loop_.post(std::move(fn)); }};
   Ptr<Ip::AllVrfStatusLocal> vrfs_ = make<Ip::AllVrfStatusLocal>("local");
   Ptr<Interface::DeviceNameConfig> deviceNames_ = make<Interface::DeviceNameConfig>("deviceName");
};

class KernelFrontEndTest : public ConfiguredStoreTest {
 protected:
   // Follows nothing: the tests write the tables the way a follower would.
   struct FakeFollower : KernelFrontEnd::Follower {
      FakeFollower(Names& following, std::string ns) : following(following), ns(std::move(ns)) {
         following.insert(this->ns);
      }
      ~FakeFollower() override { following.erase(ns); }
      Names& following;
      std::string ns;
   };

   void SetUp() override {
      nsDir_ = fs::temp_directory_path() / (prefix_ + "netns");
      fs::create_directory(nsDir_);
   }
   void TearDown() override {
      frontEnd_.reset();
      LoopTest::TearDown();
      fs::remove_all(nsDir_);
   }

   void start() {
      KernelFrontEnd::Seams seams{[this](EventLoop&, const std::string& ns,
                                         const Ptr<KernelNetInfo::Status>&, std::string&) {
                                     ++followerStarts_;
                                     return std::make_unique<FakeFollower>(following_, ns);
                                  },
                                  nsDir_.string(),
                                  [](const std::string& path) { return fs::exists(path); }};
      frontEnd_ = std::make_unique<KernelFrontEnd>(loop_, store_, std::move(seams));
   }
   // In the fake namespace directory, any file stands for a mounted namespace.
   void nsAdd(const std::string& ns) { std::fclose(std::fopen((nsDir_ / ns).c_str(), "w")); }
   void nsDel(const std::string& ns) { fs::remove(nsDir_ / ns); }

   State state(const std::string& vrf) { return vrfs_->vrf(VrfName(vrf))->state(); }
   Ptr<Ip::IpIntfStatus> ip(const char* intf) {
      return frontEnd_->ipStatus()->ipIntfStatus(IntfId(intf));
   }
   // Every IPv4 record as "4 <intf> <vrf> <primary> <secondaries>", then every IPv6 one as
   // "6 <intf> <vrf> <addresses>".
   Lines view() const {
      Lines out;
      for (const auto& [id, s] : frontEnd_->ipStatus()->ipIntfStatus()) {
         out.push_back("4 " + id.toString() + " " + s->vrf().str() + " " +
                       s->activeAddrWithMask().toString());
         for (const IpAddrWithMask& a : s->activeSecondaryWithMask())
            out.back() += " " + a.toString();
      }
      for (const auto& [id, s] : frontEnd_->ip6Status()->intf()) {
         out.push_back("6 " + id.toString() + " " + s->vrf().str());
         for (const Ip6Prefix& a : s->addr())
            out.back() += " " + a.toString();
      }
      return out;
   }
   // Derived status is brought up to date at the end of the turn the tables changed in.
   void turn() { loop_.runOnce(0); }

   fs::path nsDir_;
   Names following_;
   int followerStarts_ = 0;
   std::unique_ptr<KernelFrontEnd> frontEnd_;
};

TEST_F(KernelFrontEndTest, DerivesAddressesAndFollowsAPromotedSecondary) {
   start();
   EXPECT_EQ(state("default"), State::active);
   EXPECT_EQ(following_, (Names{"default"}));
   EXPECT_EQ(store_.published("ip/status"), frontEnd_->ipStatus());
   auto eth1 = device("default", 2, "Ethernet1", {v4("10.0.0.1/24"), v4("10.0.2.1/24")},
                      {v6("2001:db8::1/64"), v6("fe80::1/64")});
   device("default", 3, "Ethernet2");
   device("default", 4, "not an interface", {v4("10.9.9.9/8")});
   turn();
   EXPECT_EQ(view(),
             (Lines{"4 Ethernet1 default 10.0.0.1/24 10.0.2.1/24", "4 Ethernet2 default 0.0.0.0/0",
                    "6 Ethernet1 default 2001:db8::1/64 fe80::1/64", "6 Ethernet2 default"}));
   Ptr<Ip::IpIntfStatus> e1 = ip("Ethernet1");

   IpLog log(frontEnd_->ipStatus());
   // A secondary added, then the primary deleted: the kernel promotes the next address.
   eth1->ipv4Is({v4("10.0.0.1/24"), v4("10.0.2.1/24"), v4("10.0.3.1/24")});
   turn();
   eth1->ipv4Is({v4("10.0.2.1/24"), v4("10.0.3.1/24")});
   eth1->ipv6Del(v6("fe80::1/64"));
   turn();
   EXPECT_EQ(log.lines, (Lines{"Ethernet1 secondary 10.0.3.1/24", "Ethernet1 secondary 10.0.2.1/24",
                               "Ethernet1 primary"}));
   EXPECT_EQ(ip("Ethernet1"), e1);
   EXPECT_EQ(view(),
             (Lines{"4 Ethernet1 default 10.0.2.1/24 10.0.3.1/24", "4 Ethernet2 default 0.0.0.0/0",
                    "6 Ethernet1 default 2001:db8::1/64", "6 Ethernet2 default"}));
}

TEST_F(KernelFrontEndTest, DeviceNamesFollowTheConfigurationAndTheKernel) {
   // Mapped before the device exists.
   deviceNames_->deviceNameIs(IntfId("Ethernet9"), "eth9");
   start();
   auto dev = device("default", 2, "eth7", {v4("10.0.0.1/24")});
   auto eth9 = device("default", 4, "eth9", {v4("10.0.9.1/24")});
   turn();
   EXPECT_EQ(view(), (Lines{"4 Ethernet9 default 10.0.9.1/24", "4 eth7 default 10.0.0.1/24",
                            "6 Ethernet9 default", "6 eth7 default"}));
   deviceNames_->deviceNameIs(IntfId("Ethernet7"), "eth7");
   // Named like an interface the configuration maps to another device: stands for nothing.
   device("default", 5, "Ethernet7", {v4("10.0.0.2/24")});
   // A reload moves eth9 to another interface.
   deviceNames_->deviceNameDel(IntfId("Ethernet9"));
   deviceNames_->deviceNameIs(IntfId("Ethernet8"), "eth9");
   turn();
   EXPECT_EQ(view(), (Lines{"4 Ethernet7 default 10.0.0.1/24", "4 Ethernet8 default 10.0.9.1/24",
                            "6 Ethernet7 default", "6 Ethernet8 default"}));

   dev->deviceNameIs("eth8");
   // Two devices swap names through a temporary one within one turn: the records stay.
   Ptr<Ip::IpIntfStatus> e8 = ip("Ethernet8");
   eth9->deviceNameIs("tmp");
   kernelTableOf(store_, "default")->interfaceByIndex(5)->deviceNameIs("eth9");
   eth9->deviceNameIs("Ethernet7");
   turn();
   EXPECT_EQ(ip("Ethernet8"), e8);
   EXPECT_EQ(view(), (Lines{"4 Ethernet8 default 10.0.0.2/24", "4 eth8 default 10.0.0.1/24",
                            "6 Ethernet8 default", "6 eth8 default"}));
}

TEST_F(KernelFrontEndTest, VrfIsActiveWhileItsNamespaceExists) {
   const std::string ns = prefix_ + "red";
   vrfIs("red", ns);
   start();
   EXPECT_EQ(state("red"), State::inactive);
   EXPECT_EQ(following_, (Names{"default"}));
   // Published while inactive, so that readers can attach to it already.
   EXPECT_TRUE(store_.published(kernelTablePath(ns)));

   nsAdd(ns);
   ASSERT_TRUE(turnUntil([&] { return state("red") == State::active; }));
   EXPECT_EQ(following_, (Names{"default", ns}));
   device(ns, 2, "Ethernet3", {v4("10.1.0.1/24")});
   turn();
   EXPECT_EQ(view(), (Lines{"4 Ethernet3 red 10.1.0.1/24", "6 Ethernet3 red"}));

   nsDel(ns);
   ASSERT_TRUE(turnUntil([&] { return state("red") == State::inactive; }));
   EXPECT_EQ(following_, (Names{"default"}));
   EXPECT_TRUE(kernelTableOf(store_, ns)->interfaceByIndex().empty());
   EXPECT_EQ(view(), Lines{});
   nsAdd(ns);
   EXPECT_TRUE(turnUntil([&] { return state("red") == State::active; }));
}

TEST_F(KernelFrontEndTest, DeviceMovedToAnotherNamespaceKeepsItsRecord) {
   const std::string ns = prefix_ + "red";
   nsAdd(ns);
   vrfIs("red", ns);
   start();
   device("default", 5, "Ethernet5", {v4("10.0.0.1/24")});
   turn();
   Ptr<Ip::IpIntfStatus> rec = ip("Ethernet5");
   IpLog log(frontEnd_->ipStatus());
   // Both halves arrive within one turn; moving flushes the device's addresses.
   kernelTableOf(store_, "default")->interfaceByIndexDel(5);
   device(ns, 9, "Ethernet5");
   turn();
   EXPECT_EQ(ip("Ethernet5"), rec);
   EXPECT_EQ(view(), (Lines{"4 Ethernet5 red 0.0.0.0/0", "6 Ethernet5 red"}));
   EXPECT_EQ(log.lines, (Lines{"Ethernet5 vrf", "Ethernet5 primary"}));

   // A name in two namespaces stands for the default VRF's device while there is one.
   device(ns, 1, "lo", {v4("127.0.0.2/8")});
   device("default", 1, "lo", {v4("127.0.0.1/8")});
   turn();
   EXPECT_EQ(view()[1], "4 lo default 127.0.0.1/8");
   kernelTableOf(store_, "default")->interfaceByIndexDel(1);
   turn();
   EXPECT_EQ(view()[1], "4 lo red 127.0.0.2/8");
}

TEST_F(KernelFrontEndTest, ReloadsRemapSwapAndRemoveVrfs) {
   const std::string a = prefix_ + "a", b = prefix_ + "b";
   nsAdd(a);
   nsAdd(b);
   auto red = vrfIs("red", a);
   auto blue = vrfIs("blue", b);
   start();
   device(a, 2, "Ethernet1");
   turn();
   ASSERT_EQ(following_, (Names{"default", a, b}));

   // A reload that changes nothing here: nothing restarts (so no VRF flaps), nothing is
   // notified.
   const int starts = followerStarts_;
   IpLog log(frontEnd_->ipStatus());
   vrfIs("red", a);
   vrfIs("blue", b);
   deviceNames_->deviceNameIs(IntfId("Ethernet9"), "eth9");
   turn();
   EXPECT_EQ(followerStarts_, starts);
   EXPECT_TRUE(log.lines.empty());

   // Swapping namespaces: in between, red waits for blue to let go of b.
   red->nsNameIs(NamespaceName(b));
   EXPECT_EQ(following_, (Names{"default", b}));
   EXPECT_EQ(state("red"), State::inactive);
   blue->nsNameIs(NamespaceName(a));
   EXPECT_EQ(following_, (Names{"default", a, b}));
   EXPECT_EQ(state("red"), State::active);
   EXPECT_EQ(state("blue"), State::active);
   // A table is emptied when its VRF leaves; the new VRF's follower fills it again.
   EXPECT_FALSE(ip("Ethernet1"));
   device(a, 2, "Ethernet1");
   turn();
   EXPECT_EQ(ip("Ethernet1")->vrf(), VrfName("blue"));

   vrfs_->vrfDel(VrfName("blue"));
   EXPECT_EQ(following_, (Names{"default", b}));
   EXPECT_FALSE(ip("Ethernet1"));
   red->nsNameIs(NamespaceName(prefix_ + "none"));
   EXPECT_EQ(following_, (Names{"default"}));
   EXPECT_EQ(state("red"), State::inactive);
}

// --- the agent's side: interface status from the same tables ---------------------------

class IntfStatusManagerTest : public ConfiguredStoreTest {
 protected:
   IntfStatusManagerTest() {
      vrfIs("red", "r");
      deviceNames_->deviceNameIs(IntfId("Ethernet1"), "eth1");
   }
   Ptr<Interface::IntfStatus> status(const char* intf) {
      return intfStatus_->intfStatus(IntfId(intf));
   }
   Ptr<Interface::IntfStatusLocal> local(const char* intf) {
      return intfStatusLocal_->intfStatusLocal(IntfId(intf));
   }
   bool empty() {
      return intfStatus_->intfStatus().empty() && intfStatusLocal_->intfStatusLocal().empty();
   }

   Ptr<Interface::AllIntfStatusDir> intfStatus_ = make<Interface::AllIntfStatusDir>("all");
   Ptr<Interface::AllIntfStatusLocalDir> intfStatusLocal_ =
       make<Interface::AllIntfStatusLocalDir>("local");
   IntfStatusManagerRoot root_{store_, intfStatus_, intfStatusLocal_};
};

struct OperStatusLog : Interface::IntfStatus::Reactor {
   explicit OperStatusLog(Ptr<const Interface::IntfStatus> s) { notifierIs(s); }
   void handleDeviceName() override { ++changes; }
   void handleOperStatus() override { ++changes; }
   int changes = 0;
};

TEST_F(IntfStatusManagerTest, WritesTheDevicesOfItsNamespace) {
   // Created before anyone published the table: both sides meet on the same one.
   IntfStatusManager* m = root_.intfStatusManager("r");
   EXPECT_EQ(root_.intfStatusManager("r"), m);
   auto eth1 = device("r", 4, "eth1");
   eth1->runningIs(true);
   device("r", 5, "bad name");
   ASSERT_EQ(intfStatus_->intfStatus().size(), 1u);
   EXPECT_EQ(status("Ethernet1")->deviceName(), "eth1");
   EXPECT_EQ(status("Ethernet1")->operStatus(), Interface::IntfStatus::OperStatus::up);
   EXPECT_EQ(local("Ethernet1")->vrf(), VrfName("red"));
   EXPECT_EQ(local("Ethernet1")->ifindex(), 4u);

   OperStatusLog log(status("Ethernet1"));
   eth1->upIs(true);
   eth1->ipv4Is({v4("10.0.0.1/24")});
   eth1->runningIs(false);
   EXPECT_EQ(log.changes, 1);
   EXPECT_EQ(status("Ethernet1")->operStatus(), Interface::IntfStatus::OperStatus::down);
   // Renamed: the interface goes with the old name, and a device of the new name that
   // is already there keeps the lower ifindex.
   device("r", 2, "Ethernet5");
   eth1->deviceNameIs("Ethernet5");
   EXPECT_FALSE(status("Ethernet1"));
   EXPECT_EQ(local("Ethernet5")->ifindex(), 2u);
   kernelTableOf(store_, "r")->interfaceByIndexDel(2);
   EXPECT_EQ(local("Ethernet5")->ifindex(), 4u);
   kernelTableOf(store_, "r")->interfaceByIndexDel(4);
   EXPECT_TRUE(empty());
}

TEST_F(IntfStatusManagerTest, EntriesFollowTheVrfOfTheirNamespace) {
   device("default", 1, "lo");
   device("r", 1, "lo");
   device("r", 2, "eth2");
   device("r", 4, "eth1");
   IntfStatusManager* own = root_.intfStatusManager("");
   EXPECT_EQ(root_.intfStatusManager("default"), own);
   root_.intfStatusManager("r");
   // A name in two namespaces is the default VRF's while it has one, then passes on.
   EXPECT_EQ(local("lo")->vrf(), VrfName::defaultVrf());
   root_.intfStatusManagerDel("default");
   ASSERT_TRUE(local("lo"));
   EXPECT_EQ(local("lo")->vrf(), VrfName("red"));
   EXPECT_TRUE(local("eth2"));

   // Two VRFs naming one namespace happens in the middle of a reload: the first counts.
   vrfIs("blue", "r");
   EXPECT_EQ(local("Ethernet1")->vrf(), VrfName("blue"));
   vrfs_->vrfDel(VrfName("blue"));
   EXPECT_EQ(local("Ethernet1")->vrf(), VrfName("red"));
   vrfs_->vrf(VrfName("red"))->nsNameIs(NamespaceName("s"));
   EXPECT_TRUE(empty());
   vrfIs("green", "r");
   EXPECT_EQ(local("Ethernet1")->vrf(), VrfName("green"));
   root_.intfStatusManagerDel("r");
   EXPECT_TRUE(empty());
}

}  // namespace
}  // namespace Frontend
