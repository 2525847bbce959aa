#include <pxkit/PXKit.h>
#include <pxkit/net/PXWebRequest.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXRunLoop.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "net/internal/WebTransfer.h"

using pxkit::internal::WebConnection;
using pxkit::internal::WebMulti;
using pxkit::internal::WebRequestTransfer;

const char* const kPXWebRequestErrorDomain = "PXWebRequestErrorDomain";
const char* const kPXWebRequestErrorURLKey = "NSErrorFailingURLStringKey";
const char* const kPXWebRequestTrackHostTrackingIDKey = "hostTrackingID";
const char* const kPXWebRequestTrackUniqueIDKey = "uniqueID";
const char* const kPXWebRequestTrackIsUsedKey = "isUsed";
const char* const kPXWebRequestTrackReadStreamKey = "readStreamRef";
const char* const kPXWebRequestSSLValidatesCertificateChain = "kCFStreamSSLValidatesCertificateChain";
const char* const kPXWebRequestSSLAllowsAnyRoot = "kCFStreamSSLAllowsAnyRoot";
const char* const kPXWebRequestSSLAllowsExpiredCertificates = "kCFStreamSSLAllowsExpiredCertificates";
const char* const kPXWebRequestSSLAllowsExpiredRoots = "kCFStreamSSLAllowsExpiredRoots";
const char* const kPXWebRequestSSLPeerName = "kCFStreamSSLPeerName";
const char* const kPXWebRequestSSLLevel = "kCFStreamSSLLevel";
const char* const kPXWebRequestSSLCertificateAuthorityFile = "PXWebRequestSSLCertificateAuthorityFile";

PX_DEFINE_CLASS(PXWebRequestDelegate, PXObject, [](PXClassBuilder<PXWebRequestDelegate>&) {})

PX_DEFINE_CLASS(PXWebRequest, PXObject, [](PXClassBuilder<PXWebRequest>& c) {
  c.computed("requestURL", &PXWebRequest::requestURL, &PXWebRequest::setRequestURL,
             PXPropertyOwnership::Retain);
  c.computed("requestMethod", &PXWebRequest::requestMethod, &PXWebRequest::setRequestMethod,
             PXPropertyOwnership::Retain);
  c.computed("requestBodyData", &PXWebRequest::requestBodyData, &PXWebRequest::setRequestBodyData,
             PXPropertyOwnership::Retain);
  c.computed("requestHeaders", &PXWebRequest::requestHeaders, &PXWebRequest::setRequestHeaders,
             PXPropertyOwnership::Retain);
  c.computed("requestSSLOptions", &PXWebRequest::requestSSLOptions, &PXWebRequest::setRequestSSLOptions,
             PXPropertyOwnership::Retain);
  c.computed("requestKeepAlive", &PXWebRequest::requestKeepAlive, &PXWebRequest::setRequestKeepAlive);
  c.computed("requestTimeout", &PXWebRequest::requestTimeout, &PXWebRequest::setRequestTimeout);
  c.computed("autoRetainUntilRequestCompletion", &PXWebRequest::autoRetainUntilRequestCompletion,
             &PXWebRequest::setAutoRetainUntilRequestCompletion);
  c.computed("responseHeaders", &PXWebRequest::responseHeaders);
  c.computed("responseBodyReceivedBytes", &PXWebRequest::responseBodyReceivedBytes);
  c.computed("responseBodyTotalLength", &PXWebRequest::responseBodyTotalLength);
  c.computed("responseBodyData", &PXWebRequest::responseBodyData);
  c.computed("lastError", &PXWebRequest::lastError);
  c.computed("userData", &PXWebRequest::userData, &PXWebRequest::setUserData, PXPropertyOwnership::Retain);
  c.computed("isCompleted", &PXWebRequest::isCompleted);
  c.computed("wasSuccessful", &PXWebRequest::wasSuccessful);
  c.computed("wasCancelled", &PXWebRequest::wasCancelled);
})

