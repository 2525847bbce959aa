// PXKit — keyed archives: the encoder, the defensive decoder and the byte layout.
//
// Layout (docs/file-formats.md): a 16-byte header (magic "PXKA", version, flags,
// reserved, payload length, CRC-32 of the payload), then the payload: an object
// table of length-prefixed entries (containers, data, coded objects) and the
// root value. Scalars and strings are written inline where they are used;
// everything with identity lives in the table once and is referred to by index.
//
// The decoder first checks the header and the checksum, then splits the table
// into entries without looking inside them, and finally materialises the root,
// resolving table references on demand with memoisation. Every count and length
// is checked against the bytes that remain, so no allocation outgrows the input;
// recursion is bounded by kPXKeyedArchiveMaxDepth.
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXKeyedArchiver.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <deque>
#include <limits>
#include <string>
#include <vector>

#include "objects/internal/KeyedArchiveFormat.h"

const char* const kPXKeyedArchiveErrorDomain = "PXKeyedArchiveErrorDomain";

namespace pxkit::internal {

using namespace archive;

// ---- Byte layout helpers ---------------------------------------------------

namespace archive {

namespace {
// Slicing by eight: table k advances the CRC of a byte followed by k zero bytes,
// so eight bytes are folded per step with eight independent lookups.
using CrcTables = std::array<std::array<uint32_t, 256>, 8>;
constexpr CrcTables makeCrcTables() {
  CrcTables tables{};
  for (uint32_t n = 0; n < 256; ++n) {
    uint32_t c = n;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    tables[0][n] = c;
  }
  for (uint32_t n = 0; n < 256; ++n) {
    for (size_t k = 1; k < 8; ++k)
      tables[k][n] = tables[0][tables[k - 1][n] & 0xFF] ^ (tables[k - 1][n] >> 8);
  }
  return tables;
}
constexpr CrcTables kCrcTables = makeCrcTables();

void writeU32(uint8_t* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t readU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}
}  // namespace

uint32_t crc32(std::span<const uint8_t> bytes) noexcept {
  uint32_t c = 0xFFFFFFFFu;
  const uint8_t* p = bytes.data();
  size_t n = bytes.size();
  for (; n >= 8; n -= 8, p += 8) {
    const uint32_t low = c ^ readU32(p);
    const uint32_t high = readU32(p + 4);
    c = kCrcTables[7][low & 0xFF] ^ kCrcTables[6][(low >> 8) & 0xFF] ^ kCrcTables[5][(low >> 16) & 0xFF] ^
        kCrcTables[4][low >> 24] ^ kCrcTables[3][high & 0xFF] ^ kCrcTables[2][(high >> 8) & 0xFF] ^
        kCrcTables[1][(high >> 16) & 0xFF] ^ kCrcTables[0][high >> 24];
  }
  for (; n > 0; --n, ++p) c = kCrcTables[0][(c ^ *p) & 0xFF] ^ (c >> 8);
  return c ^ 0xFFFFFFFFu;
}

void appendVarint(std::string& out, uint64_t value) {
  while (value >= 0x80) {
    out.push_back(static_cast<char>((value & 0x7F) | 0x80));
    value >>= 7;
  }
  out.push_back(static_cast<char>(value));
}

void sealArchive(std::vector<uint8_t>& archive, uint8_t version) {
  uint8_t* header = archive.data();
  const std::span<const uint8_t> payload(header + kHeaderSize, archive.size() - kHeaderSize);
  std::memcpy(header, kMagic, sizeof kMagic);
  header[4] = version;
  header[5] = 0;  // flags
  header[6] = 0;  // reserved
  header[7] = 0;
  writeU32(header + 8, static_cast<uint32_t>(payload.size()));
  writeU32(header + 12, crc32(payload));
}

std::vector<uint8_t> wrapPayload(std::span<const uint8_t> payload, uint8_t version) {
  std::vector<uint8_t> out(kHeaderSize + payload.size());
  if (!payload.empty()) std::memcpy(out.data() + kHeaderSize, payload.data(), payload.size());
  sealArchive(out, version);
  return out;
}

}  // namespace archive

namespace {

PXErrorRef makeError(PXKeyedArchiveErrorCode code, const std::string& message) {
  return PXError::errorWithDomain(kPXKeyedArchiveErrorDomain, code, PXString(message));
}

void appendDouble(std::string& out, double d) {
  uint64_t bits = std::bit_cast<uint64_t>(d);
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>(bits >> (8 * i)));
}

uint64_t zigzag(int64_t v) {
  return (static_cast<uint64_t>(v) << 1) ^ static_cast<uint64_t>(v >> 63);
}
int64_t unzigzag(uint64_t v) {
  return static_cast<int64_t>(v >> 1) ^ -static_cast<int64_t>(v & 1);
}

void appendString(std::string& out, std::string_view s) {
  appendVarint(out, s.size());
  out.append(s);
}

}  // namespace

// ---- Encoder ---------------------------------------------------------------

