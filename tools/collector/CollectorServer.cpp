// Request handling: one handler for every path, an early one that refuses an
// oversized submission before its body is read.
#include "CollectorServer.h"

#include <pxkit/json/JSONSerializer.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>

#include <cstring>

#include "Dashboard.h"

namespace pxcollector {
namespace {

constexpr const char* kIngestPath = "/metrics/post";

void answer(SoupServerMessage* msg, unsigned status, const std::string& contentType,
            const std::string& body) {
  soup_server_message_set_status(msg, status, nullptr);
  soup_server_message_set_response(msg, contentType.c_str(), SOUP_MEMORY_COPY, body.data(), body.size());
}

void answerJSON(SoupServerMessage* msg, unsigned status, const PXValue& document) {
  answer(msg, status, "application/json", std::string(JSONString(document).view()));
}

void answerError(SoupServerMessage* msg, unsigned status, const std::string& text) {
  answerJSON(msg, status, PXDictionary::dictionaryWithEntries({{"error", text}}));
}

void answerMethodNotAllowed(SoupServerMessage* msg, const char* allowed) {
  soup_message_headers_replace(soup_server_message_get_response_headers(msg), "Allow", allowed);
  answerError(
      msg, SOUP_STATUS_METHOD_NOT_ALLOWED,
      std::string("method ") + soup_server_message_get_method(msg) + " is not allowed here; use " + allowed);
}

std::string tooLarge(size_t limit) {
  return "the body is larger than the limit of " + std::to_string(limit) + " bytes";
}

const char* queryValue(GHashTable* query, const char* key) {
  return query ? static_cast<const char*>(g_hash_table_lookup(query, key)) : nullptr;
}

// Compares in time that does not depend on where the texts first differ.
bool sameSecret(const std::string& expected, const char* given) {
  const size_t n = strlen(given);
  if (n != expected.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < n; ++i) diff |= static_cast<unsigned char>(expected[i] ^ given[i]);
  return diff == 0;
}

PXValue labelCounts(const std::vector<LabelCount>& rows, const char* labelKey, const char* detailKey) {
  auto list = PXMutableArray::array();
  for (const LabelCount& row : rows) {
    std::vector<PXDictionary::Entry> entries{{labelKey, row.label}};
    if (detailKey) entries.emplace_back(detailKey, row.detail);
    entries.emplace_back("papercuts", static_cast<long long>(row.count));
    list->addObject(PXDictionary::dictionaryWithEntries(std::move(entries)));
  }
  return list;
}

}  // namespace

bool parseListenAddress(const std::string& text, std::string* address, unsigned* port) {
  size_t colon;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') return false;
    *address = text.substr(1, close - 1);
    colon = close + 1;
  } else {
    colon = text.rfind(':');
    if (colon == std::string::npos || text.find(':') != colon) return false;
    *address = text.substr(0, colon);
  }
  const std::string digits = text.substr(colon + 1);
  if (address->empty() || digits.empty() || digits.size() > 5) return false;
  unsigned value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value > 65535) return false;
  *port = value;
  return true;
}

CollectorServer::CollectorServer(CollectorStore& store, const CollectorOptions& options)
    : store_(store), options_(options) {}

CollectorServer::~CollectorServer() {
  if (server_) soup_server_disconnect(server_.get());
}

std::unique_ptr<CollectorServer> CollectorServer::start(CollectorStore& store,
                                                        const CollectorOptions& options, std::string* error) {
  std::string host;
  unsigned port = 0;
  if (!parseListenAddress(options.listen, &host, &port)) {
    *error = "cannot read the listening address \"" + options.listen + "\" (expected ADDR:PORT)";
    return nullptr;
  }
  pxkit::glib::Object<GInetAddress> address(g_inet_address_new_from_string(host.c_str()));
  if (!address) {
    *error = "\"" + host + "\" is not an IP address";
    return nullptr;
  }
  // Ingest is open (applications send no credentials); what was collected is not.
  if (!g_inet_address_get_is_loopback(address.get()) && options.token.empty()) {
    *error =
        "listening on " + options.listen + " (not loopback) needs --token for the query API and dashboard";
    return nullptr;
  }
  std::unique_ptr<CollectorServer> server(new CollectorServer(store, options));
  server->server_.reset(soup_server_new("server-header", "pxkit-collector ", nullptr));
  soup_server_add_early_handler(server->server_.get(), kIngestPath, handleEarly, server.get(), nullptr);
  // Both handlers on the ingest path: SoupServer picks one entry per path, so an
  // entry with only an early handler would leave ingest without its handler.
  soup_server_add_handler(server->server_.get(), kIngestPath, handle, server.get(), nullptr);
  soup_server_add_handler(server->server_.get(), nullptr, handle, server.get(), nullptr);
  pxkit::glib::Object<GSocketAddress> socketAddress(
      g_inet_socket_address_new(address.get(), static_cast<guint16>(port)));
  pxkit::glib::Error listenError;
  if (!soup_server_listen(server->server_.get(), socketAddress.get(), static_cast<SoupServerListenOptions>(0),
                          pxkit::glib::out(listenError))) {
    *error =
        "cannot listen on " + options.listen + ": " + (listenError ? listenError->message : "unknown error");
    return nullptr;
  }
  GSList* uris = soup_server_get_uris(server->server_.get());
  if (uris) {
    GUri* uri = static_cast<GUri*>(uris->data);
    const bool v6 = host.find(':') != std::string::npos;
    server->url_ = "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(g_uri_get_port(uri));
  }
  g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
  return server;
}

