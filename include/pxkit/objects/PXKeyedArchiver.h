// PXKit — keyed archives: a whole value graph as one self-checking blob.
//
// The archive round-trips every PXValue kind (null, booleans, signed and
// unsigned 64-bit integers, doubles, dates, strings, data), arrays and
// dictionaries in their mutable or immutable form, and objects that adopt
// PXCoding (PXCoder.h), by class name. An object reached twice is written once
// and comes back as one object reached twice. The byte format is versioned and
// carries a CRC-32 of its contents (docs/file-formats.md).
//
//   auto state = PXMutableDictionary::dictionary();
//   state->setObject(PXDate::now(), "TimeBase");
//   state->setObject(PXValue(metrics), "Data");          // an array of PXCoding objects
//   PXRef<PXData> blob = PXKeyedArchiver::archivedDataWithRootObject(PXValue(state));
//   PXValue back = PXKeyedUnarchiver::unarchiveObjectWithData(blob);
//   back.mutableDictionaryValue();                       // mutable, as it was written
//
// Reading never trusts its input: ANY byte string gives a value or absent —
// truncated, corrupted or foreign data, unknown classes, cycles through
// containers, and inputs beyond the named limits below are refused with an
// error in kPXKeyedArchiveErrorDomain, never a crash, a hang or an allocation
// larger than the input.
//
// Thread safety: each call is self-contained; any thread. Containers being
// archived must not be mutated by other threads meanwhile.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXCoder.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXValue.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// Error domain of archiving and unarchiving.
PXKIT_EXPORT extern const char* const kPXKeyedArchiveErrorDomain;  // "PXKeyedArchiveErrorDomain"

enum PXKeyedArchiveErrorCode : int64_t {
  PXKeyedArchiveEncodeInvalidError = 1,  // a value that cannot be archived (an object without PXCoding...)
  PXKeyedArchiveDecodeCorruptError = 2,  // not an archive, wrong checksum, malformed contents
  PXKeyedArchiveDecodeVersionError = 3,  // an archive of a format version this kit does not read
  PXKeyedArchiveDecodeClassError = 4,    // a class name that is not registered, has no factory or no PXCoding
  PXKeyedArchiveDecodeLimitError = 5,    // beyond one of the limits below
  PXKeyedArchiveDecodeRejectedError = 6,  // an initWithCoder refused its data (or raised)
};

// The format version written; archives of other versions are refused.
inline constexpr uint8_t kPXKeyedArchiveVersion = 1;
// Limits, checked when writing and when reading.
inline constexpr size_t kPXKeyedArchiveMaxLength = 64u * 1024 * 1024;  // bytes of one archive
inline constexpr size_t kPXKeyedArchiveMaxDepth = 256;         // nesting of containers and coded objects
inline constexpr size_t kPXKeyedArchiveMaxObjects = 1u << 20;  // distinct containers, data and coded objects
inline constexpr size_t kPXKeyedArchiveMaxClassNameLength = 255;  // bytes of a class name

namespace pxkit::internal {
class ArchiveEncoder;
class ArchiveDecoder;
struct ArchiveField;
}  // namespace pxkit::internal

// Writes archives. Instances exist only while an object's encodeWithCoder runs.
class PXKIT_EXPORT PXKeyedArchiver {
 public:
  // The archive of `root` (which may be absent: the archive then reads back as
  // absent). Empty, with `error` set (PXKeyedArchiveEncodeInvalidError), when the
  // graph holds an object that neither is a container or data nor adopts
  // PXCoding, when it nests deeper than kPXKeyedArchiveMaxDepth (cycles through
  // containers do not count: an object is written once), or when the archive
  // would pass one of the limits.
  //
  // `expectedLength`, when known, is about how long the archive will be — the
  // length of the last archive of the same graph, typically. The archive is
  // then written into one buffer of that size (a little more), where a large
  // one would otherwise be copied as it grows. A wrong guess costs nothing but
  // that copy; the room left over is given back.
  [[nodiscard]] static PXRef<PXData> archivedDataWithRootObject(const PXValue& root,
                                                                PXErrorRef* error = nullptr,
                                                                size_t expectedLength = 0);

