// pxkit-collector — owning handles for the C objects of SQLite and libpq.
//
// One std::unique_ptr flavour per handle, each with a deleter that accepts null
// (GLib objects use the kit's own pxkit::glib handles):
//
//   SQLiteStatement statement(prepared);   // sqlite3_finalize when it goes
//   PGResult result(PQexecPrepared(...));  // PQclear when it goes
#pragma once

#include <libpq-fe.h>
#include <sqlite3.h>

#include <memory>

namespace pxcollector {

template <class T, auto Free>
struct HandleDeleter {
  void operator()(T* p) const noexcept {
    if (p) Free(p);
  }
};

using SQLiteDatabase = std::unique_ptr<sqlite3, HandleDeleter<sqlite3, sqlite3_close_v2>>;
using SQLiteStatement = std::unique_ptr<sqlite3_stmt, HandleDeleter<sqlite3_stmt, sqlite3_finalize>>;
using PGConnection = std::unique_ptr<PGconn, HandleDeleter<PGconn, PQfinish>>;
using PGResult = std::unique_ptr<PGresult, HandleDeleter<PGresult, PQclear>>;

}  // namespace pxcollector
