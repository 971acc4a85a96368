// The object format string formatter: walks the format once, hands each numeric conversion to
// snprintf with a conversion spec rebuilt for the argument's real type, and prints "%@" itself.
#include <gatewise/format.h>

#include <cstdio>
#include <cstring>

namespace gw {
namespace {

struct Spec {
  std::string flags;
  int width = -1;
  int precision = -1;
  char conversion = 0;
};

// snprintf into a string for one already-validated conversion.
template <class T>
void appendPrintf(std::string& out, const Spec& spec, const char* length, T arg) {
  std::string f = "%" + spec.flags;
  if (spec.width >= 0) f += std::to_string(spec.width);
  if (spec.precision >= 0) f += "." + std::to_string(spec.precision);
  f += length;
  f += spec.conversion;
  char small[128];
  int n = std::snprintf(small, sizeof small, f.c_str(), arg);
  if (n < 0) return;
  if (std::size_t(n) < sizeof small) {
    out.append(small, std::size_t(n));
    return;
  }
  std::string big(std::size_t(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), f.c_str(), arg);
  out.append(big.data(), std::size_t(n));
}

// Width and precision applied to text the formatter produced itself ("%@", "%s" of std::string).
void appendPadded(std::string& out, const Spec& spec, std::string_view text) {
  if (spec.precision >= 0 && text.size() > std::size_t(spec.precision)) {
    text = text.substr(0, std::size_t(spec.precision));
  }
  std::size_t pad = spec.width > 0 && std::size_t(spec.width) > text.size()
                        ? std::size_t(spec.width) - text.size()
                        : 0;
  bool left = spec.flags.find('-') != std::string::npos;
  if (!left) out.append(pad, ' ');
  out.append(text);
  if (left) out.append(pad, ' ');
}

void appendMismatch(std::string& out, char conversion) {
  out += "(%";
  out += conversion;
  out += "?)";
}

bool isIntegerKind(FormatArg::Kind k) {
  return k == FormatArg::Kind::Signed || k == FormatArg::Kind::Unsigned;
}

void appendConversion(std::string& out, const Spec& spec, const FormatArg* arg) {
  const char c = spec.conversion;
  if (!arg) {
    appendMismatch(out, c);
    return;
  }
  using K = FormatArg::Kind;
  switch (c) {
    case 'd':
    case 'i':
      if (arg->kind() == K::Signed)
        return appendPrintf(out, spec, "ll", (long long)arg->asSigned());
      if (arg->kind() == K::Unsigned) {
        // A value given unsigned but printed signed reinterprets its bits, like printf does.
        return appendPrintf(out, spec, "ll", (long long)arg->asUnsigned());
      }
      break;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      if (isIntegerKind(arg->kind())) {
        return appendPrintf(out, spec, "ll", (unsigned long long)arg->asUnsigned());
      }
      break;
    case 'c':
      if (isIntegerKind(arg->kind())) return appendPrintf(out, spec, "", int(arg->asSigned()));
      break;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      if (arg->kind() == K::Real) return appendPrintf(out, spec, "", arg->asReal());
      if (arg->kind() == K::Signed) return appendPrintf(out, spec, "", double(arg->asSigned()));
      if (arg->kind() == K::Unsigned) return appendPrintf(out, spec, "", double(arg->asUnsigned()));
      break;
    case 's':
      if (arg->kind() == K::CString) {
        return appendPadded(out, spec, arg->asCString() ? arg->asCString() : "(null)");
      }
      if (arg->kind() == K::String) return appendPadded(out, spec, arg->asString());
      if (arg->kind() == K::Pointer && !arg->asPointer()) return appendPadded(out, spec, "(null)");
      break;
    case 'p':
      if (arg->kind() == K::Pointer) return appendPrintf(out, spec, "", arg->asPointer());
      if (arg->kind() == K::CString)
        return appendPrintf(out, spec, "", (const void*)arg->asCString());
      break;
    case '@':
      return appendPadded(out, spec, describeArg(*arg));
  }
  appendMismatch(out, c);
}

}  // namespace

std::string describeArg(const FormatArg& arg) {
  using K = FormatArg::Kind;
  switch (arg.kind()) {
    case K::Value:
      return plist::description(arg.asValue());
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
    case K::Real:
      return format("%g", arg.asReal());
  }
  return "(null)";
}

std::string formatArgs(std::string_view fmt, std::span<const FormatArg> args) {
  std::string out;
  out.reserve(fmt.size() + 16 * args.size());
  std::size_t next = 0;
  auto take = [&]() -> const FormatArg* { return next < args.size() ? &args[next++] : nullptr; };
  auto takeInt = [&](int& into) {
    const FormatArg* a = take();
    into = a && isIntegerKind(a->kind()) ? int(a->asSigned()) : 0;
  };

  std::size_t i = 0;
  while (i < fmt.size()) {
    std::size_t pct = fmt.find('%', i);
    if (pct == std::string_view::npos) {
      out.append(fmt.substr(i));
      break;
    }
    out.append(fmt.substr(i, pct - i));
    i = pct + 1;
    if (i >= fmt.size()) {
      out += '%';
      break;
    }
    if (fmt[i] == '%') {
      out += '%';
      ++i;
      continue;
    }
    Spec spec;
    while (i < fmt.size() && std::strchr("-+ #0'", fmt[i])) {
      if (fmt[i] != '\'') spec.flags += fmt[i];
      ++i;
    }
    if (i < fmt.size() && fmt[i] == '*') {
      takeInt(spec.width);
      if (spec.width < 0) {
        spec.flags += '-';
        spec.width = -spec.width;
      }
      ++i;
    } else {
      while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9') {
        spec.width = (spec.width < 0 ? 0 : spec.width) * 10 + (fmt[i++] - '0');
        if (spec.width > 4096) spec.width = 4096;
      }
    }
    if (i < fmt.size() && fmt[i] == '.') {
      ++i;
      spec.precision = 0;
      if (i < fmt.size() && fmt[i] == '*') {
        takeInt(spec.precision);
        ++i;
      } else {
        while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9') {
          spec.precision = spec.precision * 10 + (fmt[i++] - '0');
          if (spec.precision > 4096) spec.precision = 4096;
        }
      }
    }
    while (i < fmt.size() && std::strchr("hlqLjztZ", fmt[i])) ++i;
    if (i >= fmt.size()) {
      out.append(fmt.substr(pct));
      break;
    }
    spec.conversion = fmt[i++];
    if (!std::strchr("diuoxXcspfFeEgGaA@", spec.conversion)) {
      // Not a conversion we know: keep the text as written.
      out.append(fmt.substr(pct, i - pct));
      continue;
    }
    appendConversion(out, spec, take());
  }
  return out;
}

}  // namespace gw