// Where each object of the graph went in the table: open addressing over a flat
// array, because archives of large states look up every object once and a
// node-based map spends most of that time on allocation and cache misses.
class ObjectIndexTable {
 public:
  static constexpr uint32_t kMissing = UINT32_MAX;

  uint32_t find(const PXObject* object) const {
    if (slots_.empty()) return kMissing;
    const size_t i = position(object);
    return slots_[i].object ? slots_[i].index : kMissing;
  }

  // Asks for the slot where a lookup of `object` starts, ahead of time.
  void prefetch(const PXObject* object) const {
    if (!slots_.empty()) __builtin_prefetch(&slots_[home(object)]);
  }

  // `object` must not be in the table yet.
  void insert(const PXObject* object, uint32_t index) {
    if ((count_ + 1) * 2 > slots_.size()) grow();
    slots_[position(object)] = {object, index};
    ++count_;
  }

  // `object` must be in the table.
  void update(const PXObject* object, uint32_t index) { slots_[position(object)].index = index; }

 private:
  struct Slot {
    const PXObject* object = nullptr;
    uint32_t index = 0;
  };

  size_t mask() const { return slots_.size() - 1; }
  // Fibonacci hashing of the address; its low bits are alignment, its high bits the page.
  size_t home(const PXObject* object) const {
    const uint64_t h = reinterpret_cast<uintptr_t>(object) * 0x9E3779B97F4A7C15ull;
    return static_cast<size_t>(h >> (64 - shift_));
  }
  // The slot holding `object`, or the empty slot where it would go.
  size_t position(const PXObject* object) const {
    size_t i = home(object);
    while (slots_[i].object && slots_[i].object != object) i = (i + 1) & mask();
    return i;
  }

  void grow() {
    std::vector<Slot> old = std::move(slots_);
    shift_ = old.empty() ? 6 : shift_ + 1;
    slots_.assign(size_t{1} << shift_, Slot{});
    for (const Slot& slot : old) {
      if (slot.object) slots_[position(slot.object)] = slot;
    }
  }

  std::vector<Slot> slots_;
  size_t count_ = 0;
  int shift_ = 0;
};

// The encoder writes the archive front to back in one pass. Objects enter the
// table as they are finished, children before the containers and coded objects
// that hold them, so a finished entry goes straight after the ones before it and
// every reference written so far is to an entry already in the table. The one
// exception is a coded object reached again while it is still being encoded (a
// cycle through coded objects): that reference is written at a fixed width,
// blank, and its index filled in when the object is finished.
class ArchiveEncoder {
 public:
  // `expectedLength` (0 when unknown) is room set aside up front: an archive
  // that fits is written where it will stay, without being copied as it grows.
  explicit ArchiveEncoder(size_t expectedLength) : out_(kTableStart) {
    const size_t room = std::min(expectedLength, kPXKeyedArchiveMaxLength);
    out_.reserve(room + room / 16);
  }

  bool archive(const PXValue& root, std::vector<uint8_t>* out) {
    std::string rootBytes;
    if (!value(root, rootBytes, 0, Source::Root)) return false;
    if (out_.size() + rootBytes.size() > kPXKeyedArchiveMaxLength)
      return fail("the archive would pass the length limit");
    put(rootBytes);
    writeFixedVarint(out_.data() + kHeaderSize, count_);
    sealArchive(out_, kPXKeyedArchiveVersion);
    // The archive may be kept for long (in the user defaults, say): room that
    // growing or a generous expectation left over is given back.
    if (out_.capacity() - out_.size() > out_.size() / 8) out_.shrink_to_fit();
    *out = std::move(out_);
    return true;
  }

  // One keyed field of the coded object being encoded (the innermost one).
  void field(std::string_view key, const PXValue& v, size_t depth) {
    if (failed_ || openFields_.empty()) return;
    // Not a reference to the back: encoding the value may open fields of its own.
    std::string& bytes = *openFields_.back().bytes;
    appendString(bytes, key);
    if (!value(v, bytes, depth, Source::Field)) return;
    ++openFields_.back().count;
  }

  bool failed() const { return failed_; }
  const std::string& why() const { return why_; }

 private:
  // Where a value comes from, which says who keeps its object alive while the
  // table refers to it by address: the caller holds the root, and a container in
  // the table holds its items; a coded object's field may be a temporary of its
  // encodeWithCoder, so the encoder holds those itself.
  enum class Source { Root, Item, Field };

  // The object count and open references are varints padded to a fixed width
  // (groups of zero with the continuation bit), wide enough for any count the
  // limits allow: the count goes in front of a table written before its size
  // is known.
  static constexpr size_t kFixedVarintSize = 3;
  static_assert(kPXKeyedArchiveMaxObjects < (uint64_t{1} << (7 * kFixedVarintSize)));
  static constexpr size_t kTableStart = kHeaderSize + kFixedVarintSize;
  static void writeFixedVarint(uint8_t* at, uint64_t value) {
    for (size_t i = 0; i + 1 < kFixedVarintSize; ++i, value >>= 7)
      at[i] = static_cast<uint8_t>((value & 0x7F) | 0x80);
    at[kFixedVarintSize - 1] = static_cast<uint8_t>(value);
  }

