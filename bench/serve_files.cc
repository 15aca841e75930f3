// How fast finished segments are sent, against a web server that does nothing else.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/wait.h"
#include "bench/figures.h"
#include "bench/program.h"
#include "bench/served.h"
#include "bench/talk.h"

namespace tarnbench {
namespace {

constexpr char kWrk[] = "/usr/bin/wrk";
constexpr char kNginx[] = "/usr/sbin/nginx";
constexpr char kFolder[] = "/volume1/segments";
constexpr char kScratch[] = "/tmp/serve-files";
constexpr int kNginxPort = 8999;
constexpr int kSegments = 20;
constexpr int kConnections = 200;
constexpr int kRounds = 9;
constexpr int kSeconds = 4;
// 90 % of its throughput.
constexpr double kBudget = 1 / 0.9 - 1;
constexpr double kGigabyte = 1e9;
const Unit kPerGigabyte{1000, 1, "ms/GB"};

// What to install for this figure; empty where nothing is missing.
std::string MissingPrograms() {
  for (const char* program : {kWrk, kNginx}) {
    if (access(program, X_OK) != 0) {
      return std::string("there is no ") + program +
             "; apt-get install --no-install-recommends wrk nginx-light";
    }
  }
  return "";
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) Fail(path + ": cannot be written");
}

Words NginxCommand() {
  const std::string scratch = kScratch;
  std::string temporary;
  for (const char* name : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    temporary += std::string(name) + "_temp_path " + scratch + "/" + name + "; ";
  }
  // One process, as the server is.
  WriteText(scratch + "/nginx.conf",
            "user root; daemon off; master_process off; worker_processes 1; pid " + scratch +
                "/nginx.pid; error_log stderr error;\n"
                "events { worker_connections 1024; }\n"
                "http { " +
                temporary +
                "sendfile on; tcp_nopush on; access_log off; keepalive_requests 1000000000;\n"
                "default_type video/mp2t;\n"
                "server { listen 127.0.0.1:" +
                std::to_string(kNginxPort) + "; root " + kFolder + "; } }\n");
  return {kNginx, "-e", "stderr", "-p", scratch, "-c", scratch + "/nginx.conf"};
}

// One of the two servers, as wrk sees it.
struct Site {
  int port;
  std::string paths;  // a file of them
};

// Makes the stream's segments and copies of them for nginx; the paths of the former.
std::string MakeSegments(const Served& server) {
  Client client(server.port());
  Json::Value request(Json::objectValue);
  request["video"] = VideoNumber(client, "film");
  request["kind"] = "hls";
  request["profile"] = "hls_remux_aac_ab128";
  const std::string url = client.Post("/api/v1/streams", request)["url"].asString();
  std::string paths;
  for (int i = 0; i < kSegments; ++i) {
    char number[16];
    std::snprintf(number, sizeof number, "%05d", i);
    const std::string path = url + "&fragment_id=" + number;
    const std::string body = client.Get(path);
    if (body != client.Get(path)) Fail("a finished segment is another one");
    WriteText(std::string(kFolder) + "/" + number, body);
    paths += path + "\n";
  }
  return paths;
}

std::string NginxPaths() {
  std::string paths;
  for (const auto& entry : std::filesystem::directory_iterator(kFolder)) {
    paths = "/" + entry.path().filename().string() + "\n" + paths;
  }
  return paths;
}

void AwaitNginx() {
  constexpr int kTries = 500;
  for (int i = 0; i < kTries; ++i) {
    try {
      Client(kNginxPort).Get("/00000");
      return;
    } catch (const std::exception&) {
      tarn::SleepMs(20);
    }
  }
  Fail("nginx does not answer");
}

double SecondsPerGigabyte(const Site& site) {
  TalkingProgram wrk({kWrk, "-t1", "-c" + std::to_string(kConnections),
                      "-d" + std::to_string(kSeconds) + "s", "--timeout", "60s", "-s",
                      TARN_BENCH_SOURCE "/segments.lua",
                      "http://127.0.0.1:" + std::to_string(site.port), "--", site.paths});
  const std::string said = wrk.ListenToEnd();
  const size_t at = said.find("came ");
  double bytes = 0;
  double microseconds = 0;
  int failures = 0;
  if (at == std::string::npos ||
      std::sscanf(said.c_str() + at, "came %lf %lf %d", &bytes, &microseconds, &failures) != 3) {
    Fail("wrk said: " + said);
  }
  if (failures > 0 || bytes <= 0) Fail("requests failed: " + said);
  return microseconds / 1e6 / (bytes / kGigabyte);
}

std::string Throughput(const Samples& taken) {
  return Format(1 / taken.Median(), {1000, 0, "MB/s"});
}

}  // namespace

void MeasureServeFiles(Report& report) {
  if (const std::string missing = MissingPrograms(); !missing.empty()) {
    report.AddMissing("serve-files", missing);
    return;
  }
  for (const char* folder : {kFolder, kScratch}) std::filesystem::create_directories(folder);
  const Served server({"--max-streams-per-client", "400", TARN_BENCH_MEDIA "/film.mkv"});
  WriteText(std::string(kScratch) + "/ours", MakeSegments(server));
  WriteText(std::string(kScratch) + "/nginx", NginxPaths());
  const Site ours{server.port(), std::string(kScratch) + "/ours"};
  const Site theirs{kNginxPort, std::string(kScratch) + "/nginx"};
  const Program nginx(NginxCommand());
  AwaitNginx();
  const Candidate bare = [&] { return SecondsPerGigabyte(theirs); };
  const std::vector<Candidate> candidates = {bare, [&] { return SecondsPerGigabyte(ours); }, bare};
  WarmUp(candidates);
  const std::vector<Samples> taken = Alternate(kRounds, candidates);
  const std::string figure = "finished segments, " + std::to_string(kConnections) + " connections";
  report.AddExcess(figure, taken[1], taken[0], taken[2], kPerGigabyte, kBudget);
  Report::Note(figure);
  Report::Note("  tarnvte serve  " + Throughput(taken[1]));
  Report::Note("  nginx          " + Throughput(taken[0]));
  std::filesystem::remove_all(kFolder);
}

}  // namespace tarnbench
