// Keyed archives: round trips of every kind, mutability, shared and cyclic
// references, coding by class name, and an unarchiver that refuses bad bytes.
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXKeyedArchiver.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <string>
#include <vector>

#include "objects/internal/KeyedArchiveFormat.h"

namespace archive = pxkit::internal::archive;

// Every kind of field, and a reference to another node (for sharing and cycles).
class PXArchiveTestNode : public PXObject, public PXCoding {
  PX_DECLARE_CLASS(PXArchiveTestNode)

 public:
  // Every node alive, so that tests can cut the cycles an archive drew.
  static std::vector<PXArchiveTestNode*>& live() {
    static std::vector<PXArchiveTestNode*> nodes;
    return nodes;
  }
  PXArchiveTestNode() { live().push_back(this); }
  ~PXArchiveTestNode() override { std::erase(live(), this); }

  int64_t big = 0;
  int32_t small = 0;
  double ratio = 0;
  bool flag = false;
  PXString label;
  PXValue payload;
  PXValue peer;
  int encodeCount = 0;

  void encodeWithCoder(PXKeyedArchiver& coder) override {
    ++encodeCount;
    coder.encodeInteger(big, "big");
    coder.encodeInt(small, "small");
    coder.encodeDouble(ratio, "ratio");
    coder.encodeBool(flag, "flag");
    coder.encodeObject(label, "label");
    coder.encodeObject(payload, "payload");
    coder.encodeObject(peer, "peer");
  }
  bool initWithCoder(PXKeyedUnarchiver& coder) override {
    big = coder.decodeIntegerForKey("big");
    small = coder.decodeIntForKey("small");
    ratio = coder.decodeDoubleForKey("ratio");
    flag = coder.decodeBoolForKey("flag");
    label = coder.decodeStringForKey("label");
    payload = coder.decodeObjectForKey("payload");
    peer = coder.decodeObjectForKey("peer");
    return true;
  }
};
PX_DEFINE_CLASS(PXArchiveTestNode, PXObject, [](PXClassBuilder<PXArchiveTestNode>& c) { c.factory(); })

// Refuses whatever it is given, by returning false or by raising.
class PXArchiveTestRefuser : public PXObject, public PXCoding {
  PX_DECLARE_CLASS(PXArchiveTestRefuser)

 public:
  void encodeWithCoder(PXKeyedArchiver& coder) override { coder.encodeBool(raise, "raise"); }
  bool initWithCoder(PXKeyedUnarchiver& coder) override {
    if (coder.decodeBoolForKey("raise")) PXException::raise(kPXInvalidArgumentException, "refused %d", 1);
    return false;
  }
  bool raise = false;
};
PX_DEFINE_CLASS(PXArchiveTestRefuser, PXObject, [](PXClassBuilder<PXArchiveTestRefuser>& c) { c.factory(); })

// Can be made by name but cannot be coded.
class PXArchiveTestPlain : public PXObject {
  PX_DECLARE_CLASS(PXArchiveTestPlain)
};
PX_DEFINE_CLASS(PXArchiveTestPlain, PXObject, [](PXClassBuilder<PXArchiveTestPlain>& c) { c.factory(); })

// Encodes containers it drops as soon as each field is written: the allocator
// may hand the next one the same address (it does under glibc and TSan).
class PXArchiveTestSnapshot : public PXObject, public PXCoding {
  PX_DECLARE_CLASS(PXArchiveTestSnapshot)

 public:
  static constexpr int kFields = 16;
  std::vector<PXValue> fields;

  void encodeWithCoder(PXKeyedArchiver& coder) override {
    for (int i = 0; i < kFields; ++i) {
      coder.encodeObject(PXValue(PXArray::arrayWithValues({PXValue(i)})), "f" + std::to_string(i));
    }
  }
  bool initWithCoder(PXKeyedUnarchiver& coder) override {
    for (int i = 0; i < kFields; ++i) fields.push_back(coder.decodeObjectForKey("f" + std::to_string(i)));
    return true;
  }
};
PX_DEFINE_CLASS(PXArchiveTestSnapshot, PXObject,
                [](PXClassBuilder<PXArchiveTestSnapshot>& c) { c.factory(); })

// Can be coded but not made by name.
class PXArchiveTestNoFactory : public PXObject, public PXCoding {
  PX_DECLARE_CLASS(PXArchiveTestNoFactory)

