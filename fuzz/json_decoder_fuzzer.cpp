// Fuzzes the JSON decoder, and the serializer on everything the decoder accepts.
//
// Input: the first byte chooses the parse options (its low four bits), the rest
// is the document. Every outcome must be orderly: a failure carries a codec error
// pointing inside the input; a success is a container that the serializer writes
// in every layout and that reads back, strictly, as an equal value — and the
// mutable form of the parse equals the immutable one.
//
// The same entry point runs in the ordinary test suite (tests/json), fed with
// its seeds and edits of them, so the properties hold without clang too.
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>
#include <pxkit/objects/PXDictionary.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void violated(const char* what) {
  std::fprintf(stderr, "json_decoder_fuzzer: %s\n", what);
  std::abort();
}

void check(bool condition, const char* what) {
  if (!condition) violated(what);
}

// One decoder per option set, reused across inputs so that its buffers and
// string cache carry state from one document to the next, as in real use.
JSONDecoder& decoderFor(unsigned options) {
  static PXRef<JSONDecoder> decoders[16];
  if (!decoders[options]) decoders[options] = JSONDecoder::decoderWithParseOptions(options);
  return *decoders[options];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const unsigned options = data[0] & kPXJSONParseOptionValidFlags;
  const char* text = reinterpret_cast<const char*>(data + 1);
  const size_t length = size - 1;

  PXErrorRef error;
  PXValue value = decoderFor(options).objectWithUTF8String(text, length, &error);
  PXErrorRef mutableError;
  PXValue mutableValue = decoderFor(options).mutableObjectWithUTF8String(text, length, &mutableError);
  check(static_cast<bool>(value) == static_cast<bool>(mutableValue), "the two forms disagree on acceptance");

  if (!value) {
    check(error && mutableError, "a failure without an error");
    check(error->domain() == kPXJSONErrorDomain && error->code() == -1,
          "a failure outside the codec's domain");
    check(!error->localizedDescription().empty(), "a failure without a message");
    const PXValue* at = error->userInfo()->find(PXValue(kPXJSONAtIndexKey));
    const PXValue* line = error->userInfo()->find(PXValue(kPXJSONLineNumberKey));
    check(at && line, "a failure without its position");
    check(at->unsignedLongLongValue() <= length, "an error index past the input");
    check(line->unsignedLongLongValue() >= 1 && line->unsignedLongLongValue() <= length + 1,
          "an impossible line number");
    check(error->localizedDescription() == mutableError->localizedDescription(),
          "the two forms fail differently");
    return 0;
  }

  check(value.isArray() || value.isDictionary(), "a top-level value that is not a container");
  check(value.isEqual(mutableValue), "the mutable form differs");
  check(static_cast<bool>(value.isArray() ? static_cast<bool>(mutableValue.mutableArrayValue())
                                          : static_cast<bool>(mutableValue.mutableDictionaryValue())),
        "the mutable form is not mutable");

  const JSONSerializeOptionFlags layouts[] = {kPXJSONSerializeOptionNone, kPXJSONSerializeOptionPretty,
                                              kPXJSONSerializeOptionEscapeUnicode};
  for (JSONSerializeOptionFlags layout : layouts) {
    PXErrorRef writeError;
    PXRef<PXData> written = JSONDataWithOptions(value, layout, &writeError);
    check(static_cast<bool>(written), "a parsed value that cannot be written");
    PXErrorRef readError;
    PXValue reread = JSONDecoder::decoder()->objectWithData(written, &readError);
    check(static_cast<bool>(reread), "written output that does not read back strictly");
    check(reread.isEqual(value), "written output that reads back as another value");
  }
  return 0;
}
