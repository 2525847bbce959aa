#include <pxkit/objects/PXData.h>

#include <cstring>

#include "objects/internal/ValueText.h"

PX_DEFINE_CLASS(PXData, PXObject, [](PXClassBuilder<PXData>& c) { c.factory(); })
PX_DEFINE_CLASS(PXMutableData, PXData, [](PXClassBuilder<PXMutableData>& c) { c.factory(); })

PXRef<PXData> PXData::data() {
  // Shared by every empty immutable buffer; never freed.
  static PXData* const empty = new PXData();
  return PXRef<PXData>(empty);
}

PXRef<PXData> PXData::dataWithBytes(const void* bytes, size_t length) {
  if (length == 0) return data();
  const auto* begin = static_cast<const uint8_t*>(bytes);
  return PXMake<PXData>(std::vector<uint8_t>(begin, begin + length));
}

PXRef<PXData> PXData::dataWithBytes(std::vector<uint8_t> bytes) {
  if (bytes.empty()) return data();
  return PXMake<PXData>(std::move(bytes));
}

bool PXData::isEqual(const PXObject& other) const {
  if (this == &other) return true;
  if (other.objectTag() != PXObjectTag::Data) return false;
  return view() == static_cast<const PXData&>(other).view();
}

size_t PXData::hash() const {
  return pxkit::internal::hashStringBytes(view());
}

PXString PXData::description() const {
  // Long buffers show their first 24 and last 8 bytes around " ... ".
  static constexpr char kHex[] = "0123456789abcdef";
  constexpr size_t kHead = 24, kTail = 8;
  std::string text = "{length = " + std::to_string(bytes_.size()) + ", bytes = 0x";
  auto appendHex = [&](size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
      text += kHex[bytes_[i] >> 4];
      text += kHex[bytes_[i] & 0xf];
    }
  };
  if (bytes_.size() <= kHead + kTail) {
    appendHex(0, bytes_.size());
  } else {
    appendHex(0, kHead);
    text += " ... ";
    appendHex(bytes_.size() - kTail, bytes_.size());
  }
  text += '}';
  return PXString(text);
}

PXRef<PXObject> PXData::copy() const {
  if (!isMutable()) return PXRef<PXObject>(const_cast<PXData*>(this));
  return PXRef<PXObject>(dataWithBytes(bytes_));
}

PXRef<PXObject> PXData::mutableCopy() const {
  auto copy = PXMake<PXMutableData>();
  copy->mutableBytes() = bytes_;
  return PXRef<PXObject>(std::move(copy));
}

void PXMutableData::appendBytes(const void* bytes, size_t length) {
  if (length == 0) return;
  const auto* begin = static_cast<const uint8_t*>(bytes);
  bytes_.insert(bytes_.end(), begin, begin + length);
}

void PXMutableData::appendData(const PXData& other) {
  if (&other == this) {
    std::vector<uint8_t> again = bytes_;
    bytes_.insert(bytes_.end(), again.begin(), again.end());
    return;
  }
  bytes_.insert(bytes_.end(), other.bytes().begin(), other.bytes().end());
}

void PXMutableData::setLength(size_t length) {
  bytes_.resize(length, 0);
}