 public:
  void encodeWithCoder(PXKeyedArchiver&) override {}
  bool initWithCoder(PXKeyedUnarchiver&) override { return true; }
};
PX_DEFINE_CLASS(PXArchiveTestNoFactory, PXObject, nullptr)

namespace {

PXValue dict(std::initializer_list<PXDictionary::Entry> entries) {
  return PXValue(PXDictionary::dictionaryWithEntries(entries));
}
PXValue array(std::initializer_list<PXValue> values) {
  return PXValue(PXArray::arrayWithObjects(values));
}

PXValue roundTrip(const PXValue& v) {
  PXErrorRef error;
  PXRef<PXData> bytes = PXKeyedArchiver::archivedDataWithRootObject(v, &error);
  EXPECT_TRUE(bytes) << (error ? error->description().str() : "");
  if (!bytes) return {};
  PXValue back = PXKeyedUnarchiver::unarchiveObjectWithData(bytes, &error);
  EXPECT_FALSE(error) << error->description().str();
  return back;
}

PXValue decodeBytes(const std::vector<uint8_t>& bytes, PXErrorRef* error = nullptr) {
  return PXKeyedUnarchiver::unarchiveObjectWithBytes(bytes, error);
}

// Builds payloads byte by byte for crafted archives.
struct Payload {
  std::string bytes;
  Payload& byte(uint8_t b) {
    bytes.push_back(static_cast<char>(b));
    return *this;
  }
  Payload& varint(uint64_t v) {
    archive::appendVarint(bytes, v);
    return *this;
  }
  Payload& text(std::string_view s) {
    varint(s.size());
    bytes.append(s);
    return *this;
  }
  Payload& raw(std::string_view s) {
    bytes.append(s);
    return *this;
  }
  Payload& entry(const Payload& e) { return text(e.bytes); }  // length-prefixed
  std::vector<uint8_t> archive(uint8_t version = kPXKeyedArchiveVersion) const {
    return archive::wrapPayload({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, version);
  }
};

// An archive of one object-table entry, the root referring to it.
std::vector<uint8_t> single(const Payload& entry) {
  return Payload().varint(1).entry(entry).byte(archive::kRef).varint(0).archive();
}

// N arrays nested around an empty one, as crafted bytes: entry i holds [ref i+1].
std::vector<uint8_t> nestedArrayArchive(size_t depth) {
  Payload p;
  p.varint(depth);
  for (size_t i = 0; i < depth; ++i) {
    Payload e;
    e.byte(archive::kArray).varint(i + 1 < depth ? 1 : 0);
    if (i + 1 < depth) e.byte(archive::kRef).varint(i + 1);
    p.entry(e);
  }
  return p.byte(archive::kRef).varint(0).archive();
}

PXValue nestedArrays(size_t depth) {
  PXValue v = 1;
  for (size_t i = 0; i < depth; ++i) v = PXValue(PXArray::arrayWithObjects({v}));
  return v;
}

// Clears the references of every node alive: decoded nodes may form cycles
// that reference counting never frees, reachable from the result or not.
void breakCycles() {
  std::vector<PXRef<PXArchiveTestNode>> nodes;
  for (PXArchiveTestNode* n : PXArchiveTestNode::live()) nodes.emplace_back(n);
  for (const auto& n : nodes) {
    n->peer = PXValue();
    n->payload = PXValue();
  }
}

PXRef<PXArchiveTestNode> node(int64_t big) {
  auto n = PXMake<PXArchiveTestNode>();
  n->big = big;
  return n;
}

}  // namespace

TEST(PXKeyedArchiver, EveryValueKindComesBackExactly) {
  const PXValue values = array({static_cast<long long>(std::numeric_limits<int64_t>::max()),
                                static_cast<unsigned long long>(std::numeric_limits<uint64_t>::max()), -0.0,
                                std::numeric_limits<double>::quiet_NaN(), PXDate(775000123.456789),
                                std::string_view("a\0b\0", 4)});
  PXValue back = roundTrip(values);
  ASSERT_TRUE(back.isEqual(values)) << back.description().str();
  for (size_t i = 0; i < values.arrayValue()->count(); ++i) {
    PXValue v = back.arrayValue()->objectAtIndex(i), want = values.arrayValue()->objectAtIndex(i);
    EXPECT_EQ(v.kind(), want.kind()) << i;
    EXPECT_EQ(std::bit_cast<uint64_t>(v.doubleValue()), std::bit_cast<uint64_t>(want.doubleValue())) << i;
  }
}

TEST(PXKeyedArchiver, MutabilityIsKeptAtEveryLevel) {
  auto inner = PXMutableDictionary::dictionary();
  inner->setObject(PXValue(PXMutableData::data()), "bytes");
  inner->setObject(PXValue(PXData::dataWithString("cd")), "frozenBytes");
  auto list = PXMutableArray::array();
  list->addObject(PXValue(inner));
  list->addObject(array({dict({{"k", PXValue(PXMutableArray::array())}})}));
  PXValue back = roundTrip(PXValue(list));
  ASSERT_TRUE(back.isEqual(PXValue(list))) << back.description().str();
  auto l = back.mutableArrayValue();
  ASSERT_TRUE(l);
  auto i = l->objectAtIndex(0).mutableDictionaryValue();
  ASSERT_TRUE(i);
  EXPECT_TRUE(i->objectForKey("bytes").dataValue()->isMutable());
  EXPECT_FALSE(i->objectForKey("frozenBytes").dataValue()->isMutable());
  PXRef<PXArray> frozenList = l->objectAtIndex(1).arrayValue();
  EXPECT_FALSE(frozenList->isMutable());
  PXRef<PXDictionary> frozen = frozenList->objectAtIndex(0).dictionaryValue();
  EXPECT_FALSE(frozen->isMutable());
  EXPECT_TRUE(frozen->objectForKey("k").objectPointer()->isMutable());
}

TEST(PXKeyedArchiver, TemporariesOfEncodeWithCoderAreNeverTakenForEachOther) {
  PXValue back = roundTrip(PXValue(PXMake<PXArchiveTestSnapshot>()));
  auto restored = PXDynamicCast<PXArchiveTestSnapshot>(back.objectValue());
  ASSERT_TRUE(restored);
  ASSERT_EQ(restored->fields.size(), size_t{PXArchiveTestSnapshot::kFields});
  for (int i = 0; i < PXArchiveTestSnapshot::kFields; ++i) {
    EXPECT_TRUE(restored->fields[i].isEqual(array({i}))) << "field " << i;
  }
}

// The object is still being written when the references to it are: from a
// dictionary inside an array it holds, and from a coded object in there. Before
// it, the table gets `filler` entries, so its index takes one, two and three bytes.
TEST(PXKeyedArchiver, ReferencesBackFromDeepInsideFindTheirObjectAtAnyTableSize) {
  for (int filler : {0, 200, 20000}) {
    SCOPED_TRACE(filler);
    PXRef<PXArchiveTestNode> a = node(1), inner = node(2);
    inner->peer = PXValue(a);
    std::vector<PXValue> items;
    for (int k = 0; k < filler; ++k) items.push_back(PXValue(PXData::dataWithString(std::to_string(k))));
    const PXValue bytes(PXData::dataWithString("shared bytes"));
    items.push_back(dict({{"back", PXValue(a)}, {"inner", PXValue(inner)}, {"d1", bytes}, {"d2", bytes}}));
    a->payload = PXValue(PXArray::arrayWithValues(items));
    a->peer = PXValue(a);
    PXValue back = roundTrip(array({PXValue(a), PXValue(inner)}));
    EXPECT_EQ(a->encodeCount, 1) << "an object reached twice was written twice";
    ASSERT_TRUE(back.isArray());
    auto ra = PXDynamicCast<PXArchiveTestNode>(back.arrayValue()->objectAtIndex(0).objectValue());
    auto rinner = PXDynamicCast<PXArchiveTestNode>(back.arrayValue()->objectAtIndex(1).objectValue());
    ASSERT_TRUE(ra && rinner);
    EXPECT_EQ(ra->peer.objectPointer(), ra.get());
    EXPECT_EQ(rinner->peer.objectPointer(), ra.get());
    PXRef<PXArray> payload = ra->payload.arrayValue();
    ASSERT_TRUE(payload);
    ASSERT_EQ(payload->count(), static_cast<size_t>(filler) + 1);
    PXRef<PXDictionary> last = payload->lastObject().dictionaryValue();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->objectForKey("back").objectPointer(), ra.get());
    EXPECT_EQ(last->objectForKey("inner").objectPointer(), rinner.get());
    EXPECT_EQ(last->objectForKey("d1").objectPointer(), last->objectForKey("d2").objectPointer());
    breakCycles();
  }
}

