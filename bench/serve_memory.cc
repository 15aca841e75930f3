// What the server process holds while many watch; workers and transcoders are processes of their
// own.
#include <memory>
#include <string>
#include <vector>

#include "bench/figures.h"
#include "bench/memory.h"
#include "bench/program.h"
#include "bench/served.h"

namespace tarnbench {
namespace {

constexpr int kStreams = 200;
constexpr int kLooks = 5;
constexpr double kLimit = 64;  // MiB

}  // namespace

void MeasureServeMemory(Report& report) {
  // Copies that are soon over: what a transcoder does is not the server's.
  const Served server({"--max-streams", "400", "--max-streams-per-client", "400", "--max-calls",
                       "10000", TARN_TEST_MEDIA "/clip.mkv"});
  Client first(server.port());
  Json::Value request(Json::objectValue);
  request["video"] = VideoNumber(first, "clip");
  request["kind"] = "hls";
  request["profile"] = "hls_remux_aac_ab128";
  const double before = PrivateMebibytes(server.pid());
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < kStreams; ++i) {
    clients.push_back(std::make_unique<Client>(server.port()));
    const std::string url = clients.back()->Post("/api/v1/streams", request)["url"].asString();
    clients.back()->Get(url);
    clients.back()->Get(url + "&fragment_id=00000");
  }
  Samples memory;
  for (int i = 0; i < Rounds(kLooks); ++i) {
    // Something of every connection happens between two looks.
    for (const auto& client : clients) client->GetJson("/api/v1/health");
    memory.Add(PrivateMebibytes(server.pid()));
  }
  const size_t open = first.GetJson("/api/v1/streams")["streams"].size();
  if (open != kStreams) Fail(std::to_string(open) + " streams are open");
  const std::string figure = "server, private memory, " + std::to_string(kStreams) + " streams";
  report.AddLimit(figure, memory, kMebibytes, kLimit);
  Report::Note(figure + "\n  before the first  " + Format(before, kMebibytes));
}

}  // namespace tarnbench
