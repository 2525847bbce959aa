#include "support/PXLoopbackServer.h"

#include <libsoup/soup.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <stdexcept>
#include <thread>

#include "platform/internal/GLibHandles.h"

namespace {

// A socket listening on an ephemeral port of 127.0.0.1, and that port.
std::pair<pxkit::glib::Object<GSocket>, uint16_t> listenLoopback() {
  pxkit::glib::Object<GSocket> socket(
      g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, nullptr));
  pxkit::glib::Object<GInetAddress> loopback(g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4));
  pxkit::glib::Object<GSocketAddress> any(g_inet_socket_address_new(loopback.get(), 0));
  if (!socket || !g_socket_bind(socket.get(), any.get(), FALSE, nullptr) ||
      !g_socket_listen(socket.get(), nullptr))
    throw std::runtime_error("PXLoopbackServer: cannot listen on 127.0.0.1");
  pxkit::glib::Object<GSocketAddress> bound(g_socket_get_local_address(socket.get(), nullptr));
  return {std::move(socket), g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound.get()))};
}

}  // namespace

struct PXLoopbackServer::Soup {
  PXLoopbackServer* owner;
  std::thread thread;
  std::atomic<bool> stopping{false};
  // Made before the thread starts and freed after it has been joined.
  pxkit::glib::MainContext context{g_main_context_new()};
  pxkit::glib::Object<GCancellable> cancel{g_cancellable_new()};  // ends raw reads and writes
  std::vector<pxkit::glib::Object<GSocketConnection>> stalled;    // raw connections kept open

