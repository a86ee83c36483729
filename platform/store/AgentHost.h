#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/store/StateStore.h"

namespace Platform {

class EventLoop;

// What the host hands every agent it creates.
struct AgentContext {
   EventLoop& loop;
   std::string agentName;
};

// An agent loaded by the host: created by name through its factory, then driven
// through two hooks. doInit issues the agent's mounts; doMountsComplete runs once
// the mount group has completed and builds the agent's objects. After that all
// work happens in reactors and timers on the host's event loop.
class Agent {
 public:
   virtual ~Agent() = default;
   virtual void doInit(StateStore& store) = 0;
   virtual void doMountsComplete(StateStore::MountStatus status, StateStore& entityManager) = 0;
   virtual bool hasBackupSupport() const = 0;
   virtual int fwkType() const = 0;
};

using AgentFactory = std::function<std::unique_ptr<Agent>(AgentContext&)>;

// Agents by name.
class AgentRegistry {
 public:
   void agentFactoryIs(const std::string& name, AgentFactory f) { factories_[name] = std::move(f); }
   std::unique_ptr<Agent> agentNew(const std::string& name, AgentContext& ctx) const {
      auto it = factories_.find(name);
      return it == factories_.end() ? nullptr : it->second(ctx);
   }

 private:
   std::map<std::string, AgentFactory> factories_;
};

// The framework type constant this host reports for agents it runs.
constexpr int kFwkTypeLinuxHost = 1;

}  // namespace Platform
