// PXKit — owning and weak references to kit objects.
//
// Every PXObject carries an intrusive, atomic reference count. PXRef<T> owns one
// count; PXWeakRef<T> owns none and yields an empty PXRef once the object is gone.
//
//   PXRef<PXMutableArray> list = PXMake<PXMutableArray>();
//   PXWeakRef<PXMutableArray> weak = list;
//   list = nullptr;                 // the array is destroyed here
//   assert(!weak.lock());
//
// Thread safety: the counts are atomic; one PXRef variable is not itself
// synchronised (like std::shared_ptr).
#pragma once

#include <pxkit/export.h>

#include <cstddef>
#include <type_traits>
#include <utility>

class PXObject;

namespace pxkit::internal {
struct WeakControl;
PXKIT_EXPORT WeakControl* weakControlFor(const PXObject* object);
PXKIT_EXPORT PXObject* weakControlLock(WeakControl* control) noexcept;  // +1 or null
PXKIT_EXPORT void weakControlRetain(WeakControl* control) noexcept;
PXKIT_EXPORT void weakControlRelease(WeakControl* control) noexcept;
}  // namespace pxkit::internal

// An owning reference. Empty ("nil") by default; copying retains, destruction releases.
template <class T>
class PXRef {
 public:
  using element_type = T;

  PXRef() noexcept = default;
  PXRef(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)
  // Retains `object` (which may be null).
  explicit PXRef(T* object) noexcept : ptr_(object) {
    if (ptr_) ptr_->retain();
  }
  PXRef(const PXRef& other) noexcept : PXRef(other.ptr_) {}
  PXRef(PXRef&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  PXRef(const PXRef<U>& other) noexcept : PXRef(other.get()) {}  // NOLINT(google-explicit-constructor)
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  PXRef(PXRef<U>&& other) noexcept : ptr_(other.detach()) {}  // NOLINT(google-explicit-constructor)
  ~PXRef() {
    if (ptr_) ptr_->release();
  }

  PXRef& operator=(PXRef other) noexcept {
    std::swap(ptr_, other.ptr_);
    return *this;
  }

  // Takes over a count the caller already owns (as after `new`).
  static PXRef adopt(T* object) noexcept {
    PXRef ref;
    ref.ptr_ = object;
    return ref;
  }
  // Gives up ownership without releasing; the caller now owns the count.
  T* detach() noexcept { return std::exchange(ptr_, nullptr); }

  T* get() const noexcept { return ptr_; }
  T* operator->() const noexcept { return ptr_; }
  T& operator*() const noexcept { return *ptr_; }
  explicit operator bool() const noexcept { return ptr_ != nullptr; }

  template <class U>
  bool operator==(const PXRef<U>& other) const noexcept {
    return ptr_ == other.get();
  }
  bool operator==(std::nullptr_t) const noexcept { return ptr_ == nullptr; }

 private:
  T* ptr_ = nullptr;
};

// Creates a T with its first count owned by the returned reference.
template <class T, class... Args>
PXRef<T> PXMake(Args&&... args) {
  return PXRef<T>::adopt(new T(std::forward<Args>(args)...));
}

// Returns `ref` as a PXRef<T> when the object is a T, else an empty reference.
template <class T, class U>
PXRef<T> PXDynamicCast(const PXRef<U>& ref) noexcept {
  return PXRef<T>(dynamic_cast<T*>(ref.get()));
}

// A non-owning reference that can tell whether its object still exists.
template <class T>
class PXWeakRef {
 public:
  PXWeakRef() noexcept = default;
  PXWeakRef(std::nullptr_t) noexcept {}                     // NOLINT(google-explicit-constructor)
  PXWeakRef(const PXRef<T>& ref) : PXWeakRef(ref.get()) {}  // NOLINT(google-explicit-constructor)
  explicit PXWeakRef(T* object) : control_(object ? pxkit::internal::weakControlFor(object) : nullptr) {}
  PXWeakRef(const PXWeakRef& other) noexcept : control_(other.control_) {
    if (control_) pxkit::internal::weakControlRetain(control_);
  }
  PXWeakRef(PXWeakRef&& other) noexcept : control_(std::exchange(other.control_, nullptr)) {}
  ~PXWeakRef() {
    if (control_) pxkit::internal::weakControlRelease(control_);
  }
  PXWeakRef& operator=(PXWeakRef other) noexcept {
    std::swap(control_, other.control_);
    return *this;
  }

  // A strong reference to the object, or an empty one once it has been destroyed.
  PXRef<T> lock() const noexcept {
    if (!control_) return {};
    PXObject* object = pxkit::internal::weakControlLock(control_);
    return PXRef<T>::adopt(static_cast<T*>(object));
  }
  bool expired() const noexcept { return !lock(); }

 private:
  pxkit::internal::WeakControl* control_ = nullptr;
};
