// PXKit — the kit's HTTP client: one request/response exchange on a run loop.
//
// A PXWebRequest sends one HTTP/1.1 request and reports its progress through a
// single callback, the event handler, on the run loop of the thread that
// started it. Finished connections stay open and are reused by later requests
// to the same scheme, host and port (keep-alive tracking records, below).
//
//   PXWebRequest::startedGETRequestForURL("http://127.0.0.1:8080/status",
//       [](PXWebRequest* request, int32_t event, const PXValue& object, uint32_t flags) {
//         if (event == kPXWebRequestEventReceivedData) consume(request->createAvailableResponseBodyData());
//         if (event == kPXWebRequestEventFinished) done(flags & kPXWebRequestFinishedSuccess);
//       });
//   PXRunLoop::current()->run();   // the thread that started it runs its run loop
//
// Events, in order (the handler is called as handler(request, event, object, flags)):
//   1 kPXWebRequestEventWillStart      first thing in startRequestInRunLoopMode, before the
//                                      message is built: the handler may still set headers
//                                      and other request properties. object: none, flags 0.
//   2 kPXWebRequestEventOpened         the connection is open (made or reused) and the
//                                      request is about to be sent; once. object none, flags 0.
//   3 kPXWebRequestEventError          the transfer failed. object: the PXError (also kept
//                                      in lastError), flags 0. Event 6 follows.
//   4 kPXWebRequestEventReceivedHeaders the final response's header is complete (once;
//                                      headers of followed redirects are not reported).
//                                      object: dictionary of all header fields, flags 0.
//   5 kPXWebRequestEventReceivedData   body bytes were appended to responseBodyData. object
//                                      none; flags kPXWebRequestDataFinal (4) when this is the
//                                      final data, else 0.
//   6 kPXWebRequestEventFinished       exactly once, last: flags bit 0 success
//                                      (kPXWebRequestFinishedSuccess), bit 1 cancelled
//                                      (kPXWebRequestFinishedCancelled). object none.
//
// How a request ends. A response with a positive "Content-Length" finishes as
// soon as that many body bytes are in. A response without "Content-Length"
// (chunked, or delimited by the server closing) finishes with success at its
// end; its total length reads -1. A response whose body stops short of its
// "Content-Length" finishes without success (and without event 3); so does,
// kept on purpose, the answer to a "HEAD" request that announces a length. Transport
// failures (refused connection, reset, a reply that is not HTTP, too many
// redirects, TLS failures) deliver event 3, then event 6 without success. An
// HTTP error status (404, 500) with its body is a successful exchange; its
// status is responseStatusCode().
//
// No timeout: requestTimeout is recorded only. No timer is armed, and a request
// ends only by completion, by an error of the transport, or by cancel(). This
// is intended; a caller that wants a deadline arms its own timer and cancels.
//
// Redirects are followed, at most kPXWebRequestMaxRedirects in a row; one more
// ends the request with event 3 (too many redirects) and an unsuccessful finish.
// Messages are HTTP/1.1. A body is sent with "Content-Type" "application/data"
// (a caller's "Content-Type" in requestHeaders replaces it) and its
// "Content-Length". With requestKeepAlive the request says "Connection"
// "Keep-Alive"; without it, "Connection" "close" (unless requestHeaders name
// a "Connection" of their own), and its connection is used once. The environment's proxy settings
// (http_proxy, https_proxy, no_proxy) apply.
//
// Keep-alive tracking records. Requests with requestKeepAlive take a tracking
// record for their scheme, host and port, a dictionary with
//   "hostTrackingID"  "<scheme>_<host>_<port>" ("(null)" for a port the URL does not give)
//   "uniqueID"        an unsigned number, unique per record
//   "isUsed"          present (true) while a request holds the record
//   "readStreamRef"   the open connection kept for reuse (an opaque object)
// A request takes the first free record of its host that keeps an open
// connection, else the first free one, else a new one, and sends over the
// record's connection when it is still open. Records are never removed: there
// are as many per host as the most requests that ran at once. A server's
// "Connection: close" (any case), an error or a cancel closes the record's
// connection.
//
// TLS ("https" URLs): requestSSLOptions understands these keys; others are
// ignored.
//   kPXWebRequestSSLValidatesCertificateChain  boolean; NO skips certificate verification
//   kPXWebRequestSSLAllowsAnyRoot              boolean; YES skips certificate verification
//   kPXWebRequestSSLAllowsExpiredCertificates  boolean; YES skips certificate verification
//                                              (expiry cannot be waived alone)
//   kPXWebRequestSSLPeerName                   null: do not check the host name; a string
//                                              is not supported and ignored
//   kPXWebRequestSSLLevel                      "kCFStreamSocketSecurityLevelTLSv1" and
//                                              the negotiated level name: TLS 1.0 or later
//                                              (the default); others are ignored
//   kPXWebRequestSSLCertificateAuthorityFile   string: a PEM file of the certificates to
//                                              trust instead of the system's
//
// Thread safety: a request belongs to the run loop of the thread that starts
// it; that thread must run its run loop, and every event is delivered there.
// Set the request properties before starting (or from event 1). cancel(), the
// outcome accessors (isCompleted, wasSuccessful, wasCancelled) and
// createAvailableResponseBodyData may be called from any thread; a cancel from
// another thread wakes the request's run loop and takes effect there at once,
// without waiting for more bytes. A running request whose last reference goes
// away on another thread is stopped on its own run loop, with no event 6.
// Observers of "isComplete", "wasSuccessful" and "wasCancelled" are told on the
// request's thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXData.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXString.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

