#include "support/PXLoopbackServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libsoup/soup.h>
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
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return g_ascii_tolower(x) == g_ascii_tolower(y); });
}

// A socket listening on an ephemeral port of 127.0.0.1, and that port.
std::pair<int, uint16_t> listenLoopback() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{
      .sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 64) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (fd >= 0) close(fd);
    throw std::runtime_error("PXLoopbackServer: cannot listen on 127.0.0.1");
  }
  return {fd, ntohs(address.sin_port)};
}

// Sends everything; false once the peer is gone.
bool sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
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
    try {
      const uint16_t plain = listen(server.get(), SoupServerListenOptions(0));
      uint16_t secure = 0;
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
      ready.set_value({plain, secure});
    } catch (...) {
      ready.set_exception(std::current_exception());
      return;
    }
    g_main_loop_run(mainLoop.get());
    soup_server_disconnect(server.get());
  }

  static uint16_t listen(SoupServer* server, SoupServerListenOptions options) {
    const auto [fd, port] = listenLoopback();
    pxkit::glib::Error error;
    pxkit::glib::Object<GSocket> socket(g_socket_new_from_fd(fd, pxkit::glib::out(error)));
    if (!socket) close(fd);
    if (!socket || !soup_server_listen_socket(server, socket.get(), options, pxkit::glib::out(error)))
      throw std::runtime_error(std::string("PXLoopbackServer: listen: ") + error->message);
    return port;
  }

  // Counts a connection the first time one of its requests starts.
  static void requestStarted(SoupServer*, SoupServerMessage* message, gpointer data) {
    GSocket* socket = soup_server_message_get_socket(message);
    if (!socket || g_object_get_data(G_OBJECT(socket), "pxkit-counted")) return;
    g_object_set_data(G_OBJECT(socket), "pxkit-counted", GINT_TO_POINTER(1));
    static_cast<PXLoopbackServer*>(data)->accepted_.fetch_add(1);
  }

  static void serve(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer data) {
    auto* owner = static_cast<PXLoopbackServer*>(data);
    Request request;
    request.method = soup_server_message_get_method(message);
    request.path = path ? path : "";
    if (const char* query = g_uri_get_query(soup_server_message_get_uri(message))) request.query = query;
    SoupMessageHeadersIter iter;
    soup_message_headers_iter_init(&iter, soup_server_message_get_request_headers(message));
    const char *name = nullptr, *value = nullptr;
    while (soup_message_headers_iter_next(&iter, &name, &value)) request.headers.emplace_back(name, value);
    pxkit::glib::Bytes body(soup_message_body_flatten(soup_server_message_get_request_body(message)));
    gsize length = 0;
    const char* bytes = static_cast<const char*>(g_bytes_get_data(body.get(), &length));
    request.body.assign(bytes ? bytes : "", length);

    Handler handler;
    {
      std::lock_guard guard(owner->lock_);
      if (owner->options_.keepRequests) owner->requests_.push_back(request);
      if (auto found = owner->handlers_.find(request.path); found != owner->handlers_.end())
        handler = found->second;
    }
    const Response response = handler ? handler(request) : Response("no handler", 404);
    soup_server_message_set_status(message, static_cast<guint>(response.status), nullptr);
    SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
    for (const auto& [field, text] : response.headers)
      soup_message_headers_append(headers, field.c_str(), text.c_str());
    if (response.isChunked) soup_message_headers_set_encoding(headers, SOUP_ENCODING_CHUNKED);
    SoupMessageBody* out = soup_server_message_get_response_body(message);
    soup_message_body_append(out, SOUP_MEMORY_COPY, response.body.data(), response.body.size());
    soup_message_body_complete(out);
  }
};