// ---- Ingest ---------------------------------------------------------------------

void CollectorServer::handleEarly(SoupServer*, SoupServerMessage* msg, const char* path, GHashTable*,
                                  void* self) {
  auto* server = static_cast<CollectorServer*>(self);
  if (strcmp(path, kIngestPath) != 0 || strcmp(soup_server_message_get_method(msg), "POST") != 0) return;
  SoupMessageHeaders* headers = soup_server_message_get_request_headers(msg);
  // Decided from the headers, so that an oversized body is never read at all.
  switch (soup_message_headers_get_encoding(headers)) {
    case SOUP_ENCODING_CONTENT_LENGTH:
      if (static_cast<uint64_t>(soup_message_headers_get_content_length(headers)) >
          server->options_.maxBodyBytes)
        answerError(msg, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE, tooLarge(server->options_.maxBodyBytes));
      break;
    case SOUP_ENCODING_NONE:
      break;
    default:
      answerError(msg, SOUP_STATUS_LENGTH_REQUIRED, "a submission needs a Content-Length");
      break;
  }
}

void CollectorServer::handle(SoupServer*, SoupServerMessage* msg, const char* path, GHashTable* query,
                             void* self) {
  auto* server = static_cast<CollectorServer*>(self);
  const char* method = soup_server_message_get_method(msg);
  const bool get = strcmp(method, "GET") == 0;
  if (strcmp(path, kIngestPath) == 0) {
    if (strcmp(method, "POST") != 0) return answerMethodNotAllowed(msg, "POST");
    return server->ingest(msg);
  }
  const bool metrics = strcmp(path, "/api/metrics") == 0, summary = strcmp(path, "/api/summary") == 0,
             page = strcmp(path, "/") == 0;
  if (!metrics && !summary && !page)
    return answerError(msg, SOUP_STATUS_NOT_FOUND, std::string("no such path: ") + path);
  if (!get) return answerMethodNotAllowed(msg, "GET");
  if (!server->authorized(msg, query)) {
    soup_message_headers_replace(soup_server_message_get_response_headers(msg), "WWW-Authenticate",
                                 "Bearer realm=\"pxkit-collector\"");
    return answerError(msg, SOUP_STATUS_UNAUTHORIZED, "a valid token is required");
  }
  if (metrics) return server->apiMetrics(msg, query);
  if (summary) return server->apiSummary(msg);
  return server->dashboard(msg, query);
}

void CollectorServer::ingest(SoupServerMessage* msg) {
  SoupMessageBody* body = soup_server_message_get_request_body(msg);
  pxkit::glib::Bytes bytes(soup_message_body_flatten(body));
  gsize length = 0;
  const char* data = static_cast<const char*>(g_bytes_get_data(bytes.get(), &length));
  if (length > options_.maxBodyBytes)
    return answerError(msg, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE, tooLarge(options_.maxBodyBytes));
  SubmissionReading reading = readSubmission(data ? data : "", length);
  if (!reading.error.empty()) return answerError(msg, SOUP_STATUS_BAD_REQUEST, reading.error);
  std::vector<std::string> named;
  std::string error;
  if (!store_.storeSubmission(reading.papercuts, reading.rejected, &named, &error)) {
    g_printerr("pxkit-collector: storing a submission failed: %s\n", error.c_str());
    return answerError(msg, SOUP_STATUS_SERVICE_UNAVAILABLE, "the submission could not be stored");
  }
  auto ids = PXMutableArray::array();
  for (const std::string& id : named) ids->addObject(id);
  answerJSON(msg, SOUP_STATUS_OK,
             PXDictionary::dictionaryWithEntries({{"processedPapercutPackageIDs", ids}}));
}

