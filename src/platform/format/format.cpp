// The object format string formatter: walks the format once, hands each numeric conversion to
// snprintf with a printf conversion rebuilt for the argument's real type, and prints "%@" and
// strings itself. snprintf only ever sees a conversion built for its argument, so no argument can
// be misread.
#include <gatewise/format.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace gw {

std::int64_t FormatArg::asSigned() const {
  if (kind_ == Kind::Signed || size_ >= 8) return std::int64_t(bits_);
  // Sign-extend an unsigned value from the width of its own type.
  const unsigned shift = 64 - 8 * size_;
  return std::int64_t(bits_ << shift) >> shift;
}

std::uint64_t FormatArg::asUnsigned() const {
  if (size_ >= 8) return bits_;
  return bits_ & ((std::uint64_t(1) << (8 * size_)) - 1);
}

namespace {

constexpr int kMaxWidth = 4096;  // a bound on padding, so "%*d" cannot ask for gigabytes

struct Conversion {
  char flags[8] = {};
  int flagCount = 0;
  int width = -1;
  int precision = -1;
  int narrowTo = 0;  // bytes asked by "h" (2) or "hh" (1); 0 when the argument's width stands
  char letter = 0;   // the conversion character: d, x, s, @...

  bool has(char flag) const { return std::memchr(flags, flag, std::size_t(flagCount)) != nullptr; }
  void add(char flag) {
    if (!has(flag) && flagCount < int(sizeof flags) - 1) flags[flagCount++] = flag;
  }
};

// Whether ch is one of set's characters (never true for NUL, which strchr would find).
bool oneOf(const char* set, char ch) { return ch != '\0' && std::strchr(set, ch) != nullptr; }

int clampWidth(std::int64_t n) { return int(std::clamp<std::int64_t>(n, -kMaxWidth, kMaxWidth)); }

// snprintf into out for one conversion whose argument type is known to match.
template <class T>
void appendPrintf(std::string& out, const Conversion& conv, const char* length, T arg) {
  char f[32];
  int at = 0;
  f[at++] = '%';
  for (int i = 0; i < conv.flagCount; ++i) f[at++] = conv.flags[i];
  if (conv.width >= 0) at += std::snprintf(f + at, sizeof f - std::size_t(at), "%d", conv.width);
  if (conv.precision >= 0) {
    at += std::snprintf(f + at, sizeof f - std::size_t(at), ".%d", conv.precision);
  }
  for (const char* l = length; *l;) f[at++] = *l++;
  f[at++] = conv.letter;
  f[at] = '\0';

  char small[128];
  int n = std::snprintf(small, sizeof small, f, arg);
  if (n < 0) return;
  if (std::size_t(n) < sizeof small) {
    out.append(small, std::size_t(n));
    return;
  }
  std::size_t start = out.size();
  out.resize(start + std::size_t(n) + 1);
  std::snprintf(out.data() + start, std::size_t(n) + 1, f, arg);
  out.resize(start + std::size_t(n));
}

// Width and precision applied to text the formatter produced itself ("%@", "%s").
void appendPadded(std::string& out, const Conversion& conv, std::string_view text) {
  if (conv.precision >= 0 && text.size() > std::size_t(conv.precision)) {
    text = text.substr(0, std::size_t(conv.precision));
  }
  std::size_t pad = conv.width > 0 && std::size_t(conv.width) > text.size()
                        ? std::size_t(conv.width) - text.size()
                        : 0;
  bool left = conv.has('-');
  if (!left) out.append(pad, ' ');
  out.append(text);
  if (left) out.append(pad, ' ');
}

void appendMismatch(std::string& out, char conversion) {
  out += "(%";
  out += conversion;
  out += "?)";
}

// An integer argument narrowed as "h"/"hh" ask, the way printf converts its promoted int.
std::uint64_t narrowed(std::uint64_t bits, int bytes) {
  return bytes ? bits & ((std::uint64_t(1) << (8 * bytes)) - 1) : bits;
}
std::int64_t narrowedSigned(std::int64_t v, int bytes) {
  if (!bytes) return v;
  const unsigned shift = 64 - 8 * unsigned(bytes);
  return std::int64_t(std::uint64_t(v) << shift) >> shift;
}

// A C string, read no further than a precision allows (it need not be terminated within it).
std::string_view cStringText(const char* s, const Conversion& conv) {
  if (!s) return "(null)";
  if (conv.precision >= 0) return std::string_view(s, ::strnlen(s, std::size_t(conv.precision)));
  return s;
}

void appendConversion(std::string& out, const Conversion& conv, const FormatArg* arg) {
  const char c = conv.letter;
  if (!arg) return appendMismatch(out, c);
  using K = FormatArg::Kind;
  switch (c) {
    case 'd':
    case 'i':
      if (arg->isInteger()) {
        return appendPrintf(out, conv, "ll",
                            (long long)narrowedSigned(arg->asSigned(), conv.narrowTo));
      }
      break;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      if (arg->isInteger()) {
        return appendPrintf(out, conv, "ll",
                            (unsigned long long)narrowed(arg->asUnsigned(), conv.narrowTo));
      }
      break;
    case 'c':
      if (arg->isInteger()) return appendPrintf(out, conv, "", int(arg->asSigned()));
      break;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      if (arg->kind() == K::Real) return appendPrintf(out, conv, "", arg->asReal());
      if (arg->isInteger()) return appendPrintf(out, conv, "", arg->asNumber());
      break;
    case 's':
      if (arg->kind() == K::CString)
        return appendPadded(out, conv, cStringText(arg->asCString(), conv));
      if (arg->kind() == K::String) return appendPadded(out, conv, arg->asString());
      if (arg->kind() == K::Pointer && !arg->asPointer()) return appendPadded(out, conv, "(null)");
      break;
    case 'p':
      if (arg->kind() == K::Pointer) return appendPrintf(out, conv, "", arg->asPointer());
      if (arg->kind() == K::CString) {
        return appendPrintf(out, conv, "", static_cast<const void*>(arg->asCString()));
      }
      if (arg->kind() == K::Object) {
        return appendPrintf(out, conv, "", static_cast<const void*>(arg->asObject()));
      }
      break;
    case '@':
      return appendPadded(out, conv, describeArg(*arg));
  }
  appendMismatch(out, c);
}

}  // namespace