class PXRunLoop;
class PXWebRequest;
struct PXWebRequestTestHook;
namespace pxkit::internal {
struct WebRequestTransfer;
class WebMulti;
}  // namespace pxkit::internal

// ---- Events and flags ---------------------------------------------------------
inline constexpr int32_t kPXWebRequestEventWillStart = 1;
inline constexpr int32_t kPXWebRequestEventOpened = 2;
inline constexpr int32_t kPXWebRequestEventError = 3;
inline constexpr int32_t kPXWebRequestEventReceivedHeaders = 4;
inline constexpr int32_t kPXWebRequestEventReceivedData = 5;
inline constexpr int32_t kPXWebRequestEventFinished = 6;
// Flags of event 5.
inline constexpr uint32_t kPXWebRequestDataFinal = 4;
// Flags of event 6.
inline constexpr uint32_t kPXWebRequestFinishedSuccess = 1;
inline constexpr uint32_t kPXWebRequestFinishedCancelled = 2;

// The most redirects followed in a row; one more ends the request with an error.
inline constexpr int kPXWebRequestMaxRedirects = 16;

// The error domain of transport failures (event 3, lastError). The code is the
// transport's error number; the user info holds "NSLocalizedDescription" (a
// readable text such as "Failed to connect to 127.0.0.1 port 9: Connection
// refused") and kPXWebRequestErrorURLKey (the request URL).
PXKIT_EXPORT extern const char* const kPXWebRequestErrorDomain;  // "PXWebRequestErrorDomain"
PXKIT_EXPORT extern const char* const kPXWebRequestErrorURLKey;  // "NSErrorFailingURLStringKey"

// Keys of the tracking records (see the banner).
PXKIT_EXPORT extern const char* const kPXWebRequestTrackHostTrackingIDKey;  // "hostTrackingID"
PXKIT_EXPORT extern const char* const kPXWebRequestTrackUniqueIDKey;        // "uniqueID"
PXKIT_EXPORT extern const char* const kPXWebRequestTrackIsUsedKey;          // "isUsed"
PXKIT_EXPORT extern const char* const kPXWebRequestTrackReadStreamKey;      // "readStreamRef"

