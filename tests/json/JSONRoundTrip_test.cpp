#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>

#include <string>

#include "support/PXTestPaths.h"

namespace {

// The document without the white space between its tokens.
std::string minified(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      out += c;
      if (c == '\\') {
        out += text[++i];
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
      out += c;
    } else if (c != ' ' && c != '\t' && c != '\n' && c != '\r') {
      out += c;
    }
  }
  return out;
}

std::string corpus(const char* name) {
  const std::string dir = PXTestBenchDataDir();
  if (dir.empty()) return {};
  try {
    return PXTestReadFile(dir + "/" + name);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace

// Their numbers are written as "%.17g" writes them, so the text comes back unchanged.
TEST(JSONRoundTrip, CorporaAreWrittenBackByteForByte) {
  for (const char* name : {"canada.json", "citm_catalog.json"}) {
    SCOPED_TRACE(name);
    const std::string text = corpus(name);
    if (text.empty()) GTEST_SKIP() << "corpus " << name << " not found (PXKIT_BENCH_DATA)";
    PXErrorRef error;
    PXValue doc = JSONDecoder::decoder()->objectWithUTF8String(text.data(), text.size(), &error);
    ASSERT_TRUE(doc) << error->localizedDescription().str();
    PXRef<PXData> written = JSONDataWithOptions(doc, kPXJSONSerializeOptionNone, &error);
    ASSERT_TRUE(written);
    const std::string expected = minified(text);
    ASSERT_EQ(written->length(), expected.size());
    EXPECT_TRUE(written->view() == expected);
    // Pretty output differs only in white space, and the mutable parse reads the same.
    PXString pretty = JSONStringWithOptions(doc, kPXJSONSerializeOptionPretty, &error);
    EXPECT_EQ(minified(pretty.str()), expected);
    PXValue mutableDoc =
        JSONDecoder::decoder()->mutableObjectWithUTF8String(text.data(), text.size(), &error);
    EXPECT_TRUE(mutableDoc.isEqual(doc));
  }
}
