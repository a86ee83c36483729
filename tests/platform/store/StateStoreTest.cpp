#include "platform/store/StateStore.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/store/Dir.h"
#include "platform/store/Entity.h"
#include "platform/store/Reactor.h"

namespace Platform {
namespace {

// A record with one attribute and one collection, enough to drive every path of
// the reactor framework.
class Box : public Entity {
 public:
   PLATFORM_ENTITY_TYPE("Test::Box")
   explicit Box(std::string name, bool* destroyed = nullptr)
       : Entity(std::move(name)), destroyed_(destroyed) {}
   ~Box() override {
      if (destroyed_)
         *destroyed_ = true;
   }

   class Reactor : public ReactorOf<const Box> {
    public:
      virtual void handleValue() {}
      virtual void handleItem(const std::string& /*key*/) {}
      virtual void handleTag(const std::string& /*tag*/) {}
   };

   int value() const { return value_; }
   void valueIs(int v) { attrIs(value_, v, &Reactor::handleValue); }
   const std::map<std::string, int>& item() const { return item_; }
   void itemIs(const std::string& k, int v) { mapEntryIs(item_, k, v, &Reactor::handleItem); }
   void itemDel(const std::string& k) { mapEntryDel(item_, k, &Reactor::handleItem); }
   void itemDelAll() { mapEntryDelAll(item_, &Reactor::handleItem); }
   const std::set<std::string>& tag() const { return tag_; }
   void tagIs(const std::string& t) { setEntryIs(tag_, t, &Reactor::handleTag); }
   void tagDel(const std::string& t) { setEntryDel(tag_, t, &Reactor::handleTag); }

 private:
   bool* destroyed_;
   int value_ = 0;
   std::map<std::string, int> item_;
   std::set<std::string> tag_;
};

// Logs every call under its name; `onValue` / `onItem` let a test act inside a handler.
class Watcher : public Box::Reactor {
 public:
   Watcher(std::string name, std::vector<std::string>& log) : name_(std::move(name)), log_(log) {}

   void handleValue() override {
      log_.push_back(name_ + " value");
      if (onValue)
         onValue();
   }
   void handleItem(const std::string& key) override {
      log_.push_back(name_ + " item " + key);
      if (onItem)
         onItem(key);
   }
   void handleTag(const std::string& tag) override { log_.push_back(name_ + " tag " + tag); }

   std::function<void()> onValue;
   std::function<void(const std::string&)> onItem;

 private:
   std::string name_;
   std::vector<std::string>& log_;
};

using Log = std::vector<std::string>;

class ReactorTest : public ::testing::Test {
 protected:
   std::unique_ptr<Watcher> watch(const std::string& name, const Ptr<Box>& target) {
      auto w = std::make_unique<Watcher>(name, log);
      w->notifierIs(target);
      return w;
   }

   Log log;
   Ptr<Box> box = make<Box>("box");
};

TEST_F(ReactorTest, HandlerMayDestroyItselfOrAReactorNotYetNotified) {
   auto a = watch("a", box);
   auto b = watch("b", box);
   auto c = watch("c", box);
   a->onValue = [&] { a.reset(); };
   box->valueIs(1);
   EXPECT_EQ(log, (Log{"a value", "b value", "c value"}));

   log.clear();
   b->onValue = [&] { c.reset(); };
   box->valueIs(2);
   EXPECT_EQ(log, (Log{"b value"}));

   // The emptied slots are gone once the walk is over: later changes reach only b.
   log.clear();
   b->onValue = nullptr;
   box->valueIs(3);
   EXPECT_EQ(log, (Log{"b value"}));

   // Removed inside a nested walk: the outer walk skips it too.
   log.clear();
   c = watch("c", box);
   b->onValue = [&] { box->itemIs("k", 1); };
   b->onItem = [&](const std::string&) { c.reset(); };
   box->valueIs(4);
   EXPECT_EQ(log, (Log{"b value", "b item k"}));
}

TEST_F(ReactorTest, HandlerGrowingTheCollectionSeesEachEntryOnceAndStops) {
   auto a = watch("a", box);
   auto b = watch("b", box);
   std::unique_ptr<Watcher> late;
   a->onItem = [&](const std::string& key) {
      if (key.size() < 3)
         box->itemIs(key + "x", 0);
      // Attached during a walk: it hears later changes, not this one.
      if (!late)
         late = watch("late", box);
   };
   box->itemIs("k", 0);
   EXPECT_EQ(box->item().size(), 3u);
   // Nested changes reach every reactor before the outer walk resumes.
   EXPECT_EQ(log,
             (Log{"a item k", "a item kx", "a item kxx", "b item kxx", "b item kx", "b item k"}));

   log.clear();
   a->onItem = nullptr;
   box->itemDel("kx");
   EXPECT_EQ(log, (Log{"a item kx", "b item kx", "late item kx"}));
}

TEST_F(ReactorTest, RecordOutlivesANotificationThatDropsItsLastReference) {
   bool destroyed = false;
   Ptr<Box> owned = make<Box>("owned", &destroyed);
   auto a = watch("a", owned);
   auto b = watch("b", owned);
   a->onValue = [&] {
      // Every reference but the notification's own goes away here.
      a->notifierIs(nullptr);
      b.reset();
      owned.reset();
      EXPECT_FALSE(destroyed);
   };
   Box* raw = owned.get();
   raw->valueIs(1);
   EXPECT_TRUE(destroyed);
}

// Passing a collection's own key is natural when walking it; the handler still gets a live
// key. Setting what is already there notifies nobody.
TEST_F(ReactorTest, HandlerGetsTheKeyEvenWhenDeletedThroughTheStoredKey) {
   auto a = watch("a", box);
   const std::string key = "a-key-long-enough-to-live-on-the-heap";
   box->itemIs(key, 1);
   box->itemIs(key, 1);
   box->itemIs("b" + key, 2);
   box->tagIs(key);
   box->tagIs(key);
   box->itemDel(box->item().begin()->first);
   box->itemDelAll();
   box->tagDel(*box->tag().begin());
   EXPECT_EQ(log, (Log{"a item " + key, "a item b" + key, "a tag " + key, "a item " + key,
                       "a item b" + key, "a tag " + key}));
}

// Replays the record's current state when attached, the way machines catch up.
class Replayer : public Box::Reactor {
 public:
   void handleItem(const std::string& key) override { seen.push_back(key); }
   std::vector<std::string> seen;

