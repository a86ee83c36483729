#pragma once

#include <functional>
#include <string>
#include <thread>

#include "frontend/config/ConfigParser.h"
#include "platform/loop/WatchedFd.h"

namespace Platform {
class EventLoop;
}

namespace Frontend {

// Reads and checks a configuration file on a thread of its own, so that a large or hostile
// file never stalls the event loop and the packets it relays: the thread only reads, parses
// and looks up devices (nothing it touches is shared, and it traces nothing); the result is
// handed back on the loop, where applying it happens.
class ConfigReader {
 public:
   using Done = std::function<void(ParsedConfig)>;

   explicit ConfigReader(Platform::EventLoop& loop);
   // Waits for a read under way.
   ~ConfigReader();
   ConfigReader(const ConfigReader&) = delete;
   ConfigReader& operator=(const ConfigReader&) = delete;

   bool busy() const { return busy_; }
   // Starts reading `path`; `done` runs on the loop with what the file holds, device
   // warnings included. One read at a time: not to be called while busy().
   void read(const std::string& path, Done done);

 private:
   void handleDone();

   Platform::WatchedFd wake_;  // an eventfd the thread writes when it is done
   std::thread worker_;
   bool busy_ = false;
   ParsedConfig result_;  // the thread's, until it has written wake_
   Done done_;
};

// What the reader's thread does: the file parsed, and its devices looked up in the kernel.
ParsedConfig readConfigFile(const std::string& path);

}  // namespace Frontend
