#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXFormat.h>

const char* const kPXLocalizedDescriptionKey = "NSLocalizedDescription";

PX_DEFINE_CLASS(PXError, PXObject, nullptr)

PXError::PXError(PXString domain, int64_t code, PXRef<PXDictionary> userInfo)
    : PXObject(PXObjectTag::Error),
      domain_(std::move(domain)),
      code_(code),
      userInfo_(userInfo ? userInfo->copyDictionary() : PXDictionary::dictionary()) {}

PXRef<PXError> PXError::errorWithDomain(PXString domain, int64_t code, PXRef<PXDictionary> userInfo) {
  return PXMake<PXError>(std::move(domain), code, std::move(userInfo));
}

PXRef<PXError> PXError::errorWithDomain(PXString domain, int64_t code, PXString localizedDescription) {
  PXRef<PXDictionary> userInfo;
  if (localizedDescription) {
    userInfo = PXDictionary::dictionaryWithEntries({{kPXLocalizedDescriptionKey, localizedDescription}});
  }
  return PXMake<PXError>(std::move(domain), code, std::move(userInfo));
}

PXString PXError::localizedDescription() const {
  const PXValue* text = userInfo_->findStringKey(kPXLocalizedDescriptionKey);
  if (text && text->isString()) return text->stringObject();
  return PXFormat("The operation couldn\u2019t be completed. (%@ error %lld.)", domain_, code_);
}

bool PXError::isEqual(const PXObject& other) const {
  if (this == &other) return true;
  if (other.objectTag() != PXObjectTag::Error) return false;
  const auto& that = static_cast<const PXError&>(other);
  return code_ == that.code_ && domain_ == that.domain_ && userInfo_->isEqual(*that.userInfo_);
}

PXString PXError::description() const {
  return PXFormat("Error Domain=%@ Code=%lld \"%@\" UserInfo=%@", domain_, code_, localizedDescription(),
                  userInfo_);
}