namespace {

constexpr const char* kIsCompleteKey = "isComplete";  // kept: not the property's name
constexpr long kReceiveBufferSize = 16 * 1024;        // bytes libcurl reads at once
constexpr size_t kLargeBodySize = 64 * 1024;          // libcurl's own upload buffer
constexpr long kLargeBodyBufferSize = 512 * 1024;     // the upload buffer for larger bodies

bool equalsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

// "-1" when the text is not a plain non-negative decimal that fits.
int64_t parseContentLength(std::string_view text) {
  if (text.empty() || text.size() > 18) return -1;
  int64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

// ---- Tracking records: one lock for the array, the counter and the records' keys --------
std::mutex& trackLock() {
  static std::mutex* lock = new std::mutex;  // never destroyed: records outlive static destruction
  return *lock;
}
std::vector<PXRef<PXMutableDictionary>>& trackRecords() {
  static auto* records = new std::vector<PXRef<PXMutableDictionary>>;  // lazily made, never shrinks
  return *records;
}
uint64_t sPXWebRequestKeepAliveStreamTrackUniqueIDCounter = 0;

// ---- Query text -------------------------------------------------------------------------
// Percent-escapes what may not stand in a URL: controls, space, '"', '%', '<',
// '>', '[', '\\', ']', '^', '`', '{', '|', '}' and every byte beyond ASCII.
// Reserved characters such as "&", "=", "/", "+", "?" and "#" stay.
void appendEscaped(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (unsigned char c : text) {
    bool keep = c > 0x20 && c < 0x7f && c != '"' && c != '%' && c != '<' && c != '>' && c != '[' &&
                c != '\\' && c != ']' && c != '^' && c != '`' && c != '{' && c != '|' && c != '}';
    if (keep) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
}

std::optional<bool> boolOption(const PXDictionary& options, const char* key) {
  const PXValue* value = options.findStringKey(key);
  if (!value || !(value->isNumber() || value->isBool())) return std::nullopt;
  return value->boolValue();
}

void applySSLOptions(CURL* easy, const PXDictionary& options) {
  if (boolOption(options, kPXWebRequestSSLValidatesCertificateChain) == false ||
      boolOption(options, kPXWebRequestSSLAllowsAnyRoot) == true ||
      boolOption(options, kPXWebRequestSSLAllowsExpiredCertificates) == true ||
      boolOption(options, kPXWebRequestSSLAllowsExpiredRoots) == true) {
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
  }
  if (const PXValue* peer = options.findStringKey(kPXWebRequestSSLPeerName); peer && peer->isNull()) {
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  if (const PXValue* level = options.findStringKey(kPXWebRequestSSLLevel); level && level->isString()) {
    if (level->stringValue() == "kCFStreamSocketSecurityLevelTLSv1" ||
        level->stringValue() == "kCFStreamSocketSecurityLevelNegotiatedSSL") {
      curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1));
    }
  }
  if (const PXValue* file = options.findStringKey(kPXWebRequestSSLCertificateAuthorityFile);
      file && file->isString()) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, file->stringObject().c_str());
  }
}

