// JSON requests: the object <-> dictionary mapping over declared properties,
// and posts against a real HTTP server in the test process.
#include <gtest/gtest.h>
#include <pxkit/foundation/PXDateTools.h>
#include <pxkit/json/JSONCodec.h>
#include <pxkit/net/PXJSONRequest.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/platform/PXRunLoop.h>

#include <optional>
#include <string>
#include <vector>

#include "support/PXLoopbackServer.h"
#include "support/PXRunLoopUntil.h"

namespace {

// One property of every kind the mapping tells apart.
class JRPerson : public PXObject {
  PX_DECLARE_CLASS(JRPerson)
 public:
  PXString name;                          // "@\"NSString\""
  int32_t age = 0;                        // "i"
  double height = 0;                      // "d"
  bool member = false;                    // "c"
  int64_t visits = 0;                     // "q"
  uint64_t big = 0;                       // "Q"
  PXDate birthday;                        // "@\"NSDate\""
  PXValue count;                          // "@\"NSNumber\""
  PXValue payload;                        // "@": no class name
  PXValue extra;                          // "@\"JRNoSuchClass\"": a class nobody registered
  PXValue origin;                         // "{CGPoint=dd}": a structure
  PXValue note, nickname, amount, since;  // "NSMutableString", "PXString", "NSDecimalNumber", "PXDate"
};

class JREmployee : public JRPerson {
  PX_DECLARE_CLASS(JREmployee)
 public:
  PXString employer;
};

}  // namespace

PX_DEFINE_CLASS(JRPerson, PXObject, [](PXClassBuilder<JRPerson>& c) {
  c.property("name", &JRPerson::name);
  c.property("age", &JRPerson::age);
  c.property("height", &JRPerson::height);
  c.property("member", &JRPerson::member);
  c.property("visits", &JRPerson::visits);
  c.property("big", &JRPerson::big);
  c.property("birthday", &JRPerson::birthday);
  c.property("count", &JRPerson::count, PXPropertyOwnership::Retain, "@\"NSNumber\"");
  c.property("payload", &JRPerson::payload);
  c.property("extra", &JRPerson::extra, PXPropertyOwnership::Retain, "@\"JRNoSuchClass\"");
  c.property("origin", &JRPerson::origin, PXPropertyOwnership::Assign, "{CGPoint=dd}");
  c.property("note", &JRPerson::note, PXPropertyOwnership::Retain, "@\"NSMutableString\"");
  c.property("nickname", &JRPerson::nickname, PXPropertyOwnership::Retain, "@\"PXString\"");
  c.property("amount", &JRPerson::amount, PXPropertyOwnership::Retain, "@\"NSDecimalNumber\"");
  c.property("since", &JRPerson::since, PXPropertyOwnership::Retain, "@\"PXDate\"");
})
PX_DEFINE_CLASS(JREmployee, JRPerson,
                [](PXClassBuilder<JREmployee>& c) { c.property("employer", &JREmployee::employer); })

