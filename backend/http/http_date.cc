#include "backend/http/http_date.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

#include "backend/http/text.h"

namespace tarnbackend::http {
namespace {

using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year_month_day;

constexpr std::array<std::string_view, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Reads a text from its front; remembers whether all of it was as expected.
class Scanner {
 public:
  explicit Scanner(std::string_view rest) : rest_(rest) {}

  void Skip(std::string_view expected) {
    ok_ = ok_ && rest_.substr(0, expected.size()) == expected;
    if (ok_) rest_.remove_prefix(expected.size());
  }
  unsigned Digits(size_t count) {
    unsigned number = 0;
    for (size_t i = 0; i < count && ok_; ++i) {
      ok_ = !rest_.empty() && rest_.front() >= '0' && rest_.front() <= '9';
      if (!ok_) break;
      number = number * 10 + static_cast<unsigned>(rest_.front() - '0');
      rest_.remove_prefix(1);
    }
    return number;
  }
  // 1 to 12.
  unsigned Month() {
    const auto found = std::find(kMonths.begin(), kMonths.end(), rest_.substr(0, 3));
    ok_ = ok_ && found != kMonths.end();
    if (ok_) rest_.remove_prefix(3);
    return static_cast<unsigned>(found - kMonths.begin()) + 1;
  }
  // "06" or " 6".
  unsigned PaddedDay() {
    if (rest_.empty() || rest_.front() != ' ') return Digits(2);
    rest_.remove_prefix(1);
    return Digits(1);
  }
  bool At(char c) const { return !rest_.empty() && rest_.front() == c; }
  bool Done() const { return ok_ && rest_.empty(); }

 private:
  std::string_view rest_;
  bool ok_ = true;
};

struct Fields {
  int year = 0;
  unsigned month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

void ReadTime(Scanner& scanner, Fields& fields) {
  fields.hour = scanner.Digits(2);
  scanner.Skip(":");
  fields.minute = scanner.Digits(2);
  scanner.Skip(":");
  fields.second = scanner.Digits(2);
}

// " 06 Nov 1994 08:49:37 GMT" behind "Sun,", with `separator` as in "06-Nov-94".
void ReadDayFirst(Scanner& scanner, std::string_view separator, size_t year_digits,
                  Fields& fields) {
  scanner.Skip(" ");
  fields.day = scanner.Digits(2);
  scanner.Skip(separator);
  fields.month = scanner.Month();
  scanner.Skip(separator);
  fields.year = static_cast<int>(scanner.Digits(year_digits));
  scanner.Skip(" ");
  ReadTime(scanner, fields);
  scanner.Skip(" GMT");
}

// " Nov  6 08:49:37 1994" behind "Sun".
void ReadMonthFirst(Scanner& scanner, Fields& fields) {
  scanner.Skip(" ");
  fields.month = scanner.Month();
  scanner.Skip(" ");
  fields.day = scanner.PaddedDay();
  scanner.Skip(" ");
  ReadTime(scanner, fields);
  scanner.Skip(" ");
  fields.year = static_cast<int>(scanner.Digits(4));
}

int YearOf(time_t time) {
  const auto day =
      std::chrono::floor<std::chrono::days>(std::chrono::system_clock::from_time_t(time));
  return static_cast<int>(year_month_day(day).year());
}

// The year that ends with these two digits and lies at most 50 years ahead.
int WholeYear(int two_digits, time_t now) {
  const int current = YearOf(now);
  const int year = current - current % 100 + two_digits;
  if (year > current + 50) return year - 100;
  return year <= current - 50 ? year + 100 : year;
}

std::optional<time_t> ToTime(const Fields& fields) {
  const year_month_day date{std::chrono::year(fields.year), std::chrono::month(fields.month),
                            std::chrono::day(fields.day)};
  // 60 is a leap second.
  if (!date.ok() || fields.hour > 23 || fields.minute > 59 || fields.second > 60) {
    return std::nullopt;
  }
  const sys_seconds time = sys_days(date) + std::chrono::hours(fields.hour) +
                           std::chrono::minutes(fields.minute) +
                           std::chrono::seconds(fields.second);
  return static_cast<time_t>(time.time_since_epoch().count());
}

}  // namespace

std::string HttpDate(time_t time) {
  tm parts{};
  gmtime_r(&time, &parts);
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT",
                kDays[static_cast<size_t>(parts.tm_wday)].data(), parts.tm_mday,
                kMonths[static_cast<size_t>(parts.tm_mon)].data(), parts.tm_year + 1900,
                parts.tm_hour, parts.tm_min, parts.tm_sec);
  return text;
}

std::optional<time_t> ParseHttpDate(std::string_view text, time_t now) {
  std::string_view rest = Trim(text);
  const size_t day_end = rest.find_first_of(", ");
  if (day_end == std::string_view::npos) return std::nullopt;
  const std::string_view day = rest.substr(0, day_end);
  const bool known = std::any_of(kDays.begin(), kDays.end(),
                                 [day](std::string_view name) { return day.substr(0, 3) == name; });
  if (!known) return std::nullopt;
  rest.remove_prefix(day_end);

  Scanner scanner(rest);
  Fields fields;
  if (!scanner.At(',')) {
    ReadMonthFirst(scanner, fields);
  } else {
    scanner.Skip(",");
    if (day.size() == 3) {
      ReadDayFirst(scanner, " ", 4, fields);
    } else {
      ReadDayFirst(scanner, "-", 2, fields);
      fields.year = WholeYear(fields.year, now);
    }
  }
  return scanner.Done() ? ToTime(fields) : std::nullopt;
}

}  // namespace tarnbackend::http
