// The web request's cost against the floor: the same exchanges through one
// reused bare libcurl easy handle (curl_easy_perform in a loop), both against
// a libsoup server on 127.0.0.1 in this process (two identical servers: one
// for kept connections, one for new connections, see server()).
//
//  - 2,000 sequential small GETs with keep-alive: PXWebRequest on this thread's
//    run loop, each started when the previous one finished, vs. the easy handle.
//  - The same GETs without keep-alive (a new connection each), vs. with it.
//  - 200 POSTs of a 1 MB body.
//  - For reference, the keep-alive gain bare libcurl gets against the same
//    servers: the GETs through one easy handle on a multi handle of its own
//    (curl_multi_poll, no run loop), over one connection and with a new one
//    each. The server's own cost per request bounds what any client gains.
//
// Ratios are throughputs (the other side's time over ours): 1.0 is as fast as
// the other side, above it is faster. The servers' threads and the client's
// (this one) are pinned to two different cores when there are two.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <pxkit/net/PXWebRequest.h>
#include <pxkit/platform/PXRunLoop.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "support/PXBenchCores.h"
#include "support/PXBenchRatio.h"
#include "support/PXLoopbackServer.h"

namespace {

constexpr int kGets = 2000;
constexpr int kPosts = 200;
constexpr size_t kPostSize = 1024 * 1024;

// A server on its own thread, pinned to the second core when there are two.
PXLoopbackServer* makeServer() {
  // The server's thread takes the core this thread has when it is made.
  const std::vector<int> cores = PXBenchAllowedCores();
  const bool pin = cores.size() >= 2 && PXBenchPinCallingThread(cores[1]);
  auto* made = new PXLoopbackServer({.https = false, .keepRequests = false});
  if (pin && !PXBenchPinCallingThread(cores[0])) PXBenchUnpinCallingThread();
  made->handle("/small",
               [](const PXLoopbackServer::Request&) { return PXLoopbackServer::Response("small body"); });
  made->handle("/post", [](const PXLoopbackServer::Request& request) {
    return PXLoopbackServer::Response(std::to_string(request.body.size()));
  });
  return made;
}

// The server of the exchanges over kept connections, and one for those that
// open a new connection each: a libsoup server slows down for a while after
// thousands of connections came and went, which would otherwise weigh on
// whichever benchmark happens to run next.
PXLoopbackServer& server(bool keepAlive) {
  static PXLoopbackServer* kept = makeServer();
  static PXLoopbackServer* fresh = makeServer();
  return keepAlive ? *kept : *fresh;
}

// One exchange through PXWebRequest, run to its finish on this thread's loop.
bool webRequest(const PXString& url, bool keepAlive, const PXRef<PXData>& body, size_t& received) {
  bool finished = false, success = false;
  auto request = PXMake<PXWebRequest>(url, body ? "POST" : "GET", body, keepAlive, 60.0,
                                      [&](PXWebRequest* r, int32_t event, const PXValue&, uint32_t flags) {
                                        if (event == kPXWebRequestEventReceivedData) {
                                          received += r->createAvailableResponseBodyData()->length();
                                        } else if (event == kPXWebRequestEventFinished) {
                                          finished = true;
                                          success = flags & kPXWebRequestFinishedSuccess;
                                        }
                                      });
  if (!request->startRequestInRunLoopMode(kPXDefaultRunLoopMode)) return false;
  PXRunLoop* loop = PXRunLoop::current();
  while (!finished) loop->runOnce(/*mayBlock=*/true);
  return success;
}

size_t collect(char*, size_t size, size_t count, void* received) {
  *static_cast<size_t*>(received) += size * count;
  return size * count;
}

// Runs `exchange` `count` times per iteration; a failed exchange ends the
// benchmark with an error.
template <typename Exchange>
void runExchanges(benchmark::State& state, int count, Exchange exchange) {
  for (auto _ : state) {
    for (int i = 0; i < count; ++i) {
      if (!exchange()) {
        state.SkipWithError("request failed");
        return;
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * count);
}

// An easy handle that sends to `url` with `headers`, counting the body bytes in `received`.
CURL* makeEasy(const std::string& url, curl_slist* headers, size_t& received) {
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &collect);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &received);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  return easy;
}

void runWebRequests(benchmark::State& state, const char* path, int count, bool keepAlive, size_t bodySize) {
  const PXString url(server(keepAlive).url(path));
  PXRef<PXData> body = bodySize ? PXData::dataWithString(std::string(bodySize, 'b')) : nullptr;
  size_t received = 0;
  runExchanges(state, count, [&] { return webRequest(url, keepAlive, body, received); });
  benchmark::DoNotOptimize(received);
}

void runCurlEasy(benchmark::State& state, const char* path, int count, size_t bodySize) {
  const std::string body(bodySize, 'b');
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  size_t received = 0;
  CURL* easy = makeEasy(server(/*keepAlive=*/true).url(path), headers, received);
  if (bodySize) {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
  }
  runExchanges(state, count, [&] { return curl_easy_perform(easy) == CURLE_OK; });
  benchmark::DoNotOptimize(received);
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
}

void runCurlMulti(benchmark::State& state, const char* path, int count, bool keepAlive) {
  // As PXWebRequest asks: the server closes a connection that is not kept at once.
  curl_slist* headers =
      curl_slist_append(nullptr, keepAlive ? "Connection: Keep-Alive" : "Connection: close");
  size_t received = 0;
  CURL* easy = makeEasy(server(keepAlive).url(path), headers, received);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, keepAlive ? 0L : 1L);
  curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, keepAlive ? 0L : 1L);
  CURLM* multi = curl_multi_init();
  runExchanges(state, count, [&] {
    curl_multi_add_handle(multi, easy);
    int running = 1;
    while (running) {
      curl_multi_perform(multi, &running);
      if (running) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    int queued = 0;
    const CURLMsg* message = curl_multi_info_read(multi, &queued);
    const bool ok = message && message->msg == CURLMSG_DONE && message->data.result == CURLE_OK;
    curl_multi_remove_handle(multi, easy);
    return ok;
  });
  benchmark::DoNotOptimize(received);
  curl_multi_cleanup(multi);
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
}