  // The index table's mark of an object still being encoded.
  static constexpr uint32_t kOpen = ObjectIndexTable::kMissing - 1;
  // A reference to an object still being encoded, its index yet to be filled
  // in: at `offset` of `buffer`, or of the archive once `buffer` is null.
  struct OpenReference {
    const std::string* buffer;
    size_t offset;
    const PXObject* object;
  };

  // The fields of a coded object as they are encoded.
  struct OpenFields {
    std::string* bytes;
    size_t count = 0;
  };

  // Large states are containers of many objects scattered over the heap: each
  // item's object (its first three cache lines) and its index slot are asked
  // for a few items ahead, so that their cache misses overlap instead of coming
  // one after the other.
  static constexpr size_t kPrefetchDistance = 8;
  void prefetch(const PXValue& item) const {
    if (const PXObject* object = item.objectPointer()) {
      __builtin_prefetch(object);
      __builtin_prefetch(reinterpret_cast<const char*>(object) + 64);
      __builtin_prefetch(reinterpret_cast<const char*>(object) + 128);
      index_.prefetch(object);
    }
  }

  // Once an item's object has arrived, what it holds is asked for in turn.
  static constexpr size_t kContentsPrefetchDistance = 3;
  static void prefetchContents(const PXValue& item) {
    if (const PXObject* object = item.objectPointer()) object->prefetchContents();
  }

  // A buffer for work at one nesting depth. Only one entry per depth is open at
  // a time, so each depth's buffer is reused by every entry at that depth.
  std::string& scratch(std::deque<std::string>& buffers, size_t depth) {
    while (buffers.size() <= depth) buffers.emplace_back();
    std::string& buffer = buffers[depth];
    buffer.clear();
    return buffer;
  }

