#include "CollectorTestSupport.h"

#include <curl/curl.h>
#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

TempDir::TempDir() {
  char templ[] = "/tmp/pxkit-collector-test-XXXXXX";
  if (mkdtemp(templ)) path_ = templ;
}
TempDir::~TempDir() {
  std::error_code ec;
  if (!path_.empty()) fs::remove_all(path_, ec);
}

PostgreSQLServer::PostgreSQLServer(bool durable) {
  for (const char* version : {"17", "16", "15", "14", "13"}) {
    const std::string candidate = std::string("/usr/lib/postgresql/") + version + "/bin";
    if (access((candidate + "/initdb").c_str(), X_OK) == 0) {
      bin_ = candidate;
      break;
    }
  }
  if (bin_.empty()) {
    whyNot_ = "PostgreSQL is not installed (scripts/setup-deps installs it)";
    return;
  }
  // The server's files belong to the user it runs as.
  if (dir_.path().empty() || (geteuid() == 0 && chown(dir_.path().c_str(), 65534, 65534) != 0)) {
    whyNot_ = "no temporary directory for nobody";
    return;
  }
  std::string output;
  if (!run({bin_ + "/initdb", "-D", dir_.path() + "/data", "-U", "collector", "-A", "trust", "-E", "UTF8",
            "--no-sync", "--no-instructions"},
           &output)) {
    whyNot_ = "initdb failed: " + output;
    return;
  }
  if (!run({bin_ + "/pg_ctl", "-D", dir_.path() + "/data", "-l", dir_.path() + "/log", "-w", "-t", "60", "-o",
            "-k " + dir_.path() + " -c listen_addresses=" + (durable ? "" : " -c fsync=off"), "start"},
           &output)) {
    whyNot_ = "the PostgreSQL server did not start: " + output;
    return;
  }
  running_ = true;
}

PostgreSQLServer::~PostgreSQLServer() {
  std::string output;
  if (running_)
    run({bin_ + "/pg_ctl", "-D", dir_.path() + "/data", "-m", "immediate", "-w", "stop"}, &output);
}

bool PostgreSQLServer::run(const std::vector<std::string>& command, std::string* output) {
  std::vector<std::string> argv;
  if (geteuid() == 0) argv = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
  argv.insert(argv.end(), command.begin(), command.end());
  PXSubprocess::Options options;
  options.mergeStandardError = true;
  options.workingDirectory = dir_.path();
  PXSubprocess::Result result = PXSubprocess::run(argv, options);
  *output = std::move(result.output);
  return result.exitStatus == 0;
}

CollectorProcess::CollectorProcess(const std::vector<std::string>& args, bool addListen) {
  std::vector<std::string> argv = {PXKIT_COLLECTOR};
  if (addListen) argv.insert(argv.end(), {"--listen", "127.0.0.1:0"});
  argv.insert(argv.end(), args.begin(), args.end());
  // Standard error joins standard output, so that one pipe holds all it says.
  PXSubprocess::Options options;
  options.mergeStandardError = true;
  child_ = std::make_unique<PXSubprocess>(argv, options);
  // The first line says where it listens; anything else first means it failed.
  const std::optional<std::string> first = child_->readLine();
  if (!first) return;
  output_ = *first + "\n";
  const std::string prefix = "listening on ";
  if (first->starts_with(prefix)) url_ = first->substr(prefix.size());
}

int CollectorProcess::stop(int signal) {
  if (!child_ || child_->pid() <= 0) return -1;
  if (signal != 0) child_->kill(signal);
  const int status = child_->wait();
  output_ += child_->readAll();
  child_.reset();
  return status;
}

namespace {
size_t append(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}
}  // namespace

HTTPAnswer httpRequest(const std::string& method, const std::string& url, const std::string& body,
                       const std::vector<std::string>& headers) {
  HTTPAnswer answer;
  CURL* curl = curl_easy_init();
  if (!curl) return answer;
  curl_slist* list = nullptr;
  for (const std::string& h : headers) list = curl_slist_append(list, h.c_str());
  list = curl_slist_append(list, "Expect:");
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
  if (method == "POST" || !body.empty()) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
  curl_slist_free_all(list);
  curl_easy_cleanup(curl);
  return answer;
}

std::string papercutJSON(const std::string& packageID, long long timestamp, int dataSets,
                         const std::string& applicationVersion) {
  std::string metrics;
  for (int i = 0; i < dataSets; ++i) {
    if (i) metrics += ",";
    metrics += "{\"identifier\":\"test.metric" + std::to_string(i % 4) + "\",\"primary\":\"p" +
               std::to_string(i) + "\",\"value\":" + std::to_string(i + 1) + "}";
  }
  return "{\"packageID\":\"" + packageID + "\",\"applicationID\":\"org.example.Editor\",\"metrics\":[" +
         metrics + "],\"totalUsageDays\":3,\"timestamp\":" + std::to_string(timestamp) +
         ".0,\"channel\":\"default\",\"applicationVersion\":\"" + applicationVersion + "\"}";
}

std::string launchesJSON(const std::string& packageID, long long timestamp,
                         const std::string& applicationVersion, const std::string& os, int launches) {
  return "{\"packageID\":\"" + packageID +
         "\",\"applicationID\":\"org.example.Editor\",\"metrics\":[{\"identifier\":\"common.launches\","
         "\"value\":" +
         std::to_string(launches) +
         "},{\"identifier\":\"common.osversion\",\"primary\":\"12\",\"secondary\":\"" + os +
         "\",\"value\":1}],\"totalUsageDays\":1,\"timestamp\":" + std::to_string(timestamp) +
         ",\"channel\":\"mas\",\"applicationVersion\":\"" + applicationVersion + "\"}";
}

std::string submissionJSON(const std::vector<std::string>& records) {
  std::string text = "{\"papercuts\":[";
  for (size_t i = 0; i < records.size(); ++i) text += (i ? "," : "") + records[i];
  return text + "]}";
}
