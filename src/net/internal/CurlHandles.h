// Owning handles for libcurl's objects, and the one-time library set-up.
//
// One std::unique_ptr flavour per curl type, each with a deleter that accepts
// null, so no code of the kit calls curl_easy_cleanup or curl_slist_free_all
// by hand:
//
//   pxkit::curl::Easy easy = pxkit::curl::makeEasy();     // curl_global_init first, once
//   pxkit::curl::Slist headers = pxkit::curl::append(std::move(headers), "Connection: Keep-Alive");
//   curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
//
// Networking area only: this header includes curl and never reaches include/pxkit/.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string_view>

#include "objects/internal/CHandle.h"

namespace pxkit::curl {

template <class T, auto Free>
using Handle = CHandle<T, Free>;

inline void freeString(char* p) noexcept {
  curl_free(p);
}
inline void freeMulti(CURLM* p) noexcept {
  curl_multi_cleanup(p);
}
inline void freeShare(CURLSH* p) noexcept {
  curl_share_cleanup(p);
}

using Easy = Handle<CURL, curl_easy_cleanup>;
using Multi = Handle<CURLM, freeMulti>;
using Share = Handle<CURLSH, freeShare>;
using Slist = Handle<curl_slist, curl_slist_free_all>;
using Url = Handle<CURLU, curl_url_cleanup>;
using String = Handle<char, freeString>;

// Initialises libcurl once per process (thread-safe); never cleaned up, as the
// library may be used until the process ends.
void ensureGlobalInit() noexcept;

// New handles, after ensureGlobalInit(); null when curl is out of memory.
Easy makeEasy() noexcept;
Multi makeMulti() noexcept;
Share makeShare() noexcept;
Url makeUrl() noexcept;

// Appends one "Name: value" line to a header list; the old list is taken over
// (and kept intact on failure, which returns it unchanged).
Slist append(Slist list, const char* line) noexcept;

}  // namespace pxkit::curl