namespace {

PXRef<PXArray> names(std::initializer_list<PXValue> list) {
  return PXArray::arrayWithObjects(list);
}

TEST(PXJSONRequest, PropertiesBecomeADictionaryOfPresentValues) {
  PXRef<JREmployee> employee = PXMake<JREmployee>();
  employee->name = "Ada";
  employee->age = 36;
  employee->member = true;
  employee->big = UINT64_MAX;
  employee->birthday = PXDate(1000.5);
  employee->employer = "Engines Ltd";  // the object properties stay absent and are left out
  // Every property, superclasses included; a date stays a date. Or the selected ones.
  const std::pair<PXRef<PXArray>, PXRef<PXDictionary>> rows[] = {
      {{},
       PXDictionary::dictionaryWithEntries({{"employer", "Engines Ltd"},
                                            {"name", "Ada"},
                                            {"age", 36},
                                            {"height", 0.0},
                                            {"member", true},
                                            {"visits", 0},
                                            {"big", UINT64_MAX},
                                            {"birthday", PXDate(1000.5)}})},
      {names({"age", "employer", "payload", "nosuch"}),
       PXDictionary::dictionaryWithEntries({{"employer", "Engines Ltd"}, {"age", 36}})},
  };
  for (const auto& [selection, expected] : rows) {
    PXRef<PXDictionary> dictionary = PXJSONRequest::jsonDictionaryFromProperties(selection, *employee);
    EXPECT_TRUE(dictionary->isEqual(*expected)) << dictionary->description().str();
  }
}

TEST(PXJSONRequest, MatchingConvertsEachKindOfPropertyAndHonoursTheSelection) {
  const PXDate rfc3339 = *PXDateTools::dateFromRFC3339DateString("2012-05-01T10:20:30+02:00");
  const PXDate iso8601 = *PXDateTools::dateFromISO8601DateString("2012-05-01T10:20:30.123+0200");
  PXRef<PXArray> list = names({1, 2});
  struct Row {
    const char* key;
    PXValue input;
    std::optional<PXValue> expected;  // nothing: left out, and the key stays unused
  } rows[] = {
      // Numeric scalars: numbers as they are, strings read as decimals.
      {"age", 12, PXValue(12)},
      {"age", "12", PXValue(12)},
      {"age", "-3.5", PXValue(-3.5)},
      {"age", "x", std::nullopt},
      {"age", "12x", std::nullopt},
      {"age", PXValue(list), std::nullopt},
      {"height", "2.5e1", PXValue(25.0)},
      {"height", "+7", PXValue(7)},
      {"height", "1e", std::nullopt},
      {"height", "1E-1", PXValue(0.1)},
      {"height", "1e+2", PXValue(100.0)},
      {"height", "1e999", std::nullopt},
      {"height", "", std::nullopt},
      {"visits", "-9223372036854775808", PXValue(INT64_MIN)},
      {"big", "18446744073709551615", PXValue(UINT64_MAX)},
      {"big", "18446744073709551616", PXValue(18446744073709551616.0)},
      // A string class: numbers become their decimal text.
      {"name", 5, PXValue("5")},
      {"name", PXValue(list), PXValue(list)},
      // A number class: strings read as decimals.
      {"count", "7", PXValue(7)},
      // The other names of the same classes.
      {"note", 5, PXValue("5")},
      {"nickname", 6, PXValue("6")},
      {"amount", "7", PXValue(7)},
      {"since", "2012-05-01T10:20:30+02:00", PXValue(rfc3339)},
      // A date class: RFC 3339, else ISO 8601; other values as they are.
      {"birthday", "2012-05-01T10:20:30+02:00", PXValue(rfc3339)},
      {"birthday", "2012-05-01T10:20:30.123+0200", PXValue(iso8601)},
      {"birthday", "yesterday", std::nullopt},
      {"birthday", 12, PXValue(12)},
      // No class name, or a class nobody registered: as they are.
      {"payload", "anything", PXValue("anything")},
      {"extra", 42, PXValue(42)},
      // Structures are skipped; keys that name no property stay unused.
      {"origin", "{1, 2}", std::nullopt},
      {"nosuch", 1, std::nullopt},
  };
  PXRef<JREmployee> employee = PXMake<JREmployee>();
  for (const Row& row : rows) {
    std::string what = std::string(row.key) + " <- " + row.input.description().str();
    PXRef<PXDictionary> input =
        PXDictionary::dictionaryWithEntries({{row.key, row.input}, {"employer", "E"}});
    PXRef<PXMutableDictionary> unused;
    PXErrorRef error = PXError::errorWithDomain("sentinel", 7);
    PXRef<PXDictionary> result = PXJSONRequest::matchDictionary(input.get(), {}, *employee, &unused, &error);
    ASSERT_TRUE(result && unused) << what;
    EXPECT_EQ(result->objectForKey("employer"), PXValue("E")) << what << ": superclass chain";
    const PXValue got = result->objectForKey(row.key);
    EXPECT_EQ(got, row.expected.value_or(PXValue())) << what << " gave " << got.description().str();
    EXPECT_EQ(got.kind(), row.expected.value_or(PXValue()).kind()) << what;
    EXPECT_EQ(unused->objectForKey(row.key), row.expected ? PXValue() : row.input) << what;
    EXPECT_EQ(unused->count(), row.expected ? 0u : 1u) << what;
    EXPECT_EQ(error->domain().str(), "sentinel") << what << ": the error is never set";
  }
  // The object itself is never written.
  EXPECT_EQ(employee->age, 0);
  EXPECT_TRUE(employee->name.isAbsent());

  // A selection limits the properties; the unused keys are a copy of their own.
  PXRef<PXDictionary> input = PXDictionary::dictionaryWithEntries({{"age", "3"}, {"name", "N"}});
  PXRef<PXMutableDictionary> unused;
  PXRef<PXDictionary> result =
      PXJSONRequest::matchDictionary(input.get(), names({"age"}), *employee, &unused);
  EXPECT_TRUE(result->isEqual(*PXDictionary::dictionaryWithEntries({{"age", 3}})));
  EXPECT_TRUE(unused->isEqual(*PXDictionary::dictionaryWithEntries({{"name", "N"}})));
  unused->setObject(1, "added");
  EXPECT_EQ(input->count(), 2u);
  EXPECT_EQ(PXJSONRequest::matchDictionary(nullptr, {}, *employee, &unused)->count(), 0u);
  EXPECT_EQ(unused->count(), 0u);
}

using Server = PXLoopbackServer;

TEST(PXJSONRequest, PostsTheDocumentAsJSONAndParsesWhateverBodyCame) {
  Server server;
  server.handle("/echo", [](const Server::Request& r) { return Server::Response(r.body); });
  server.handle("/boom", [](const Server::Request&) { return Server::Response(R"({"error":"boom"})", 500); });
  // A reply that breaks off before its announced length: the request fails, and what came is still read.
  server.handleRaw("/cut",
                   Server::RawResponse("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"partial\":1}"));
  // Never answers: a request cancelled at once ends with nothing to parse, however fast the machine.
  server.handleRaw("/silent", Server::RawResponse("", Server::RawEnding::Stall));
  const PXValue empty(names({}));
  // outcome: success, the cancel flag (its bit as it is, unshifted), the answer as JSON, the parse error's
  // domain. sent: what the server must receive (null: not checked).
  struct Row {
    std::string url;
    PXValue object;
    const char* sent;
    std::string outcome;
    bool cancel = false;
  } rows[] = {
      {server.url("/echo"),
       PXValue(
           PXDictionary::dictionaryWithEntries({{"papercuts", PXValue(names({1, "two"}))}, {"ok", true}})),
       R"({"papercuts":[1,"two"],"ok":true})", R"(1 0 {"papercuts":[1,"two"],"ok":true} )"},
      // Bytes are sent as they are.
      {server.url("/echo"), PXValue(PXData::dataWithString("<html>")), "<html>", "1 0  PXJSONErrorDomain"},
      {server.url("/echo"), PXValue("hi \"you\""), R"("hi \"you\"")", "1 0  PXJSONErrorDomain"},
      {server.url("/boom"), empty, "[]", R"(1 0 {"error":"boom"} )"},
      {server.rawURL("/cut"), empty, nullptr, R"(0 0 {"partial":1} )"},
      // No body: nothing to parse, no error.
      {"http://127.0.0.1:" + std::to_string(Server::refusedPort()) + "/", empty, nullptr, "0 0  "},
      {server.rawURL("/silent"), empty, nullptr, "0 cancelled  ", true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.url + " " + row.object.description().str());
    int calls = 0;
    std::string outcome;
    PXRef<PXJSONRequest> request;
    auto handler = [&](PXJSONRequest* r, bool ok, uint32_t cancelled, const PXValue& answer, PXError* e) {
      ++calls;
      EXPECT_EQ(r, request.get());
      outcome = std::to_string(ok) + " " +
                (cancelled == kPXWebRequestFinishedCancelled ? "cancelled" : std::to_string(cancelled)) +
                " " + PXJSONSerialization::JSONify(answer).str() + " " + (e ? e->domain().str() : "");
    };
    PXErrorRef error = PXError::errorWithDomain("sentinel", 1);
    request =
        PXJSONRequest::startedJSONRequestWithURL(row.url, row.object, PXJSONResponseHandler(handler), &error);
    ASSERT_TRUE(request);
    EXPECT_FALSE(error) << "cleared on success";
    EXPECT_EQ(request->requestTimeout(), 60.0);
    if (row.cancel) request->cancel();
    ASSERT_TRUE(PXRunLoopUntil([&] { return calls > 0; }));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(outcome, row.outcome);
    if (row.sent) {
      const Server::Request seen = server.requests().back();
      EXPECT_EQ(seen.method + " " + seen.body, std::string("POST ") + row.sent);
      EXPECT_EQ(seen.header("Content-Type"), "application/json");
      EXPECT_EQ(seen.header("Connection"), "Keep-Alive");
    }
  }
  // Without a response handler the request still runs to its end.
  auto silent = PXJSONRequest::startedJSONRequestWithURL(server.url("/echo"), empty, PXJSONResponseHandler());
  ASSERT_TRUE(PXRunLoopUntil([&] { return silent->isCompleted(); }));
  EXPECT_TRUE(silent->wasSuccessful());
}

TEST(PXJSONRequest, RefusedStartsAndDocuments) {
  Server server;
  server.handle("/ok", [](const Server::Request&) { return Server::Response("{}"); });
  // errorDomain: the error after the call; "sentinel": untouched; null: cleared.
  struct Row {
    const char* what;
    std::string url;
    PXValue object;
    const char* errorDomain;
  } rows[] = {
      {"no request object", server.url("/ok"), PXValue(), nullptr},
      {"a date inside the document", server.url("/ok"),
       PXValue(PXDictionary::dictionaryWithEntries({{"when", PXDate(0)}})), kPXJSONErrorDomain},
      {"a date as the document", server.url("/ok"), PXValue(PXDate(0)), "sentinel"},
      {"a null document", server.url("/ok"), PXValue::null(), "sentinel"},
      {"an unparsable URL", "not a url", PXValue(names({})), nullptr},
      {"an unknown scheme", "ftp://127.0.0.1/x", PXValue(names({})), nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    int events = 0;
    PXErrorRef error = PXError::errorWithDomain("sentinel", 9);
    PXRef<PXJSONRequest> request = PXJSONRequest::startedJSONRequestWithURL(
        row.url, row.object,
        PXWebRequestEventHandler([&](PXWebRequest*, int32_t event, const PXValue&, uint32_t) {
          if (event != kPXWebRequestEventWillStart) ++events;
        }),
        &error);
    EXPECT_FALSE(request);
    EXPECT_EQ(error ? error->domain().str() : "", row.errorDomain ? row.errorDomain : "");
    if (row.errorDomain == kPXJSONErrorDomain) {
      EXPECT_EQ(error->localizedDescription().str(), "Unable to serialize object class NSDate.");
    }
    PXRunLoop::current()->runOnce(/*mayBlock=*/false);
    EXPECT_EQ(events, 0) << "nothing follows a refused start";
  }
  EXPECT_EQ(server.acceptedConnections(), 0);
}

}  // namespace