  // Appends to the archive.
  void put(std::string_view s) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(s.data());
    out_.insert(out_.end(), bytes, bytes + s.size());
  }

  // `from`'s open references move along with its bytes, which now start at `base`
  // of `to` (of the archive when `to` is null).
  void moveOpenReferences(const std::string* from, const std::string* to, size_t base) {
    for (OpenReference& r : openReferences_) {
      if (r.buffer == from) r = {to, base + r.offset, r.object};
    }
  }

  bool fail(std::string why) {
    if (!failed_) why_ = std::move(why);
    failed_ = true;
    return false;
  }

  bool value(const PXValue& v, std::string& out, size_t depth, Source source) {
    if (failed_) return false;
    switch (v.kind()) {
      case PXValue::Kind::Absent:
        if (source != Source::Root) return fail("an absent value inside the graph");
        out.push_back(static_cast<char>(kAbsent));
        return true;
      case PXValue::Kind::Null:
        out.push_back(static_cast<char>(kNull));
        return true;
      case PXValue::Kind::Bool:
        out.push_back(static_cast<char>(v.boolValue() ? kTrue : kFalse));
        return true;
      case PXValue::Kind::Int:
        out.push_back(static_cast<char>(kInt));
        appendVarint(out, zigzag(v.longLongValue()));
        return true;
      case PXValue::Kind::UInt:
        out.push_back(static_cast<char>(kUInt));
        appendVarint(out, v.unsignedLongLongValue());
        return true;
      case PXValue::Kind::Double:
        out.push_back(static_cast<char>(kDouble));
        appendDouble(out, v.doubleValue());
        return true;
      case PXValue::Kind::Date:
        out.push_back(static_cast<char>(kDate));
        appendDouble(out, v.dateValue().timeIntervalSinceReferenceDate());
        return true;
      case PXValue::Kind::String:
        out.push_back(static_cast<char>(kString));
        appendString(out, v.stringValue());
        return true;
      case PXValue::Kind::Data:
      case PXValue::Kind::Object:
        break;
    }
    PXObject* object = v.objectPointer();
    if (!object) return fail("an object value without an object");
    uint32_t index = 0;
    if (!objectIndex(object, depth, source, &index)) return false;
    out.push_back(static_cast<char>(kRef));
    if (index == kOpen) {
      openReferences_.push_back({&out, out.size(), object});
      out.append(kFixedVarintSize, '\0');
    } else {
      appendVarint(out, index);
    }
    return true;
  }

  // The table index of `object`, encoding it first when it is not in the table
  // yet; kOpen for a coded object that is still being encoded.
  bool objectIndex(PXObject* object, size_t depth, Source source, uint32_t* index) {
    // An item that nothing but its container holds is reached once: there is
    // nothing to look up and nothing to record for a later reference. (Most
    // objects of a large state are such items; the table stays small.)
    const bool unshared = source == Source::Item && object->retainCount() == 1;
    if (const uint32_t found = unshared ? ObjectIndexTable::kMissing : index_.find(object);
        found != ObjectIndexTable::kMissing) {
      if (found == kOpen && object->objectTag() != PXObjectTag::Object)
        return fail("a container holds itself; such cycles cannot be archived");
      *index = found;
      return true;
    }
    if (depth >= kPXKeyedArchiveMaxDepth) return fail("the graph nests deeper than the archive limit");
    if (started_ >= kPXKeyedArchiveMaxObjects)
      return fail("the graph holds more objects than the archive limit");
    ++started_;
    if (!unshared) index_.insert(object, kOpen);
    if (source == Source::Field) keepAlive_.emplace_back(object);
    std::string& entry = scratch(entryBuffers_, depth);
    if (!objectEntry(*object, entry, depth)) return false;
    // The finished entry joins the table, length first.
    std::string length;
    appendVarint(length, entry.size());
    const size_t at = out_.size() + length.size();
    if (at + entry.size() > kPXKeyedArchiveMaxLength) return fail("the archive would pass the length limit");
    put(length);
    put(entry);
    *index = count_++;
    if (!unshared) index_.update(object, *index);
    if (!openReferences_.empty()) fillOpenReferences(object, &entry, at, *index);
    return true;
  }

  // `object`, whose entry now starts at `at` of the archive, has its index:
  // the open references to it (in its own entry and in those of the objects it
  // holds, all in the archive by now) get it.
  void fillOpenReferences(const PXObject* object, const std::string* entry, size_t at, uint32_t index) {
    moveOpenReferences(entry, nullptr, at);
    std::erase_if(openReferences_, [&](const OpenReference& r) {
      if (r.object != object || r.buffer) return false;
      writeFixedVarint(out_.data() + r.offset, index);
      return true;
    });
  }

  bool objectEntry(PXObject& object, std::string& out, size_t depth) {
    switch (object.objectTag()) {
      case PXObjectTag::Data: {
        auto& data = static_cast<PXData&>(object);
        out.push_back(static_cast<char>(data.isMutable() ? kMutableData : kData));
        appendString(out, data.view());
        return true;
      }
      case PXObjectTag::Array: {
        auto& array = static_cast<PXArray&>(object);
        out.push_back(static_cast<char>(array.isMutable() ? kMutableArray : kArray));
        appendVarint(out, array.count());
        const std::span<const PXValue> items(array.begin(), array.end());
        for (size_t i = 0; i < items.size(); ++i) {
          if (i + kPrefetchDistance < items.size()) prefetch(items[i + kPrefetchDistance]);
          if (i + kContentsPrefetchDistance < items.size())
            prefetchContents(items[i + kContentsPrefetchDistance]);
          if (!value(items[i], out, depth + 1, Source::Item)) return false;
        }
        return true;
      }
      case PXObjectTag::Dictionary: {
        auto& dict = static_cast<PXDictionary&>(object);
        out.push_back(static_cast<char>(dict.isMutable() ? kMutableDictionary : kDictionary));
        appendVarint(out, dict.count());
        for (const auto& [key, item] : dict) {
          if (!value(key, out, depth + 1, Source::Item) || !value(item, out, depth + 1, Source::Item))
            return false;
        }
        return true;
      }
      default:
        break;
    }
    auto* coding = dynamic_cast<PXCoding*>(&object);
    const PXClass& cls = object.pxClass();
    if (!coding) return fail("objects of class " + cls.name() + " cannot be archived (no PXCoding)");
    if (!cls.canCreateInstance() || PXClass::named(cls.name()) != &cls)
      return fail("class " + cls.name() + " cannot be made by name (no registered factory)");
    if (cls.name().size() > kPXKeyedArchiveMaxClassNameLength)
      return fail("class name longer than the archive limit");
    openFields_.push_back({&scratch(fieldBuffers_, depth)});
    PXKeyedArchiver coder(*this, depth + 1);
    coding->encodeWithCoder(coder);
    const OpenFields fields = openFields_.back();
    openFields_.pop_back();
    if (failed_) return false;
    out.push_back(static_cast<char>(kCodedObject));
    appendString(out, cls.name());
    appendVarint(out, fields.count);
    if (!openReferences_.empty()) moveOpenReferences(fields.bytes, &out, out.size());
    out += *fields.bytes;
    return true;
  }

  std::vector<uint8_t> out_;  // the archive so far: header and count to come, then the finished entries
  uint32_t count_ = 0;        // entries in the table
  size_t started_ = 0;        // entries in the table or open
  ObjectIndexTable index_;
  std::vector<OpenReference> openReferences_;
  std::vector<PXRef<PXObject>> keepAlive_;
  std::deque<std::string> entryBuffers_;  // by depth
  std::deque<std::string> fieldBuffers_;  // by depth
  std::vector<OpenFields> openFields_;
  bool failed_ = false;
  std::string why_;
};

// ---- Decoder ---------------------------------------------------------------

