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

#include "objects/internal/CHandle.h"

namespace pxcollector {

using SQLiteDatabase = pxkit::CHandle<sqlite3, sqlite3_close_v2>;
using SQLiteStatement = pxkit::CHandle<sqlite3_stmt, sqlite3_finalize>;
using PGConnection = pxkit::CHandle<PGconn, PQfinish>;
using PGResult = pxkit::CHandle<PGresult, PQclear>;

}  // namespace pxcollector
