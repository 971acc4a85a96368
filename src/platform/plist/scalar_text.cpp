#include "platform/plist/scalar_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace gw::plist::text {
namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
  return s;
}

// Days between 1970-01-01 and the given proleptic Gregorian date (negative before 1970).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t yoe = y - era * 400;
  const std::int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

struct Civil {
  std::int64_t year;
  unsigned month, day;
};

Civil civilFromDays(std::int64_t z) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  const unsigned d = unsigned(doy - (153 * mp + 2) / 5 + 1);
  const unsigned m = unsigned(mp < 10 ? mp + 3 : mp - 9);
  return {yoe + era * 400 + (m <= 2), m, d};
}

bool isLeapYear(std::int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned daysInMonth(std::int64_t y, unsigned m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeapYear(y) ? 29 : kDays[m - 1];
}

// Whole seconds since 1970 of a date, kept within the years 1 ... 9999 that the text form holds.
std::int64_t clampedUnixSeconds(Date d) {
  static const double kFirst = double(daysFromCivil(1, 1, 1)) * 86400;
  static const double kLast = double(daysFromCivil(9999, 12, 31)) * 86400 + 86399;
  double t = std::floor(d.unixTime());
  if (std::isnan(t)) t = 0;
  return std::int64_t(std::clamp(t, kFirst, kLast));
}

struct DateFields {
  Civil civil;
  unsigned hour, minute, second;
};

DateFields fieldsOf(Date d) {
  std::int64_t t = clampedUnixSeconds(d);
  std::int64_t days = t >= 0 ? t / 86400 : -((-t + 86399) / 86400);
  std::int64_t secs = t - days * 86400;
  return {civilFromDays(days), unsigned(secs / 3600), unsigned(secs / 60 % 60),
          unsigned(secs % 60)};
}

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kSkip = 64, kPad = 65, kBad = 255;

constexpr std::array<std::uint8_t, 256> makeBase64Table() {
  std::array<std::uint8_t, 256> t{};
  for (auto& v : t) v = kBad;
  for (unsigned i = 0; i < 64; ++i) t[std::uint8_t(kBase64Alphabet[i])] = std::uint8_t(i);
  t[' '] = t['\t'] = t['\n'] = t['\r'] = kSkip;
  t['='] = kPad;
  return t;
}
constexpr auto kBase64Table = makeBase64Table();

}  // namespace

IntegerError parseInteger(std::string_view s, Integer* out) {
  s = trimmed(s);
  bool negative = false;
  if (!s.empty() && (s[0] == '-' || s[0] == '+')) {
    negative = s[0] == '-';
    s.remove_prefix(1);
  }
  int base = 10;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16;
    s.remove_prefix(2);
  }
  if (s.empty()) return IntegerError::NotANumber;
  std::uint64_t magnitude = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), magnitude, base);
  if (end != s.data() + s.size()) {
    // from_chars stops at the first foreign character; an overflow still consumes every digit.
    return IntegerError::NotANumber;
  }
  if (ec == std::errc::result_out_of_range) return IntegerError::OutOfRange;
  if (ec != std::errc()) return IntegerError::NotANumber;
  if (negative) {
    if (magnitude > std::uint64_t(INT64_MAX) + 1) return IntegerError::OutOfRange;
    *out = Integer::fromSigned(std::int64_t(0 - magnitude));
  } else {
    *out = Integer::fromUnsigned(magnitude);
  }
  return IntegerError::None;
}

void appendInteger(std::string& out, Integer n) {
  char buf[24];
  auto r = n.isBigUnsigned() ? std::to_chars(buf, buf + sizeof buf, n.uint64())
                             : std::to_chars(buf, buf + sizeof buf, n.int64());
  out.append(buf, r.ptr);
}

std::optional<double> parseReal(std::string_view s) {
  s = trimmed(s);
  if (s.size() > 1 && s[0] == '+' && s[1] != '-' && s[1] != '+') s.remove_prefix(1);
  if (s.empty()) return std::nullopt;
  double d = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), d);
  if (end != s.data() + s.size()) return std::nullopt;
  if (ec == std::errc::result_out_of_range) {
    // Beyond the double range: strtod gives the infinity or zero that other readers give.
    return std::strtod(std::string(s).c_str(), nullptr);
  }
  if (ec != std::errc()) return std::nullopt;
  return d;
}

void appendReal(std::string& out, double d) {
  if (std::isnan(d)) {
    out += "nan";
  } else if (std::isinf(d)) {
    out += d > 0 ? "+infinity" : "-infinity";
  } else {
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, d);
    out.append(buf, r.ptr);
  }
}

