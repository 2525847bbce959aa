#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>

#include <string>
#include <thread>
#include <vector>

#include "json/JSONTestDocuments.h"
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

// One number ("0.087") comes back with seventeen digits; the value is the same.
TEST(JSONRoundTrip, TwitterCorpusReadsBackEqual) {
  const std::string text = corpus("twitter.json");
  if (text.empty()) GTEST_SKIP() << "corpus twitter.json not found (PXKIT_BENCH_DATA)";
  PXErrorRef error;
  PXValue doc = JSONDecoder::decoder()->objectWithUTF8String(text.data(), text.size(), &error);
  ASSERT_TRUE(doc) << error->localizedDescription().str();
  PXString written = JSONString(doc);
  ASSERT_FALSE(written.isAbsent());
  EXPECT_TRUE(objectFromJSONString(written).isEqual(doc));
  std::string expected = minified(text);
  const size_t at = expected.find("0.087");
  ASSERT_NE(at, std::string::npos);
  expected.replace(at, 5, "0.086999999999999994");
  EXPECT_TRUE(written.view() == expected);
}

TEST(JSONRoundTrip, GeneratedValuesReadBackEqualInEveryLayout) {
  JSONTestDocuments generator(1);
  auto decoder = JSONDecoder::decoder();
  for (int i = 0; i < 1500; ++i) {
    const PXValue value = generator.value(1 + static_cast<int>(generator.pick(5)));
    for (JSONSerializeOptionFlags layout :
         {kPXJSONSerializeOptionNone, kPXJSONSerializeOptionPretty, kPXJSONSerializeOptionEscapeUnicode}) {
      PXErrorRef error;
      PXRef<PXData> written = JSONDataWithOptions(value, layout, &error);
      ASSERT_TRUE(written) << error->localizedDescription().str();
      PXValue back = decoder->objectWithData(written, &error);
      ASSERT_TRUE(back) << error->localizedDescription().str() << "\n" << written->view();
      ASSERT_TRUE(back.isEqual(value)) << written->view();
      ASSERT_TRUE(decoder->mutableObjectWithData(written).isEqual(value));
    }
  }
}

TEST(JSONRoundTrip, AcceptedDocumentsReadBackEqualAfterWriting) {
  JSONTestDocuments generator(2);
  auto strict = JSONDecoder::decoder();
  auto lenient = JSONDecoder::decoderWithParseOptions(kPXJSONParseOptionComments);
  for (int i = 0; i < 2000; ++i) {
    const bool comments = i % 4 == 0;
    const std::string text = generator.document(1 + static_cast<int>(generator.pick(5)), comments);
    PXErrorRef error;
    PXValue first = (comments ? lenient : strict)->objectWithUTF8String(text.data(), text.size(), &error);
    ASSERT_TRUE(first) << error->localizedDescription().str() << "\n" << text;
    PXString written = JSONString(first);
    ASSERT_FALSE(written.isAbsent()) << text;
    PXValue second = strict->objectWithUTF8String(written.c_str(), written.size(), &error);
    ASSERT_TRUE(second) << written.str();
    ASSERT_TRUE(second.isEqual(first)) << text << "\n" << written.str();
    // Writing is stable: the second value writes the same text.
    ASSERT_EQ(JSONString(second), written);
  }
}

// Results are ordinary immutable values: any thread may read and write them out
// while other threads decode with decoders of their own.
TEST(JSONRoundTrip, ThreadsShareResultsAndKeepTheirOwnDecoders) {
  JSONTestDocuments generator(4);
  std::vector<PXValue> documents;
  for (int i = 0; i < 20; ++i) documents.push_back(generator.value(4));
  std::vector<std::string> texts;
  for (const PXValue& doc : documents) texts.push_back(JSONString(doc).str());
  const PXValue shared = objectFromJSONString(PXString(texts[0]));
  ASSERT_TRUE(shared);
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      auto decoder = JSONDecoder::decoder();
      for (int round = 0; round < 25; ++round) {
        for (size_t i = 0; i < texts.size(); ++i) {
          PXValue parsed = decoder->objectWithUTF8String(texts[i].data(), texts[i].size());
          if (!parsed.isEqual(documents[i])) ++mismatches[t];
        }
        if (JSONString(shared).view() != texts[0]) ++mismatches[t];
        if (shared.isDictionary() && shared.dictionaryValue()->count() > 0) {
          const PXValue& key = shared.dictionaryValue()->entries().front().first;
          if (!shared.dictionaryValue()->objectForKey(key)) ++mismatches[t];
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
}