// One inline value as read from the bytes, before references are resolved.
struct RawValue {
  uint8_t tag = kAbsent;
  uint64_t bits = 0;      // integer, double bits, or table index
  std::string_view text;  // strings
};

struct ArchiveField {
  std::string_view key;
  RawValue value;
};

namespace {

// Reads from [p, end); every read checks the bytes that remain.
class Cursor {
 public:
  Cursor(const uint8_t* p, const uint8_t* end) : p_(p), end_(end) {}
  size_t remaining() const { return static_cast<size_t>(end_ - p_); }
  bool atEnd() const { return p_ == end_; }
  bool byte(uint8_t* out) {
    if (p_ == end_) return false;
    *out = *p_++;
    return true;
  }
  bool varint(uint64_t* out) {
    uint64_t v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      uint8_t b;
      if (!byte(&b)) return false;
      if (shift == 63 && b > 1) return false;  // more than 64 bits
      v |= static_cast<uint64_t>(b & 0x7F) << shift;
      if (!(b & 0x80)) {
        *out = v;
        return true;
      }
    }
    return false;
  }
  // A count of items that each take at least `minBytes` bytes: never more than the bytes left allow.
  bool count(size_t minBytes, size_t* out) {
    uint64_t n;
    if (!varint(&n) || n > remaining() / minBytes) return false;
    *out = static_cast<size_t>(n);
    return true;
  }
  bool bytes(size_t n, std::string_view* out) {
    if (n > remaining()) return false;
    *out = std::string_view(reinterpret_cast<const char*>(p_), n);
    p_ += n;
    return true;
  }
  bool lengthPrefixed(std::string_view* out) {
    uint64_t n;
    return varint(&n) && n <= remaining() && bytes(static_cast<size_t>(n), out);
  }
  bool double64(uint64_t* bits) {
    if (remaining() < 8) return false;
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v |= static_cast<uint64_t>(p_[i]) << (8 * i);
    p_ += 8;
    *bits = v;
    return true;
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

}  // namespace

class ArchiveDecoder {
 public:
  PXValue decode(std::span<const uint8_t> archive) {
    if (archive.size() < kHeaderSize || std::memcmp(archive.data(), kMagic, sizeof kMagic) != 0)
      return fail(PXKeyedArchiveDecodeCorruptError, "not a keyed archive");
    if (archive.size() > kPXKeyedArchiveMaxLength)
      return fail(PXKeyedArchiveDecodeLimitError, "archive longer than the limit");
    const uint8_t* h = archive.data();
    if (h[4] != kPXKeyedArchiveVersion)
      return fail(PXKeyedArchiveDecodeVersionError, "archive of format version " + std::to_string(h[4]));
    if (h[5] != 0 || h[6] != 0 || h[7] != 0)
      return fail(PXKeyedArchiveDecodeCorruptError, "unknown header flags");
    const uint32_t length = archive::readU32(h + 8);
    if (length != archive.size() - kHeaderSize)
      return fail(PXKeyedArchiveDecodeCorruptError, "archive length does not match its header (truncated?)");
    std::span<const uint8_t> payload = archive.subspan(kHeaderSize);
    if (crc32(payload) != archive::readU32(h + 12))
      return fail(PXKeyedArchiveDecodeCorruptError, "archive checksum mismatch (corrupted)");

    Cursor c(payload.data(), payload.data() + payload.size());
    size_t count = 0;
    if (!c.count(2, &count)) return fail(PXKeyedArchiveDecodeCorruptError, "malformed object table");
    if (count > kPXKeyedArchiveMaxObjects)
      return fail(PXKeyedArchiveDecodeLimitError, "more objects than the limit");
    entries_.resize(count);
    for (Entry& e : entries_) {
      if (!c.lengthPrefixed(&e.bytes) || e.bytes.empty())
        return fail(PXKeyedArchiveDecodeCorruptError, "malformed object table entry");
    }
    RawValue root;
    if (!readValue(c, &root, /*allowAbsent=*/true) || !c.atEnd())
      return fail(PXKeyedArchiveDecodeCorruptError, "malformed root value");
    PXValue result = materialize(root, 0);
    if (failed_) return {};
    return result;
  }

  PXValue fail(PXKeyedArchiveErrorCode code, const std::string& message) {
    if (!failed_) error_ = makeError(code, "cannot unarchive: " + message);
    failed_ = true;
    return {};
  }
  void fail(PXErrorRef error) {
    if (!failed_)
      error_ = error ? std::move(error) : makeError(PXKeyedArchiveDecodeRejectedError, "rejected");
    failed_ = true;
  }
  bool failed() const { return failed_; }
  const PXErrorRef& error() const { return error_; }