 protected:
   void onNotifierAttached() override {
      for (const auto& [key, v] : notifier()->item())
         handleItem(key);
   }
};

TEST_F(ReactorTest, AttachingReplaysTheNewRecordAndLeavesTheOld) {
   box->itemIs("a", 1);
   box->itemIs("b", 2);
   Ptr<Box> other = make<Box>("other");
   other->itemIs("z", 1);

   Replayer r;
   r.notifierIs(box);
   EXPECT_EQ(r.seen, (std::vector<std::string>{"a", "b"}));
   r.notifierIs(box);  // the same record: no replay
   r.notifierIs(other);
   box->itemIs("c", 3);
   other->itemIs("y", 1);
   EXPECT_EQ(r.seen, (std::vector<std::string>{"a", "b", "z", "y"}));
}

class StateStoreTest : public ::testing::Test {
 protected:
   void runPosted() {
      auto batch = std::move(posted);
      posted.clear();
      for (auto& fn : batch)
         fn();
   }
   std::function<void(StateStore::MountStatus)> record() {
      return [this](StateStore::MountStatus s) { results.push_back(s); };
   }

   std::vector<std::function<void()>> posted;
   std::vector<StateStore::MountStatus> results;
   std::unique_ptr<StateStore> store = std::make_unique<StateStore>(
       [this](std::function<void()> fn) { posted.push_back(std::move(fn)); });
};

TEST_F(StateStoreTest, GroupCompletesOnALaterTurnAfterEveryFrontEndIsReady) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   store->frontEndPending("config");
   store->frontEndPending("kernel");
   store->publish("ip/config", make<Box>("config"));
   auto group = store->mountGroup();
   group->mount<Box>("ip/config/", MountMode::read);
   group->mount<Box>("ip/status", MountMode::write);
   group->close(record());

   runPosted();
   store->frontEndReady("config");
   store->frontEndReady("unknown");
   runPosted();
   EXPECT_TRUE(results.empty());

   store->frontEndReady("kernel");
   EXPECT_TRUE(results.empty()) << "completion ran inside frontEndReady";
   runPosted();
   EXPECT_EQ(results, (std::vector{StateStore::mountSuccess_}));

   // The written path did not exist: it was created under its leaf name and published.
   Ptr<Box> status = store->entity<Box>("ip/status");
   ASSERT_TRUE(status);
   EXPECT_EQ(status->name(), "status");
   EXPECT_EQ(store->published("ip/status"), Ptr<Entity>(status));
   EXPECT_TRUE(store->entityConst<Box>("ip/config"));
   EXPECT_DEATH(store->entity<Box>("ip/config"), "path is mounted read-only");
}

TEST_F(StateStoreTest, MissingReadPathOrWrongTypeFailsTheGroup) {
   auto missing = store->mountGroup();
   missing->mount<Box>("ip/config", MountMode::read);
   missing->close(record());
   runPosted();

   store->publish("ip/dir", make<Dir>("dir"));
   auto wrongType = store->mountGroup();
   wrongType->mount<Box>("ip/dir", MountMode::write);
   wrongType->close(record());
   runPosted();

   EXPECT_EQ(results, (std::vector{StateStore::mountFailure_, StateStore::mountFailure_}));
   EXPECT_FALSE(store->entityConst<Box>("ip/config"));
   EXPECT_FALSE(store->entityConst<Box>("ip/dir"));
}

TEST_F(StateStoreTest, CompletionIsDroppedWhenTheStoreIsGone) {
   auto group = store->mountGroup();
   group->mount<Box>("ip/status", MountMode::write);
   group->close(record());
   store.reset();
   runPosted();
   EXPECT_TRUE(results.empty());
}

}  // namespace
}  // namespace Platform