// The URL's parts, as libcurl reads them; nothing when it cannot be read.
struct URLParts {
  std::string scheme, host, port;  // port empty when the URL gives none
  PXString hostTrackingID;         // "scheme_host_port", the tracking records' key
};
std::optional<URLParts> readURL(const PXString& text) {
  if (!text || text.empty()) return std::nullopt;
  pxkit::curl::Url url = pxkit::curl::makeUrl();
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) return std::nullopt;
  URLParts parts;
  auto part = [&](CURLUPart which, std::string& out) {
    char* raw = nullptr;
    if (curl_url_get(url.get(), which, &raw, 0) != CURLUE_OK) return false;
    pxkit::curl::String owned(raw);
    out = owned.get();
    return true;
  };
  if (!part(CURLUPART_SCHEME, parts.scheme) || !part(CURLUPART_HOST, parts.host)) return std::nullopt;
  part(CURLUPART_PORT, parts.port);
  parts.hostTrackingID = PXFormat("%@_%@_%@", PXString(parts.scheme), PXString(parts.host),
                                  parts.port.empty() ? PXString() : PXString(parts.port));
  return parts;
}
// The same, remembering the last URL read on this thread: a client mostly
// sends to one URL again and again.
const std::optional<URLParts>& parseURL(const PXString& text) {
  thread_local PXString lastText;
  thread_local std::optional<URLParts> lastParts;
  if (!lastText || lastText.view() != text.view() || !text) {
    lastParts = readURL(text);
    lastText = text;
  }
  return lastParts;
}

}  // namespace

// ---- Delegate --------------------------------------------------------------------------

bool PXWebRequestDelegate::respondsToSelector(std::string_view selector) const {
  return selector == "webRequest:connectionError:" ||
         selector == "webRequest:receivedHeaders:expectedContentLength:" ||
         selector == "webRequest:receivedNewData:finalData:" ||
         selector == "webRequest:finishedWithSuccess:canceled:";
}
void PXWebRequestDelegate::webRequestConnectionError(PXWebRequest*, PXError*) {}
void PXWebRequestDelegate::webRequestReceivedHeaders(PXWebRequest*, PXDictionary*, int64_t) {}
bool PXWebRequestDelegate::webRequestReceivedNewData(PXWebRequest*, PXRef<PXData>, bool) {
  return true;
}
void PXWebRequestDelegate::webRequestFinishedWithSuccess(PXWebRequest*, bool, bool) {}

// ---- Creation ------------------------------------------------------------------------------

PXWebRequest::PXWebRequest() noexcept = default;

PXWebRequest::PXWebRequest(PXString requestURL, PXString method, PXRef<PXData> bodyData, bool keepAlive,
                           double timeout, PXWebRequestEventHandler eventHandler)
    : requestURL_(std::move(requestURL)),
      requestMethod_(std::move(method)),
      requestBodyData_(std::move(bodyData)),
      requestKeepAlive_(keepAlive),
      requestTimeout_(timeout),
      eventHandler_(std::move(eventHandler)) {}

PXWebRequest::~PXWebRequest() {
  if (!transfer_) return;
  if (std::this_thread::get_id() == webRequestThreadID_) {
    _stopRequest(/*closeStream=*/false);
    return;
  }
  // Released on another thread: the transfer is ended on its own run loop.
  transfer_->request.store(nullptr, std::memory_order_release);
  std::shared_ptr<WebRequestTransfer> transfer(std::move(transfer_));
  PXRef<PXMutableDictionary> record = std::move(streamTrackDict_);
  webRequestThread_->performBlock([transfer, record]() mutable {
    transfer.reset();
    if (record) _releaseKeepAliveStreamTrackDict(record);
  });
}

PXRef<PXWebRequest> PXWebRequest::startedGETRequestForURL(PXString url, PXWebRequestEventHandler handler) {
  return startedRequestWithMethod("GET", nullptr, std::move(url), std::move(handler));
}

PXRef<PXWebRequest> PXWebRequest::startedPOSTRequestForURL(PXString url, PXRef<PXData> bodyData,
                                                           PXWebRequestEventHandler handler) {
  return startedRequestWithMethod("POST", std::move(bodyData), std::move(url), std::move(handler));
}

PXRef<PXWebRequest> PXWebRequest::startedRequestWithMethod(PXString method, PXRef<PXData> bodyData,
                                                           PXString url, PXWebRequestEventHandler handler) {
  auto request =
      PXMake<PXWebRequest>(std::move(url), std::move(method), std::move(bodyData), /*keepAlive=*/true,
                           /*timeout=*/60.0, std::move(handler));
  if (!request->startRequestInRunLoopMode(kPXRunLoopCommonModes)) return {};
  request->setAutoRetainUntilRequestCompletion(true);
  return request;
}

