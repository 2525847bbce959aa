#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>

#include <cctype>
#include <string>

#include "support/PXTestPaths.h"

namespace {

std::string minified(const std::string& text) {
  std::string out;
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString && c == '\\')
      out += text[i++];
    else if (c == '"')
      inString = !inString;
    if (inString || c == '"' || !std::isspace(static_cast<unsigned char>(c))) out += text[i];
  }
  return out;
}

}  // namespace

// Their numbers are written as "%.17g" writes them, so the text comes back unchanged.
TEST(JSONRoundTrip, CorporaAreWrittenBackByteForByte) {
  for (const char* name : {"canada.json", "citm_catalog.json"}) {
    SCOPED_TRACE(name);
    std::string text;
    try {
      if (!PXTestBenchDataDir().empty()) text = PXTestReadFile(PXTestBenchDataDir() + "/" + name);
    } catch (const std::exception&) {
    }
    if (text.empty()) GTEST_SKIP() << "corpus " << name << " not found (PXKIT_BENCH_DATA)";
    PXErrorRef error;
    PXValue doc = JSONDecoder::decoder()->objectWithUTF8String(text.data(), text.size(), &error);
    ASSERT_TRUE(doc) << error->localizedDescription().str();
    const std::string expected = minified(text);
    EXPECT_EQ(JSONDataWithOptions(doc, kPXJSONSerializeOptionNone, &error)->view(), expected);
    // Pretty output differs only in white space.
    EXPECT_EQ(minified(JSONStringWithOptions(doc, kPXJSONSerializeOptionPretty, &error).str()), expected);
    EXPECT_TRUE(JSONDecoder::decoder()->mutableObjectWithUTF8String(text.data(), text.size()).isEqual(doc));
  }
}