// ---- Query API and dashboard ------------------------------------------------------

bool CollectorServer::authorized(SoupServerMessage* msg, GHashTable* query) const {
  if (options_.token.empty()) return true;
  const char* header =
      soup_message_headers_get_one(soup_server_message_get_request_headers(msg), "Authorization");
  if (header && strncmp(header, "Bearer ", 7) == 0 && sameSecret(options_.token, header + 7)) return true;
  const char* param = queryValue(query, "token");
  return param && sameSecret(options_.token, param);
}

void CollectorServer::apiMetrics(SoupServerMessage* msg, GHashTable* query) {
  const char* identifier = queryValue(query, "identifier");
  if (!identifier || !*identifier)
    return answerError(msg, SOUP_STATUS_BAD_REQUEST, "\"identifier\" is required");
  const char* from = queryValue(query, "from");
  const char* to = queryValue(query, "to");
  const int64_t fromDay = from ? dayFromText(from) : 0;
  const int64_t toDay = to ? dayFromText(to) : dayFromText("9999-12-31");
  if (fromDay < 0 || toDay < 0)
    return answerError(msg, SOUP_STATUS_BAD_REQUEST, "\"from\" and \"to\" are dates written YYYY-MM-DD");
  std::vector<MetricDailySum> rows;
  std::string error;
  if (!store_.metricDailySums(identifier, fromDay, toDay, &rows, &error))
    return answerError(msg, SOUP_STATUS_SERVICE_UNAVAILABLE, "the store could not be read: " + error);
  auto days = PXMutableArray::array();
  for (const MetricDailySum& row : rows) {
    days->addObject(PXDictionary::dictionaryWithEntries({{"day", dayText(row.day)},
                                                         {"primary", row.primary},
                                                         {"secondary", row.secondary},
                                                         {"sum", static_cast<long long>(row.sum)}}));
  }
  answerJSON(
      msg, SOUP_STATUS_OK,
      PXDictionary::dictionaryWithEntries(
          {{"identifier", identifier}, {"from", dayText(fromDay)}, {"to", dayText(toDay)}, {"days", days}}));
}

void CollectorServer::apiSummary(SoupServerMessage* msg) {
  CollectorSummary summary;
  std::string error;
  if (!store_.summary(&summary, &error))
    return answerError(msg, SOUP_STATUS_SERVICE_UNAVAILABLE, "the store could not be read: " + error);
  auto perDay = PXMutableArray::array();
  for (const DayCount& day : summary.papercutsPerDay) {
    perDay->addObject(PXDictionary::dictionaryWithEntries(
        {{"day", dayText(day.day)}, {"papercuts", static_cast<long long>(day.count)}}));
  }
  answerJSON(msg, SOUP_STATUS_OK,
             PXDictionary::dictionaryWithEntries({
                 {"papercuts", static_cast<long long>(summary.papercuts)},
                 {"rejected", static_cast<long long>(summary.rejected)},
                 {"applications", labelCounts(summary.applications, "applicationID", nullptr)},
                 {"versions", labelCounts(summary.versions, "applicationID", "applicationVersion")},
                 {"channels", labelCounts(summary.channels, "channel", nullptr)},
                 {"osVersions", labelCounts(summary.osVersions, "osVersion", nullptr)},
                 {"papercutsPerDay", perDay},
             }));
}

void CollectorServer::dashboard(SoupServerMessage* msg, GHashTable* query) {
  CollectorSummary summary;
  std::vector<MetricDailySum> sums;
  std::string error;
  const char* chosen = queryValue(query, "metric");
  const std::string metric = chosen ? chosen : "common.launches";
  if (!store_.summary(&summary, &error) ||
      (!metric.empty() && !store_.metricDailySums(metric, 0, dayFromText("9999-12-31"), &sums, &error)))
    return answerError(msg, SOUP_STATUS_SERVICE_UNAVAILABLE, "the store could not be read: " + error);
  answer(msg, SOUP_STATUS_OK, "text/html; charset=utf-8",
         renderDashboard(summary, metric, sums, options_.token));
}

}  // namespace pxcollector
