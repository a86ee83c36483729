#include "frontend/state/PrefixBindingFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/loop/Clock.h"
#include "platform/loop/TimerWheel.h"

namespace Frontend {
namespace {

using Ip::Helper::DhcpRelay::SavedPrefixBinding;

SavedPrefixBinding binding(const char* intf, const char* prefix, uint32_t valid) {
   SavedPrefixBinding b{Platform::IntfId(intf), *Platform::Ip6Prefix::parse(prefix), {}};
   b.attrs = {valid / 2, valid, *Platform::Ip6Addr::parse("fe80::42"), Platform::VrfName("red"),
              1700000000.5};
   return b;
}

bool same(const SavedPrefixBinding& a, const SavedPrefixBinding& b) {
   return a.intf == b.intf && a.prefix == b.prefix && a.attrs == b.attrs;
}

// What is written reads back the same, once per loop turn however many changes; entries
// that do not read are named and skipped, the rest kept.
TEST(PrefixBindingFileTest, WrittenOncePerTurnAndReadBack) {
   const std::filesystem::path dir = testing::TempDir() + "pbf-" + std::to_string(::getpid());
   std::filesystem::create_directories(dir);
   const std::string path = (dir / "prefix-bindings.json").string();
   std::vector<std::string> errors;
   EXPECT_TRUE(PrefixBindingFile::load(path, errors).empty()) << "no file: nothing";
   EXPECT_TRUE(errors.empty());

   Platform::ManualClock clock{1000.0};
   Platform::TimerWheel wheel{clock, clock};
   Platform::EventLoop loop(wheel);
   std::vector<SavedPrefixBinding> now{binding("Ethernet1", "2001:db8:a0::/48", 60),
                                       binding("Vlan10", "2001:db8:a1::/56", 0xffffffff)};
   int asked = 0;
   PrefixBindingFile file(loop, path, [&] {
      ++asked;
      return now;
   });
   file.handlePrefixBindingsChanged();
   file.handlePrefixBindingsChanged();
   loop.runOnce(0);
   EXPECT_EQ(asked, 1);
   const auto loaded = PrefixBindingFile::load(path, errors);
   ASSERT_EQ(loaded.size(), 2u);
   EXPECT_TRUE(same(loaded[0], now[0]) && same(loaded[1], now[1]));

   std::ofstream(path) << R"({"version": 1, "bindings": [{"interface": "Ethernet1"},
      {"interface": "Ethernet2", "prefix": "2001:db8:b0::/48", "vrf": "default",
       "nextHop": "fe80::1", "preferredLifetime": 1, "validLifetime": 2, "writeTime": 3}]})";
   const auto partly = PrefixBindingFile::load(path, errors);
   ASSERT_EQ(partly.size(), 1u);
   EXPECT_EQ(partly[0].intf, Platform::IntfId("Ethernet2"));
   ASSERT_EQ(errors.size(), 1u);
   EXPECT_NE(errors[0].find("bindings[0]"), std::string::npos) << errors[0];
   std::ofstream(path) << "not json";
   EXPECT_TRUE(PrefixBindingFile::load(path, errors).empty());
   EXPECT_EQ(errors.size(), 2u);
   std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace Frontend
