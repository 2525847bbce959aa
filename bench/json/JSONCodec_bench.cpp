// The JSON codec beside RapidJSON, simdjson and nlohmann/json, on the shared
// corpora (twitter, citm, canada): parsing into a tree, writing compact and
// pretty text. Each comparison is printed as a ratio of throughputs, ours over
// the peer's (above 1: we are faster).
#include <benchmark/benchmark.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>
#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/PXBenchRatio.h"

namespace {

struct Corpus {
  std::string name;  // twitter, citm, canada
  std::string text;
};

std::string dataDirectory() {
  if (const char* dir = std::getenv("PXKIT_BENCH_DATA"); dir && *dir) return dir;
  return PXKIT_DEFAULT_BENCH_DATA;
}

std::vector<Corpus> loadCorpora() {
  const std::pair<const char*, const char*> files[] = {
      {"twitter", "twitter.json"}, {"citm", "citm_catalog.json"}, {"canada", "canada.json"}};
  std::vector<Corpus> corpora;
  for (const auto& [name, file] : files) {
    std::ifstream in(dataDirectory() + "/" + file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "pxkit_bench_json: %s/%s not found, skipped\n", dataDirectory().c_str(), file);
      continue;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    corpora.push_back({name, buffer.str()});
  }
  return corpora;
}

constexpr unsigned kRapidJSONParseFlags =
    rapidjson::kParseValidateEncodingFlag | rapidjson::kParseFullPrecisionFlag;

// ---- Parsing -------------------------------------------------------------------

void parseImmutable(benchmark::State& state, const Corpus& corpus) {
  auto decoder = JSONDecoder::decoder();
  for (auto _ : state) {
    decoder->clearCache();  // every document starts cold
    PXValue doc = decoder->objectWithUTF8String(corpus.text.data(), corpus.text.size());
    if (!doc) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.text.size()));
}

void parseMutable(benchmark::State& state, const Corpus& corpus) {
  auto decoder = JSONDecoder::decoder();
  for (auto _ : state) {
    decoder->clearCache();
    PXValue doc = decoder->mutableObjectWithUTF8String(corpus.text.data(), corpus.text.size());
    if (!doc) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.text.size()));
}

void parseRapidJSON(benchmark::State& state, const Corpus& corpus) {
  for (auto _ : state) {
    rapidjson::Document doc;
    doc.Parse<kRapidJSONParseFlags>(corpus.text.data(), corpus.text.size());
    if (doc.HasParseError()) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.text.size()));
}

void parseSimdjson(benchmark::State& state, const Corpus& corpus) {
  simdjson::padded_string padded(corpus.text);
  simdjson::dom::parser parser;
  for (auto _ : state) {
    simdjson::dom::element doc;
    if (parser.parse(padded).get(doc)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.text.size()));
}

void parseNlohmann(benchmark::State& state, const Corpus& corpus) {
  for (auto _ : state) {
    nlohmann::json doc = nlohmann::json::parse(corpus.text);
    benchmark::DoNotOptimize(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.text.size()));
}

// ---- Writing -------------------------------------------------------------------

void serialize(benchmark::State& state, const Corpus& corpus, JSONSerializeOptionFlags options) {
  PXValue doc = JSONDecoder::decoder()->objectWithUTF8String(corpus.text.data(), corpus.text.size());
  size_t bytes = 0;
  for (auto _ : state) {
    PXRef<PXData> out = JSONDataWithOptions(doc, options);
    if (!out) state.SkipWithError("serialize failed");
    bytes = out ? out->length() : 0;
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

template <class Writer>
void serializeRapidJSON(benchmark::State& state, const Corpus& corpus) {
  rapidjson::Document doc;
  doc.Parse<kRapidJSONParseFlags>(corpus.text.data(), corpus.text.size());
  size_t bytes = 0;
  for (auto _ : state) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    doc.Accept(writer);
    bytes = buffer.GetSize();
    benchmark::DoNotOptimize(buffer.GetString());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

}  // namespace

int main(int argc, char** argv) {
  static const std::vector<Corpus> corpora = loadCorpora();
  for (const Corpus& c : corpora) {
    const Corpus* corpus = &c;
    auto add = [&](const std::string& name, void (*run)(benchmark::State&, const Corpus&)) {
      benchmark::RegisterBenchmark((name + "/" + corpus->name).c_str(), [run,
                                                                         corpus](benchmark::State& state) {
        run(state, *corpus);
      })->Unit(benchmark::kMillisecond);
    };
    add("BM_JSONParse_Immutable", parseImmutable);
    add("BM_JSONParse_Mutable", parseMutable);
    add("BM_RapidJSON_Parse", parseRapidJSON);
    add("BM_simdjson_Parse", parseSimdjson);
    add("BM_nlohmann_Parse", parseNlohmann);
    add("BM_JSONSerialize_Compact",
        [](benchmark::State& s, const Corpus& k) { serialize(s, k, kPXJSONSerializeOptionNone); });
    add("BM_RapidJSON_Write", serializeRapidJSON<rapidjson::Writer<rapidjson::StringBuffer>>);
    add("BM_JSONSerialize_Pretty",
        [](benchmark::State& s, const Corpus& k) { serialize(s, k, kPXJSONSerializeOptionPretty); });
    add("BM_RapidJSON_PrettyWrite", serializeRapidJSON<rapidjson::PrettyWriter<rapidjson::StringBuffer>>);
  }

  const std::map<std::string, double> seconds = PXBenchRunAll(argc, argv);
  // Ours over the peer's throughput: the peer's time over ours.
  auto ratio = [&](const std::string& label, const std::string& ours, const std::string& peer,
                   const std::string& corpus) {
    auto a = seconds.find(ours + "/" + corpus), b = seconds.find(peer + "/" + corpus);
    if (a == seconds.end() || b == seconds.end() || a->second <= 0) return;
    PXBenchReportRatio(label + "-" + corpus, b->second / a->second);
  };
  for (const Corpus& c : corpora) {
    ratio("json-parse-vs-rapidjson", "BM_JSONParse_Immutable", "BM_RapidJSON_Parse", c.name);
    ratio("json-parse-mutable-vs-immutable", "BM_JSONParse_Mutable", "BM_JSONParse_Immutable", c.name);
    ratio("json-parse-vs-simdjson", "BM_JSONParse_Immutable", "BM_simdjson_Parse", c.name);
    ratio("json-parse-vs-nlohmann", "BM_JSONParse_Immutable", "BM_nlohmann_Parse", c.name);
    ratio("json-serialize-vs-rapidjson", "BM_JSONSerialize_Compact", "BM_RapidJSON_Write", c.name);
    ratio("json-pretty-vs-rapidjson", "BM_JSONSerialize_Pretty", "BM_RapidJSON_PrettyWrite", c.name);
  }
  return 0;
}