PXString PXWebRequest::generateURLWithBaseURL(const PXString& baseURL, const PXDictionary* parameters) {
  if (!baseURL) return {};
  std::string text = baseURL.str();
  if (text.empty() || text.back() != '?') text.push_back('?');
  if (parameters) {
    for (const auto& [key, value] : *parameters) {
      if (text.back() != '&') text.push_back('&');  // kept on purpose: the first pair follows "?&"
      appendEscaped(text, key.description().view());
      text.push_back('=');
      appendEscaped(text, value.description().view());
    }
  }
  return PXString(text);
}

PXWebRequestEventHandler PXWebRequest::eventHandlerForDelegate(const PXRef<PXWebRequestDelegate>& delegate,
                                                               bool retainDelegateUntilCompletion) {
  if (!delegate) return {};
  PXRef<PXWebRequestDelegate> strong = retainDelegateUntilCompletion ? delegate : nullptr;
  PXWeakRef<PXWebRequestDelegate> weak = retainDelegateUntilCompletion ? nullptr : PXWeakRef(delegate);
  return [strong, weak](PXWebRequest* request, int32_t event, const PXValue& object, uint32_t flags) {
    PXRef<PXWebRequestDelegate> target = strong ? strong : weak.lock();
    if (!target) return;
    switch (event) {
      case kPXWebRequestEventError:
        if (target->respondsToSelector("webRequest:connectionError:")) {
          target->webRequestConnectionError(request, PXDynamicCast<PXError>(object.objectValue()).get());
        }
        break;
      case kPXWebRequestEventReceivedHeaders:
        if (target->respondsToSelector("webRequest:receivedHeaders:expectedContentLength:")) {
          target->webRequestReceivedHeaders(request, PXDynamicCast<PXDictionary>(object.objectValue()).get(),
                                            request->responseBodyTotalLength());
        }
        break;
      case kPXWebRequestEventReceivedData:
        if (target->respondsToSelector("webRequest:receivedNewData:finalData:")) {
          PXRef<PXData> data = request->createAvailableResponseBodyData();
          if (!target->webRequestReceivedNewData(request, std::move(data),
                                                 (flags & kPXWebRequestDataFinal) != 0)) {
            request->cancel();
          }
        }
        break;
      case kPXWebRequestEventFinished:
        if (target->respondsToSelector("webRequest:finishedWithSuccess:canceled:")) {
          target->webRequestFinishedWithSuccess(request, (flags & kPXWebRequestFinishedSuccess) != 0,
                                                (flags & kPXWebRequestFinishedCancelled) != 0);
        }
        break;
      default:
        break;  // events 1 and 2 are not forwarded
    }
  };
}

// ---- Properties --------------------------------------------------------------------------------

PXWebRequestEventHandler PXWebRequest::eventHandler() const {
  std::lock_guard guard(stateLock_);
  return eventHandler_;
}

void PXWebRequest::setEventHandler(PXWebRequestEventHandler handler) {
  PXWebRequestEventHandler previous;  // destroyed after the lock
  std::lock_guard guard(stateLock_);
  previous = std::exchange(eventHandler_, std::move(handler));
}

void PXWebRequest::setAutoRetainUntilRequestCompletion(bool retain) {
  if (retain == (selfReference_ != nullptr)) return;
  if (retain) {
    selfReference_ = PXRef<PXWebRequest>(this);
  } else {
    PXRef<PXWebRequest> last = std::move(selfReference_);  // may be the last reference
  }
}

PXRef<PXMutableData> PXWebRequest::responseBodyData() const {
  std::lock_guard guard(bodyLock_);
  return responseBodyData_;
}