  // Reads one inline value; references are checked against the table size only.
  bool readValue(Cursor& c, RawValue* out, bool allowAbsent) {
    if (!c.byte(&out->tag)) return false;
    switch (out->tag) {
      case kAbsent:
        return allowAbsent;
      case kNull:
      case kFalse:
      case kTrue:
        return true;
      case kInt:
      case kUInt:
        return c.varint(&out->bits);
      case kDouble:
      case kDate:
        return c.double64(&out->bits);
      case kString:
        return c.lengthPrefixed(&out->text);
      case kRef:
        return c.varint(&out->bits) && out->bits < entries_.size();
      default:
        return false;
    }
  }

  PXValue materialize(const RawValue& raw, size_t depth) {
    if (failed_) return {};
    switch (raw.tag) {
      case kNull:
        return PXValue::null();
      case kFalse:
        return PXValue(false);
      case kTrue:
        return PXValue(true);
      case kInt:
        return PXValue(static_cast<long long>(unzigzag(raw.bits)));
      case kUInt:
        return PXValue(static_cast<unsigned long long>(raw.bits));
      case kDouble:
        return PXValue(std::bit_cast<double>(raw.bits));
      case kDate:
        return PXValue(PXDate(std::bit_cast<double>(raw.bits)));
      case kString:
        return PXValue(raw.text);
      case kRef:
        return resolve(static_cast<size_t>(raw.bits), depth);
      default:
        return {};
    }
  }

 private:
  enum class State : uint8_t { Unread, Reading, Done };
  struct Entry {
    std::string_view bytes;
    State state = State::Unread;
    PXValue value;
    PXRef<PXObject> pending;  // a coded object whose initWithCoder is running
  };

  PXValue corrupt(const char* what) { return fail(PXKeyedArchiveDecodeCorruptError, what); }

  PXValue resolve(size_t index, size_t depth) {
    Entry& e = entries_[index];
    if (e.state == State::Done) return e.value;
    if (e.state == State::Reading) {
      if (e.pending) return PXValue(e.pending);  // an object referring back to itself
      return corrupt("a container holds itself");
    }
    if (depth >= kPXKeyedArchiveMaxDepth)
      return fail(PXKeyedArchiveDecodeLimitError, "nesting deeper than the limit");
    e.state = State::Reading;
    const auto* p = reinterpret_cast<const uint8_t*>(e.bytes.data());
    Cursor c(p, p + e.bytes.size());
    uint8_t tag = 0;
    c.byte(&tag);
    PXValue v;
    switch (tag) {
      case kData:
      case kMutableData:
        v = readData(c, tag == kMutableData);
        break;
      case kArray:
      case kMutableArray:
        v = readArray(c, tag == kMutableArray, depth);
        break;
      case kDictionary:
      case kMutableDictionary:
        v = readDictionary(c, tag == kMutableDictionary, depth);
        break;
      case kCodedObject:
        v = readCodedObject(c, index, depth);
        break;
      default:
        return corrupt("unknown object tag");
    }
    if (failed_) return {};
    if (!c.atEnd()) return corrupt("trailing bytes in an object entry");
    // entries_ never grows while decoding, so `e` is still the entry read above.
    e.state = State::Done;
    e.value = v;
    e.pending = nullptr;
    return v;
  }

  PXValue readData(Cursor& c, bool isMutable) {
    std::string_view bytes;
    if (!c.lengthPrefixed(&bytes)) return corrupt("malformed data");
    if (isMutable) {
      auto data = PXMutableData::data();
      data->appendBytes(bytes.data(), bytes.size());
      return PXValue(data);
    }
    return PXValue(PXData::dataWithBytes(bytes.data(), bytes.size()));
  }

  PXValue readArray(Cursor& c, bool isMutable, size_t depth) {
    size_t count = 0;
    if (!c.count(1, &count)) return corrupt("malformed array");
    std::vector<PXValue> items;
    items.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      RawValue raw;
      if (!readValue(c, &raw, false)) return corrupt("malformed array element");
      items.push_back(materialize(raw, depth + 1));
      if (failed_) return {};
    }
    if (isMutable) return PXValue(PXMake<PXMutableArray>(std::move(items)));
    return PXValue(PXArray::arrayWithValues(std::move(items)));
  }

