// PXKit — byte buffers.
//
// PXData is an immutable byte buffer; PXMutableData can grow. Data values are
// their own kind of PXValue (isData()), compared by contents.
//
//   PXRef<PXData> d = PXData::dataWithBytes("abc", 3);
//   auto bytes = d->bytes();                 // std::span<const uint8_t>
//
// Thread safety: immutable data may be read from any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXObject.h>

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

class PXKIT_EXPORT PXData : public PXObject {
  PX_DECLARE_CLASS(PXData)
 public:
  static PXRef<PXData> data();  // empty
  static PXRef<PXData> dataWithBytes(const void* bytes, size_t length);
  static PXRef<PXData> dataWithBytes(std::vector<uint8_t> bytes);
  static PXRef<PXData> dataWithString(std::string_view text) {
    return dataWithBytes(text.data(), text.size());
  }

  size_t length() const noexcept { return bytes_.size(); }
  std::span<const uint8_t> bytes() const noexcept { return bytes_; }
  std::string_view view() const noexcept {
    return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()};
  }

  bool isEqual(const PXObject& other) const override;
  size_t hash() const override;
  // "{length = N, bytes = 0x0102...}" — at most the first 24 and last 8 bytes shown.
  PXString description() const override;
  PXRef<PXObject> copy() const override;
  PXRef<PXObject> mutableCopy() const override;

  PXData() noexcept : PXObject(PXObjectTag::Data, false) {}
  explicit PXData(std::vector<uint8_t> bytes) noexcept
      : PXObject(PXObjectTag::Data, false), bytes_(std::move(bytes)) {}

 protected:
  PXData(std::vector<uint8_t> bytes, bool isMutable) noexcept
      : PXObject(PXObjectTag::Data, isMutable), bytes_(std::move(bytes)) {}
  std::vector<uint8_t> bytes_;
};

class PXKIT_EXPORT PXMutableData : public PXData {
  PX_DECLARE_CLASS(PXMutableData)
 public:
  PXMutableData() noexcept : PXData({}, true) {}
  static PXRef<PXMutableData> data() { return PXMake<PXMutableData>(); }
  void appendBytes(const void* bytes, size_t length);
  void appendData(const PXData& other);
  void setLength(size_t length);
  std::vector<uint8_t>& mutableBytes() noexcept { return bytes_; }
};