PXRef<PXData> PXWebRequest::createAvailableResponseBodyData() {
  PXRef<PXMutableData> taken;
  {
    std::lock_guard guard(bodyLock_);
    taken = std::move(responseBodyData_);
  }
  if (!taken) return PXMake<PXMutableData>();
  return taken;
}

PXValue PXWebRequest::valueForKey(std::string_view key) const {
  if (key == kIsCompleteKey) return PXValue(isCompleted());
  return PXObject::valueForKey(key);
}

// ---- Tracking records ----------------------------------------------------------------------------

PXRef<PXMutableDictionary> PXWebRequest::_requestKeepAliveStreamTrackDictForURL(
    const PXString& hostTrackingID) {
  std::lock_guard guard(trackLock());
  PXRef<PXMutableDictionary> withConnection, withoutConnection;
  for (const PXRef<PXMutableDictionary>& record : trackRecords()) {
    if (record->objectForKey(kPXWebRequestTrackHostTrackingIDKey).stringValue() != hostTrackingID.view())
      continue;
    if (record->objectForKey(kPXWebRequestTrackIsUsedKey)) continue;
    if (record->objectForKey(kPXWebRequestTrackReadStreamKey)) {
      withConnection = record;
      break;
    }
    if (!withoutConnection) withoutConnection = record;
  }
  PXRef<PXMutableDictionary> chosen = withConnection ? withConnection : withoutConnection;
  if (!chosen) {
    chosen = PXMutableDictionary::dictionary();
    chosen->setObject(hostTrackingID, kPXWebRequestTrackHostTrackingIDKey);
    chosen->setObject(PXValue(static_cast<uint64_t>(sPXWebRequestKeepAliveStreamTrackUniqueIDCounter++)),
                      kPXWebRequestTrackUniqueIDKey);
    trackRecords().push_back(chosen);
  }
  chosen->setObject(true, kPXWebRequestTrackIsUsedKey);
  return chosen;
}

void PXWebRequest::_releaseKeepAliveStreamTrackDict(const PXRef<PXMutableDictionary>& record) {
  std::lock_guard guard(trackLock());
  record->removeObjectForKey(kPXWebRequestTrackIsUsedKey);
}

std::vector<PXRef<PXDictionary>> PXWebRequest::_keepAliveStreamTrackDicts() {
  std::lock_guard guard(trackLock());
  std::vector<PXRef<PXDictionary>> copies;
  for (const PXRef<PXMutableDictionary>& record : trackRecords()) copies.push_back(record->copyDictionary());
  return copies;
}

// ---- Starting ----------------------------------------------------------------------------------------