TEST(PXKeyedArchiver, RefusesGraphsItCannotWrite) {
  auto selfHolding = PXMutableArray::array();
  selfHolding->addObject(PXValue(selfHolding));
  struct Row {
    const char* name;
    PXValue value;
  } rows[] = {
      {"an object without PXCoding", array({PXValue(PXError::errorWithDomain("D", 1))})},
      {"a class that cannot be made by name", dict({{"x", PXValue(PXMake<PXArchiveTestNoFactory>())}})},
      {"a container holding itself", PXValue(selfHolding)},
      {"nesting past the limit", nestedArrays(kPXKeyedArchiveMaxDepth + 1)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    PXErrorRef error;
    EXPECT_FALSE(PXKeyedArchiver::archivedDataWithRootObject(row.value, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), kPXKeyedArchiveErrorDomain);
    EXPECT_EQ(error->code(), PXKeyedArchiveEncodeInvalidError);
  }
  selfHolding->removeAllObjects();
  EXPECT_TRUE(PXKeyedArchiver::archivedDataWithRootObject(nestedArrays(kPXKeyedArchiveMaxDepth)));
}

// Each truncation and single-bit flip of a whole archive, then random edits of
// the contents behind a fresh valid checksum: a value or an error, never both.
// The fuzz target's entry point also checks a value archives back to the same bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(PXKeyedUnarchiver, EveryTruncationFlipAndEditGivesAValueOrAnError) {
  PXRef<PXArchiveTestNode> a = node(1), b = node(2);
  a->peer = PXValue(b);
  a->label = "label";
  b->payload = array({1, -2, 3.5, "four", PXDate(5), true, PXValue::null()});
  auto mutableDict = PXMutableDictionary::dictionary();
  mutableDict->setObject(PXValue(PXData::dataWithString("bytes")), "d");
  mutableDict->setObject(PXValue(a), "a");
  PXRef<PXData> good =
      PXKeyedArchiver::archivedDataWithRootObject(dict({{"m", PXValue(mutableDict)},
                                                        {"b", PXValue(b)},
                                                        {"u", 18446744073709551615ull},
                                                        {"arr", array({PXValue(mutableDict), array({})})}}));
  ASSERT_TRUE(good);
  const std::vector<uint8_t> bytes(good->bytes().begin(), good->bytes().end());
  ASSERT_TRUE(decodeBytes(bytes));
  breakCycles();
  auto refused = [](const std::vector<uint8_t>& damaged) {
    PXErrorRef error;
    return !decodeBytes(damaged, &error) && error;
  };
  for (size_t length = 0; length <= bytes.size(); ++length) {
    std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(length));
    if (length == bytes.size()) cut.push_back(0);  // bytes after a good archive are damage too
    EXPECT_TRUE(refused(cut)) << "prefix of " << length;
  }
  for (size_t at = 0; at < bytes.size() * 8; ++at) {
    std::vector<uint8_t> flipped = bytes;
    flipped[at / 8] ^= static_cast<uint8_t>(1u << (at % 8));
    EXPECT_TRUE(refused(flipped)) << "byte " << at / 8 << " bit " << at % 8;
  }

  GRand* rand = g_rand_new_with_seed(1234);
  auto edit = [rand](std::vector<uint8_t> m) {
    for (int e = g_rand_int_range(rand, 1, 5); e > 0 && !m.empty(); --e) {
      auto at = static_cast<size_t>(g_rand_int_range(rand, 0, static_cast<gint32>(m.size())));
      auto byte = static_cast<uint8_t>(g_rand_int_range(rand, 0, 256));
      const int op = g_rand_int_range(rand, 0, 4);
      if (op == 0) m[at] = byte;
      if (op == 1) m.erase(m.begin() + static_cast<ptrdiff_t>(at));
      if (op == 2) m.insert(m.begin() + static_cast<ptrdiff_t>(at), byte);
      if (op == 3) m.resize(at);
    }
    return m;
  };
  const std::vector<uint8_t> payload(bytes.begin() + archive::kHeaderSize, bytes.end());
  for (int i = 0; i < 6000; ++i) {
    std::vector<uint8_t> m = archive::wrapPayload(edit(payload));
    PXErrorRef error;
    PXValue v = decodeBytes(m, &error);
    breakCycles();
    EXPECT_FALSE(v && error);
    if (!v && !error) {
      EXPECT_EQ(m.back(), archive::kAbsent);  // a root turned into the "absent" tag
      continue;
    }
    std::vector<uint8_t> input = edit(payload);
    input.insert(input.begin(), i % 16 == 0 ? 0 : 1);  // 1: as contents behind a valid header
    ASSERT_EQ(LLVMFuzzerTestOneInput(input.data(), input.size()), 0);
    breakCycles();
  }
  g_rand_free(rand);
}

