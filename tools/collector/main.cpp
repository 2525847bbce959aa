// pxkit-collector: the metrics collection endpoint as a program.
#include <glib-unix.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "CollectorServer.h"
#include "CollectorStore.h"
#include "platform/internal/GLibHandles.h"

namespace {

const char* const kHelp = R"(NAME
    pxkit-collector - receive, store and show the papercuts applications submit

SYNOPSIS
    pxkit-collector [--listen ADDR:PORT] [--db PATH | --db postgresql://...]
                    [--token TOKEN] [--max-body-bytes N]

DESCRIPTION
    Serves the metrics collection endpoint that applications using PXKit post
    their papercuts to, keeps what they send in a database, and answers
    questions about it.

    POST /metrics/post
        A submission document {"papercuts":[...]}. Each papercut is checked,
        stored once by its "packageID" (a resent one is a no-op), and the whole
        submission is committed to disk before the answer goes out. The answer
        is the receipt {"processedPapercutPackageIDs":[...]}, naming every
        papercut now stored, and every record that can never be accepted (such
        records are kept aside as rejected, with the reason). A body that is not
        a submission document is answered 400, one over the size limit 413, a
        body without Content-Length 411; none of them gets a receipt.

    GET /api/metrics?identifier=ID[&from=YYYY-MM-DD][&to=YYYY-MM-DD]
        The daily sums of one metric per primary and secondary value.

    GET /api/summary
        Papercuts and rejected records, applications, application versions,
        channels, OS versions and papercuts per day.

    GET /
        The dashboard: papercuts per day, the daily values of a chosen metric
        (?metric=ID, "common.launches" unless chosen), application and OS versions.

    Errors are JSON objects {"error":"..."}.

OPTIONS
    --listen ADDR:PORT
        Where to listen (default 127.0.0.1:8457; IPv6 as [ADDR]:PORT). Port 0
        picks a free port. The first line written to standard output is
        "listening on http://ADDR:PORT" with the port actually bound.

    --db PATH
        The SQLite database file (default $XDG_DATA_HOME/pxkit-collector/
        papercuts.db, that is ~/.local/share/... when XDG_DATA_HOME is unset).
        Created with its directory when missing; WAL journal, full sync.

    --db postgresql://USER@HOST/DBNAME
        A PostgreSQL database instead (any libpq connection URI, also
        postgres://). Several collectors may share one database.

    --token TOKEN
        Require this token for the query API and the dashboard, given as
        "Authorization: Bearer TOKEN" or as ?token=TOKEN. Needed when listening
        on anything but loopback; ingest stays open. The environment variable
        PXKIT_COLLECTOR_TOKEN is read when the option is not given.

    --max-body-bytes N
        The largest submission body accepted (default 16777216).

    --help
        This text.

EXIT STATUS
    0 after SIGTERM or SIGINT, 1 when the database cannot be opened or the
    address cannot be used, 2 for a usage error.
)";

int usage(const std::string& message) {
  std::fprintf(stderr, "pxkit-collector: %s\nTry 'pxkit-collector --help'.\n", message.c_str());
  return 2;
}

gboolean quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  pxcollector::CollectorOptions options;
  std::string db = std::string(g_get_user_data_dir()) + "/pxkit-collector/papercuts.db";
  if (const char* token = getenv("PXKIT_COLLECTOR_TOKEN")) options.token = token;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::string text;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kHelp, stdout);
      return 0;
    } else if (arg == "--listen") {
      if (!value(&options.listen)) return usage("--listen needs ADDR:PORT");
    } else if (arg == "--db") {
      if (!value(&db) || db.empty()) return usage("--db needs a path or a postgresql:// URI");
    } else if (arg == "--token") {
      if (!value(&options.token) || options.token.empty()) return usage("--token needs a token");
    } else if (arg == "--max-body-bytes") {
      char* end = nullptr;
      if (!value(&text) || text.empty() || text[0] == '-') return usage("--max-body-bytes needs a number");
      const unsigned long long n = strtoull(text.c_str(), &end, 10);
      if (*end != '\0' || n == 0) return usage("--max-body-bytes needs a positive number");
      options.maxBodyBytes = static_cast<size_t>(n);
    } else {
      return usage("unknown argument \"" + arg + "\"");
    }
  }

  std::string error;
  std::unique_ptr<pxcollector::CollectorStore> store = pxcollector::openCollectorStore(db, &error);
  if (!store) {
    std::fprintf(stderr, "pxkit-collector: %s\n", error.c_str());
    return 1;
  }
  pxkit::glib::MainLoop loop(g_main_loop_new(nullptr, FALSE));
  std::unique_ptr<pxcollector::CollectorServer> server =
      pxcollector::CollectorServer::start(*store, options, &error);
  if (!server) {
    std::fprintf(stderr, "pxkit-collector: %s\n", error.c_str());
    return 1;
  }
  std::printf("listening on %s\n", server->url().c_str());
  std::printf("storing in %s (%s)\n", pxcollector::isPostgreSQLURI(db) ? "PostgreSQL" : db.c_str(),
              store->kind());
  std::fflush(stdout);
  const guint term = g_unix_signal_add(SIGTERM, quit, loop.get());
  const guint interrupt = g_unix_signal_add(SIGINT, quit, loop.get());
  g_main_loop_run(loop.get());
  g_source_remove(term);
  g_source_remove(interrupt);
  return 0;
}