  PXValue readDictionary(Cursor& c, bool isMutable, size_t depth) {
    size_t count = 0;
    if (!c.count(2, &count)) return corrupt("malformed dictionary");
    std::vector<PXDictionary::Entry> pairs;
    pairs.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      RawValue rawKey, rawValue;
      if (!readValue(c, &rawKey, false) || !readValue(c, &rawValue, false))
        return corrupt("malformed dictionary entry");
      PXValue key = materialize(rawKey, depth + 1);
      PXValue value = materialize(rawValue, depth + 1);
      if (failed_) return {};
      pairs.emplace_back(std::move(key), std::move(value));
    }
    if (isMutable) {
      auto dict = PXMutableDictionary::dictionaryWithCapacity(pairs.size());
      for (auto& [key, value] : pairs) dict->setObject(value, key);
      return PXValue(dict);
    }
    return PXValue(PXDictionary::dictionaryWithEntries(std::move(pairs)));
  }

  PXValue readCodedObject(Cursor& c, size_t index, size_t depth) {
    std::string_view name;
    if (!c.lengthPrefixed(&name)) return corrupt("malformed class name");
    if (name.size() > kPXKeyedArchiveMaxClassNameLength)
      return fail(PXKeyedArchiveDecodeLimitError, "class name longer than the limit");
    size_t count = 0;
    if (!c.count(2, &count)) return corrupt("malformed object fields");
    std::vector<ArchiveField> fields(count);
    for (ArchiveField& f : fields) {
      if (!c.lengthPrefixed(&f.key) || !readValue(c, &f.value, false))
        return corrupt("malformed object field");
    }
    if (!c.atEnd()) return corrupt("trailing bytes in an object entry");
    const PXClass* cls = PXClass::named(name);
    if (!cls || !cls->canCreateInstance())
      return fail(PXKeyedArchiveDecodeClassError, "no class named \"" + std::string(name) + "\" can be made");
    PXRef<PXObject> instance = cls->createInstance();
    auto* coding = dynamic_cast<PXCoding*>(instance.get());
    if (!coding)
      return fail(PXKeyedArchiveDecodeClassError,
                  "class \"" + std::string(name) + "\" does not adopt PXCoding");
    entries_[index].pending = instance;
    PXKeyedUnarchiver coder(*this, fields.data(), fields.size(), depth + 1);
    if (!coding->initWithCoder(coder) && !failed_)
      return fail(PXKeyedArchiveDecodeRejectedError,
                  "an object of class \"" + std::string(name) + "\" refused its data");
    if (failed_) return {};
    return PXValue(instance);
  }

  std::vector<Entry> entries_;
  bool failed_ = false;
  PXErrorRef error_;
};

}  // namespace pxkit::internal

using pxkit::internal::ArchiveDecoder;
using pxkit::internal::ArchiveEncoder;
using pxkit::internal::ArchiveField;
namespace archive = pxkit::internal::archive;

// ---- PXKeyedArchiver -------------------------------------------------------

PXRef<PXData> PXKeyedArchiver::archivedDataWithRootObject(const PXValue& root, PXErrorRef* error,
                                                          size_t expectedLength) {
  ArchiveEncoder encoder(expectedLength);
  std::vector<uint8_t> bytes;
  std::string why;
  try {
    if (encoder.archive(root, &bytes)) return PXData::dataWithBytes(std::move(bytes));
    why = encoder.why();
  } catch (const PXException& e) {
    why = "an encodeWithCoder raised " + e.description().str();
  }
  PXSetError(error, PXError::errorWithDomain(kPXKeyedArchiveErrorDomain, PXKeyedArchiveEncodeInvalidError,
                                             PXString("cannot archive: " + why)));
  return {};
}

void PXKeyedArchiver::encodeObject(const PXValue& value, std::string_view key) {
  if (value.isAbsent()) return;
  encoder_.field(key, value, depth_);
}
void PXKeyedArchiver::encodeBool(bool value, std::string_view key) {
  encoder_.field(key, PXValue(value), depth_);
}
void PXKeyedArchiver::encodeInt(int32_t value, std::string_view key) {
  encodeInt64(value, key);
}
void PXKeyedArchiver::encodeInt32(int32_t value, std::string_view key) {
  encodeInt64(value, key);
}
void PXKeyedArchiver::encodeInt64(int64_t value, std::string_view key) {
  encoder_.field(key, PXValue(static_cast<long long>(value)), depth_);
}
void PXKeyedArchiver::encodeInteger(int64_t value, std::string_view key) {
  encodeInt64(value, key);
}
void PXKeyedArchiver::encodeDouble(double value, std::string_view key) {
  encoder_.field(key, PXValue(value), depth_);
}

// ---- PXKeyedUnarchiver -----------------------------------------------------

PXValue PXKeyedUnarchiver::unarchiveObjectWithBytes(std::span<const uint8_t> bytes, PXErrorRef* error) {
  ArchiveDecoder decoder;
  PXValue value;
  try {
    value = decoder.decode(bytes);
  } catch (const PXException& e) {
    decoder.fail(PXError::errorWithDomain(
        kPXKeyedArchiveErrorDomain, PXKeyedArchiveDecodeRejectedError,
        PXString("cannot unarchive: an initWithCoder raised " + e.description().str())));
  } catch (const std::exception& e) {
    decoder.fail(PXError::errorWithDomain(kPXKeyedArchiveErrorDomain, PXKeyedArchiveDecodeRejectedError,
                                          PXString(std::string("cannot unarchive: ") + e.what())));
  }
  if (decoder.failed()) {
    PXSetError(error, decoder.error());
    return {};
  }
  return value;
}

