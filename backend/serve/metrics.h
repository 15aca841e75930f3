// What the server counts, in the Prometheus text format (version 0.0.4).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace tarnbackend {

// Of durations, in seconds.
class Histogram {
 public:
  static constexpr std::array<double, 12> kBounds = {0.025, 0.05, 0.1, 0.25, 0.5, 0.75,
                                                     1,     2,    4,   8,    15,  60};
  void Add(double seconds);
  // The samples of one label set, "kind=\"hls\"" say.
  std::string Text(std::string_view name, std::string_view labels) const;

 private:
  std::array<uint64_t, kBounds.size() + 1> counts_{};
  double sum_ = 0;
};

// Adds a metric with its explanation.
class MetricsText {
 public:
  void Begin(std::string_view name, std::string_view type, std::string_view help);
  void Value(std::string_view name, std::string_view labels, double value);
  void Add(const std::string& samples) { text_ += samples; }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// What only the server itself knows; the rest is asked where it is.
struct Metrics {
  std::map<std::string, uint64_t> prepared;     // streams by kind
  std::map<std::string, uint64_t> refused;      // streams by error word
  std::map<std::string, Histogram> first_wait;  // of a stream's first fragment, by kind
  std::map<std::string, Histogram> seek_wait;   // of the first fragment behind a seek, by kind
  std::map<int, uint64_t> answers;              // by status
};

// The histograms and counters of `metrics`.
void WriteMetrics(const Metrics& metrics, MetricsText& text);

}  // namespace tarnbackend
