// PXWebRequest against a real HTTP server in the process (PXLoopbackServer).
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <pxkit/net/PXWebRequest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/platform/PXRunLoop.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/PXLoopbackServer.h"
#include "support/PXRunLoopUntil.h"

struct PXWebRequestTestHook {
  static std::vector<PXRef<PXDictionary>> records() { return PXWebRequest::_keepAliveStreamTrackDicts(); }
  // The records of one host: the list is the process's, and other tests add to it.
  static std::vector<PXRef<PXDictionary>> records(const std::string& hostTrackingID) {
    std::vector<PXRef<PXDictionary>> found = records();
    std::erase_if(found, [&](const PXRef<PXDictionary>& record) {
      return record->objectForKey(kPXWebRequestTrackHostTrackingIDKey).stringValue() != hostTrackingID;
    });
    return found;
  }
  static PXRef<PXMutableDictionary> record(PXWebRequest& request) { return request.streamTrackDict_; }
};

namespace {

using Server = PXLoopbackServer;

// What a request reported.
struct Recorder {
  std::vector<int32_t> events;
  std::vector<uint32_t> flags;
  std::string body;
  PXRef<PXError> error;
  uint64_t uniqueID = UINT64_MAX;  // of the tracking record, seen at event 2
  int finishes = 0;
  uint32_t finishFlags = 0;
  std::function<void(PXWebRequest*, int32_t)> also;

