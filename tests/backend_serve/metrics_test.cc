#include "backend/serve/metrics.h"

#include <gtest/gtest.h>

namespace tarnbackend {
namespace {

TEST(Metrics, AHistogramCountsUpwards) {
  Histogram histogram;
  histogram.Add(0.025);
  histogram.Add(0.3);
  histogram.Add(61);
  EXPECT_EQ(histogram.Text("wait", "kind=\"hls\""),
            "wait_bucket{kind=\"hls\",le=\"0.025\"} 1\n"
            "wait_bucket{kind=\"hls\",le=\"0.05\"} 1\n"
            "wait_bucket{kind=\"hls\",le=\"0.1\"} 1\n"
            "wait_bucket{kind=\"hls\",le=\"0.25\"} 1\n"
            "wait_bucket{kind=\"hls\",le=\"0.5\"} 2\n"
            "wait_bucket{kind=\"hls\",le=\"0.75\"} 2\n"
            "wait_bucket{kind=\"hls\",le=\"1\"} 2\n"
            "wait_bucket{kind=\"hls\",le=\"2\"} 2\n"
            "wait_bucket{kind=\"hls\",le=\"4\"} 2\n"
            "wait_bucket{kind=\"hls\",le=\"8\"} 2\n"
            "wait_bucket{kind=\"hls\",le=\"15\"} 2\n"
            "wait_bucket{kind=\"hls\",le=\"60\"} 2\n"
            "wait_bucket{kind=\"hls\",le=\"+Inf\"} 3\n"
            "wait_sum{kind=\"hls\"} 61.325\n"
            "wait_count{kind=\"hls\"} 3\n");
}

TEST(Metrics, EveryFamilyIsExplained) {
  Metrics metrics;
  metrics.prepared["hls"] = 2;
  metrics.refused["TransEnable"] = 1;
  metrics.answers[206] = 5;
  MetricsText text;
  WriteMetrics(metrics, text);
  EXPECT_EQ(text.text(),
            "# HELP tarnvte_streams_prepared_total Streams prepared.\n"
            "# TYPE tarnvte_streams_prepared_total counter\n"
            "tarnvte_streams_prepared_total{kind=\"hls\"} 2\n"
            "# HELP tarnvte_streams_refused_total Streams refused.\n"
            "# TYPE tarnvte_streams_refused_total counter\n"
            "tarnvte_streams_refused_total{word=\"TransEnable\"} 1\n"
            "# HELP tarnvte_first_fragment_seconds Wait for the first fragment or byte of a "
            "stream.\n"
            "# TYPE tarnvte_first_fragment_seconds histogram\n"
            "# HELP tarnvte_seek_seconds Wait for the first fragment or byte behind a seek.\n"
            "# TYPE tarnvte_seek_seconds histogram\n"
            "# HELP tarnvte_answers_total Answers sent.\n"
            "# TYPE tarnvte_answers_total counter\n"
            "tarnvte_answers_total{status=\"206\"} 5\n");
}

}  // namespace
}  // namespace tarnbackend
