// PXKit — an immutable, shared, possibly absent string.
//
// PXString is the kit's string handle: UTF-8 bytes shared by reference count, so
// copies are cheap and safe across threads. It distinguishes an absent string
// ("nil": PXString{} or PXString(nullptr)) from the empty string ("").
//
//   PXString name = "common.launches";
//   if (name) puts(name.c_str());
//   PXString none;                       // absent: !none, none.view() == ""
//
// Thread safety: a value; shares immutable storage.
#pragma once

#include <pxkit/export.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace pxkit::internal {
// Heap storage: count, length, then the bytes and a terminating NUL.
struct StringRep {
  std::atomic<uint32_t> refs;
  uint32_t size;
  char* chars() noexcept { return reinterpret_cast<char*>(this + 1); }
  const char* chars() const noexcept { return reinterpret_cast<const char*>(this + 1); }

  PXKIT_EXPORT static StringRep* make(const char* bytes, size_t size);  // count 1
  PXKIT_EXPORT static StringRep* empty() noexcept;                      // shared, never freed
  void retain() noexcept { refs.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1) ::operator delete(this);
  }
};
}  // namespace pxkit::internal

class PXKIT_EXPORT PXString {
 public:
  PXString() noexcept = default;
  PXString(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)
  // A null pointer gives the absent string.
  PXString(const char* text)
      : PXString(text ? std::string_view(text) : std::string_view(), text != nullptr) {}  // NOLINT
  PXString(std::string_view text) : PXString(text, true) {}  // NOLINT(google-explicit-constructor)
  PXString(const std::string& text) : PXString(std::string_view(text), true) {}  // NOLINT
  PXString(const PXString& other) noexcept : rep_(other.rep_) {
    if (rep_) rep_->retain();
  }
  PXString(PXString&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  ~PXString() {
    if (rep_) rep_->release();
  }
  PXString& operator=(PXString other) noexcept {
    std::swap(rep_, other.rep_);
    return *this;
  }

  // Present (not nil)?
  explicit operator bool() const noexcept { return rep_ != nullptr; }
  bool isAbsent() const noexcept { return rep_ == nullptr; }

  // The bytes; "" for the absent string. Valid while this handle lives.
  std::string_view view() const noexcept {
    return rep_ ? std::string_view(rep_->chars(), rep_->size) : std::string_view();
  }
  const char* c_str() const noexcept { return rep_ ? rep_->chars() : ""; }
  size_t size() const noexcept { return rep_ ? rep_->size : 0; }
  bool empty() const noexcept { return size() == 0; }
  std::string str() const { return std::string(view()); }
  operator std::string_view() const noexcept { return view(); }  // NOLINT(google-explicit-constructor)

  // Equal contents; the absent string equals only itself.
  friend bool operator==(const PXString& a, const PXString& b) noexcept {
    return a.rep_ == b.rep_ || (a.rep_ && b.rep_ && a.view() == b.view());
  }
  friend bool operator==(const PXString& a, std::string_view b) noexcept { return a.rep_ && a.view() == b; }
  friend bool operator==(const PXString& a, const char* b) noexcept { return a == std::string_view(b); }
  friend auto operator<=>(const PXString& a, const PXString& b) noexcept { return a.view() <=> b.view(); }

  // For PXValue, which shares this storage.
  static PXString adopt(pxkit::internal::StringRep* rep) noexcept {
    PXString s;
    s.rep_ = rep;
    return s;
  }
  pxkit::internal::StringRep* rep() const noexcept { return rep_; }

 private:
  PXString(std::string_view text, bool present)
      : rep_(present ? (text.empty() ? pxkit::internal::StringRep::empty()
                                     : pxkit::internal::StringRep::make(text.data(), text.size()))
                     : nullptr) {}
  pxkit::internal::StringRep* rep_ = nullptr;
};

template <>
struct std::hash<PXString> {
  size_t operator()(const PXString& s) const noexcept { return std::hash<std::string_view>()(s.view()); }
};
