// pxkit-collector — the HTTP side: ingest, query API and dashboard on SoupServer.
//
//   POST /metrics/post   a submission document in, a receipt out
//   GET  /api/metrics    ?identifier=ID[&from=YYYY-MM-DD][&to=YYYY-MM-DD]: daily sums
//   GET  /api/summary    applications, versions, channels, OS versions, papercuts per day
//   GET  /               the dashboard (?metric=ID picks the plotted metric)
//
//   std::string error;
//   auto server = CollectorServer::start(*store, options, &error);   // listening now
//   printf("listening on %s\n", server->url().c_str());
//   g_main_loop_run(loop);                                           // serves from the loop
//
// Every answer but a receipt, a summary, a metric series or the dashboard is a
// JSON object {"error": "..."} with a 4xx status (5xx when the store fails); a
// receipt is sent only after the store has made the submission durable.
//
// Thread safety: the server and its store belong to the thread whose GLib main
// context was the thread-default one at start(); it serves from that context.
#pragma once

#include <libsoup/soup.h>

#include <cstddef>
#include <memory>
#include <string>

#include "CollectorStore.h"
#include "platform/internal/GLibHandles.h"

namespace pxcollector {

// The largest request body accepted by default, in bytes (answered 413 above it).
inline constexpr size_t kDefaultMaxBodyBytes = 16u * 1024u * 1024u;
// Where the collector listens unless told otherwise.
inline constexpr const char* kDefaultListen = "127.0.0.1:8457";

struct CollectorOptions {
  std::string listen = kDefaultListen;  // "ADDR:PORT", "[V6ADDR]:PORT"; port 0 picks a free one
  std::string token;                    // required for the query API and dashboard when not empty
  size_t maxBodyBytes = kDefaultMaxBodyBytes;
};

// Splits "ADDR:PORT" / "[ADDR]:PORT"; false when it is not of that form.
bool parseListenAddress(const std::string& text, std::string* address, unsigned* port);

class CollectorServer {
 public:
  // Listens as `options` say, serving from the thread-default main context.
  // Refuses (null, `error` set) an address it cannot parse or bind, and a
  // non-loopback address without a token. `store` must outlive the server.
  static std::unique_ptr<CollectorServer> start(CollectorStore& store, const CollectorOptions& options,
                                                std::string* error);
  ~CollectorServer();
  CollectorServer(const CollectorServer&) = delete;
  CollectorServer& operator=(const CollectorServer&) = delete;

  // "http://ADDR:PORT" with the port actually bound.
  const std::string& url() const { return url_; }

 private:
  CollectorServer(CollectorStore& store, const CollectorOptions& options);
  static void handleEarly(SoupServer*, SoupServerMessage* msg, const char* path, GHashTable*, void* self);
  static void handle(SoupServer*, SoupServerMessage* msg, const char* path, GHashTable* query, void* self);
  void ingest(SoupServerMessage* msg);
  void apiMetrics(SoupServerMessage* msg, GHashTable* query);
  void apiSummary(SoupServerMessage* msg);
  void dashboard(SoupServerMessage* msg, GHashTable* query);
  bool authorized(SoupServerMessage* msg, GHashTable* query) const;

  CollectorStore& store_;
  CollectorOptions options_;
  pxkit::glib::Object<SoupServer> server_;
  std::string url_;
};

}  // namespace pxcollector
