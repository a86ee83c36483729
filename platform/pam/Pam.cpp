#include "platform/pam/Pam.h"

#include <utility>

#include "platform/trace/Trace.h"

namespace Platform {

void Pam::modeIs(Mode v) {
   mode_ = v;
   doApplyMode();
}

void Pam::doReopen() {
   if (mode_ != modeOpen)
      return;
   if (active_) {
      doShut();
      activeIs(false);
   }
   // A handler of the close may have closed the object for good; an open that failed with
   // the old settings is retried with the new ones.
   doApplyMode();
}

void Pam::doApplyMode() {
   if (mode_ == modeClosed) {
      if (!active_)
         return;
      doShut();
      TRACE(3, traceName(), " closed");
      activeIs(false);
      return;
   }
   if (active_)
      return;
   std::string error;
   if (doCheckOpen(error) && doOpen(error)) {
      error_.clear();
      TRACE(3, traceName(), " open", tracePlace());
      activeIs(true);
      return;
   }
   error_ = std::move(error);
   TRACE(0, traceName(), " cannot open: ", error_);
}

void Pam::doShut() {
   doClose();
   doClearRx();
}

void Pam::activeIs(bool v) {
   active_ = v;
   doNotifyActive();
}

bool Pam::doCountTx(SendResult result) {
   switch (result) {
      case SendResult::sent:
         ++txSent_;
         return true;
      case SendResult::dropped:
         ++txDropped_;
         return false;
      case SendResult::failed:
         ++txFailed_;
         return false;
   }
   return false;
}

}  // namespace Platform