  void run(std::promise<void>& ready) {
    pxkit::glib::ThreadDefaultContext current(context.get());
    pxkit::glib::Object<SoupServer> server(soup_server_new(nullptr, nullptr));
    g_signal_connect(server.get(), "request-started", G_CALLBACK(&Soup::requestStarted), owner);
    soup_server_add_handler(server.get(), nullptr, &Soup::serve, owner, nullptr);
    pxkit::glib::Object<GSocketService> raw(g_socket_service_new());
    g_signal_connect(raw.get(), "incoming", G_CALLBACK(&Soup::serveRaw), this);
    auto listen = [&](SoupServerListenOptions options) {
      auto [socket, port] = listenLoopback();
      pxkit::glib::Error error;
      if (!soup_server_listen_socket(server.get(), socket.get(), options, pxkit::glib::out(error)))
        throw std::runtime_error(std::string("PXLoopbackServer: listen: ") + error->message);
      return port;
    };
    try {
      owner->port_ = listen(SoupServerListenOptions(0));
      if (owner->options_.https) {
        pxkit::glib::Error error;
        pxkit::glib::Object<GTlsCertificate> certificate(g_tls_certificate_new_from_files(
            owner->certificateFile_.c_str(), (owner->tempDirectory_ + "/key.pem").c_str(),
            pxkit::glib::out(error)));
        if (!certificate)
          throw std::runtime_error(std::string("PXLoopbackServer: certificate: ") + error->message);
        soup_server_set_tls_certificate(server.get(), certificate.get());
        owner->httpsPort_ = listen(SOUP_SERVER_LISTEN_HTTPS);
      }
      auto [socket, port] = listenLoopback();
      g_socket_listener_add_socket(G_SOCKET_LISTENER(raw.get()), socket.get(), nullptr, nullptr);
      owner->rawPort_ = port;
      ready.set_value();
    } catch (...) {
      ready.set_exception(std::current_exception());
      return;
    }
    while (!stopping) g_main_context_iteration(context.get(), TRUE);
    g_socket_service_stop(raw.get());
    soup_server_disconnect(server.get());
    stalled.clear();
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

  // A raw connection, with blocking reads and writes that the server's stop cancels.
  static gboolean serveRaw(GSocketService*, GSocketConnection* connection, GObject*, gpointer data) {
    auto* soup = static_cast<Soup*>(data);
    GInputStream* in = g_io_stream_get_input_stream(G_IO_STREAM(connection));
    GOutputStream* out = g_io_stream_get_output_stream(G_IO_STREAM(connection));
    std::string head;  // the request's header (a GET: nothing follows it) names the path
    char buffer[4096];
    for (gssize got = 1; got > 0 && head.find("\r\n\r\n") == std::string::npos && head.size() < 65536;) {
      got = g_input_stream_read(in, buffer, sizeof buffer, soup->cancel.get(), nullptr);
      head.append(buffer, static_cast<size_t>(std::max<gssize>(got, 0)));
    }
    const size_t start = std::min(head.find(' '), head.size() - 1) + 1;
    const std::string path = head.substr(start, head.find_first_of(" ?", start) - start);
    RawResponse response("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    {
      std::lock_guard guard(soup->owner->lock_);
      if (auto found = soup->owner->rawResponses_.find(path); found != soup->owner->rawResponses_.end())
        response = found->second;
    }
    auto send = [&](const std::string& bytes) {
      return g_output_stream_write_all(out, bytes.data(), bytes.size(), nullptr, soup->cancel.get(), nullptr);
    };
    bool alive = send(response.bytes);
    std::string piece;
    for (uint64_t offset = 0; alive && offset < response.streamLength; offset += piece.size()) {
      piece.resize(static_cast<size_t>(std::min<uint64_t>(64 * 1024, response.streamLength - offset)));
      for (size_t i = 0; i < piece.size(); ++i) piece[i] = patternByte(offset + i);
      alive = send(piece);
    }
    if (response.ending == RawEnding::Stall) {
      soup->stalled.push_back(pxkit::glib::ref(connection));  // closed when the server stops
      return TRUE;
    }
    if (response.ending == RawEnding::Reset) {
      const linger abortive{1, 0};
      setsockopt(g_socket_get_fd(g_socket_connection_get_socket(connection)), SOL_SOCKET, SO_LINGER,
                 &abortive, sizeof abortive);
    }
    g_io_stream_close(G_IO_STREAM(connection), nullptr, nullptr);
    return TRUE;
  }
};

PXLoopbackServer::PXLoopbackServer(Options options) : options_(options) {
  if (options_.https) {
    char pattern[] = "/tmp/pxkit-loopback-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("PXLoopbackServer: mkdtemp failed");
    tempDirectory_ = pattern;
    certificateFile_ = tempDirectory_ + "/cert.pem";
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " +
        tempDirectory_ + "/key.pem -out " + certificateFile_ +
        " -days 1 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1,DNS:localhost";
    pxkit::glib::Strv argv(g_strsplit(command.c_str(), " ", -1));  // the directory's name holds no blanks
    pxkit::glib::Object<GSubprocess> openssl(g_subprocess_newv(
        argv.get(), GSubprocessFlags(G_SUBPROCESS_FLAGS_STDOUT_SILENCE | G_SUBPROCESS_FLAGS_STDERR_SILENCE),
        nullptr));
    if (!openssl || !g_subprocess_wait_check(openssl.get(), nullptr, nullptr))
      throw std::runtime_error("PXLoopbackServer: openssl could not make a certificate");
  }
  soup_ = std::make_unique<Soup>();
  soup_->owner = this;
  std::promise<void> ready;
  soup_->thread = std::thread([this, &ready] { soup_->run(ready); });
  try {
    ready.get_future().get();
  } catch (...) {
    soup_->thread.join();
    throw;
  }
}

PXLoopbackServer::~PXLoopbackServer() {
  if (soup_ && soup_->thread.joinable()) {
    g_cancellable_cancel(soup_->cancel.get());
    soup_->stopping = true;
    g_main_context_wakeup(soup_->context.get());  // wakes the loop even before it first waits
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
  return listenLoopback().second;  // the socket closes on return
}
