#include <pxkit/objects/PXException.h>

const char* const kPXInvalidArgumentException = "NSInvalidArgumentException";
const char* const kPXRangeException = "NSRangeException";

PXException::PXException(PXString name, PXString reason, PXRef<PXDictionary> userInfo)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo)) {}

PXString PXException::description() const {
  return PXFormat("%@: %@", name_, reason_);
}