// Keys understood in requestSSLOptions (see the banner).
PXKIT_EXPORT extern const char* const kPXWebRequestSSLValidatesCertificateChain;
PXKIT_EXPORT extern const char* const kPXWebRequestSSLAllowsAnyRoot;
PXKIT_EXPORT extern const char* const kPXWebRequestSSLAllowsExpiredCertificates;
PXKIT_EXPORT extern const char* const kPXWebRequestSSLAllowsExpiredRoots;
PXKIT_EXPORT extern const char* const kPXWebRequestSSLPeerName;
PXKIT_EXPORT extern const char* const kPXWebRequestSSLLevel;
PXKIT_EXPORT extern const char* const kPXWebRequestSSLCertificateAuthorityFile;

// The event handler: (request, event, object, flags). Copied when stored.
using PXWebRequestEventHandler =
    std::function<void(PXWebRequest* request, int32_t event, const PXValue& object, uint32_t flags)>;

// ---- Delegate -------------------------------------------------------------------
// The receiver of the handler made by eventHandlerForDelegate. Each operation is
// called only when respondsToSelector answers yes for its name; the default
// answers yes for all four, so override it to name only the ones you implement.
// Called on the request's thread.
class PXKIT_EXPORT PXWebRequestDelegate : public PXObject {
  PX_DECLARE_CLASS(PXWebRequestDelegate)
 public:
  // "webRequest:connectionError:", "webRequest:receivedHeaders:expectedContentLength:",
  // "webRequest:receivedNewData:finalData:", "webRequest:finishedWithSuccess:canceled:".
  virtual bool respondsToSelector(std::string_view selector) const;

  // Event 3: the transport failed with `error`.
  virtual void webRequestConnectionError(PXWebRequest* request, PXError* error);
  // Event 4: the header fields and the request's responseBodyTotalLength (-1: unknown).
  virtual void webRequestReceivedHeaders(PXWebRequest* request, PXDictionary* headers,
                                         int64_t expectedContentLength);
  // Event 5: the bytes taken with createAvailableResponseBodyData (owned by the
  // caller), and whether they are the final data. Return NO to cancel the request.
  virtual bool webRequestReceivedNewData(PXWebRequest* request, PXRef<PXData> data, bool finalData);
  // Event 6: how the request ended.
  virtual void webRequestFinishedWithSuccess(PXWebRequest* request, bool success, bool canceled);
};

// ---- The request -----------------------------------------------------------------
class PXKIT_EXPORT PXWebRequest : public PXObject {
  PX_DECLARE_CLASS(PXWebRequest)
 public:
  // ---- Creation --------------------------------------------------------------
  // A request with no URL, method or handler; keep-alive off.
  PXWebRequest() noexcept;
  // initWithRequestURL:method:bodyData:keepAlive:timeout:eventHandler: — only stores
  // the six values. `timeout` is in seconds and recorded only (no timeout is applied).
  PXWebRequest(PXString requestURL, PXString method, PXRef<PXData> bodyData, bool keepAlive, double timeout,
               PXWebRequestEventHandler eventHandler);
  ~PXWebRequest() override;

  // A started GET / POST / any-method request with keep-alive and timeout 60 s,
  // holding itself until its finish event (autoRetainUntilRequestCompletion), on
  // the calling thread's run loop. None when it could not start (bad URL, unknown
  // scheme, cancelled from event 1); then no event 6 is delivered.
  [[nodiscard]] static PXRef<PXWebRequest> startedGETRequestForURL(PXString url,
                                                                   PXWebRequestEventHandler handler);
  [[nodiscard]] static PXRef<PXWebRequest> startedPOSTRequestForURL(PXString url, PXRef<PXData> bodyData,
                                                                    PXWebRequestEventHandler handler);
  [[nodiscard]] static PXRef<PXWebRequest> startedRequestWithMethod(PXString method, PXRef<PXData> bodyData,
                                                                    PXString url,
                                                                    PXWebRequestEventHandler handler);

  // The base URL's text, "?" unless it already ends with "?", then for each
  // parameter (in the dictionary's order) "&" unless the text already ends with
  // "&", and key=value, each percent-escaped as UTF-8 except for the characters
  // URLs allow ("&", "=", "/", "+" stay). Kept on purpose: the first pair follows
  // "?&". Keys and values are written as their "%@" text. Absent when `baseURL`
  // is absent. generateURLWithBaseURL:andGETParameters:
  static PXString generateURLWithBaseURL(const PXString& baseURL, const PXDictionary* parameters);