PXLoopbackServer::PXLoopbackServer(Options options) : options_(options) {
  if (options_.https) {
    char pattern[] = "/tmp/pxkit-loopback-XXXXXX";  // no blanks: the command line needs no quoting
    if (!mkdtemp(pattern)) throw std::runtime_error("PXLoopbackServer: mkdtemp failed");
    tempDirectory_ = pattern;
    certificateFile_ = tempDirectory_ + "/cert.pem";
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " +
        tempDirectory_ + "/key.pem -out " + certificateFile_ +
        " -days 1 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1,DNS:localhost";
    pxkit::glib::String out, err;  // openssl's chatter, dropped
    gint status = 0;
    if (!g_spawn_command_line_sync(command.c_str(), pxkit::glib::out(out), pxkit::glib::out(err), &status,
                                   nullptr) ||
        !g_spawn_check_wait_status(status, nullptr))
      throw std::runtime_error("PXLoopbackServer: openssl could not make a certificate");
  }
  soup_ = std::make_unique<Soup>();
  soup_->owner = this;
  std::promise<std::pair<uint16_t, uint16_t>> ready;
  soup_->thread = std::thread([this, &ready] { soup_->run(ready); });
  try {
    std::tie(port_, httpsPort_) = ready.get_future().get();
  } catch (...) {
    soup_->thread.join();
    throw;
  }
  std::tie(rawListener_, rawPort_) = listenLoopback();
  if (pipe2(stopPipe_, O_CLOEXEC) != 0) throw std::runtime_error("PXLoopbackServer: pipe failed");
  rawAcceptor_ = std::thread([this] {
    while (waitReadable(rawListener_)) {
      const int fd = accept4(rawListener_, nullptr, nullptr, SOCK_CLOEXEC);
      std::lock_guard guard(lock_);
      if (fd >= 0) rawConnections_.emplace_back([this, fd] { serveRaw(fd); });
    }
  });
}

PXLoopbackServer::~PXLoopbackServer() {
  if (stopPipe_[1] >= 0) (void)!write(stopPipe_[1], "", 1);
  if (rawAcceptor_.joinable()) rawAcceptor_.join();
  for (std::thread& connection : rawConnections_) connection.join();  // the acceptor, their maker, is gone
  for (int fd : {rawListener_, stopPipe_[0], stopPipe_[1]}) {
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
    for (const char* name : {"/cert.pem", "/key.pem"}) unlink((tempDirectory_ + name).c_str());
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

std::string PXLoopbackServer::address(uint16_t port, const char* scheme, std::string_view path) {
  return port ? std::string(scheme) + "://127.0.0.1:" + std::to_string(port) + std::string(path)
              : std::string();
}

std::vector<PXLoopbackServer::Request> PXLoopbackServer::requests() const {
  std::lock_guard guard(lock_);
  return requests_;
}

bool PXLoopbackServer::matchesPattern(uint64_t offset, std::string_view bytes) noexcept {
  return std::all_of(bytes.begin(), bytes.end(), [&](char byte) { return byte == patternByte(offset++); });
}

uint16_t PXLoopbackServer::refusedPort() {
  const auto [fd, port] = listenLoopback();
  close(fd);
  return port;
}

// Blocks until `fd` is readable (true) or the server stops (false); -1 waits for the stop alone.
bool PXLoopbackServer::waitReadable(int fd) const {
  pollfd fds[2] = {{stopPipe_[0], POLLIN, 0}, {fd, POLLIN, 0}};
  int ready;
  while ((ready = poll(fds, 2, -1)) < 0 && errno == EINTR) {
  }
  return ready > 0 && fds[0].revents == 0;
}

void PXLoopbackServer::serveRaw(int fd) {
  // The request's header (a GET: nothing follows it) names the path.
  std::string head;
  char buffer[4096];
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536 && waitReadable(fd)) {
    const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    if (got <= 0) break;
    head.append(buffer, static_cast<size_t>(got));
  }
  const size_t start = std::min(head.find(' '), head.size() - 1) + 1;
  const std::string path = head.substr(start, head.find_first_of(" ?", start) - start);
  RawResponse response("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
  {
    std::lock_guard guard(lock_);
    if (auto found = rawResponses_.find(path); found != rawResponses_.end()) response = found->second;
  }
  bool alive = sendAll(fd, response.bytes);
  std::string piece;
  for (uint64_t offset = 0; alive && offset < response.streamLength; offset += piece.size()) {
    piece.resize(static_cast<size_t>(std::min<uint64_t>(64 * 1024, response.streamLength - offset)));
    for (size_t i = 0; i < piece.size(); ++i) piece[i] = patternByte(offset + i);
    alive = sendAll(fd, piece);
  }
  if (response.ending == RawEnding::Reset) {
    const linger abortive{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  } else if (response.ending == RawEnding::Stall) {
    waitReadable(-1);
  }
  close(fd);
}
