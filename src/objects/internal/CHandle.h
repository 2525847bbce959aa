// An owning handle for an object of a C library: a std::unique_ptr whose
// deleter calls the library's free function on a non-null pointer. Each area
// that owns a C library names its handles with it (pxkit::glib, pxkit::curl,
// the collector's SQLite and libpq handles), so no code frees them by hand.
//
//   using Statement = pxkit::CHandle<sqlite3_stmt, sqlite3_finalize>;
#pragma once

#include <memory>

namespace pxkit {

template <class T, auto Free>
struct CHandleDeleter {
  void operator()(T* p) const noexcept {
    if (p) Free(p);
  }
};

template <class T, auto Free>
using CHandle = std::unique_ptr<T, CHandleDeleter<T, Free>>;

}  // namespace pxkit