bool PXWebRequest::startRequestInRunLoopMode(std::string_view) {
  PXRef<PXWebRequest> keep(this);
  _handleEvent(kPXWebRequestEventWillStart, {}, 0);
  if (canceled_.load(std::memory_order_acquire) || started_ || handlingCompleted_) return false;

  // The message: an absolute http or https URL and a method.
  const std::optional<URLParts>& url = parseURL(requestURL_);
  if (!url || (url->scheme != "http" && url->scheme != "https")) return false;
  if (!requestMethod_ || requestMethod_.empty()) return false;
  const bool https = url->scheme == "https";
  const PXString hostTrackingID = url->hostTrackingID;

  // Header fields in order; a later field of the same name replaces an earlier one.
  std::vector<std::pair<std::string, std::string>> fields;
  auto setField = [&fields](std::string_view name, std::string_view value) {
    for (auto& field : fields) {
      if (equalsNoCase(field.first, name)) {
        field.second = value;
        return;
      }
    }
    fields.emplace_back(std::string(name), std::string(value));
  };
  PXRef<PXData> body = requestBodyData_;
  if (body) {
    char length[24];
    std::snprintf(length, sizeof length, "%llu", static_cast<unsigned long long>(body->length()));
    setField("Content-Type", "application/data");
    setField("Content-Length", length);
  }
  if (requestHeaders_) {
    for (const auto& [key, value] : *requestHeaders_) {
      if (key.isString() && value.isString()) setField(key.stringValue(), value.stringValue());
    }
  }
  if (requestKeepAlive_) {
    setField("Connection", "Keep-Alive");
  } else if (!std::any_of(fields.begin(), fields.end(),
                          [](const auto& f) { return equalsNoCase(f.first, "Connection"); })) {
    // Not kept: say so, so that the server closes its side as soon as it has answered.
    setField("Connection", "close");
  }

  PXRunLoop* loop = PXRunLoop::current();
  PXRef<WebMulti> multi = WebMulti::forRunLoop(loop);
  if (!multi) return false;
  auto transfer = std::make_unique<WebRequestTransfer>();
  transfer->multi = multi;
  transfer->body = body;
  bool hasExpect = false;
  for (const auto& [name, value] : fields) {
    // "Name;" is how libcurl sends a field with an empty value.
    std::string line = value.empty() ? name + ";" : name + ": " + value;
    transfer->headers = pxkit::curl::append(std::move(transfer->headers), line.c_str());
    hasExpect = hasExpect || equalsNoCase(name, "Expect");
  }
  // Bodies go out at once, without waiting for an interim "100 Continue".
  if (body && !hasExpect) transfer->headers = pxkit::curl::append(std::move(transfer->headers), "Expect:");

  // The connection: the tracking record's open one, or a new one.
  PXRef<PXMutableDictionary> record;
  PXRef<WebConnection> connection;
  if (requestKeepAlive_) {
    record = _requestKeepAliveStreamTrackDictForURL(hostTrackingID);
    std::lock_guard guard(trackLock());
    PXValue held = record->objectForKey(kPXWebRequestTrackReadStreamKey);
    connection = PXRef<WebConnection>(static_cast<WebConnection*>(held.objectPointer()));
  }
  if (!connection) connection = PXMake<WebConnection>(requestKeepAlive_);
  if (!connection->valid()) {
    if (record) _releaseKeepAliveStreamTrackDict(record);
    return false;
  }
  transfer->connection = connection;

  CURL* easy = connection->easy();
  const std::string_view method = requestMethod_.view();
  // A kept connection's handle that the last plain GET configured keeps its
  // options for the next plain GET: only what is the request's own is set.
  const bool plainGET = requestKeepAlive_ && method == "GET" && !body && !(https && requestSSLOptions_);
  if (!plainGET || !connection->holdsPlainGET) {
    curl_easy_reset(easy);  // keeps the share and its open connection
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, static_cast<long>(kPXWebRequestMaxRedirects));
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "PXKit/" PXKIT_VERSION_STRING);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &WebMulti::onHeader);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &WebMulti::onBody);
    curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &WebMulti::onPrereq);
    // Through a proxy (the environment's http_proxy and kin), only the server's header is the response's.
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    if (method == "GET" && !body) {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD" && !body) {
      curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
      if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, requestMethod_.c_str());
      if (body) {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->length()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body->bytes().data());
        // A large body goes out in fewer, larger writes: each write is one turn of the run loop.
        if (body->length() > kLargeBodySize)
          curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kLargeBodyBufferSize);
      } else if (method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(0));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, "");
      }
    }
    if (!requestKeepAlive_) {
      curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
      curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
    }
    if (https && requestSSLOptions_) applySSLOptions(easy, *requestSSLOptions_);
  }
  connection->holdsPlainGET = plainGET;
  curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
  curl_easy_setopt(easy, CURLOPT_URL, requestURL_.c_str());
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errorBuffer);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, transfer.get());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers.get());

  {
    std::lock_guard guard(stateLock_);
    if (canceled_.load(std::memory_order_acquire)) {
      if (record) _releaseKeepAliveStreamTrackDict(record);
      return false;
    }
    webRequestThread_ = PXRef<PXRunLoop>(loop);
    webRequestThreadID_ = std::this_thread::get_id();
  }
  started_ = true;
  transfer->request.store(this, std::memory_order_release);
  transfer->pendingIO = pxkit::internal::PendingIO(loop);
  transfer_ = std::move(transfer);
  if (!multi->add(*transfer_)) {
    transfer_.reset();
    if (record) _releaseKeepAliveStreamTrackDict(record);
    return false;
  }
  if (record) {
    std::lock_guard guard(trackLock());
    record->setObject(PXValue(PXRef<PXObject>(connection)), kPXWebRequestTrackReadStreamKey);
  }
  streamTrackDict_ = std::move(record);
  // On the wire now, while the caller goes back to its loop; events still come from the loop.
  multi->kick();
  return true;
}

