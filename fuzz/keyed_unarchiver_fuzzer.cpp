// Fuzzes the keyed unarchiver, and the archiver on everything it accepts.
//
// Input: the first byte's low bit chooses how the rest is fed. 0: as it is, a
// whole archive (header and checksum included). 1: as an archive's contents,
// wrapped in a valid header with the right checksum, so that mutations reach
// the object table and the values instead of stopping at the checksum.
//
// Every outcome must be orderly: absent with an error in the archive domain, or
// a value (absent without an error only for an archive of nothing). A value
// archives again, reads back, and archives to the same bytes: the format has
// one spelling for a graph.
//
// The same entry point runs in the ordinary test suite
// (tests/objects/PXKeyedArchiver_test.cpp), fed with mutated archives, so the
// properties hold without clang too.
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXKeyedArchiver.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "objects/internal/KeyedArchiveFormat.h"

// A coded object with a field of every kind, so archives can name a class.
class PXKeyedArchiveFuzzNode : public PXObject, public PXCoding {
  PX_DECLARE_CLASS(PXKeyedArchiveFuzzNode)

 public:
  // Every node alive, so cycles that the archive drew between them (reachable
  // from the root or not) can be cut after each input.
  static std::vector<PXKeyedArchiveFuzzNode*>& live() {
    static std::vector<PXKeyedArchiveFuzzNode*> nodes;
    return nodes;
  }
  PXKeyedArchiveFuzzNode() { live().push_back(this); }
  ~PXKeyedArchiveFuzzNode() override { std::erase(live(), this); }

  void encodeWithCoder(PXKeyedArchiver& coder) override {
    coder.encodeInt64(i, "i");
    coder.encodeInt(small, "small");
    coder.encodeDouble(d, "d");
    coder.encodeBool(b, "b");
    coder.encodeObject(s, "s");
    coder.encodeObject(o, "o");
  }
  bool initWithCoder(PXKeyedUnarchiver& coder) override {
    i = coder.decodeInt64ForKey("i");
    small = coder.decodeIntForKey("small");
    d = coder.decodeDoubleForKey("d");
    b = coder.decodeBoolForKey("b");
    s = coder.decodeStringForKey("s");
    o = coder.decodeObjectForKey("o");
    return !coder.containsValueForKey("reject");
  }

  int64_t i = 0;
  int32_t small = 0;
  double d = 0;
  bool b = false;
  PXString s;
  PXValue o;
};
PX_DEFINE_CLASS(PXKeyedArchiveFuzzNode, PXObject,
                [](PXClassBuilder<PXKeyedArchiveFuzzNode>& c) { c.factory(); })

namespace {

[[noreturn]] void violated(const char* what) {
  std::fprintf(stderr, "keyed_unarchiver_fuzzer: %s\n", what);
  std::abort();
}

void check(bool condition, const char* what) {
  if (!condition) violated(what);
}

// Nodes may refer to one another, or to themselves, in cycles that reference
// counting alone never frees: cut every node's reference.
void breakCycles() {
  std::vector<PXRef<PXKeyedArchiveFuzzNode>> nodes;
  for (PXKeyedArchiveFuzzNode* node : PXKeyedArchiveFuzzNode::live()) nodes.emplace_back(node);
  for (const auto& node : nodes) node->o = PXValue();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::span<const uint8_t> rest(data + 1, size - 1);
  std::vector<uint8_t> bytes = (data[0] & 1) ? pxkit::internal::archive::wrapPayload(rest)
                                             : std::vector<uint8_t>(rest.begin(), rest.end());

  PXErrorRef error;
  PXValue value = PXKeyedUnarchiver::unarchiveObjectWithBytes(bytes, &error);
  if (!value) {
    breakCycles();
    if (!error) {
      // Only an archive of nothing reads back as nothing without an error.
      check(bytes.size() > pxkit::internal::archive::kHeaderSize &&
                bytes.back() == pxkit::internal::archive::kAbsent,
            "absent without an error");
      return 0;
    }
    check(error->domain() == kPXKeyedArchiveErrorDomain, "a failure outside the archive domain");
    check(!error->localizedDescription().empty(), "a failure without a message");
    return 0;
  }
  check(!error, "a value with an error");

  PXErrorRef again;
  PXRef<PXData> first = PXKeyedArchiver::archivedDataWithRootObject(value, &again);
  check(static_cast<bool>(first), "a decoded graph does not archive again");
  PXValue back = PXKeyedUnarchiver::unarchiveObjectWithData(first, &again);
  check(static_cast<bool>(back), "a re-archived graph does not read back");
  PXRef<PXData> second = PXKeyedArchiver::archivedDataWithRootObject(back);
  check(second && second->isEqual(*first), "the same graph archives to different bytes");

  value = PXValue();
  back = PXValue();
  breakCycles();
  return 0;
}
