#include "net/internal/WebTransfer.h"

#include <pxkit/objects/PXData.h>

#include <cstring>
#include <mutex>
#include <string_view>

namespace pxkit::curl {

void ensureGlobalInit() noexcept {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}
Easy makeEasy() noexcept {
  ensureGlobalInit();
  return Easy(curl_easy_init());
}
Multi makeMulti() noexcept {
  ensureGlobalInit();
  return Multi(curl_multi_init());
}
Share makeShare() noexcept {
  ensureGlobalInit();
  return Share(curl_share_init());
}
Url makeUrl() noexcept {
  ensureGlobalInit();
  return Url(curl_url());
}
Slist append(Slist list, const char* line) noexcept {
  curl_slist* grown = curl_slist_append(list.get(), line);
  if (!grown) return list;
  list.release();
  return Slist(grown);
}

}  // namespace pxkit::curl

namespace pxkit::internal {

namespace {

// The key of the run loop's associated multi.
const char kMultiKey = 0;
// Watches of sockets libcurl let go of, kept for their return, at most.
constexpr size_t kMaxParkedWatches = 64;

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    char a = text[i], b = prefix[i];
    if (a >= 'A' && a <= 'Z') a = static_cast<char>(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = static_cast<char>(b - 'A' + 'a');
    if (a != b) return false;
  }
  return true;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() &&
         (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

}  // namespace

// ---- WebConnection ------------------------------------------------------------

WebConnection::WebConnection(bool keepAlive) : keepAlive_(keepAlive) {
  if (keepAlive_) {
    share_ = curl::makeShare();
    if (share_) curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
  }
  easy_ = curl::makeEasy();
  if (easy_ && share_) curl_easy_setopt(easy_.get(), CURLOPT_SHARE, share_.get());
}

WebConnection::~WebConnection() {
  easy_.reset();   // leaves the share first
  share_.reset();  // closes the connection it caches
}

// ---- WebRequestTransfer ---------------------------------------------------------

WebRequestTransfer::~WebRequestTransfer() {
  if (attached && multi) multi->remove(*this);
}

// ---- WebMulti ------------------------------------------------------------------------

PXRef<WebMulti> WebMulti::forRunLoop(PXRunLoop* loop) {
  PXValue held = loop->associatedObject(&kMultiKey);
  if (PXObject* object = held.objectPointer()) return PXRef<WebMulti>(static_cast<WebMulti*>(object));
  curl::Multi multi = curl::makeMulti();
  if (!multi) return {};
  PXRef<WebMulti> made = PXRef<WebMulti>::adopt(new WebMulti(loop, std::move(multi)));
  loop->setAssociatedObject(&kMultiKey, PXValue(PXRef<PXObject>(made)), PXAssociationPolicy::Retain);
  return made;
}

WebMulti::WebMulti(PXRunLoop* loop, curl::Multi multi) : loop_(loop), multi_(std::move(multi)) {
  curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETFUNCTION, &WebMulti::socketCallback);
  curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_.get(), CURLMOPT_TIMERFUNCTION, &WebMulti::timerCallback);
  curl_multi_setopt(multi_.get(), CURLMOPT_TIMERDATA, this);
}

WebMulti::~WebMulti() {
  curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETFUNCTION, nullptr);
  curl_multi_setopt(multi_.get(), CURLMOPT_TIMERFUNCTION, nullptr);
  timer_.reset();
  watches_.clear();
}

bool WebMulti::add(WebRequestTransfer& transfer) {
  if (curl_multi_add_handle(multi_.get(), transfer.connection->easy()) != CURLM_OK) return false;
  transfer.attached = true;
  return true;
}

void WebMulti::remove(WebRequestTransfer& transfer) {
  if (!transfer.attached) return;
  transfer.attached = false;
  curl_multi_remove_handle(multi_.get(), transfer.connection->easy());
}

void WebMulti::markDirty(PXWebRequest* request) {
  if (!request) return;
  for (const PXRef<PXWebRequest>& queued : dirty_) {
    if (queued.get() == request) return;
  }
  dirty_.emplace_back(request);
}

int WebMulti::socketCallback(CURL*, curl_socket_t socket, int what, void* userp, void*) {
  auto* self = static_cast<WebMulti*>(userp);
  if (what == CURL_POLL_REMOVE) {
    // Parked, not destroyed: a kept connection's socket comes back with the
    // next request at no cost. A parked watch calls nothing, and leaves the
    // poll set when its socket hangs up or is closed.
    auto found = self->watches_.find(socket);
    if (found != self->watches_.end()) found->second.setEvents(0);
    if (self->watches_.size() > kMaxParkedWatches) {
      std::erase_if(self->watches_, [](const auto& entry) { return entry.second.events() == 0; });
    }
    return 0;
  }
  unsigned events = 0;
  if (what == CURL_POLL_IN || what == CURL_POLL_INOUT) events |= kFdReadable;
  if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT) events |= kFdWritable;
  auto found = self->watches_.find(socket);
  if (found != self->watches_.end() && found->second) {
    found->second.setEvents(events);
    return 0;
  }
  if (found != self->watches_.end()) self->watches_.erase(found);
  self->watches_.emplace(socket, FdWatch::watch(self->loop_, socket, events, [self, socket](unsigned ready) {
                           int mask = 0;
                           if (ready & kFdReadable) mask |= CURL_CSELECT_IN;
                           if (ready & kFdWritable) mask |= CURL_CSELECT_OUT;
                           if (ready & kFdError) mask |= CURL_CSELECT_ERR;
                           self->drive(socket, mask);
                         }));
  return 0;
}