// ---- Transfer events ------------------------------------------------------------------------------------

void PXWebRequest::_callbackWithTransfer() {
  PXRef<PXWebRequest> keep(this);
  if (needsToExecuteCancel_.exchange(false)) {
    cancel();
    return;
  }
  auto ended = [this] {
    return !transfer_ || handlingCompleted_ || canceled_.load(std::memory_order_acquire);
  };
  if (ended()) return;
  WebRequestTransfer* transfer = transfer_.get();

  if (transfer->opened && !transfer->openedDelivered) {
    transfer->openedDelivered = true;
    _handleEvent(kPXWebRequestEventOpened, {}, 0);
    if (ended()) return;
  }
  if (!headerDataReceived_ && (transfer->finalHeaderReady || (transfer->done && transfer->statusCode != 0 &&
                                                              transfer->result == CURLE_OK))) {
    _deliverHeaders();
    if (ended()) return;
  }
  if (transfer->dataPending) {
    transfer->dataPending = false;
    _deliverData(/*finishing=*/transfer->done && transfer->result == CURLE_OK);
    if (ended()) return;
  }
  if (!transfer->done) return;

  const CURLcode result = transfer->result;
  const int64_t total = responseBodyTotalLength_;
  const int64_t received = responseBodyReceivedBytes_;
  if (result == CURLE_OK || (result == CURLE_PARTIAL_FILE && total >= 0)) {
    if (result == CURLE_OK && total > 0 && received >= total) {
      // Complete as soon as its bytes are in: the connection stays open for reuse.
      _stopRequest(/*closeStream=*/false);
      _notifyDelegateOfFinishedWithSuccess(true, false);
    } else {
      endEncountered_ = true;
      _stopRequest(/*closeStream=*/true);
      _notifyDelegateOfFinishedWithSuccess(total < 0 || received >= total, false);
    }
    return;
  }
  errorOccured_ = true;
  PXString description =
      transfer->errorBuffer[0] ? PXString(transfer->errorBuffer) : PXString(curl_easy_strerror(result));
  lastError_ = PXError::errorWithDomain(
      kPXWebRequestErrorDomain, static_cast<int64_t>(result),
      PXDictionary::dictionaryWithEntries(
          {{kPXLocalizedDescriptionKey, description}, {kPXWebRequestErrorURLKey, requestURL_}}));
  _handleEvent(kPXWebRequestEventError, PXValue(PXRef<PXObject>(lastError_)), 0);
  if (handlingCompleted_) return;  // cancelled from the handler
  _stopRequest(/*closeStream=*/true);
  _notifyDelegateOfFinishedWithSuccess(false, false);
}

void PXWebRequest::_deliverHeaders() {
  WebRequestTransfer* transfer = transfer_.get();
  headerDataReceived_ = true;
  auto headers = PXMutableDictionary::dictionaryWithCapacity(transfer->headerFields.size());
  int64_t total = -1;
  for (const auto& [name, value] : transfer->headerFields) {
    headers->setObject(PXString(value), PXString(name));
    if (equalsNoCase(name, "Content-Length")) total = parseContentLength(value);
    if (equalsNoCase(name, "Connection") && equalsNoCase(value, "close")) httpConnectionClose_ = true;
  }
  responseHeaders_ = headers->copyDictionary();
  responseStatusCode_ = transfer->statusCode;
  responseBodyTotalLength_ = total;
  _handleEvent(kPXWebRequestEventReceivedHeaders, PXValue(PXRef<PXObject>(responseHeaders_)), 0);
}

