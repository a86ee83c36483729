#include "frontend/config/ConfigReader.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "frontend/config/MissingDevices.h"
#include "platform/base/Assert.h"
#include "platform/linux/Fd.h"

namespace Frontend {

ParsedConfig readConfigFile(const std::string& path) {
   ParsedConfig parsed = parseConfigFile(path);
   if (parsed.ok())
      parsed.deviceWarnings = missingDeviceWarnings(parsed, path);
   return parsed;
}

ConfigReader::ConfigReader(Platform::EventLoop& loop)
    : wake_(loop, Platform::Fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), EPOLLIN,
            [this](uint32_t) { handleDone(); }) {
   PLATFORM_ASSERT(wake_.get() >= 0, "eventfd for the configuration reader");
}

ConfigReader::~ConfigReader() {
   if (worker_.joinable())
      worker_.join();
}

void ConfigReader::read(const std::string& path, Done done) {
   PLATFORM_ASSERT(!busy_, "one configuration read at a time");
   busy_ = true;
   done_ = std::move(done);
   const int wake = wake_.get();
   worker_ = std::thread([this, path, wake] {
      result_ = readConfigFile(path);
      const uint64_t one = 1;
      [[maybe_unused]] const ssize_t n = ::write(wake, &one, sizeof one);
   });
}

void ConfigReader::handleDone() {
   uint64_t count;
   if (::read(wake_.get(), &count, sizeof count) != sizeof count || !busy_)
      return;
   // The thread has written its result; joining makes that visible here.
   worker_.join();
   busy_ = false;
   Done done = std::move(done_);
   done(std::move(result_));
}

}  // namespace Frontend
