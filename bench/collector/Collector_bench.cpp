// The collector's ingest path (HTTP on loopback + the JSON codec + the store,
// receipt after commit) against the floor it stands on: the same rows written
// straight into SQLite, one transaction per papercut, as durable as the
// collector's. One papercut of 20 data sets per POST, over one keep-alive
// connection. PostgreSQL against SQLite through the same collector, for reference.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <glib.h>
#include <sqlite3.h>

#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CollectorServer.h"
#include "CollectorStore.h"
#include "CollectorTestSupport.h"
#include "support/PXBenchRatio.h"

namespace {

using namespace pxcollector;

constexpr int kDataSets = 20;

// A collector serving from a thread of its own, in this process.
class InProcessCollector {
 public:
  explicit InProcessCollector(const std::string& db) {
    std::promise<std::string> url;
    std::future<std::string> ready = url.get_future();
    thread_ = std::thread([this, db, &url] {
      GMainContext* context = g_main_context_new();
      g_main_context_push_thread_default(context);
      std::string error;
      std::unique_ptr<CollectorStore> store = openCollectorStore(db, &error);
      std::unique_ptr<CollectorServer> server;
      if (store) {
        CollectorOptions options;
        options.listen = "127.0.0.1:0";
        server = CollectorServer::start(*store, options, &error);
      }
      loop_ = g_main_loop_new(context, FALSE);
      url.set_value(server ? server->url() : "");
      if (!server) std::fprintf(stderr, "collector bench: %s\n", error.c_str());
      if (server) g_main_loop_run(loop_);
      server.reset();
      g_main_loop_unref(loop_);
      g_main_context_pop_thread_default(context);
      g_main_context_unref(context);
    });
    url_ = ready.get();
  }
  ~InProcessCollector() {
    if (!url_.empty())
      g_main_context_invoke(
          g_main_loop_get_context(loop_),
          [](gpointer loop) {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
          },
          loop_);
    thread_.join();
  }
  const std::string& url() const { return url_; }

 private:
  std::thread thread_;
  GMainLoop* loop_ = nullptr;
  std::string url_;
};

size_t discard(char*, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(size * count, ' ');
  return size * count;
}

void ingest(benchmark::State& state, const std::string& url) {
  if (url.empty()) return state.SkipWithError("no collector");
  CURL* curl = curl_easy_init();  // one handle: its connection is kept alive between POSTs
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  headers = curl_slist_append(headers, "Expect:");
  std::string answer, body;
  curl_easy_setopt(curl, CURLOPT_URL, (url + "/metrics/post").c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
  static long serial = 0;
  for (auto _ : state) {
    body = submissionJSON({papercutJSON("bench-" + std::to_string(++serial), 1764000000, kDataSets)});
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    answer.clear();
    long status = 0;
    if (curl_easy_perform(curl) != CURLE_OK ||
        (curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status), status != 200)) {
      state.SkipWithError("a submission failed");
      break;
    }
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  state.SetItemsProcessed(state.iterations());
}

void BM_Collector_IngestSQLite(benchmark::State& state) {
  TempDir dir;
  InProcessCollector collector(dir.path() + "/papercuts.db");
  ingest(state, collector.url());
}

void BM_Collector_IngestPostgreSQL(benchmark::State& state) {
  static PostgreSQLServer pg(/*durable=*/true);
  if (!pg.running()) return state.SkipWithError(("PostgreSQL cannot be started: " + pg.whyNot()).c_str());
  InProcessCollector collector(pg.uri());
  ingest(state, collector.url());
}

// The same rows, the same schema and statements, the same journal and sync
// settings, without HTTP or JSON: what a collector could at best approach.
void BM_SQLite_InsertPapercut(benchmark::State& state) {
  TempDir dir;
  sqlite3* db = nullptr;
  sqlite3_open((dir.path() + "/direct.db").c_str(), &db);
  sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON", nullptr,
               nullptr, nullptr);
  for (size_t i = 0; i < sql::kSchemaCount; ++i) sqlite3_exec(db, sql::kSchema[i], nullptr, nullptr, nullptr);
  auto prepare = [&](const char* text) {
    std::string converted(text);
    for (char& c : converted) c = c == '$' ? '?' : c;
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, converted.c_str(), -1, &s, nullptr);
    return s;
  };
  sqlite3_stmt* papercut = prepare(sql::kInsertPapercut);
  sqlite3_stmt* dataSet = prepare(sql::kInsertDataSet);
  sqlite3_stmt* begin = prepare("BEGIN IMMEDIATE");
  sqlite3_stmt* commit = prepare("COMMIT");
  const std::string record = papercutJSON("template", 1764000000, kDataSets);
  std::vector<std::string> identifiers, primaries;
  for (int i = 0; i < kDataSets; ++i) {
    identifiers.push_back(std::string("test.metric").append(std::to_string(i % 4)));
    primaries.push_back(std::string("p").append(std::to_string(i)));
  }
  long serial = 0;
  for (auto _ : state) {
    const std::string id = std::string("direct-").append(std::to_string(++serial));
    sqlite3_step(begin);
    sqlite3_reset(begin);
    sqlite3_bind_text(papercut, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(papercut, 2, "org.example.Editor", -1, SQLITE_STATIC);
    sqlite3_bind_text(papercut, 3, "1.2", -1, SQLITE_STATIC);
    sqlite3_bind_text(papercut, 4, "default", -1, SQLITE_STATIC);
    sqlite3_bind_int64(papercut, 5, 1764000000);
    sqlite3_bind_int64(papercut, 6, dayOfTimestamp(1764000000));
    sqlite3_bind_int64(papercut, 7, 3);
    sqlite3_bind_text(papercut, 8, record.c_str(), -1, SQLITE_STATIC);
    while (sqlite3_step(papercut) == SQLITE_ROW) {
    }
    sqlite3_reset(papercut);
    for (int i = 0; i < kDataSets; ++i) {
      sqlite3_bind_text(dataSet, 1, id.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int64(dataSet, 2, i);
      sqlite3_bind_text(dataSet, 3, identifiers[i].c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_text(dataSet, 4, primaries[i].c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_text(dataSet, 5, "", -1, SQLITE_STATIC);
      sqlite3_bind_int64(dataSet, 6, i + 1);
      sqlite3_step(dataSet);
      sqlite3_reset(dataSet);
    }
    if (sqlite3_step(commit) != SQLITE_DONE) {
      state.SkipWithError(sqlite3_errmsg(db));
      break;
    }
    sqlite3_reset(commit);
  }
  for (sqlite3_stmt* s : {papercut, dataSet, begin, commit}) sqlite3_finalize(s);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_Collector_IngestSQLite)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_SQLite_InsertPapercut)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Collector_IngestPostgreSQL)->Unit(benchmark::kMicrosecond)->UseRealTime();

int main(int argc, char** argv) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const std::map<std::string, double> seconds = PXBenchRunAll(argc, argv);
  // Papercuts per second of the first over the second: the second's time over the first's.
  auto ratio = [&](const std::string& label, const std::string& a, const std::string& b) {
    auto x = seconds.find(a), y = seconds.find(b);
    if (x == seconds.end() || y == seconds.end() || x->second <= 0) return;
    PXBenchReportRatio(label, y->second / x->second);
  };
  ratio("collector-ingest-vs-sqlite-insert", "BM_Collector_IngestSQLite/real_time",
        "BM_SQLite_InsertPapercut/real_time");
  ratio("collector-ingest-postgresql-vs-sqlite", "BM_Collector_IngestPostgreSQL/real_time",
        "BM_Collector_IngestSQLite/real_time");
  curl_global_cleanup();
  return 0;
}