  PXWebRequestEventHandler handler() {
    return [this](PXWebRequest* request, int32_t event, const PXValue& object, uint32_t eventFlags) {
      events.push_back(event);
      flags.push_back(eventFlags);
      auto record = event == kPXWebRequestEventOpened ? PXWebRequestTestHook::record(*request) : nullptr;
      if (record) uniqueID = record->objectForKey(kPXWebRequestTrackUniqueIDKey).unsignedLongLongValue();
      if (event == kPXWebRequestEventError) error = PXDynamicCast<PXError>(object.objectValue());
      if (event == kPXWebRequestEventReceivedData)
        body.append(request->createAvailableResponseBodyData()->view());
      if (event == kPXWebRequestEventFinished) {
        ++finishes;
        finishFlags = eventFlags;
      }
      if (also) also(request, event);
    };
  }
  bool finished() const { return finishes > 0; }
  bool saw(int32_t event) const { return std::find(events.begin(), events.end(), event) != events.end(); }
};

PXRef<PXWebRequest> makeRequest(const std::string& url, Recorder& recorder, bool keepAlive = true,
                                PXString method = "GET", PXRef<PXData> body = nullptr) {
  return PXMake<PXWebRequest>(PXString(url), method, std::move(body), keepAlive, 60.0, recorder.handler());
}

// Starts a request and runs this thread's loop until its finish.
void runToFinish(PXWebRequest& request, Recorder& recorder) {
  ASSERT_TRUE(request.startRequestInRunLoopMode(kPXDefaultRunLoopMode));
  ASSERT_TRUE(PXRunLoopUntil([&] { return recorder.finished(); }));
}

bool hasConnection(const PXRef<PXDictionary>& record) {
  return static_cast<bool>(record->objectForKey(kPXWebRequestTrackReadStreamKey));
}

TEST(PXWebRequest, GeneratesQueryURLsWithTheKeptLeadingAmpersand) {
  struct Row {
    const char* base;
    std::vector<PXDictionary::Entry> parameters;
    const char* expected;
  } rows[] = {
      {"http://h/p?", {{"a", "b"}, {"c", "d"}}, "http://h/p?&a=b&c=d"},
      {"http://h/p", {}, "http://h/p?"},
      {"", {{"a", "b"}}, "?&a=b"},
      {"http://h/p", {{"q", "a b&c=d/e+f?#"}}, "http://h/p?&q=a%20b&c=d/e+f?#"},
      {"http://h/p",
       {{"name", "caf\xC3\xA9 \"%<>\\^`{|}[]"}},
       "http://h/p?&name=caf%C3%A9%20%22%25%3C%3E%5C%5E%60%7B%7C%7D%5B%5D"},
      {"http://h/p", {{"n", 42}, {"t", true}}, "http://h/p?&n=42&t=1"},
  };
  for (const Row& row : rows) {
    auto parameters = PXDictionary::dictionaryWithEntries(row.parameters);
    EXPECT_EQ(PXWebRequest::generateURLWithBaseURL(row.base, parameters.get()), row.expected) << row.base;
  }
  EXPECT_FALSE(PXWebRequest::generateURLWithBaseURL(PXString(), nullptr));
  EXPECT_EQ(PXWebRequest::generateURLWithBaseURL("http://h/?", nullptr), "http://h/?");
}

TEST(PXWebRequest, EndsEachResponseShapeAsItsFramingSays) {
  Server server;
  server.handle("/empty", [](const Server::Request&) { return Server::Response(); });
  server.handle("/sized", [](const Server::Request&) { return Server::Response("hello"); });
  server.handle("/chunked",
                [](const Server::Request&) { return Server::Response("hello chunked").chunked(); });
  server.handle("/missing", [](const Server::Request&) { return Server::Response("missing", 404); });
  server.handle("/broken", [](const Server::Request&) { return Server::Response("broken", 500); });
  server.handleRaw("/until-close", Server::RawResponse("HTTP/1.1 200 OK\r\n\r\nread until close"));
  server.handleRaw("/short", Server::RawResponse("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly ten b"));
  server.handleRaw("/reset", Server::RawResponse("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nten bytes.",
                                                 Server::RawEnding::Reset));
  server.handleRaw("/garbage", Server::RawResponse("this is not HTTP at all\r\n\r\n"));

  // outcome: success, error (event 3 came), responseBodyTotalLength, status, kept (the tracking record
  // holds its connection), body.
  struct Row {
    std::string name, url, outcome;
    const char* method = "GET";
  } rows[] = {
      // A zero length completes at the end of the message, which closes the connection.
      {"content-length 0", server.url("/empty"), "1 0 0 200 0 "},
      {"content-length", server.url("/sized"), "1 0 5 200 1 hello"},
      {"chunked", server.url("/chunked"), "1 0 -1 200 0 hello chunked"},
      {"close-delimited", server.rawURL("/until-close"), "1 0 -1 200 0 read until close"},
      {"shorter than its length", server.rawURL("/short"), "0 0 100 200 0 only ten b"},
      {"404 with a body", server.url("/missing"), "1 0 7 404 1 missing"},
      {"500 with a body", server.url("/broken"), "1 0 6 500 1 broken"},
      {"reset in the body", server.rawURL("/reset"), "0 1 100 200 0 ten bytes."},
      {"not HTTP", server.rawURL("/garbage"), "0 1 -1 0 0 "},
      {"refused", "http://127.0.0.1:" + std::to_string(Server::refusedPort()) + "/", "0 1 -1 0 0 "},
      // Kept: a header that announces a length no body follows is a short body.
      {"HEAD with a length", server.url("/sized"), "0 0 5 200 0 ", "HEAD"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Recorder recorder;
    PXRef<PXMutableDictionary> record;
    recorder.also = [&](PXWebRequest* request, int32_t event) {
      if (event == kPXWebRequestEventWillStart) return;
      if (!record) record = PXWebRequestTestHook::record(*request);
    };
    auto request = makeRequest(row.url, recorder, /*keepAlive=*/true, row.method);
    runToFinish(*request, recorder);

    const bool error = static_cast<bool>(request->lastError());
    EXPECT_EQ(std::to_string(request->wasSuccessful()) + " " + std::to_string(error) + " " +
                  std::to_string(request->responseBodyTotalLength()) + " " +
                  std::to_string(request->responseStatusCode()) + " " +
                  std::to_string(record && hasConnection(record)) + " " + recorder.body,
              row.outcome);
    EXPECT_EQ(recorder.finishes, 1);
    EXPECT_EQ(recorder.events.front(), kPXWebRequestEventWillStart);
    EXPECT_EQ(recorder.finishFlags, request->wasSuccessful() ? kPXWebRequestFinishedSuccess : 0u);
    const size_t n = recorder.events.size();
    // Event 3, when it comes, comes right before the finish.
    EXPECT_EQ(recorder.events[n - 2] == kPXWebRequestEventError, error);
    if (error) {
      EXPECT_EQ(recorder.error->domain(), kPXWebRequestErrorDomain);
      EXPECT_EQ(recorder.error->userInfo()->objectForKey(kPXWebRequestErrorURLKey).stringValue(), row.url);
    }
    // The last data event of a complete sized body says it is the final data.
    EXPECT_TRUE(!(request->responseBodyTotalLength() > 0 && request->wasSuccessful()) ||
                recorder.flags[n - 2] == kPXWebRequestDataFinal);
    EXPECT_FALSE(record && record->objectForKey(kPXWebRequestTrackIsUsedKey));
  }
}

TEST(PXWebRequest, FollowsRedirectChainsUpToTheLimit) {
  Server server;
  // /hop/N redirects (301 and 302 in turn) to /hop/N-1; /hop/0 answers.
  server.handle("/hop", [&server](const Server::Request& request) {
    int left = std::stoi(request.query);
    if (left == 0) return Server::Response("arrived");
    return Server::Response("moving", left % 2 ? 301 : 302)
        .header("Location", server.url("/hop") + "?" + std::to_string(left - 1));
  });
  for (bool success : {true, false}) {
    Recorder recorder;
    auto request =
        makeRequest(server.url("/hop?") + std::to_string(kPXWebRequestMaxRedirects + !success), recorder);
    runToFinish(*request, recorder);
    EXPECT_EQ(request->wasSuccessful(), success);
    // The redirects' own headers and bodies are not reported.
    EXPECT_EQ(recorder.saw(kPXWebRequestEventReceivedHeaders), success);
    EXPECT_EQ(recorder.body, success ? "arrived" : "");
    EXPECT_EQ(recorder.error ? recorder.error->code() : 0, success ? 0 : CURLE_TOO_MANY_REDIRECTS);
  }
  // The long chain was left after the limit: its first request and the redirects followed.
  EXPECT_EQ(server.requests().size(), 2u * (kPXWebRequestMaxRedirects + 1));
}

TEST(PXWebRequest, RefusesToStartWithoutAUsableURLOrMethodOrOnceCancelled) {
  const std::pair<PXString, PXString> rows[] = {
      {"http://[not-an-address/", "GET"},
      {"ftp://127.0.0.1/file", "GET"},
      {"no scheme at all", "GET"},
      {"", "GET"},
      {PXString(), "GET"},
      {"http://127.0.0.1/", PXString()},
      {"file:///etc/passwd", "GET"},
  };
  for (const auto& [url, method] : rows) {
    SCOPED_TRACE(url.str());
    Recorder recorder;
    auto request = PXMake<PXWebRequest>(url, method, nullptr, true, 60.0, recorder.handler());
    EXPECT_FALSE(request->startRequestInRunLoopMode(kPXDefaultRunLoopMode));
    EXPECT_EQ(recorder.events, std::vector<int32_t>{kPXWebRequestEventWillStart});
    EXPECT_FALSE(request->isCompleted());
    if (method) {
      EXPECT_FALSE(PXWebRequest::startedGETRequestForURL(url, recorder.handler()));
    }
  }
  // Cancelled before its start, a request finishes as cancelled and never starts.
  Recorder recorder;
  auto request = makeRequest("http://127.0.0.1:9/", recorder);
  request->cancel();
  EXPECT_EQ(recorder.events, std::vector<int32_t>{kPXWebRequestEventFinished});
  EXPECT_EQ(recorder.finishFlags, kPXWebRequestFinishedCancelled);
  EXPECT_FALSE(request->startRequestInRunLoopMode(kPXDefaultRunLoopMode));
  EXPECT_EQ(recorder.events.size(), 1u);
  EXPECT_TRUE(request->wasCancelled());
}

TEST(PXWebRequest, KeptConnectionsAreReusedUntilTheServerSaysClose) {
  Server server;
  server.handle("/item", [](const Server::Request&) { return Server::Response("item"); });
  server.handle("/close",
                [](const Server::Request&) { return Server::Response("bye").header("Connection", "CLOSE"); });
  Recorder first, second, third, closing;
  auto a = makeRequest(server.url("/item"), first);
  auto b = makeRequest(server.url("/item"), second);
  ASSERT_TRUE(a->startRequestInRunLoopMode(kPXDefaultRunLoopMode));
  ASSERT_TRUE(b->startRequestInRunLoopMode(kPXDefaultRunLoopMode));
  ASSERT_TRUE(PXRunLoopUntil([&] { return first.finished() && second.finished(); }));
  EXPECT_TRUE(a->wasSuccessful() && b->wasSuccessful());
  EXPECT_NE(first.uniqueID, second.uniqueID) << "simultaneous requests take two records";
  EXPECT_FALSE(a->startRequestInRunLoopMode(kPXDefaultRunLoopMode)) << "a request starts once";

  auto c = makeRequest(server.url("/item"), third);
  runToFinish(*c, third);
  EXPECT_EQ(third.body, "item");
  EXPECT_EQ(third.uniqueID, first.uniqueID);
  EXPECT_EQ(server.acceptedConnections(), 2);  // sent over the first record's open connection
  const std::string hostTrackingID = "http_127.0.0.1_" + std::to_string(server.port());
  auto records = PXWebRequestTestHook::records(hostTrackingID);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_TRUE(hasConnection(records[0]) && hasConnection(records[1]));

  // "Connection: CLOSE", in any case, closes the kept connection it came over.
  auto d = makeRequest(server.url("/close"), closing);
  runToFinish(*d, closing);
  EXPECT_EQ(closing.body, "bye");
  records = PXWebRequestTestHook::records(hostTrackingID);
  EXPECT_EQ(std::count_if(records.begin(), records.end(), [](const auto& r) { return !hasConnection(r); }),
            1);

  // Without keep-alive a request has a connection of its own and no record.
  Recorder plain;
  auto e = makeRequest(server.url("/item"), plain, /*keepAlive=*/false);
  runToFinish(*e, plain);
  EXPECT_EQ(plain.body, "item");
  EXPECT_EQ(server.requests().back().header("Connection"), "close");
  EXPECT_EQ(server.acceptedConnections(), 3);
  EXPECT_EQ(PXWebRequestTestHook::records(hostTrackingID).size(), 2u);
}

// Over a kept connection, start sends the request at once (the server has it
// before this thread's loop runs), yet delivers nothing but event 1 itself:
// the rest comes from the loop, in order.
TEST(PXWebRequest, GoesOutAtStartButReportsOnlyFromItsLoop) {
  Server server;
  server.handle("/item", [](const Server::Request&) { return Server::Response("item"); });
  Recorder opening, recorder;
  auto first = makeRequest(server.url("/item"), opening);
  runToFinish(*first, opening);
  auto request = makeRequest(server.url("/item"), recorder);
  ASSERT_TRUE(request->startRequestInRunLoopMode(kPXDefaultRunLoopMode));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (server.requests().size() < 2 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(server.requests().size(), 2u) << "sent before the loop ran";
  EXPECT_EQ(recorder.events, std::vector<int32_t>{kPXWebRequestEventWillStart});
  ASSERT_TRUE(PXRunLoopUntil([&] { return recorder.finished(); }));
  EXPECT_EQ(recorder.events,
            (std::vector<int32_t>{kPXWebRequestEventWillStart, kPXWebRequestEventOpened,
                                  kPXWebRequestEventReceivedHeaders, kPXWebRequestEventReceivedData,
                                  kPXWebRequestEventFinished}));
  EXPECT_EQ(recorder.body, "item");

  // The kept handle is set up afresh for a request unlike the last: a GET after a POST is a GET.
  for (const char* method : {"POST", "GET"}) {
    Recorder next;
    PXRef<PXData> body = std::string_view(method) == "POST" ? PXData::dataWithString("posted") : nullptr;
    auto again = makeRequest(server.url("/item"), next, true, method, body);
    runToFinish(*again, next);
    EXPECT_EQ(server.requests().back().method, method);
    EXPECT_EQ(server.requests().back().body, body ? "posted" : "");
  }
  EXPECT_EQ(server.acceptedConnections(), 1);
}

TEST(PXWebRequest, SendsItsBodyWithTheKitsHeaderFields) {
  Server server;
  server.handle("/post", [](const Server::Request& request) {
    return Server::Response(std::to_string(request.body.size()));
  });
  struct Row {
    std::vector<PXDictionary::Entry> headers;
    const char *contentType, *expect = "";  // no Expect unless the caller asks for one
  } rows[] = {
      {{}, "application/data"},
      {{{"Content-Type", "application/json"}, {"X-Number", 7}, {"X-Extra", "yes"}}, "application/json"},
      {{{"Expect", "100-continue"}, {"X-Empty", ""}, {1, "not a name"}}, "application/data", "100-continue"},
  };
  for (const Row& row : rows) {
    Recorder recorder;
    std::string payload(70000, 'p');  // larger than libcurl's upload buffer
    auto request = makeRequest(server.url("/post"), recorder, true, "POST", PXData::dataWithString(payload));
    recorder.also = [&](PXWebRequest* r, int32_t event) {
      // Event 1 comes before the message is built: headers set here are sent.
      if (event == kPXWebRequestEventWillStart)
        r->setRequestHeaders(PXDictionary::dictionaryWithEntries(row.headers));
    };
    runToFinish(*request, recorder);
    EXPECT_EQ(recorder.body, "70000");
    const Server::Request seen = server.requests().back();
    EXPECT_EQ(seen.method, "POST");
    EXPECT_EQ(seen.body, payload);
    EXPECT_EQ(seen.header("Content-Type"), row.contentType);
    EXPECT_EQ(seen.header("Content-Length"), "70000");
    EXPECT_EQ(seen.header("Connection"), "Keep-Alive");
    EXPECT_FALSE(seen.hasHeader("X-Number"));  // not a string: skipped
    EXPECT_EQ(seen.header("Expect"), row.expect);
  }
  EXPECT_EQ(server.requests()[1].header("X-Extra"), "yes");
  EXPECT_TRUE(server.requests()[2].hasHeader("X-Empty"));
}

TEST(PXWebRequest, AnotherThreadEndsAStalledTransferAtOnceByCancellingOrReleasingIt) {
  Server server;
  server.handleRaw("/drip", Server::RawResponse("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nfirst drop",
                                                Server::RawEnding::Stall));
  for (bool cancel : {true, false}) {
    SCOPED_TRACE(cancel ? "cancelled" : "released");
    Recorder recorder;
    PXRef<PXMutableDictionary> record;
    recorder.also = [&](PXWebRequest* request, int32_t event) {
      if (event == kPXWebRequestEventReceivedData && !record) record = PXWebRequestTestHook::record(*request);
    };
    auto request = makeRequest(server.rawURL("/drip"), recorder);
    ASSERT_TRUE(request->startRequestInRunLoopMode(kPXDefaultRunLoopMode));
    // No byte follows: only the hand-over to this thread can end the request.
    ASSERT_TRUE(PXRunLoopUntil([&] { return record != nullptr; }));
    EXPECT_EQ(recorder.body, "first drop");
    if (cancel) {
      std::thread([&] { request->cancel(); }).join();
      ASSERT_TRUE(PXRunLoopUntil([&] { return recorder.finished(); }));
      EXPECT_EQ(recorder.finishFlags, kPXWebRequestFinishedCancelled);
      EXPECT_FALSE(hasConnection(record));
      EXPECT_FALSE(record->objectForKey(kPXWebRequestTrackIsUsedKey));
    } else {
      std::thread([last = std::move(request)]() mutable { last = nullptr; }).join();
      // The transfer is handed back to this loop, which stops it and frees the record.
      ASSERT_TRUE(PXRunLoopUntil([&] {
        auto records = PXWebRequestTestHook::records();
        return std::none_of(records.begin(), records.end(), [](const auto& r) {
          return r->objectForKey(kPXWebRequestTrackIsUsedKey).boolValue();
        });
      }));
      EXPECT_FALSE(recorder.finished());  // released, not finished: no event 6
    }
  }
}

class RecordingDelegate : public PXWebRequestDelegate {
 public:
  std::vector<std::string> calls;
  bool keepReading = true;
  bool respondsToSelector(std::string_view selector) const override {
    return selector != "webRequest:receivedHeaders:expectedContentLength:" || keepReading;
  }
  void webRequestConnectionError(PXWebRequest*, PXError* error) override {
    calls.push_back(error ? "error" : "error without error");
  }
  void webRequestReceivedHeaders(PXWebRequest*, PXDictionary* headers, int64_t expected) override {
    calls.push_back("headers " + std::to_string(expected) + " " +
                    std::string(headers->objectForKey("Content-Length").stringValue()));
  }
  bool webRequestReceivedNewData(PXWebRequest*, PXRef<PXData> data, bool finalData) override {
    calls.push_back(std::string(data->view()) + (finalData ? " final" : ""));
    return keepReading;
  }
  void webRequestFinishedWithSuccess(PXWebRequest*, bool success, bool canceled) override {
    calls.push_back(std::string("finished ") + (success ? "1" : "0") + (canceled ? "1" : "0"));
  }
};

TEST(PXWebRequest, StartedRequestsLiveUntilTheyFinishAndTellTheirDelegate) {
  Server server;
  server.handle("/item", [](const Server::Request&) { return Server::Response("delegated"); });
  const std::string refused = "http://127.0.0.1:" + std::to_string(Server::refusedPort()) + "/";
  // keepReading false: headers not wanted, and NO from the data call cancels.
  struct Row {
    std::string url;
    bool keepReading;
    std::vector<std::string> calls;
  } rows[] = {
      {server.url("/item"), true, {"headers 9 9", "delegated final", "finished 10"}},
      {server.url("/item"), false, {"delegated final", "finished 01"}},
      {refused, true, {"error", "finished 00"}},
  };
  for (const Row& row : rows) {
    auto delegate = PXMake<RecordingDelegate>();
    delegate->keepReading = row.keepReading;
    PXWeakRef<PXWebRequest> weak;
    {
      auto request = PXWebRequest::startedGETRequestForURL(
          row.url, PXWebRequest::eventHandlerForDelegate(delegate, /*retainDelegateUntilCompletion=*/true));
      ASSERT_TRUE(request);
      EXPECT_TRUE(request->autoRetainUntilRequestCompletion());
      weak = request;
    }
    ASSERT_TRUE(PXRunLoopUntil([&] { return delegate->calls.size() == row.calls.size(); }));
    EXPECT_EQ(delegate->calls, row.calls);
    EXPECT_FALSE(weak.lock());               // gone after its finish
    EXPECT_EQ(delegate->retainCount(), 1u);  // the handler let go of it
  }
  EXPECT_FALSE(PXWebRequest::eventHandlerForDelegate(nullptr, true));
  // A weakly held delegate that is gone hears nothing.
  auto gone = PXMake<RecordingDelegate>();
  PXWeakRef<RecordingDelegate> weakDelegate = gone;
  auto forward = PXWebRequest::eventHandlerForDelegate(gone, /*retainDelegateUntilCompletion=*/false);
  gone = nullptr;
  EXPECT_FALSE(weakDelegate.lock());
  forward(nullptr, kPXWebRequestEventFinished, PXValue(), 0);
}

TEST(PXWebRequest, SpeaksTLSWithTheCertificateSettingsItUnderstands) {
  Server server({.https = true});
  server.handle("/secure", [](const Server::Request&) { return Server::Response("secret"); });
  const char* const kCA = kPXWebRequestSSLCertificateAuthorityFile;
  const std::string ca = server.certificateFile();
  struct Row {
    const char* name;
    std::vector<PXDictionary::Entry> options;
    bool success;
  } rows[] = {
      {"trusted authority", {{kCA, ca}}, true},
      {"system authorities", {}, false},
      {"chain not validated", {{kPXWebRequestSSLValidatesCertificateChain, false}}, true},
      {"any root", {{kPXWebRequestSSLAllowsAnyRoot, true}}, true},
      {"validated on purpose", {{kPXWebRequestSSLValidatesCertificateChain, true}}, false},
      {"expired certificates", {{kPXWebRequestSSLAllowsExpiredCertificates, true}}, true},
      {"expired roots", {{kPXWebRequestSSLAllowsExpiredRoots, 1}}, true},
      {"an option that is no boolean", {{kPXWebRequestSSLAllowsAnyRoot, "yes"}}, false},
      {"any host name",
       {{kPXWebRequestSSLPeerName, PXValue::null()}, {kPXWebRequestSSLAllowsAnyRoot, true}},
       true},
      // Only a null peer name changes anything.
      {"a peer name", {{kPXWebRequestSSLPeerName, "other"}, {kCA, ca}}, true},
      {"TLS 1.0 at least", {{kPXWebRequestSSLLevel, "kCFStreamSocketSecurityLevelTLSv1"}, {kCA, ca}}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Recorder recorder;
    auto request = makeRequest(server.httpsURL("/secure"), recorder);
    request->setRequestSSLOptions(PXDictionary::dictionaryWithEntries(row.options));
    runToFinish(*request, recorder);
    EXPECT_EQ(request->wasSuccessful(), row.success);
    EXPECT_EQ(recorder.saw(kPXWebRequestEventError), !row.success);
    EXPECT_EQ(recorder.body, row.success ? "secret" : "");
  }
}

}  // namespace
