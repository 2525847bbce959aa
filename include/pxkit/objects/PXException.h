// PXKit — exceptions.
//
// PXException is raised only where the kit's contract says an operation
// "raises": misuse of containers, an undefined key in key-value coding, invalid
// arguments. It never crosses the kit's interface otherwise.
//
//   try { immutableArray->... } catch (const PXException& e) { e.reason(); }
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDictionary.h>

#include <exception>

class PXKIT_EXPORT PXException : public std::exception {
 public:
  PXException(PXString name, PXString reason, PXRef<PXDictionary> userInfo = {});
  // Formats the reason as PXFormat does: PXException::raise(kPXRangeException, "index %lu", i).
  template <class... Args>
  [[noreturn]] static void raise(PXString name, const char* format, const Args&... args);

  const PXString& name() const noexcept { return name_; }
  const PXString& reason() const noexcept { return reason_; }
  const PXRef<PXDictionary>& userInfo() const noexcept { return userInfo_; }
  const char* what() const noexcept override { return reason_.c_str(); }
  // "%@: %@" of name and reason, for log lines.
  PXString description() const;

 private:
  PXString name_;
  PXString reason_;
  PXRef<PXDictionary> userInfo_;
};

#include <pxkit/objects/PXFormat.h>

template <class... Args>
[[noreturn]] void PXException::raise(PXString name, const char* format, const Args&... args) {
  throw PXException(std::move(name), PXFormat(format, args...));
}
