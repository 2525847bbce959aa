// The web request's transport: libcurl's multi interface on a run loop.
//
//  - WebMulti: one CURLM per run loop (per GLib main context), made on first
//    use and kept as an associated object of that run loop. libcurl tells it,
//    through its socket and timer callbacks, which sockets to watch and when
//    to call back; it watches them with FdWatch and RunLoopTimeout on the run
//    loop, so nothing polls and no thread of its own runs. After each call into
//    libcurl it hands the requests that saw something (opened, header, body,
//    end) to PXWebRequest, outside every libcurl callback, so a request may
//    start, cancel or release requests from its event handler.
//  - WebConnection: what a keep-alive tracking record keeps under
//    "readStreamRef": an easy handle and a share whose connection cache holds
//    the record's open connection. Requests that take the record send over it.
//  - WebRequestTransfer: the state of one request in flight.
//
// Threads: a WebMulti and its transfers are used on their run loop's thread
// only. A WebConnection is used by one request at a time (the record's
// "isUsed"), handed between threads under the record's lock.
#pragma once

#include <pxkit/net/PXWebRequest.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/platform/PXRunLoop.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "net/internal/CurlHandles.h"
#include "platform/internal/FdWatch.h"

namespace pxkit::internal {

class WebMulti;

// An easy handle, with a connection cache of its own when it belongs to a
// keep-alive tracking record. Destroying it closes its cached connection.
class WebConnection : public PXObject {
 public:
  // `keepAlive`: give it a share with a connection cache (the record's connection).
  explicit WebConnection(bool keepAlive);
  ~WebConnection() override;
  CURL* easy() const noexcept { return easy_.get(); }
  bool valid() const noexcept { return easy_ && (!keepAlive_ || share_); }

  // The last request configured the handle as a plain GET (PXWebRequest.cpp).
  bool holdsPlainGET = false;

 private:
  bool keepAlive_;
  curl::Share share_;  // outlives easy_: destroyed after it (declared first)
  curl::Easy easy_;
};

// One request in flight.
struct WebRequestTransfer {
  // The request it reports to; null once that request is gone.
  std::atomic<PXWebRequest*> request{nullptr};
  PXRef<WebMulti> multi;
  PXRef<WebConnection> connection;
  bool attached = false;  // added to the multi
  curl::Slist headers;
  PXRef<PXData> body;   // kept for the transfer: the body is sent from its bytes
  PendingIO pendingIO;  // the virtual clock waits for us
  char errorBuffer[CURL_ERROR_SIZE] = {};

  // What libcurl reported since the request last looked.
  bool opened = false;  // a connection is ready and the request goes out
  bool openedDelivered = false;
  bool dataPending = false;  // body bytes were appended
  bool done = false;         // the transfer ended
  CURLcode result = CURLE_OK;

  // The response header being read: status and fields in arrival order.
  int32_t statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headerFields;
  bool finalHeaderReady = false;  // the last response's header is complete

  ~WebRequestTransfer();
};

// The multi handle of one run loop.
class WebMulti : public PXObject {
 public:
  // The run loop's multi, made on first use. Null when curl cannot make one.
  static PXRef<WebMulti> forRunLoop(PXRunLoop* loop);
  ~WebMulti() override;

  PXRunLoop* runLoop() const noexcept { return loop_; }
  // Starts the transfer of `transfer`'s connection; false when curl refuses it.
  bool add(WebRequestTransfer& transfer);
  // Lets libcurl act on what was added at once (connect, send) instead of at
  // the next turn of the loop, which still hands over whatever it reported:
  // no event is delivered from here. Not from inside a libcurl callback.
  void kick();
  // Ends it (not from inside a libcurl callback). A transfer that has not
  // finished loses its connection.
  void remove(WebRequestTransfer& transfer);
  // Queues `request` for the next hand-over (from libcurl's callbacks).
  void markDirty(PXWebRequest* request);
  // Hands the queued requests over (request thread, outside libcurl).
  void dispatch();

  // The easy handle's callbacks (CURLOPT_HEADERFUNCTION, CURLOPT_WRITEFUNCTION,
  // CURLOPT_PREREQFUNCTION); their user data is the WebRequestTransfer.
  static size_t onHeader(char* bytes, size_t size, size_t count, void* userp);
  static size_t onBody(char* bytes, size_t size, size_t count, void* userp);
  static int onPrereq(void* userp, char* remoteIP, char* localIP, int remotePort, int localPort);

 private:
  explicit WebMulti(PXRunLoop* loop, curl::Multi multi);
  static int socketCallback(CURL* easy, curl_socket_t socket, int what, void* userp, void* socketp);
  static int timerCallback(CURLM* multi, long timeoutMs, void* userp);
  void drive(curl_socket_t socket, int events);
  // Calls drive() for libcurl's timeout `milliseconds` from now.
  void armTimer(long milliseconds);

  PXRunLoop* loop_;  // borrowed: the loop keeps us
  curl::Multi multi_;
  std::unordered_map<curl_socket_t, FdWatch> watches_;
  RunLoopTimeout timer_;
  std::vector<PXRef<PXWebRequest>> dirty_;
};

}  // namespace pxkit::internal
