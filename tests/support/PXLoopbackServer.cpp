#include "support/PXLoopbackServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libsoup/soup.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <future>
#include <stdexcept>

#include "platform/internal/GLibHandles.h"

namespace {

bool equalsNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return g_ascii_tolower(x) == g_ascii_tolower(y);
         });
}

uint16_t boundPort(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

int listenLoopback() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("PXLoopbackServer: socket() failed");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 64) != 0) {
    close(fd);
    throw std::runtime_error("PXLoopbackServer: cannot listen on 127.0.0.1");
  }
  return fd;
}

// Sends everything; false once the peer is gone.
bool sendAll(int fd, const char* bytes, size_t length) {
  while (length > 0) {
    ssize_t sent = send(fd, bytes, length, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes += sent;
    length -= static_cast<size_t>(sent);
  }
  return true;
}

}  // namespace

std::string PXLoopbackServer::Request::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (equalsNoCase(key, name)) return value;
  }
  return {};
}

bool PXLoopbackServer::Request::hasHeader(std::string_view name) const {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& field) { return equalsNoCase(field.first, name); });
}

// ---- The SoupServer, on a thread and main context of its own -------------------------------

struct PXLoopbackServer::Soup {
  PXLoopbackServer* owner;
  std::thread thread;
  // Made before the thread starts and freed after it has been joined.
  pxkit::glib::MainContext context{g_main_context_new()};
  pxkit::glib::MainLoop mainLoop{g_main_loop_new(context.get(), FALSE)};

  void run(std::promise<std::pair<uint16_t, uint16_t>>& ready) {
    pxkit::glib::ThreadDefaultContext current(context.get());
    pxkit::glib::Object<SoupServer> server(soup_server_new(nullptr, nullptr));
    g_signal_connect(server.get(), "request-started", G_CALLBACK(&Soup::requestStarted), owner);
    soup_server_add_handler(server.get(), nullptr, &Soup::serve, owner, nullptr);
    uint16_t plain = 0, secure = 0;
    try {
      plain = listen(server.get(), SoupServerListenOptions(0));
      if (owner->options_.https) {
        pxkit::glib::Error error;
        pxkit::glib::Object<GTlsCertificate> certificate(g_tls_certificate_new_from_files(
            owner->certificateFile_.c_str(), (owner->tempDirectory_ + "/key.pem").c_str(),
            pxkit::glib::out(error)));
        if (!certificate)
          throw std::runtime_error(std::string("PXLoopbackServer: certificate: ") + error->message);
        soup_server_set_tls_certificate(server.get(), certificate.get());
        secure = listen(server.get(), SOUP_SERVER_LISTEN_HTTPS);
      }
    } catch (...) {
      ready.set_exception(std::current_exception());
      return;
    }
    ready.set_value({plain, secure});
    g_main_loop_run(mainLoop.get());
    soup_server_disconnect(server.get());
  }

  // Listens on a new ephemeral port of 127.0.0.1 and returns it.
  static uint16_t listen(SoupServer* server, SoupServerListenOptions options) {
    const int fd = listenLoopback();
    const uint16_t port = boundPort(fd);
    pxkit::glib::Error error;
    pxkit::glib::Object<GSocket> socket(g_socket_new_from_fd(fd, pxkit::glib::out(error)));
    if (!socket) close(fd);
    if (!socket || !soup_server_listen_socket(server, socket.get(), options, pxkit::glib::out(error))) {
      throw std::runtime_error(std::string("PXLoopbackServer: listen: ") + error->message);
    }
    return port;
  }

  // Counts a connection the first time one of its requests starts.
  static void requestStarted(SoupServer*, SoupServerMessage* message, gpointer data) {
    auto* owner = static_cast<PXLoopbackServer*>(data);
    GSocket* socket = soup_server_message_get_socket(message);
    if (!socket || g_object_get_data(G_OBJECT(socket), "pxkit-counted")) return;
    g_object_set_data(G_OBJECT(socket), "pxkit-counted", GINT_TO_POINTER(1));
    owner->accepted_.fetch_add(1);
  }