  // ---- Inside encodeWithCoder --------------------------------------------
  // Each writes one keyed field of the object being encoded; writing a key
  // twice keeps the last value. An absent object writes nothing.
  void encodeObject(const PXValue& value, std::string_view key);
  void encodeBool(bool value, std::string_view key);
  void encodeInt(int32_t value, std::string_view key);
  void encodeInt32(int32_t value, std::string_view key);
  void encodeInt64(int64_t value, std::string_view key);
  // The platform's integer type: 64 bits.
  void encodeInteger(int64_t value, std::string_view key);
  void encodeDouble(double value, std::string_view key);

  PXKeyedArchiver(const PXKeyedArchiver&) = delete;
  PXKeyedArchiver& operator=(const PXKeyedArchiver&) = delete;

 private:
  friend class pxkit::internal::ArchiveEncoder;
  PXKeyedArchiver(pxkit::internal::ArchiveEncoder& encoder, size_t depth)
      : encoder_(encoder), depth_(depth) {}
  pxkit::internal::ArchiveEncoder& encoder_;
  size_t depth_;
};

// Reads archives. Instances exist only while an object's initWithCoder runs.
class PXKIT_EXPORT PXKeyedUnarchiver {
 public:
  // The root value of the archive; absent, with `error` set, when the bytes are
  // not a well-formed archive of this format version, or a class in it cannot be
  // made, or an initWithCoder rejected its data. Classes are made by name (see
  // PXCoder.h); nothing else of the process is touched.
  [[nodiscard]] static PXValue unarchiveObjectWithData(const PXRef<PXData>& data,
                                                       PXErrorRef* error = nullptr);
  [[nodiscard]] static PXValue unarchiveObjectWithBytes(std::span<const uint8_t> bytes,
                                                        PXErrorRef* error = nullptr);

  // ---- Inside initWithCoder ----------------------------------------------
  bool containsValueForKey(std::string_view key) const;
  // The value under `key`, absent when missing. Objects reached twice come back
  // as the same object; an object that refers back to itself (through coded
  // objects, not through containers) gets the instance being initialised.
  PXValue decodeObjectForKey(std::string_view key);
  // Typed reads: absent / empty when missing or of another type.
  PXString decodeStringForKey(std::string_view key);
  PXRef<PXArray> decodeArrayForKey(std::string_view key);
  PXRef<PXDictionary> decodeDictionaryForKey(std::string_view key);
  // Numbers: 0 / false when missing. A value that is not a number, or does not
  // fit the type asked for, rejects the archive (and gives 0).
  bool decodeBoolForKey(std::string_view key);
  int32_t decodeIntForKey(std::string_view key);
  int32_t decodeInt32ForKey(std::string_view key);
  int64_t decodeInt64ForKey(std::string_view key);
  int64_t decodeIntegerForKey(std::string_view key);
  double decodeDoubleForKey(std::string_view key);
  // Rejects the archive: unarchiving gives absent with this error.
  void failWithError(PXErrorRef error);
  bool hasFailed() const;

  PXKeyedUnarchiver(const PXKeyedUnarchiver&) = delete;
  PXKeyedUnarchiver& operator=(const PXKeyedUnarchiver&) = delete;

 private:
  friend class pxkit::internal::ArchiveDecoder;
  PXKeyedUnarchiver(pxkit::internal::ArchiveDecoder& decoder, const pxkit::internal::ArchiveField* fields,
                    size_t fieldCount, size_t depth)
      : decoder_(decoder), fields_(fields), fieldCount_(fieldCount), depth_(depth) {}
  const pxkit::internal::ArchiveField* field(std::string_view key) const;
  bool number(std::string_view key, PXValue* out);

  pxkit::internal::ArchiveDecoder& decoder_;
  const pxkit::internal::ArchiveField* fields_;
  size_t fieldCount_;
  size_t depth_;
};
