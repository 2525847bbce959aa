// PXKit — error objects.
//
// A PXError carries a domain, a signed code and a user-info dictionary; its
// localized description is the user-info entry "NSLocalizedDescription". Kit
// operations that can fail take an optional trailing `PXErrorRef* error` and
// fill it only on failure.
//
//   PXErrorRef error;
//   auto value = JSONDecoder::decoder()->objectWithData(data, &error);
//   if (!value) puts(error->localizedDescription().c_str());
//
// Thread safety: immutable once made.
#pragma once

#include <pxkit/export.h>
#include <pxkit/fwd.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXObject.h>

PXKIT_EXPORT extern const char* const kPXLocalizedDescriptionKey;  // "NSLocalizedDescription"

class PXKIT_EXPORT PXError : public PXObject {
  PX_DECLARE_CLASS(PXError)
 public:
  PXError(PXString domain, int64_t code, PXRef<PXDictionary> userInfo);
  static PXRef<PXError> errorWithDomain(PXString domain, int64_t code, PXRef<PXDictionary> userInfo = {});
  // An error whose user info holds only the localized description.
  static PXRef<PXError> errorWithDomain(PXString domain, int64_t code, PXString localizedDescription);

  const PXString& domain() const noexcept { return domain_; }
  int64_t code() const noexcept { return code_; }
  // Never empty: an empty dictionary when none was given.
  const PXRef<PXDictionary>& userInfo() const noexcept { return userInfo_; }
  // The "NSLocalizedDescription" entry, else "The operation couldn’t be completed. (<domain> error <code>.)".
  PXString localizedDescription() const;

  bool isEqual(const PXObject& other) const override;
  // "Error Domain=%@ Code=%lld \"%@\" UserInfo=%@"
  PXString description() const override;

 private:
  PXString domain_;
  int64_t code_;
  PXRef<PXDictionary> userInfo_;
};

// Stores `error` into `*out` when `out` is given; returns false for `return PXSetError(...)` idioms.
inline bool PXSetError(PXErrorRef* out, PXErrorRef error) {
  if (out) *out = std::move(error);
  return false;
}
