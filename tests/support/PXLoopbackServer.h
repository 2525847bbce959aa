// A real HTTP and HTTPS server inside the test process, on 127.0.0.1.
//
// libsoup 3's SoupServer answers on an ephemeral port, on a thread and main
// context of its own, with handlers that tests install per path. Beside it a
// raw listener plays servers that misbehave at the byte level (a body cut
// short, a reset in the middle, a reply that is not HTTP, a stall).
//
//   PXLoopbackServer server({.https = true});
//   server.handle("/hello", [](const PXLoopbackServer::Request& r) {
//     return PXLoopbackServer::Response("hi " + r.method).header("X-Reply", "yes");
//   });
//   std::string url = server.url("/hello");            // http://127.0.0.1:PORT/hello
//   std::string secure = server.httpsURL("/hello");    // https://127.0.0.1:PORT2/hello
//   ... run the client ...
//   EXPECT_EQ(server.acceptedConnections(), 1);        // keep-alive reuse, proven
//
//   server.handleRaw("/cut", PXLoopbackServer::RawResponse("HTTP/1.1 200 OK\r\nContent-Length:
//   10\r\n\r\nabc",
//                                                          PXLoopbackServer::RawEnding::Close));
//   std::string cut = server.rawURL("/cut");
//
// HTTPS: the certificate is made when the server starts, by the openssl
// command-line tool (an EC P-256 key, self-signed, valid for 127.0.0.1 and
// "localhost", one day), in a temporary directory removed with the server.
// certificateFile() is its PEM file: give it to the client as the one
// certificate authority to trust. GIO's TLS comes from glib-networking.
//
// Connection counting: every TCP connection the SoupServer accepts (plain or
// TLS) counts once, when its first request starts; every raw connection counts
// in rawConnections().
//
// Thread safety: every member may be called from any thread. Handlers run on
// the server's thread; a handler must not block.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

class PXLoopbackServer {
 public:
  struct Options {
    bool https = false;        // also listen with TLS (makes a certificate)
    bool keepRequests = true;  // keep a copy of every request for requests() (off for long runs)
  };

  struct Request {
    std::string method;
    std::string path;
    std::string query;  // without "?"; empty when none
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // The value of a header field (case-insensitive name); empty when absent.
    std::string header(std::string_view name) const;
    bool hasHeader(std::string_view name) const;
  };

  enum class Encoding { ContentLength, Chunked };

  struct Response {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    Encoding encoding = Encoding::ContentLength;

    Response() = default;
    explicit Response(std::string text, int code = 200) : status(code), body(std::move(text)) {}
    Response&& header(std::string name, std::string value) && {
      headers.emplace_back(std::move(name), std::move(value));
      return std::move(*this);
    }
    Response&& chunked() && {
      encoding = Encoding::Chunked;
      return std::move(*this);
    }
  };
  using Handler = std::function<Response(const Request&)>;

  // How a raw reply ends after its bytes are written.
  enum class RawEnding {
    Close,  // an orderly close (FIN)
    Reset,  // an abortive close (RST)
    Stall,  // keep the connection open, silent, until the server stops
  };
  struct RawResponse {
    std::string bytes;
    RawEnding ending = RawEnding::Close;
    // Bytes streamed after `bytes`: `streamLength` bytes of a repeating pattern
    // (byte i is PXLoopbackServer::patternByte(i)), written in blocking sends.
    uint64_t streamLength = 0;

    RawResponse() = default;
    explicit RawResponse(std::string head, RawEnding end = RawEnding::Close, uint64_t stream = 0)
        : bytes(std::move(head)), ending(end), streamLength(stream) {}
  };

  PXLoopbackServer();
  explicit PXLoopbackServer(Options options);
  ~PXLoopbackServer();
  PXLoopbackServer(const PXLoopbackServer&) = delete;
  PXLoopbackServer& operator=(const PXLoopbackServer&) = delete;

  // Installs (or replaces) the handler of an exact path. Paths without one get
  // 404 "no handler".
  void handle(const std::string& path, Handler handler);
  // Installs the raw reply of an exact path on the raw listener.
  void handleRaw(const std::string& path, RawResponse response);

  std::string url(std::string_view path) const;       // http://127.0.0.1:<port><path>
  std::string httpsURL(std::string_view path) const;  // empty without Options::https
  std::string rawURL(std::string_view path) const;    // the raw listener
  uint16_t port() const noexcept { return port_; }
  // The HTTPS certificate's PEM file; empty without Options::https.
  const std::string& certificateFile() const noexcept { return certificateFile_; }

  // Connections accepted by the SoupServer, plain and TLS.
  int acceptedConnections() const noexcept { return accepted_.load(); }
  int rawConnections() const noexcept { return rawAccepted_.load(); }
  // Every request the SoupServer handled, in order (copies); empty without
  // Options::keepRequests.
  std::vector<Request> requests() const;
  // A port on 127.0.0.1 that nothing listens on (bound, then closed).
  static uint16_t refusedPort();
  // The byte at `offset` of a streamed raw body.
  static char patternByte(uint64_t offset) noexcept { return static_cast<char>('a' + offset % 23); }
  // Whether `bytes` are the streamed body's bytes from `offset` on.
  static bool matchesPattern(uint64_t offset, std::string_view bytes) noexcept;

 private:
  struct Soup;  // the SoupServer side, on its own thread
  void serveRaw(int fd);
  void runRawAcceptor();

  Options options_;
  std::unique_ptr<Soup> soup_;
  uint16_t port_ = 0;
  uint16_t httpsPort_ = 0;
  uint16_t rawPort_ = 0;
  std::string tempDirectory_;
  std::string certificateFile_;

  mutable std::mutex lock_;
  std::map<std::string, Handler> handlers_;
  std::map<std::string, RawResponse> rawResponses_;
  std::vector<Request> requests_;
  std::atomic<int> accepted_{0};
  std::atomic<int> rawAccepted_{0};

  int rawListener_ = -1;
  int stopPipe_[2] = {-1, -1};  // written once when the server stops
  std::thread rawAcceptor_;
  std::vector<std::thread> rawConnections_;  // guarded by lock_
  friend struct Soup;
};