PXValue PXKeyedUnarchiver::unarchiveObjectWithData(const PXRef<PXData>& data, PXErrorRef* error) {
  if (!data) {
    PXSetError(error, PXError::errorWithDomain(kPXKeyedArchiveErrorDomain, PXKeyedArchiveDecodeCorruptError,
                                               PXString("cannot unarchive: no data")));
    return {};
  }
  return unarchiveObjectWithBytes(data->bytes(), error);
}

const ArchiveField* PXKeyedUnarchiver::field(std::string_view key) const {
  // The last field of that key counts, as when a key is written twice.
  for (size_t i = fieldCount_; i-- > 0;) {
    if (fields_[i].key == key) return &fields_[i];
  }
  return nullptr;
}

bool PXKeyedUnarchiver::containsValueForKey(std::string_view key) const {
  return field(key) != nullptr;
}

PXValue PXKeyedUnarchiver::decodeObjectForKey(std::string_view key) {
  const ArchiveField* f = field(key);
  if (!f || decoder_.failed()) return {};
  return decoder_.materialize(f->value, depth_);
}

PXString PXKeyedUnarchiver::decodeStringForKey(std::string_view key) {
  return decodeObjectForKey(key).stringObject();
}
PXRef<PXArray> PXKeyedUnarchiver::decodeArrayForKey(std::string_view key) {
  return decodeObjectForKey(key).arrayValue();
}
PXRef<PXDictionary> PXKeyedUnarchiver::decodeDictionaryForKey(std::string_view key) {
  return decodeObjectForKey(key).dictionaryValue();
}

bool PXKeyedUnarchiver::number(std::string_view key, PXValue* out) {
  const ArchiveField* f = field(key);
  if (!f || decoder_.failed()) return false;
  switch (f->value.tag) {
    case archive::kFalse:
    case archive::kTrue:
    case archive::kInt:
    case archive::kUInt:
    case archive::kDouble:
      *out = decoder_.materialize(f->value, depth_);
      return true;
    default:
      failWithError(PXError::errorWithDomain(
          kPXKeyedArchiveErrorDomain, PXKeyedArchiveDecodeCorruptError,
          PXString("cannot unarchive: the value for key \"" + std::string(key) + "\" is not a number")));
      return false;
  }
}

namespace {
// Whether `v` (a number) fits [lo, hi] as an integer; doubles are truncated toward zero.
bool fitsInteger(const PXValue& v, int64_t lo, int64_t hi, int64_t* out) {
  switch (v.kind()) {
    case PXValue::Kind::UInt:
      if (v.unsignedLongLongValue() > static_cast<uint64_t>(hi)) return false;
      *out = static_cast<int64_t>(v.unsignedLongLongValue());
      return true;
    case PXValue::Kind::Double: {
      double d = std::trunc(v.doubleValue());
      // 2^63 is exactly representable; anything at or past it does not fit int64.
      if (!(d >= static_cast<double>(lo) && d < 9223372036854775808.0 && d <= static_cast<double>(hi)))
        return false;
      *out = static_cast<int64_t>(d);
      return true;
    }
    default: {
      int64_t i = v.longLongValue();
      if (i < lo || i > hi) return false;
      *out = i;
      return true;
    }
  }
}
}  // namespace

bool PXKeyedUnarchiver::decodeBoolForKey(std::string_view key) {
  PXValue v;
  return number(key, &v) && v.boolValue();
}

int32_t PXKeyedUnarchiver::decodeIntForKey(std::string_view key) {
  return decodeInt32ForKey(key);
}

int32_t PXKeyedUnarchiver::decodeInt32ForKey(std::string_view key) {
  PXValue v;
  int64_t i = 0;
  if (!number(key, &v)) return 0;
  if (!fitsInteger(v, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max(), &i)) {
    failWithError(PXError::errorWithDomain(
        kPXKeyedArchiveErrorDomain, PXKeyedArchiveDecodeCorruptError,
        PXString("cannot unarchive: the value for key \"" + std::string(key) + "\" does not fit 32 bits")));
    return 0;
  }
  return static_cast<int32_t>(i);
}

int64_t PXKeyedUnarchiver::decodeInt64ForKey(std::string_view key) {
  PXValue v;
  int64_t i = 0;
  if (!number(key, &v)) return 0;
  if (!fitsInteger(v, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(), &i)) {
    failWithError(PXError::errorWithDomain(
        kPXKeyedArchiveErrorDomain, PXKeyedArchiveDecodeCorruptError,
        PXString("cannot unarchive: the value for key \"" + std::string(key) + "\" does not fit 64 bits")));
    return 0;
  }
  return i;
}

int64_t PXKeyedUnarchiver::decodeIntegerForKey(std::string_view key) {
  return decodeInt64ForKey(key);
}

double PXKeyedUnarchiver::decodeDoubleForKey(std::string_view key) {
  PXValue v;
  return number(key, &v) ? v.doubleValue() : 0.0;
}

void PXKeyedUnarchiver::failWithError(PXErrorRef error) {
  decoder_.fail(std::move(error));
}
bool PXKeyedUnarchiver::hasFailed() const {
  return decoder_.failed();
}