void BM_WebRequest_GetKeepAlive(benchmark::State& state) {
  runWebRequests(state, "/small", kGets, /*keepAlive=*/true, 0);
}
void BM_WebRequest_GetNewConnection(benchmark::State& state) {
  runWebRequests(state, "/small", kGets, /*keepAlive=*/false, 0);
}
void BM_CurlEasy_GetKeepAlive(benchmark::State& state) {
  runCurlEasy(state, "/small", kGets, 0);
}
void BM_CurlMulti_GetKeepAlive(benchmark::State& state) {
  runCurlMulti(state, "/small", kGets, /*keepAlive=*/true);
}
void BM_CurlMulti_GetNewConnection(benchmark::State& state) {
  runCurlMulti(state, "/small", kGets, /*keepAlive=*/false);
}
void BM_WebRequest_Post1MB(benchmark::State& state) {
  runWebRequests(state, "/post", kPosts, /*keepAlive=*/true, kPostSize);
}
void BM_CurlEasy_Post1MB(benchmark::State& state) {
  runCurlEasy(state, "/post", kPosts, kPostSize);
}

BENCHMARK(BM_WebRequest_GetKeepAlive)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WebRequest_GetNewConnection)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CurlEasy_GetKeepAlive)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CurlMulti_GetKeepAlive)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CurlMulti_GetNewConnection)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WebRequest_Post1MB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CurlEasy_Post1MB)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::map<std::string, double> times = PXBenchRunAll(argc, argv);
  auto ratio = [&](const char* name, const char* theirs, const char* ours) {
    auto a = times.find(theirs), b = times.find(ours);
    if (a != times.end() && b != times.end() && b->second > 0)
      PXBenchReportRatio(name, a->second / b->second);
  };
  ratio("http-get-keepalive-vs-curl-easy", "BM_CurlEasy_GetKeepAlive/real_time",
        "BM_WebRequest_GetKeepAlive/real_time");
  ratio("http-keepalive-vs-new-connection", "BM_WebRequest_GetNewConnection/real_time",
        "BM_WebRequest_GetKeepAlive/real_time");
  ratio("curl-multi-keepalive-vs-new-connection", "BM_CurlMulti_GetNewConnection/real_time",
        "BM_CurlMulti_GetKeepAlive/real_time");
  ratio("http-post-1mb-vs-curl-easy", "BM_CurlEasy_Post1MB/real_time", "BM_WebRequest_Post1MB/real_time");
  return 0;
}
