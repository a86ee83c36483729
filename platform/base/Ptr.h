#pragma once

#include <cstdint>
#include <utility>

namespace Platform {

// Intrusive reference count for the objects the state store and the packet
// paths share. The agent is single-threaded, so the count is a plain integer:
// taking a reference on the per-packet path costs one increment.
class RefCounted {
 public:
   RefCounted() = default;
   RefCounted(const RefCounted&) = delete;
   RefCounted& operator=(const RefCounted&) = delete;

   void refInc() const { ++refs_; }
   void refDec() const {
      if (--refs_ == 0)
         delete this;
   }
   uint32_t refCount() const { return refs_; }

 protected:
   virtual ~RefCounted() = default;

 private:
   mutable uint32_t refs_ = 0;
};

// Counted reference to a RefCounted object; null is a valid value.
template <class T>
class Ptr {
 public:
   using element_type = T;
   Ptr() = default;
   Ptr(std::nullptr_t) {}
   Ptr(T* p) : p_(p) {
      if (p_)
         p_->refInc();
   }
   Ptr(const Ptr& o) : Ptr(o.p_) {}
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U>
   Ptr(const Ptr<U>& o) : Ptr(o.get()) {}
   ~Ptr() { reset(); }

   Ptr& operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }
   void reset() {
      if (T* p = std::exchange(p_, nullptr))
         p->refDec();
   }

   T* get() const { return p_; }
   T* operator->() const { return p_; }
   T& operator*() const { return *p_; }
   explicit operator bool() const { return p_ != nullptr; }
   bool operator==(const Ptr& o) const { return p_ == o.p_; }
   bool operator==(std::nullptr_t) const { return p_ == nullptr; }

 private:
   T* p_ = nullptr;
};

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
   return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) {
   return Ptr<T>(dynamic_cast<T*>(p.get()));
}

}  // namespace Platform
