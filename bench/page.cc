// How long a viewer waits for a picture in a browser, against ffmpeg alone.
#include <json/reader.h>

#include <string>
#include <vector>

#include "bench/figures.h"
#include "bench/hls_run.h"
#include "bench/talk.h"

namespace tarnbench {
namespace {

constexpr int kRounds = 9;
constexpr double kFirstBudget = 0.300;
constexpr double kSeekBudget = 0.250;

struct Case {
  const char* name;
  const char* title;
  HlsRequest request;
  int second;    // that is sought
  int fragment;  // that holds it
};

// The page chooses these profiles by itself.
const Case kCases[] = {
    {"copied video", "hour", {TARN_BENCH_MEDIA "/hour.mkv", "hls_remux_aac_ab128"}, 3605, 450},
    {"encoded, 720p",
     "film-mpeg4",
     {TARN_BENCH_MEDIA "/film-mpeg4.mkv", "hls_hd720_x264_vb1500_aac_ab128"},
     307,
     61},
};

Words BrowserCommand() {
  Words command = {"/usr/bin/env",
                   "PATH=/usr/local/bin:/usr/bin:/bin",
                   "HOME=/tmp",
                   "TARNVTE=" TARN_BENCH_BUILD "/cli/tarnvte",
                   "node",
                   TARN_BENCH_SOURCE "/page_loads.mjs",
                   TARN_BENCH_BUILD "/tests/backend_page/page_tests/support.js"};
  for (const Case& one : kCases) command.push_back(one.request.file);
  return command;
}

struct Waits {
  double first;
  double seek;
};

Waits Watch(TalkingProgram& browser, const Case& one) {
  browser.Say(std::string(one.title) + " " + std::to_string(one.second));
  const std::string line = browser.Listen();
  Json::Value said;
  if (!Json::Reader().parse(line, said)) Fail("the browser said: " + line);
  if (said["profile"].asString() != one.request.profile_key) Fail("another profile: " + line);
  return {said["first"].asDouble() / 1000, said["seek"].asDouble() / 1000};
}

void MeasureCase(Report& report, TalkingProgram& browser, const Case& one,
                 const HlsCommands& first_commands, const HlsCommands& seek_commands) {
  Samples seek;
  const Candidate bare_first = [&] { return SecondsToBareSegment(first_commands, 0); };
  const Candidate bare_seek = [&] { return SecondsToBareSegment(seek_commands, one.fragment); };
  const Candidate page = [&] {
    const Waits waits = Watch(browser, one);
    seek.Add(waits.seek);
    return waits.first;
  };
  const std::vector<Candidate> candidates = {bare_first, bare_seek, page, bare_first, bare_seek};
  WarmUp(candidates);
  seek = {};
  const std::vector<Samples> taken = Alternate(kRounds, candidates);
  report.AddDifference(std::string("click to first picture, ") + one.name, taken[2], taken[0],
                       taken[3], kMilliseconds, kFirstBudget);
  report.AddDifference(std::string("seek to picture, ") + one.name, seek, taken[1], taken[4],
                       kMilliseconds, kSeekBudget);
}

}  // namespace

void MeasurePage(Report& report) {
  // They end all children of this process, so that they come before the browser.
  std::vector<HlsCommands> first;
  std::vector<HlsCommands> seek;
  for (const Case& one : kCases) {
    first.push_back(CommandsOf(one.request, 0));
    seek.push_back(CommandsOf(one.request, one.fragment));
  }
  TalkingProgram browser(BrowserCommand());
  for (size_t i = 0; i < std::size(kCases); ++i) {
    MeasureCase(report, browser, kCases[i], first[i], seek[i]);
  }
}

}  // namespace tarnbench
