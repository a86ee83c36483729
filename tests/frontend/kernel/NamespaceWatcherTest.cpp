#include "frontend/kernel/NamespaceWatcher.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/NetnsFixture.h"

namespace Frontend {
namespace {

using namespace Platform;

namespace fs = std::filesystem;
using Events = std::vector<std::pair<std::string, bool>>;

using TestNet::shell;

// The tests that need root say so themselves.
class NamespaceWatcherTest : public TestNet::LoopTest {
 protected:
   void SetUp() override {
      base_ = fs::temp_directory_path() / (prefix_ + "dir");
      fs::create_directory(base_);
   }

   void TearDown() override {
      watcher_.reset();
      for (const std::string& mountPoint : mounts_)
         shell("umount -l " + mountPoint);
      LoopTest::TearDown();
      fs::remove_all(base_);
   }

   void watch(const std::string& dir,
              NamespaceWatcher::Probe probe = NamespaceWatcher::isNamespaceMount) {
      watcher_ = std::make_unique<NamespaceWatcher>(
          loop_,
          [this, all = dir != NamespaceWatcher::kNetNsDir](const std::string& ns, bool exists) {
             // Namespaces of other processes come and go in /run/netns meanwhile.
             if (all || ns.rfind(prefix_, 0) == 0)
                events_.emplace_back(ns, exists);
          },
          dir, std::move(probe));
      std::string error;
      ASSERT_TRUE(watcher_->start(error)) << error;
   }

   // Lets every event already queued be handled.
   void settle() {
      for (int i = 0; i < 3; ++i)
         loop_.runOnce(20);
   }

   fs::path base_;
   std::vector<std::string> mounts_;
   std::unique_ptr<NamespaceWatcher> watcher_;
   Events events_;
};

bool anyFile(const std::string& path) {
   return fs::exists(path);
}

TEST_F(NamespaceWatcherTest, FollowsIpNetnsAddAndDelete) {
   if (::geteuid() != 0)
      GTEST_SKIP() << "network namespaces need root";
   const std::string before = prefix_ + "before", added = prefix_ + "added";
   ASSERT_EQ(nsAdd("before"), before);
   watch(NamespaceWatcher::kNetNsDir);
   EXPECT_EQ(events_, (Events{{before, true}}));

   ASSERT_EQ(nsAdd("added"), added);
   ASSERT_TRUE(turnUntil([&] { return watcher_->exists(added); }));
   ASSERT_EQ(shell("ip netns del " + before), 0);
   ASSERT_TRUE(turnUntil([&] { return !watcher_->exists(before); }));
   settle();
   // Reported once each, and only once the namespace was mounted.
   EXPECT_EQ(events_, (Events{{before, true}, {added, true}, {before, false}}));
   EXPECT_TRUE(watcher_->exists("default"));
   EXPECT_TRUE(watcher_->exists(""));
}

TEST_F(NamespaceWatcherTest, FileCountsOnlyWhileANamespaceIsMountedOnIt) {
   if (::geteuid() != 0)
      GTEST_SKIP() << "mounts need root";
   const std::string ns = nsAdd("ns");
   watch(base_.string());
   const std::string file = (base_ / "x").string();
   std::fclose(std::fopen(file.c_str(), "w"));
   settle();
   EXPECT_FALSE(watcher_->exists("x"));

   // What `ip netns add` does after creating the file; no inotify event comes of it.
   mounts_.push_back(file);
   ASSERT_EQ(shell("mount --bind /run/netns/" + ns + " " + file), 0);
   ASSERT_TRUE(turnUntil([&] { return watcher_->exists("x"); }));
   ASSERT_EQ(shell("umount " + file), 0);
   ASSERT_TRUE(turnUntil([&] { return !watcher_->exists("x"); }));
   EXPECT_EQ(events_, (Events{{"x", true}, {"x", false}}));
}

TEST_F(NamespaceWatcherTest, FollowsTheDirectoryThroughItsCreationAndRemoval) {
   const fs::path dir = base_ / "netns";
   watch(dir.string(), anyFile);
   EXPECT_TRUE(events_.empty());

   // Created together with its first entry, before the watch on it can exist.
   fs::create_directory(dir);
   std::fclose(std::fopen((dir / "a").c_str(), "w"));
   ASSERT_TRUE(turnUntil([&] { return watcher_->exists("a"); }));
   std::fclose(std::fopen((dir / "b").c_str(), "w"));
   fs::create_directory(dir / "sub");
   ASSERT_TRUE(turnUntil([&] { return watcher_->exists("b"); }));
   fs::rename(dir / "b", dir / "c");
   fs::remove(dir / "a");
   // Gone before the loop saw it: a file is judged as it is when its event is handled.
   std::fclose(std::fopen((dir / "brief").c_str(), "w"));
   fs::remove(dir / "brief");
   ASSERT_TRUE(turnUntil([&] { return events_.size() >= 5; }));
   settle();
   EXPECT_EQ(events_, (Events{{"a", true}, {"b", true}, {"b", false}, {"c", true}, {"a", false}}));

   // Moved away: what it held is gone with it; a new one is followed again.
   events_.clear();
   fs::rename(dir, base_ / "old");
   ASSERT_TRUE(turnUntil([&] { return !watcher_->exists("c"); }));
   fs::create_directory(dir);
   std::fclose(std::fopen((dir / "d").c_str(), "w"));
   ASSERT_TRUE(turnUntil([&] { return watcher_->exists("d"); }));
   std::fclose(std::fopen((base_ / "old" / "e").c_str(), "w"));
   settle();
   EXPECT_EQ(events_, (Events{{"c", false}, {"d", true}}));
   EXPECT_EQ(watcher_->namespaces(), (std::set<std::string>{"d"}));
}

}  // namespace
}  // namespace Frontend
