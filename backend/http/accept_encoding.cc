#include "backend/http/accept_encoding.h"

#include <algorithm>
#include <optional>

#include "backend/http/text.h"

namespace tarnbackend::http {
namespace {

// Thousandths; 0 for what is no weight.
int ParseWeight(std::string_view text) {
  if (text.empty() || text.size() > 5 || (text[0] != '0' && text[0] != '1')) return 0;
  int weight = (text[0] - '0') * 1000;
  if (text.size() == 1) return weight;
  if (text[1] != '.') return 0;
  int unit = 100;
  for (const char c : text.substr(2)) {
    if (c < '0' || c > '9') return 0;
    weight += (c - '0') * unit;
    unit /= 10;
  }
  return weight <= 1000 ? weight : 0;
}

// Of one element's parameters, "q=0.5" among them.
int WeightOf(std::string_view parameters) {
  while (!parameters.empty()) {
    std::string_view parameter = Trim(TakeUntil(parameters, ';'));
    if (EqualsIgnoringCase(TakeUntil(parameter, '='), "q")) return ParseWeight(parameter);
  }
  return 1000;
}

}  // namespace

bool WantsGzip(std::string_view value) {
  std::optional<int> gzip, plain, any;
  while (!value.empty()) {
    std::string_view rest = TakeUntil(value, ',');
    const std::string_view coding = Trim(TakeUntil(rest, ';'));
    const int weight = WeightOf(rest);
    if (EqualsIgnoringCase(coding, "gzip") || EqualsIgnoringCase(coding, "x-gzip")) {
      gzip = std::max(gzip.value_or(0), weight);
    } else if (EqualsIgnoringCase(coding, "identity")) {
      plain = weight;
    } else if (coding == "*") {
      any = weight;
    }
  }
  const int wanted = gzip.value_or(any.value_or(0));
  return wanted > 0 && wanted >= plain.value_or(0);
}

}  // namespace tarnbackend::http