  static void serve(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer data) {
    auto* owner = static_cast<PXLoopbackServer*>(data);
    Request request;
    request.method = soup_server_message_get_method(message);
    request.path = path ? path : "";
    GUri* uri = soup_server_message_get_uri(message);
    if (const char* query = g_uri_get_query(uri)) request.query = query;
    SoupMessageHeadersIter iter;
    soup_message_headers_iter_init(&iter, soup_server_message_get_request_headers(message));
    const char* name = nullptr;
    const char* value = nullptr;
    while (soup_message_headers_iter_next(&iter, &name, &value)) request.headers.emplace_back(name, value);
    pxkit::glib::Bytes body(soup_message_body_flatten(soup_server_message_get_request_body(message)));
    gsize length = 0;
    const char* bytes = static_cast<const char*>(g_bytes_get_data(body.get(), &length));
    request.body.assign(bytes ? bytes : "", length);

    Handler handler;
    {
      std::lock_guard guard(owner->lock_);
      if (owner->options_.keepRequests) owner->requests_.push_back(request);
      auto found = owner->handlers_.find(request.path);
      if (found != owner->handlers_.end()) handler = found->second;
    }
    Response response = handler ? handler(request) : Response("no handler", 404);
    soup_server_message_set_status(message, static_cast<guint>(response.status), nullptr);
    SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
    for (const auto& [field, text] : response.headers)
      soup_message_headers_append(headers, field.c_str(), text.c_str());
    if (response.encoding == Encoding::Chunked)
      soup_message_headers_set_encoding(headers, SOUP_ENCODING_CHUNKED);
    SoupMessageBody* responseBody = soup_server_message_get_response_body(message);
    if (!response.body.empty()) {
      soup_message_body_append(responseBody, SOUP_MEMORY_COPY, response.body.data(), response.body.size());
    }
    soup_message_body_complete(responseBody);
  }
};

// ---- Life ----------------------------------------------------------------------------------------------

PXLoopbackServer::PXLoopbackServer() : PXLoopbackServer(Options{.https = false, .keepRequests = true}) {}

PXLoopbackServer::PXLoopbackServer(Options options) : options_(options) {
  if (options_.https) {
    char pattern[] = "/tmp/pxkit-loopback-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("PXLoopbackServer: mkdtemp failed");
    tempDirectory_ = pattern;
    certificateFile_ = tempDirectory_ + "/cert.pem";
    // The directory's name holds no blanks: the command line needs no quoting.
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " +
        tempDirectory_ + "/key.pem -out " + certificateFile_ +
        " -days 1 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1,DNS:localhost";
    pxkit::glib::String out, err;  // openssl's chatter, dropped
    gint status = 0;
    if (!g_spawn_command_line_sync(command.c_str(), pxkit::glib::out(out), pxkit::glib::out(err), &status,
                                   nullptr) ||
        !g_spawn_check_wait_status(status, nullptr)) {
      throw std::runtime_error("PXLoopbackServer: openssl could not make a certificate");
    }
  }

  soup_ = std::make_unique<Soup>();
  soup_->owner = this;
  std::promise<std::pair<uint16_t, uint16_t>> ready;
  auto started = ready.get_future();
  soup_->thread = std::thread([this, &ready] { soup_->run(ready); });
  try {
    std::tie(port_, httpsPort_) = started.get();
  } catch (...) {
    soup_->thread.join();
    throw;
  }

  rawListener_ = listenLoopback();
  rawPort_ = boundPort(rawListener_);
  if (pipe2(stopPipe_, O_CLOEXEC) != 0) throw std::runtime_error("PXLoopbackServer: pipe failed");
  rawAcceptor_ = std::thread([this] { runRawAcceptor(); });
}