TEST(PXKeyedUnarchiver, RefusesForeignDataAndHostileContentsBehindAValidChecksum) {
  // A coded object of class `cls` with at most one field.
  auto coded = [](std::string_view cls, std::string_view key = {}, const Payload& value = {}) {
    Payload e;
    e.byte(archive::kCodedObject).text(cls).varint(key.empty() ? 0 : 1);
    if (!key.empty()) e.text(key).raw(value.bytes);
    return e;
  };
  const std::string longName(kPXKeyedArchiveMaxClassNameLength + 1, 'A');
  const Payload int32TooBig =
      Payload().byte(archive::kInt).varint(uint64_t{1} << 33);  // zigzag 2^32: too big
  struct Row {
    const char* name;
    std::vector<uint8_t> bytes;
    PXKeyedArchiveErrorCode code = PXKeyedArchiveDecodeCorruptError;
  } rows[] = {
      {"a later format version", Payload().varint(0).byte(archive::kNull).archive(2),
       PXKeyedArchiveDecodeVersionError},
      {"no root", Payload().varint(0).archive()},
      {"an absent root is fine but trailing bytes are not", Payload().varint(0).byte(0).byte(0).archive()},
      {"huge object count", Payload().varint(uint64_t{1} << 40).byte(archive::kNull).archive()},
      {"overlong varint", Payload().raw(std::string(10, '\x80')).raw("\x01").byte(archive::kNull).archive()},
      {"entry longer than the payload", Payload().varint(1).varint(1000).byte(archive::kData).archive()},
      {"empty entry", Payload().varint(1).varint(0).byte(archive::kRef).varint(0).archive()},
      {"reference past the table", Payload().varint(0).byte(archive::kRef).varint(0).archive()},
      {"unknown value tag", Payload().varint(0).byte(0x7f).archive()},
      {"unknown object tag", single(Payload().byte(0x7f))},
      {"string longer than the payload",
       Payload().varint(0).byte(archive::kString).varint(1u << 30).archive()},
      {"array claiming a million elements", single(Payload().byte(archive::kArray).varint(1000000))},
      {"absent inside an array", single(Payload().byte(archive::kArray).varint(1).byte(archive::kAbsent))},
      {"an array holding itself",
       single(Payload().byte(archive::kArray).varint(1).byte(archive::kRef).varint(0))},
      {"trailing bytes in an entry", single(Payload().byte(archive::kData).text("ab").byte(0))},
      {"unknown class", single(coded("NoSuchClassAnywhere")), PXKeyedArchiveDecodeClassError},
      {"class without PXCoding", single(coded("PXArchiveTestPlain")), PXKeyedArchiveDecodeClassError},
      {"class name past the limit", single(coded(longName)), PXKeyedArchiveDecodeLimitError},
      {"initWithCoder refuses",
       single(coded("PXArchiveTestRefuser", "raise", Payload().byte(archive::kFalse))),
       PXKeyedArchiveDecodeRejectedError},
      {"initWithCoder raises", single(coded("PXArchiveTestRefuser", "raise", Payload().byte(archive::kTrue))),
       PXKeyedArchiveDecodeRejectedError},
      {"32-bit field out of range", single(coded("PXArchiveTestNode", "small", int32TooBig))},
      {"text where a number belongs",
       single(coded("PXArchiveTestNode", "big", Payload().byte(archive::kString).text("12")))},
      {"nesting past the limit", nestedArrayArchive(kPXKeyedArchiveMaxDepth + 1),
       PXKeyedArchiveDecodeLimitError},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    PXErrorRef error;
    PXValue v = decodeBytes(row.bytes, &error);
    EXPECT_FALSE(v) << v.description().str();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), kPXKeyedArchiveErrorDomain);
    EXPECT_EQ(error->code(), row.code) << error->description().str();
  }
  EXPECT_FALSE(PXKeyedUnarchiver::unarchiveObjectWithData(PXRef<PXData>()));
  // Right at the limits: accepted.
  EXPECT_TRUE(decodeBytes(nestedArrayArchive(kPXKeyedArchiveMaxDepth)));
  // The wrong type for an object field is not an error: the typed read gives nothing.
  PXValue v =
      decodeBytes(single(coded("PXArchiveTestNode", "label", Payload().byte(archive::kInt).varint(2))));
  auto n = PXDynamicCast<PXArchiveTestNode>(v.objectValue());
  ASSERT_TRUE(n);
  EXPECT_FALSE(n->label);
}
