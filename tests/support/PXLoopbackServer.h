// A real HTTP(S) server on 127.0.0.1 in the test process (libsoup 3, on a thread and main context
// of its own) with per-path handlers, and a raw listener for byte-level misbehaviour (a body cut
// short, a reset, a reply that is not HTTP, a stall). HTTPS uses a certificate for 127.0.0.1 that
// openssl makes at start: certificateFile() is the PEM for the client to trust. Every member may be
// called from any thread; handlers run on the server's thread and must not block.
//
//   PXLoopbackServer server({.https = true});
//   server.handle("/hello", [](const auto& r) { return PXLoopbackServer::Response("hi " + r.method); });
//   EXPECT_EQ(server.acceptedConnections(), 1);   // keep-alive reuse, proven
#pragma once

#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class PXLoopbackServer {
 public:
  struct Options {
    bool https = false;        // also listen with TLS
    bool keepRequests = true;  // keep a copy of every request for requests() (off for long runs)
  };
  struct Request {
    std::string method, path, query;  // query without "?"
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::string header(std::string_view name) const {  // case-insensitive; empty when absent
      auto found =
          std::find_if(headers.begin(), headers.end(), [&](const auto& f) { return named(f, name); });
      return found == headers.end() ? "" : found->second;
    }
    bool hasHeader(std::string_view name) const {
      return std::any_of(headers.begin(), headers.end(), [&](const auto& f) { return named(f, name); });
    }
    static bool named(const std::pair<std::string, std::string>& field, std::string_view name) {
      return field.first.size() == name.size() &&
             strncasecmp(field.first.data(), name.data(), name.size()) == 0;
    }
  };
  struct Response {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    bool isChunked = false;

    Response() = default;
    explicit Response(std::string text, int code = 200) : status(code), body(std::move(text)) {}
    Response&& header(std::string name, std::string value) && {
      headers.emplace_back(std::move(name), std::move(value));
      return std::move(*this);
    }
    Response&& chunked() && {
      isChunked = true;
      return std::move(*this);
    }
  };
  using Handler = std::function<Response(const Request&)>;

  // How a raw reply ends: FIN, RST, or silence until the server stops.
  enum class RawEnding { Close, Reset, Stall };
  struct RawResponse {
    std::string bytes;
    RawEnding ending = RawEnding::Close;
    uint64_t streamLength = 0;  // then this many bytes of patternByte(0), patternByte(1), ...

    RawResponse() = default;
    explicit RawResponse(std::string head, RawEnding end = RawEnding::Close, uint64_t stream = 0)
        : bytes(std::move(head)), ending(end), streamLength(stream) {}
  };

  PXLoopbackServer() : PXLoopbackServer(Options{}) {}
  explicit PXLoopbackServer(Options options);
  ~PXLoopbackServer();
  PXLoopbackServer(const PXLoopbackServer&) = delete;
  PXLoopbackServer& operator=(const PXLoopbackServer&) = delete;

  // Installs the handler of an exact path; other paths get 404 "no handler".
  void handle(const std::string& path, Handler handler);
  void handleRaw(const std::string& path, RawResponse response);

  std::string url(std::string_view path) const { return address(port_, "http", path); }
  std::string httpsURL(std::string_view path) const { return address(httpsPort_, "https", path); }
  std::string rawURL(std::string_view path) const { return address(rawPort_, "http", path); }
  uint16_t port() const noexcept { return port_; }
  const std::string& certificateFile() const noexcept { return certificateFile_; }

  // TCP connections (plain and TLS) the SoupServer served a request on.
  int acceptedConnections() const noexcept { return accepted_.load(); }
  std::vector<Request> requests() const;
  // A port on 127.0.0.1 that nothing listens on.
  static uint16_t refusedPort();
  static char patternByte(uint64_t offset) noexcept { return static_cast<char>('a' + offset % 23); }
  // Whether `bytes` are the streamed raw body's bytes from `offset` on.
  static bool matchesPattern(uint64_t offset, std::string_view bytes) noexcept;

 private:
  struct Soup;  // the SoupServer, on its own thread
  static std::string address(uint16_t port, const char* scheme, std::string_view path);

  Options options_;
  std::unique_ptr<Soup> soup_;
  uint16_t port_ = 0, httpsPort_ = 0, rawPort_ = 0;
  std::string tempDirectory_, certificateFile_;

  mutable std::mutex lock_;
  std::map<std::string, Handler> handlers_;
  std::map<std::string, RawResponse> rawResponses_;
  std::vector<Request> requests_;
  std::atomic<int> accepted_{0};
};
