#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>

#include <string>

#include "support/PXTestPaths.h"

namespace {

// The document without the white space between its tokens.
std::string minified(const std::string& text) {
  std::string out;
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString && c == '\\') {
      out += text.substr(i++, 2);
    } else if (c == '"') {
      inString = !inString;
      out += c;
    } else if (inString || (c != ' ' && c != '\t' && c != '\n' && c != '\r')) {
      out += c;
    }
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
    // Pretty output differs only in white space, and the mutable parse reads the same.
    EXPECT_EQ(minified(JSONStringWithOptions(doc, kPXJSONSerializeOptionPretty, &error).str()), expected);
    EXPECT_TRUE(JSONDecoder::decoder()->mutableObjectWithUTF8String(text.data(), text.size()).isEqual(doc));
  }
}