  // A handler that forwards events 3-6 to `delegate` (see PXWebRequestDelegate).
  // With `retainDelegateUntilCompletion` the handler holds the delegate strongly,
  // otherwise weakly, doing nothing once it is gone. Empty for a null delegate.
  static PXWebRequestEventHandler eventHandlerForDelegate(const PXRef<PXWebRequestDelegate>& delegate,
                                                          bool retainDelegateUntilCompletion);

  // ---- Operations (on the request's thread unless said) ------------------------
  // Delivers event 1, then builds the message and starts the transfer on the
  // calling thread's run loop: it goes out at once (connecting, or sending over
  // a kept connection), but every later event comes from that run loop, never
  // from inside this call. `mode` is accepted for every name (run-loop modes
  // are one set on Linux). Returns NO, with no further event, when the request
  // was cancelled, has no usable URL (unparsable, or a scheme other than "http"
  // and "https") or method, or was started before.
  [[nodiscard]] bool startRequestInRunLoopMode(std::string_view mode);
  // Ends the request as cancelled (event 6 with flags 2) and closes its
  // connection. Any thread: from another thread the cancel is handed to the
  // request's run loop, which is woken for it. Does nothing after the finish.
  void cancel();
  // The accumulated, not yet taken body bytes (owned by the caller; never null),
  // emptying the store. Any thread. createAvailableResponseBodyData and
  // getAvailableResponseBodyData are the same.
  [[nodiscard]] PXRef<PXData> createAvailableResponseBodyData();
  [[nodiscard]] PXRef<PXData> getAvailableResponseBodyData() { return createAvailableResponseBodyData(); }

  // ---- Request properties (set before starting, or from event 1) ----------------
  PXString requestURL() const { return requestURL_; }
  void setRequestURL(PXString url) { requestURL_ = std::move(url); }
  PXString requestMethod() const { return requestMethod_; }
  void setRequestMethod(PXString method) { requestMethod_ = std::move(method); }
  PXRef<PXData> requestBodyData() const { return requestBodyData_; }
  void setRequestBodyData(PXRef<PXData> body) { requestBodyData_ = std::move(body); }
  // Extra header fields; entries whose key or value is not a string are skipped.
  PXRef<PXDictionary> requestHeaders() const { return requestHeaders_; }
  void setRequestHeaders(PXRef<PXDictionary> headers) { requestHeaders_ = std::move(headers); }
  // TLS settings, used for "https" URLs only (keys: see the banner).
  PXRef<PXDictionary> requestSSLOptions() const { return requestSSLOptions_; }
  void setRequestSSLOptions(PXRef<PXDictionary> options) { requestSSLOptions_ = std::move(options); }
  bool requestKeepAlive() const noexcept { return requestKeepAlive_; }
  void setRequestKeepAlive(bool keepAlive) noexcept { requestKeepAlive_ = keepAlive; }
  // Seconds; recorded only.
  double requestTimeout() const noexcept { return requestTimeout_; }
  void setRequestTimeout(double seconds) noexcept { requestTimeout_ = seconds; }
  PXWebRequestEventHandler eventHandler() const;
  void setEventHandler(PXWebRequestEventHandler handler);
  bool autoRetainUntilRequestCompletion() const noexcept { return selfReference_ != nullptr; }
  // YES takes a reference to the request itself, NO gives it up; the same value
  // twice does nothing. Cleared when event 6 has been delivered.
  void setAutoRetainUntilRequestCompletion(bool retain);
  // A free slot for the caller.
  PXValue userData() const { return userData_; }
  void setUserData(PXValue value) { userData_ = std::move(value); }

