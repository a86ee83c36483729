#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/base/Ptr.h"
#include "platform/pam/ReadableQueue.h"
#include "platform/store/Entity.h"

namespace Platform {

// What every packet access object shares, so that the kinds (and the test doubles standing
// in for their kernel parts) open, close and count sends the same way. The owner opens one
// with modeIs(modeOpen); its reactors hear handleActive when it opens or closes. An open
// that fails leaves the object closed with the reason in error(), and asking for modeOpen
// again retries it. An owner done with an object may simply drop it, open or not: the last
// reference takes the kernel part's socket and its event loop registration with it.
//
// Each kind keeps its own Reactor, so its reactors see the kind and not this base; the kind
// forwards doNotifyActive to it.
class Pam : public Entity {
 public:
   enum Mode : uint8_t { modeClosed = 0, modeOpen = 3 };

   // Asking for modeOpen again while not active retries the open.
   Mode mode() const { return mode_; }
   void modeIs(Mode v);
   bool active() const { return active_; }
   // Why the last open failed; empty once open.
   const std::string& error() const { return error_; }

   // Sends refused for a full kernel buffer or device queue (EAGAIN, ENOBUFS).
   uint64_t txDropped() const { return txDropped_; }
   // Sends refused before reaching the kernel, or by it for any other reason.
   uint64_t txFailed() const { return txFailed_; }

 protected:
   explicit Pam(std::string name) : Entity(std::move(name)) {}

   enum class SendResult : uint8_t { sent, dropped, failed };

   // Opens with the current settings; on failure nothing stays open.
   virtual bool doOpen(std::string& error) = 0;
   virtual void doClose() = 0;
   // Refuses settings no open can work with, before the kernel is asked.
   virtual bool doCheckOpen(std::string& /*error*/) const { return true; }
   virtual void doNotifyActive() const = 0;
   // Drops what was received and not yet taken: it belongs to the socket that closed.
   virtual void doClearRx() {}

   // Pieces of the trace lines of opening and closing: "<traceName> open<tracePlace>",
   // "<traceName> closed", "<traceName> cannot open: <error>". Only built for a kept line.
   virtual std::string traceName() const { return name(); }
   virtual std::string tracePlace() const { return {}; }

   // For a setting that takes effect only on opening: an open object closes and opens again
   // (reactors see active go false and true), and one whose open failed retries it.
   void doReopen();

   // Counts a send by what became of it; true when it was sent. A send refused before the
   // kernel counts as failed.
   bool doCountTx(SendResult result);
   uint64_t txSent() const { return txSent_; }

 private:
   void doApplyMode();
   void doShut();
   void activeIs(bool v);

   Mode mode_ = modeClosed;
   bool active_ = false;
   std::string error_;

   uint64_t txSent_ = 0;
   uint64_t txDropped_ = 0;
   uint64_t txFailed_ = 0;
};

// A packet access object that receives: its items go through a ReadableQueue. Every item
// that reaches the queue increments readableCount once and notifies the kind's
// handleReadableCount (through doNotifyReadable); the handler takes ONE item, the oldest. The
// count only grows (it wraps at 2^32), so a consumer never reads it as a queue length. A
// handler that takes nothing ends the announcements of that wake-up, so a consumer that
// ignores the object cannot spin the event loop: what is left is announced with the next
// arrival, and can be taken at any time. While the queue is full the kernel part does not
// read; the kernel's buffer holds what follows until taking an item makes room.
template <class Item>
class ReadablePam : public Pam {
 public:
   // Room for two full receive batches of the Linux objects.
   static constexpr size_t kRxQueueCapacity = 64;

   uint32_t readableCount() const { return readableCount_; }
   // Dropped, never delivered cut short.
   uint64_t rxTruncated() const { return rxTruncated_; }
   // Items that could not be delivered: a full queue, and what the kind adds.
   uint64_t rxDropped() const { return rxDropped_; }

 protected:
   using Pam::Pam;

   virtual void doNotifyReadable() const = 0;
   // Called when taking an item makes room in a full queue.
   virtual void doResumeRx() {}

   // The oldest queued item; nullopt when none is queued.
   std::optional<Item> doTakeRx() {
      const bool wasFull = rxQueue_.room() == 0;
      std::optional<Item> out = rxQueue_.pop();
      if (out && wasFull && active())
         doResumeRx();
      return out;
   }

   size_t rxQueueRoom() const { return rxQueue_.room(); }
   // Appends without announcing; false, with the item left with the caller, when full.
   bool doPushRx(Item&& item) { return rxQueue_.push(std::move(item)); }

   // Announces the queued items one by one, as described above. A handler may close or
   // release this object: callers touch nothing of it after this returns unless they hold
   // a reference.
   void doAnnounceRx() {
      if (rxQueue_.size() == 0)
         return;
      // A handler may drop the owner's last reference; announce() still reads the queue after.
      Ptr<const ReadablePam> self(this);
      rxQueue_.announce([this] {
         ++readableCount_;
         doNotifyReadable();
      });
   }

   void rxTruncatedInc() { ++rxTruncated_; }
   void rxDroppedInc() { ++rxDropped_; }

 private:
   void doClearRx() final { rxQueue_.clear(); }

   ReadableQueue<Item, kRxQueueCapacity> rxQueue_;
   uint32_t readableCount_ = 0;
   uint64_t rxTruncated_ = 0;
   uint64_t rxDropped_ = 0;
};

}  // namespace Platform
