#include "backend/serve/metrics.h"

#include <array>
#include <charconv>

namespace tarnbackend {
namespace {

// Whatever the locale.
std::string Number(double value) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  return {text.data(), end};
}

std::string Label(std::string_view name, std::string_view value) {
  return std::string(name) + "=\"" + std::string(value) + "\"";
}

std::string Sample(std::string_view name, std::string_view labels, const std::string& value) {
  std::string line(name);
  if (!labels.empty()) line += "{" + std::string(labels) + "}";
  return line + " " + value + "\n";
}

template <typename Map>
void WriteCounters(std::string_view name, std::string_view help, std::string_view label,
                   const Map& values, MetricsText& text) {
  text.Begin(name, "counter", help);
  for (const auto& [key, value] : values) {
    if constexpr (std::is_same_v<std::decay_t<decltype(key)>, int>) {
      text.Value(name, Label(label, std::to_string(key)), static_cast<double>(value));
    } else {
      text.Value(name, Label(label, key), static_cast<double>(value));
    }
  }
}

void WriteHistograms(std::string_view name, std::string_view help,
                     const std::map<std::string, Histogram>& values, MetricsText& text) {
  text.Begin(name, "histogram", help);
  for (const auto& [kind, histogram] : values) text.Add(histogram.Text(name, Label("kind", kind)));
}

}  // namespace

void Histogram::Add(double seconds) {
  size_t bucket = 0;
  while (bucket < kBounds.size() && seconds > kBounds[bucket]) ++bucket;
  ++counts_[bucket];
  sum_ += seconds;
}

std::string Histogram::Text(std::string_view name, std::string_view labels) const {
  const std::string prefix(name);
  std::string text;
  uint64_t count = 0;
  for (size_t i = 0; i < counts_.size(); ++i) {
    count += counts_[i];
    const std::string bound = i < kBounds.size() ? Number(kBounds[i]) : "+Inf";
    text += Sample(prefix + "_bucket", std::string(labels) + "," + Label("le", bound),
                   std::to_string(count));
  }
  return text + Sample(prefix + "_sum", labels, Number(sum_)) +
         Sample(prefix + "_count", labels, std::to_string(count));
}

void MetricsText::Begin(std::string_view name, std::string_view type, std::string_view help) {
  text_ += "# HELP " + std::string(name) + " " + std::string(help) + "\n# TYPE " +
           std::string(name) + " " + std::string(type) + "\n";
}

void MetricsText::Value(std::string_view name, std::string_view labels, double value) {
  text_ += Sample(name, labels, Number(value));
}

void WriteMetrics(const Metrics& metrics, MetricsText& text) {
  WriteCounters("tarnvte_streams_prepared_total", "Streams prepared.", "kind", metrics.prepared,
                text);
  WriteCounters("tarnvte_streams_refused_total", "Streams refused.", "word", metrics.refused, text);
  WriteHistograms("tarnvte_first_fragment_seconds",
                  "Wait for the first fragment or byte of a stream.", metrics.first_wait, text);
  WriteHistograms("tarnvte_seek_seconds", "Wait for the first fragment or byte behind a seek.",
                  metrics.seek_wait, text);
  WriteCounters("tarnvte_answers_total", "Answers sent.", "status", metrics.answers, text);
}

}  // namespace tarnbackend