PXLoopbackServer::~PXLoopbackServer() {
  if (stopPipe_[1] >= 0) {
    char byte = 1;
    (void)!write(stopPipe_[1], &byte, 1);
  }
  if (rawAcceptor_.joinable()) rawAcceptor_.join();
  std::vector<std::thread> connections;
  {
    std::lock_guard guard(lock_);
    connections.swap(rawConnections_);
  }
  for (std::thread& connection : connections) connection.join();
  if (rawListener_ >= 0) close(rawListener_);
  for (int fd : stopPipe_) {
    if (fd >= 0) close(fd);
  }
  if (soup_ && soup_->thread.joinable()) {
    // Quit from inside the loop: a quit that came before the loop ran would be lost.
    pxkit::glib::Source quit(g_idle_source_new());
    g_source_set_callback(
        quit.get(),
        [](gpointer loop) {
          g_main_loop_quit(static_cast<GMainLoop*>(loop));
          return G_SOURCE_REMOVE;
        },
        soup_->mainLoop.get(), nullptr);
    g_source_attach(quit.get(), soup_->context.get());
    soup_->thread.join();
  }
  if (!tempDirectory_.empty()) {
    unlink(certificateFile_.c_str());
    unlink((tempDirectory_ + "/key.pem").c_str());
    rmdir(tempDirectory_.c_str());
  }
}

void PXLoopbackServer::handle(const std::string& path, Handler handler) {
  std::lock_guard guard(lock_);
  handlers_[path] = std::move(handler);
}

void PXLoopbackServer::handleRaw(const std::string& path, RawResponse response) {
  std::lock_guard guard(lock_);
  rawResponses_[path] = std::move(response);
}

std::string PXLoopbackServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

std::string PXLoopbackServer::httpsURL(std::string_view path) const {
  if (!httpsPort_) return {};
  return "https://127.0.0.1:" + std::to_string(httpsPort_) + std::string(path);
}

std::string PXLoopbackServer::rawURL(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(rawPort_) + std::string(path);
}

std::vector<PXLoopbackServer::Request> PXLoopbackServer::requests() const {
  std::lock_guard guard(lock_);
  return requests_;
}

bool PXLoopbackServer::matchesPattern(uint64_t offset, std::string_view bytes) noexcept {
  for (char byte : bytes) {
    if (byte != patternByte(offset++)) return false;
  }
  return true;
}

uint16_t PXLoopbackServer::refusedPort() {
  int fd = listenLoopback();
  uint16_t port = boundPort(fd);
  close(fd);
  return port;
}

// ---- The raw listener ----------------------------------------------------------------------------------

void PXLoopbackServer::runRawAcceptor() {
  for (;;) {
    pollfd fds[2] = {{rawListener_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    int fd = accept4(rawListener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    rawAccepted_.fetch_add(1);
    std::lock_guard guard(lock_);
    rawConnections_.emplace_back([this, fd] { serveRaw(fd); });
  }
}

void PXLoopbackServer::serveRaw(int fd) {
  // Reads the request's header (a GET: nothing follows it).
  std::string head;
  char buffer[4096];
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 || fds[1].revents) break;
    ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    if (got <= 0) break;
    head.append(buffer, static_cast<size_t>(got));
  }
  std::string path;
  size_t space = head.find(' ');
  if (space != std::string::npos) {
    size_t end = head.find_first_of(" ?", space + 1);
    path = head.substr(space + 1, end == std::string::npos ? std::string::npos : end - space - 1);
  }
  RawResponse response("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
  {
    std::lock_guard guard(lock_);
    auto found = rawResponses_.find(path);
    if (found != rawResponses_.end()) response = found->second;
  }
  bool alive = sendAll(fd, response.bytes.data(), response.bytes.size());
  std::string piece;
  for (uint64_t offset = 0; alive && offset < response.streamLength; offset += piece.size()) {
    piece.resize(static_cast<size_t>(std::min<uint64_t>(64 * 1024, response.streamLength - offset)));
    for (size_t i = 0; i < piece.size(); ++i) piece[i] = patternByte(offset + i);
    alive = sendAll(fd, piece.data(), piece.size());
  }
  if (response.ending == RawEnding::Reset) {
    linger abortive{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  } else if (response.ending == RawEnding::Stall) {
    pollfd stop{stopPipe_[0], POLLIN, 0};
    while (poll(&stop, 1, -1) < 0 && errno == EINTR) {
    }
  }
  close(fd);
}