void PXWebRequest::_deliverData(bool finishing) {
  if (canceled_.load(std::memory_order_acquire)) return;
  const int64_t total = responseBodyTotalLength_;
  const bool final = total >= 0 ? responseBodyReceivedBytes_ >= total : finishing;
  _handleEvent(kPXWebRequestEventReceivedData, {}, final ? kPXWebRequestDataFinal : 0);
}

// ---- Stopping, finishing, cancelling --------------------------------------------------------------------

void PXWebRequest::_stopRequest(bool closeStream) {
  if (!transfer_) return;
  std::unique_ptr<WebRequestTransfer> transfer = std::move(transfer_);
  transfer->request.store(nullptr, std::memory_order_release);
  transfer->multi->remove(*transfer);
  PXRef<PXMutableDictionary> record = std::move(streamTrackDict_);
  PXRef<WebConnection> closing;  // released after the lock: closes the connection
  if (record && (closeStream || httpConnectionClose_ || !requestKeepAlive_)) {
    std::lock_guard guard(trackLock());
    if (record->objectForKey(kPXWebRequestTrackReadStreamKey).objectPointer() == transfer->connection.get()) {
      closing = transfer->connection;
      record->removeObjectForKey(kPXWebRequestTrackReadStreamKey);
    }
  }
  transfer.reset();
  closing = nullptr;
  if (record) _releaseKeepAliveStreamTrackDict(record);
}

void PXWebRequest::_notifyDelegateOfFinishedWithSuccess(bool success, bool canceled) {
  setObservable(isCompleted_, true, kIsCompleteKey);
  setObservable(wasSuccessful_, success, "wasSuccessful");
  setObservable(wasCancelled_, canceled, "wasCancelled");
  _handleEvent(
      kPXWebRequestEventFinished, {},
      (canceled ? kPXWebRequestFinishedCancelled : 0) | (success ? kPXWebRequestFinishedSuccess : 0));
}

void PXWebRequest::_handleEvent(int32_t event, const PXValue& object, uint32_t flags) {
  PXWebRequestEventHandler handler;
  {
    std::lock_guard guard(stateLock_);
    if (handlingCompleted_) return;
    if (event == kPXWebRequestEventFinished) {
      handlingCompleted_ = true;
      handler = std::exchange(eventHandler_, nullptr);
    } else {
      if (!eventHandler_) return;
      handler = eventHandler_;
    }
  }
  if (handler) handler(this, event, object, flags);
  // The finish also ends the self-reference, with or without a handler.
  if (event == kPXWebRequestEventFinished) setAutoRetainUntilRequestCompletion(false);
}

void PXWebRequest::cancel() {
  PXRef<PXWebRequest> keep(this);
  PXRef<PXRunLoop> loop;
  bool elsewhere = false;
  {
    std::lock_guard guard(stateLock_);
    if (handlingCompleted_) return;
    canceled_.store(true, std::memory_order_release);
    loop = webRequestThread_;
    elsewhere = loop && webRequestThreadID_ != std::this_thread::get_id();
    if (elsewhere) needsToExecuteCancel_.store(true, std::memory_order_release);
  }
  if (elsewhere) {
    // Woken at once: the cancel does not wait for the transfer's next event.
    loop->performBlock([keep] {
      if (keep->needsToExecuteCancel_.exchange(false)) keep->cancel();
    });
    return;
  }
  _notifyDelegateOfFinishedWithSuccess(false, true);
  if (loop) _stopRequest(/*closeStream=*/true);
}
