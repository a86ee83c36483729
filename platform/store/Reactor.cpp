#include "platform/store/Reactor.h"

#include <algorithm>

namespace Platform {

void ReactorList::add(ReactorBase* r) {
   items_.push_back(r);
}

void ReactorList::remove(ReactorBase* r) {
   auto it = std::find(items_.begin(), items_.end(), r);
   if (it == items_.end())
      return;
   if (depth_ > 0) {
      *it = nullptr;
      holes_ = true;
   } else {
      items_.erase(it);
   }
}

bool ReactorList::empty() const {
   return items_.empty();
}

void ReactorList::compact() {
   std::erase(items_, nullptr);
   holes_ = false;
}

}  // namespace Platform
