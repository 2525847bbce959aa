// Helpers for the collector's tests and benchmarks: a real PostgreSQL server in
// a temporary directory, the collector as a separate process, an HTTP client,
// and papercut records as the kit writes them.
#pragma once

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "support/PXSubprocess.h"

// A directory removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A PostgreSQL server on a Unix socket in a temporary directory, run as "nobody"
// under root, stopped and removed by the destructor; without fsync unless `durable`.
class PostgreSQLServer {
 public:
  explicit PostgreSQLServer(bool durable = false);
  ~PostgreSQLServer();
  bool running() const { return running_; }
  const std::string& whyNot() const { return whyNot_; }
  // A libpq URI of the server's "postgres" database.
  std::string uri() const { return "postgresql://collector@/postgres?host=" + dir_.path(); }

 private:
  bool run(const std::vector<std::string>& argv, std::string* output);
  TempDir dir_;
  std::string bin_;
  bool running_ = false;
  std::string whyNot_;
};

// pxkit-collector with `args` (and "--listen 127.0.0.1:0" when `addListen`), once it said where it listens.
class CollectorProcess {
 public:
  explicit CollectorProcess(const std::vector<std::string>& args, bool addListen = true);
  ~CollectorProcess() { stop(SIGTERM); }
  bool started() const { return !url_.empty(); }
  const std::string& url() const { return url_; }
  // Everything it wrote until now (after stop: until it ended).
  const std::string& output() const { return output_; }
  // Sends `signal` (0: none) and waits for the process to end; returns its wait status.
  int stop(int signal);

 private:
  std::unique_ptr<PXSubprocess> child_;
  std::string url_;
  std::string output_;
};

struct HTTPAnswer {
  long status = 0;  // 0 when no answer came
  std::string body;
};

// A request on a fresh connection, with the extra header fields `headers`.
HTTPAnswer httpRequest(const std::string& method, const std::string& url, const std::string& body = "",
                       const std::vector<std::string>& headers = {});

// A papercut record with `dataSets` data sets "test.metric<i % 4>" of primary "p<i>" and value i + 1.
std::string papercutJSON(const std::string& packageID, long long timestamp = 1764000000, int dataSets = 2,
                         const std::string& applicationVersion = "1.2");
// A papercut record with a "common.launches" data set of `launches` and a
// "common.osversion" data set whose secondary is `os` (channel "mas").
std::string launchesJSON(const std::string& packageID, long long timestamp,
                         const std::string& applicationVersion, const std::string& os, int launches);
std::string submissionJSON(const std::vector<std::string>& records);
