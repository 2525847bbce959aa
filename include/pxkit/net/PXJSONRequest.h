// PXKit — PXJSONRequest: post a JSON document, get the parsed JSON answer.
//
// A PXJSONRequest is a web request (PXWebRequest) that POSTs a JSON body with
// "Content-Type" "application/json" and hands back the answer parsed as JSON.
// Beside it, two class operations map between an object's declared
// properties and a dictionary: one copies property values out (to build a
// request document), the other converts the values of a decoded answer to the
// types of an object's properties (to read an answer).
//
//   PXErrorRef error;
//   PXRef<PXJSONRequest> request = PXJSONRequest::startedJSONRequestWithURL(
//       "http://127.0.0.1:8080/metrics/post", PXValue(document),
//       [](PXJSONRequest* request, bool success, uint32_t cancelled, const PXValue& answer, PXError* error) {
//         if (success && answer.isDictionary()) use(answer.dictionaryValue());
//       },
//       &error);
//   if (!request && error) report(error);   // the document could not be written
//
//   // A person's properties as a document, and an answer back as typed values.
//   PXRef<PXDictionary> body = PXJSONRequest::jsonDictionaryFromProperties({}, *person);
//   PXRef<PXMutableDictionary> unused;   // the keys that fit no property
//   PXRef<PXDictionary> typed = PXJSONRequest::matchDictionary(reply.get(), {}, *person, &unused);
//
// The request is an ordinary PXWebRequest in everything else: it belongs to
// the run loop of the thread that starts it (which must run that loop), holds
// itself until its finish event, keeps its connection alive for the next
// request to the same host, and has no timeout (the recorded 60 seconds are
// never applied; see PXWebRequest.h).
//
// Thread safety: the class operations may be called from any thread. Handlers
// run on the request's thread. The property mapping reads the object through
// key-value coding on the calling thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/net/PXWebRequest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXValue.h>

#include <cstdint>
#include <functional>

class PXJSONRequest;

// The response handler: the request; whether it succeeded (bit 0 of the
// finish flags); whether it was cancelled — the cancelled bit of the flags as
// it is, unshifted: 2 when cancelled, 0 otherwise (test it for non-zero); the
// answer parsed as JSON, or absent; the parse error, or null. Copied when stored.
using PXJSONResponseHandler = std::function<void(PXJSONRequest* request, bool success, uint32_t cancelled,
                                                 const PXValue& jsonObject, PXError* error)>;

// The "Content-Type" of every JSON request: "application/json".
PXKIT_EXPORT extern const char* const kPXJSONRequestContentType;

class PXKIT_EXPORT PXJSONRequest : public PXWebRequest {
  PX_DECLARE_CLASS(PXJSONRequest)

 public:
  using PXWebRequest::PXWebRequest;

  // ---- Starting ------------------------------------------------------------------
  // Starts a POST of `requestObject` to `url` on the calling thread's run loop,
  // with keep-alive and the recorded 60-second timeout, and returns it (it
  // holds itself until its finish event). The body is `requestObject` itself
  // when it is data, else its compact JSON text (PXJSONSerialization,
  // options 0). `handler` receives every event of the request (see
  // PXWebRequest.h); on event 1 the request's headers are first set to the one
  // pair "Content-Type": "application/json", replacing any set before.
  // Absent results:
  //  - no request object (absent): none, and *error is cleared;
  //  - an object that cannot be written as JSON: none, and *error is what the
  //    JSON writer reported (it reports nothing for a top-level value that is
  //    not a container, string or number, and *error is then left as it was);
  //  - a request that cannot start (bad URL, unknown scheme): none, *error cleared.
  // On success *error is cleared. startedJSONRequestWithURL:withRequestObject:handler:error:
  [[nodiscard]] static PXRef<PXJSONRequest> startedJSONRequestWithURL(PXString url,
                                                                      const PXValue& requestObject,
                                                                      PXWebRequestEventHandler handler,
                                                                      PXErrorRef* error = nullptr);
  // The same, reporting only the end: on the finish event the answer is parsed
  // (responseJSONObjectWithError) and `responseHandler` called once with the
  // outcome, the parsed answer and the parse error. The answer is parsed also
  // when the request failed or was cancelled: a readable error body still
  // arrives as an object. startedJSONRequestWithURL:withRequestObject:responseHandler:error:
  [[nodiscard]] static PXRef<PXJSONRequest> startedJSONRequestWithURL(PXString url,
                                                                      const PXValue& requestObject,
                                                                      PXJSONResponseHandler responseHandler,
                                                                      PXErrorRef* error = nullptr);

  // ---- The answer ------------------------------------------------------------------
  // The response body held by the request (responseBodyData) parsed as JSON.
  // Absent, with *error untouched, when the request holds no body (none came,
  // or a handler took it with createAvailableResponseBodyData). Absent, with
  // the JSON reader's error, when the body is not JSON. On the request's thread.
  [[nodiscard]] PXValue responseJSONObjectWithError(PXErrorRef* error = nullptr) const;

  // ---- Objects and dictionaries -------------------------------------------------------
  // A new dictionary of the object's property values: each property the
  // object's class and its superclasses declare (only those named in
  // `properties`, an array of strings, when given) read by key-value coding
  // and stored under its name when present. Values are stored as they are:
  // dates and other values that JSON cannot hold must be converted by the
  // caller before writing. jsonDictionaryFromProperties:ofObject:
  static PXRef<PXDictionary> jsonDictionaryFromProperties(const PXRef<PXArray>& properties,
                                                          const PXObject& object);

  // The values of a decoded dictionary converted to the types of the object's
  // properties (only those named in `properties` when given; superclasses
  // included), keyed by property name. For each property with a value in
  // `dictionary`:
  //  - a numeric property (type codes c d f i l q s B C I L Q S): a number is
  //    taken as it is, a string is read as a decimal number ("12", "-3.5",
  //    "1e3"; locale-independent, nothing else around it), anything else is
  //    skipped;
  //  - an object property with a class name: for a string class a number
  //    becomes its decimal text; for a number class a string is read as a
  //    decimal number; for a date class a string is read as an RFC 3339 date,
  //    else as an ISO 8601 date with milliseconds (PXDateTools); every other
  //    value, and every other class, known or not, takes the value as it is;
  //  - an object property without a class name: the value as it is;
  //  - any other property (structures, pointers...): skipped.
  // A value that cannot be converted is left out. *unusedKeysDict (when given)
  // receives a mutable copy of `dictionary` without the keys that were used:
  // keys that name no property and keys whose value was left out. The object
  // is not modified and *error is never set (failures show only as unused
  // keys). A null dictionary gives an empty result.
  // matchDictionary:toProperties:ofObject:unusedKeysDict:error:
  static PXRef<PXDictionary> matchDictionary(const PXDictionary* dictionary, const PXRef<PXArray>& properties,
                                             const PXObject& object,
                                             PXRef<PXMutableDictionary>* unusedKeysDict = nullptr,
                                             PXErrorRef* error = nullptr);
};