int WebMulti::timerCallback(CURLM*, long timeoutMs, void* userp) {
  auto* self = static_cast<WebMulti*>(userp);
  if (timeoutMs < 0) {
    self->timer_.disarm();
  } else {
    self->armTimer(timeoutMs);
  }
  return 0;
}

void WebMulti::armTimer(long milliseconds) {
  // One timeout for the multi's life, moved at each call.
  if (!timer_.rearm(milliseconds))
    timer_ = RunLoopTimeout::after(loop_, milliseconds, [this] { drive(CURL_SOCKET_TIMEOUT, 0); });
}

void WebMulti::kick() {
  PXRef<WebMulti> keep(this);
  int running = 0;
  curl_multi_socket_action(multi_.get(), CURL_SOCKET_TIMEOUT, 0, &running);
  // Whatever happened (opened, failed, even finished) is handed over at the
  // next turn, never to the caller of start.
  armTimer(0);
}

void WebMulti::drive(curl_socket_t socket, int events) {
  PXRef<WebMulti> keep(this);
  int running = 0;
  curl_multi_socket_action(multi_.get(), socket, events, &running);
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    WebRequestTransfer* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    if (!transfer) continue;
    transfer->done = true;
    transfer->result = message->data.result;
    markDirty(transfer->request.load(std::memory_order_acquire));
  }
  dispatch();
}

void WebMulti::dispatch() {
  while (!dirty_.empty()) {
    std::vector<PXRef<PXWebRequest>> ready;
    ready.swap(dirty_);
    for (const PXRef<PXWebRequest>& request : ready) request->_callbackWithTransfer();
  }
}

// ---- libcurl's callbacks of an easy handle -------------------------------------------

int WebMulti::onPrereq(void* userp, char*, char*, int, int) {
  auto* transfer = static_cast<WebRequestTransfer*>(userp);
  if (!transfer->opened) {
    transfer->opened = true;
    transfer->multi->markDirty(transfer->request.load(std::memory_order_acquire));
  }
  return CURL_PREREQFUNC_OK;
}

size_t WebMulti::onHeader(char* bytes, size_t size, size_t count, void* userp) {
  auto* transfer = static_cast<WebRequestTransfer*>(userp);
  const size_t length = size * count;
  std::string_view line(bytes, length);
  if (startsWithNoCase(line, "HTTP/")) {
    // A new response (after an informational one or a followed redirect).
    transfer->headerFields.clear();
    transfer->finalHeaderReady = false;
    size_t space = line.find(' ');
    int32_t status = 0;
    for (size_t i = space == std::string_view::npos ? line.size() : space + 1;
         i < line.size() && line[i] >= '0' && line[i] <= '9' && status < 1000; ++i) {
      status = status * 10 + (line[i] - '0');
    }
    transfer->statusCode = status;
    return length;
  }
  if (transfer->finalHeaderReady) return length;  // trailers of a chunked body: not header fields
  std::string_view content = trim(line);
  if (content.empty()) {
    // The end of a header. Informational responses and redirects that will be
    // followed (any 3xx with a "Location") are not the response we report.
    int32_t status = transfer->statusCode;
    if (status >= 100 && status < 200) return length;
    if (status >= 300 && status < 400) {
      for (const auto& field : transfer->headerFields) {
        if (startsWithNoCase(field.first, "location") && field.first.size() == 8 && !field.second.empty()) {
          return length;
        }
      }
    }
    transfer->finalHeaderReady = true;
    transfer->multi->markDirty(transfer->request.load(std::memory_order_acquire));
    return length;
  }
  if ((line.front() == ' ' || line.front() == '\t') && !transfer->headerFields.empty()) {
    std::string& value = transfer->headerFields.back().second;  // a folded line continues the last field
    value.append(" ").append(content);
    return length;
  }
  size_t colon = content.find(':');
  if (colon == std::string_view::npos || colon == 0) return length;  // not a field: ignored
  std::string_view name = trim(content.substr(0, colon));
  std::string_view value = trim(content.substr(colon + 1));
  for (auto& field : transfer->headerFields) {
    if (field.first.size() == name.size() && startsWithNoCase(field.first, name)) {
      field.second.append(", ").append(value);  // a repeated field: joined
      return length;
    }
  }
  transfer->headerFields.emplace_back(std::string(name), std::string(value));
  return length;
}

size_t WebMulti::onBody(char* bytes, size_t size, size_t count, void* userp) {
  auto* transfer = static_cast<WebRequestTransfer*>(userp);
  const size_t length = size * count;
  PXWebRequest* request = transfer->request.load(std::memory_order_acquire);
  if (!request || length == 0) return length;
  if (request->canceled_.load(std::memory_order_acquire)) return length;  // dropped: the cancel runs next
  request->responseBodyReceivedBytes_ += static_cast<int64_t>(length);
  if (!request->handlingCompleted_) {
    std::lock_guard guard(request->bodyLock_);
    if (!request->responseBodyData_) request->responseBodyData_ = PXMutableData::data();
    request->responseBodyData_->appendBytes(bytes, length);
  }
  transfer->dataPending = true;
  transfer->multi->markDirty(request);
  return length;
}

}  // namespace pxkit::internal