std::optional<Date> parseISO8601(std::string_view s) {
  s = trimmed(s);
  if (s.empty() || s.back() != 'Z') return std::nullopt;
  s.remove_suffix(1);
  if (s.empty()) return std::nullopt;  // the year at least
  // Fields in order, each with the separator that introduces it.
  static constexpr struct {
    char separator;
    unsigned digits, min, max;
  } kFields[] = {{0, 4, 1, 9999}, {'-', 2, 1, 12}, {'-', 2, 1, 31},
                 {'T', 2, 0, 23}, {':', 2, 0, 59}, {':', 2, 0, 59}};
  unsigned values[6] = {0, 1, 1, 0, 0, 0};
  std::size_t pos = 0;
  for (unsigned f = 0; f < 6 && pos < s.size(); ++f) {
    if (f > 0 && s[pos++] != kFields[f].separator) return std::nullopt;
    if (s.size() - pos < kFields[f].digits) return std::nullopt;
    unsigned v = 0;
    for (unsigned i = 0; i < kFields[f].digits; ++i, ++pos) {
      char c = s[pos];
      if (c < '0' || c > '9') return std::nullopt;
      v = v * 10 + unsigned(c - '0');
    }
    if (v < kFields[f].min || v > kFields[f].max) return std::nullopt;
    values[f] = v;
  }
  if (pos != s.size()) return std::nullopt;
  if (values[2] > daysInMonth(values[0], values[1])) return std::nullopt;
  std::int64_t days = daysFromCivil(values[0], values[1], values[2]);
  double unix = double(days) * 86400 + values[3] * 3600.0 + values[4] * 60.0 + values[5];
  return Date::fromUnixTime(unix);
}

void appendISO8601(std::string& out, Date d) {
  DateFields f = fieldsOf(d);
  char buf[40];
  int n = std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02u:%02u:%02uZ",
                        static_cast<long long>(f.civil.year), f.civil.month, f.civil.day, f.hour,
                        f.minute, f.second);
  out.append(buf, std::size_t(n));
}

void appendDescriptionDate(std::string& out, Date d) {
  DateFields f = fieldsOf(d);
  char buf[40];
  int n = std::snprintf(buf, sizeof buf, "%04lld-%02u-%02u %02u:%02u:%02u +0000",
                        static_cast<long long>(f.civil.year), f.civil.month, f.civil.day, f.hour,
                        f.minute, f.second);
  out.append(buf, std::size_t(n));
}

bool decodeBase64(std::string_view s, Data* out) {
  out->clear();
  out->reserve(s.size() / 4 * 3 + 3);
  std::uint32_t bits = 0;
  unsigned count = 0;  // sextets in the current group of four
  bool padded = false;
  const std::size_t n = s.size();
  for (std::size_t i = 0; i < n; ++i) {
    // Whole groups of four alphabet characters, the bulk of any line, go three bytes at a time.
    if (count == 0 && !padded && n - i >= 4) {
      const std::uint32_t a = kBase64Table[std::uint8_t(s[i])],
                          b = kBase64Table[std::uint8_t(s[i + 1])],
                          c = kBase64Table[std::uint8_t(s[i + 2])],
                          d = kBase64Table[std::uint8_t(s[i + 3])];
      if ((a | b | c | d) < 64) {
        const std::uint32_t group = (a << 18) | (b << 12) | (c << 6) | d;
        const std::uint8_t three[3] = {std::uint8_t(group >> 16), std::uint8_t(group >> 8),
                                       std::uint8_t(group)};
        out->insert(out->end(), three, three + 3);
        i += 3;
        continue;
      }
    }
    std::uint8_t v = kBase64Table[std::uint8_t(s[i])];
    if (v < 64) {
      if (padded) return false;
      bits = (bits << 6) | v;
      if (++count == 4) {
        out->push_back(std::uint8_t(bits >> 16));
        out->push_back(std::uint8_t(bits >> 8));
        out->push_back(std::uint8_t(bits));
        bits = 0;
        count = 0;
      }
    } else if (v == kPad) {
      padded = true;
    } else if (v != kSkip) {
      return false;
    }
  }
  if (count == 1) return false;
  if (count == 2) {
    out->push_back(std::uint8_t(bits >> 4));
  } else if (count == 3) {
    out->push_back(std::uint8_t(bits >> 10));
    out->push_back(std::uint8_t(bits >> 2));
  }
  return true;
}

void appendBase64Lines(std::string& out, const Data& data, std::string_view indent,
                       std::size_t lineLength) {
  const std::size_t groupsPerLine = std::max<std::size_t>(1, lineLength / 4);
  const std::uint8_t* p = data.data();
  std::size_t left = data.size();
  out.reserve(out.size() + left / 3 * 4 + (left / (groupsPerLine * 3) + 1) * (indent.size() + 6));
  while (left > 0) {
    out.append(indent);
    for (std::size_t g = 0; g < groupsPerLine && left > 0; ++g) {
      std::uint32_t bits = std::uint32_t(p[0]) << 16;
      if (left > 1) bits |= std::uint32_t(p[1]) << 8;
      if (left > 2) bits |= p[2];
      char quad[4] = {kBase64Alphabet[bits >> 18], kBase64Alphabet[(bits >> 12) & 63],
                      left > 1 ? kBase64Alphabet[(bits >> 6) & 63] : '=',
                      left > 2 ? kBase64Alphabet[bits & 63] : '='};
      out.append(quad, 4);
      std::size_t used = std::min<std::size_t>(left, 3);
      p += used;
      left -= used;
    }
    out += '\n';
  }
}

}  // namespace gw::plist::text