  // ---- Response (read on the request's thread) ---------------------------------
  // All header fields of the final response; none before event 4. Repeated
  // fields are joined with ", ".
  PXRef<PXDictionary> responseHeaders() const { return responseHeaders_; }
  // The final response's status code (200, 404, ...), 0 before event 4.
  int32_t responseStatusCode() const noexcept { return responseStatusCode_; }
  // Body bytes read so far.
  int64_t responseBodyReceivedBytes() const noexcept { return responseBodyReceivedBytes_; }
  // The response's "Content-Length", or -1 when absent or unreadable.
  int64_t responseBodyTotalLength() const noexcept { return responseBodyTotalLength_; }
  // The body bytes accumulated and not yet taken; none before the first data.
  PXRef<PXMutableData> responseBodyData() const;
  // The transport error that ended the request; none otherwise.
  PXRef<PXError> lastError() const { return lastError_; }

  // ---- Outcome (any thread) --------------------------------------------------------
  // Observable under "isComplete" (not the property name), "wasSuccessful" and
  // "wasCancelled"; they change together just before event 6, in that order.
  bool isCompleted() const noexcept { return isCompleted_.load(std::memory_order_acquire); }
  bool wasSuccessful() const noexcept { return wasSuccessful_.load(std::memory_order_acquire); }
  bool wasCancelled() const noexcept { return wasCancelled_.load(std::memory_order_acquire); }

  // Key-value coding also answers the observable key "isComplete".
  PXValue valueForKey(std::string_view key) const override;

 private:
  friend struct PXWebRequestTestHook;
  friend class pxkit::internal::WebMulti;

  // Internal operations, named as the kit's other sources call them.
  static PXRef<PXMutableDictionary> _requestKeepAliveStreamTrackDictForURL(const PXString& hostTrackingID);
  static void _releaseKeepAliveStreamTrackDict(const PXRef<PXMutableDictionary>& record);
  static std::vector<PXRef<PXDictionary>> _keepAliveStreamTrackDicts();  // copies, for tests
  void _callbackWithTransfer();  // the work of one run-loop dispatch of the transfer
  void _stopRequest(bool closeStream);
  void _notifyDelegateOfFinishedWithSuccess(bool success, bool canceled);
  void _handleEvent(int32_t event, const PXValue& object, uint32_t flags);
  void _deliverHeaders();
  void _deliverData(bool finishing);

  // Request.
  PXString requestURL_;
  PXString requestMethod_;
  PXRef<PXData> requestBodyData_;
  PXRef<PXDictionary> requestHeaders_;
  PXRef<PXDictionary> requestSSLOptions_;
  bool requestKeepAlive_ = false;
  double requestTimeout_ = 0.0;
  mutable std::mutex stateLock_;  // guards eventHandler_, the thread and the cancel hand-over
  PXWebRequestEventHandler eventHandler_;
  PXRef<PXWebRequest> selfReference_;
  PXValue userData_;

  // Response.
  PXRef<PXDictionary> responseHeaders_;
  int32_t responseStatusCode_ = 0;
  int64_t responseBodyReceivedBytes_ = 0;
  int64_t responseBodyTotalLength_ = -1;
  mutable std::mutex bodyLock_;  // the request's own lock: guards responseBodyData_
  PXRef<PXMutableData> responseBodyData_;
  PXRef<PXError> lastError_;
  std::atomic<bool> isCompleted_{false};
  std::atomic<bool> wasSuccessful_{false};
  std::atomic<bool> wasCancelled_{false};

  // Private state.
  PXRef<PXMutableDictionary> streamTrackDict_;                     // the tracking record in use
  bool httpConnectionClose_ = false;                               // the server said "Connection: close"
  std::unique_ptr<pxkit::internal::WebRequestTransfer> transfer_;  // the transfer in flight
  bool started_ = false;
  bool headerDataReceived_ = false;
  bool errorOccured_ = false;
  bool handlingCompleted_ = false;  // event 6 has been delivered
  bool endEncountered_ = false;
  std::atomic<bool> canceled_{false};
  std::atomic<bool> needsToExecuteCancel_{false};  // a cancel from another thread waits for ours
  PXRef<PXRunLoop> webRequestThread_;              // the run loop the request was started on
  std::thread::id webRequestThreadID_;             // and its thread
};