std::string describeArg(const FormatArg& arg) {
  using K = FormatArg::Kind;
  switch (arg.kind()) {
    case K::Value:
      return plist::description(arg.asValue());
    case K::Array:
      return arg.asArray() ? plist::description(plist::Value(arg.asArray())) : "(null)";
    case K::Dictionary:
      return arg.asDictionary() ? plist::description(plist::Value(arg.asDictionary())) : "(null)";
    case K::Object:
      return arg.asObject() ? arg.asObject()->description() : "(null)";
    case K::Exception:
      return arg.asException().what();
    case K::CString:
      return arg.asCString() ? arg.asCString() : "(null)";
    case K::String:
      return std::string(arg.asString());
    case K::Pointer:
      return arg.asPointer() ? format("%p", arg.asPointer()) : "(null)";
    case K::Signed:
      return std::to_string(arg.asSigned());
    case K::Unsigned:
      return std::to_string(arg.asUnsigned());
    case K::Real:  // as a number value describes itself, so "%@" reads the same everywhere
      return plist::description(plist::Value(arg.asReal()));
  }
  return "(null)";
}

std::string formatArgs(std::string_view fmt, std::span<const FormatArg> args) {
  std::string out;
  out.reserve(fmt.size() + 16 * args.size());
  std::size_t next = 0;
  auto take = [&]() -> const FormatArg* { return next < args.size() ? &args[next++] : nullptr; };
  // A "*" width or precision: an integer argument, anything else counts as 0.
  auto takeStar = [&]() -> int {
    const FormatArg* a = take();
    if (!a || !a->isInteger()) return 0;
    if (a->kind() == FormatArg::Kind::Unsigned && a->asUnsigned() > std::uint64_t(INT64_MAX)) {
      return kMaxWidth;
    }
    return clampWidth(a->asSigned());
  };
  auto isDigit = [](char ch) { return ch >= '0' && ch <= '9'; };

  std::size_t i = 0;
  while (i < fmt.size()) {
    std::size_t pct = fmt.find('%', i);
    if (pct == std::string_view::npos) {
      out.append(fmt.substr(i));
      break;
    }
    out.append(fmt.substr(i, pct - i));
    i = pct + 1;
    if (i >= fmt.size()) {  // a lone "%" at the very end prints as itself
      out += '%';
      break;
    }
    if (fmt[i] == '%') {
      out += '%';
      ++i;
      continue;
    }
    Conversion conv;
    while (i < fmt.size() && oneOf("-+ #0'", fmt[i])) {
      if (fmt[i] != '\'') conv.add(fmt[i]);
      ++i;
    }
    if (i < fmt.size() && fmt[i] == '*') {
      conv.width = takeStar();
      if (conv.width < 0) {  // a negative "*" width means left-justified, as in printf
        conv.add('-');
        conv.width = -conv.width;
      }
      ++i;
    } else {
      while (i < fmt.size() && isDigit(fmt[i])) {
        conv.width = std::min(kMaxWidth, std::max(conv.width, 0) * 10 + (fmt[i++] - '0'));
      }
    }
    if (i < fmt.size() && fmt[i] == '.') {
      ++i;
      conv.precision = 0;
      if (i < fmt.size() && fmt[i] == '*') {
        conv.precision = takeStar();  // negative: as if no precision were given
        if (conv.precision < 0) conv.precision = -1;
        ++i;
      } else {
        while (i < fmt.size() && isDigit(fmt[i])) {
          conv.precision = std::min(kMaxWidth, conv.precision * 10 + (fmt[i++] - '0'));
        }
      }
    }
    int hCount = 0;
    while (i < fmt.size() && oneOf("hlqLjztZ", fmt[i])) hCount += fmt[i++] == 'h';
    conv.narrowTo = hCount == 1 ? 2 : hCount >= 2 ? 1 : 0;
    if (i >= fmt.size()) {
      out.append(fmt.substr(pct));
      break;
    }
    conv.letter = fmt[i++];
    if (!oneOf("diuoxXcspfFeEgGaA@", conv.letter)) {
      // Not a conversion we print (e.g. "%n"): keep the text as written, consume no argument.
      out.append(fmt.substr(pct, i - pct));
      continue;
    }
    appendConversion(out, conv, take());
  }
  return out;
}

}  // namespace gw
