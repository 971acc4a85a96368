// Object format strings: printf's syntax plus "%@", which prints a value's description.
//
// gw::format("%s [%d] -- %@", fn, line, value) formats like printf, with arguments checked at run
// time against their conversions: a conversion given an argument of a kind it cannot print (a
// string for "%d", a missing argument) prints a marker such as "(%d?)" instead of misbehaving.
// Supported: flags "-+ #0", width and precision (also "*"), length modifiers (accepted and ignored:
// the argument's own type decides its width), conversions d i u o x X c s p f F e E g G a A @ %.
// Thread-safe: formatting uses only per-call storage.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>

#include <concepts>
#include <cstdint>
#include <exception>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace gw {

// One argument of a format call, captured by kind without copying strings or values.
class GW_EXPORT FormatArg {
 public:
  enum class Kind { Signed, Unsigned, Real, CString, String, Pointer, Value, Object, Exception };

  template <std::integral T>
  FormatArg(T n) {
    if constexpr (std::is_signed_v<T>) {
      kind_ = Kind::Signed;
      i_ = n;
    } else {
      kind_ = Kind::Unsigned;
      u_ = n;
    }
  }
  template <std::floating_point T>
  FormatArg(T d) : kind_(Kind::Real), d_(double(d)) {}
  FormatArg(const char* s) : kind_(Kind::CString), s_(s) {}
  FormatArg(char* s) : kind_(Kind::CString), s_(s) {}
  FormatArg(const std::string& s) : kind_(Kind::String), sv_(s) {}
  FormatArg(std::string_view s) : kind_(Kind::String), sv_(s) {}
  FormatArg(const void* p) : kind_(Kind::Pointer), p_(p) {}
  FormatArg(std::nullptr_t) : kind_(Kind::Pointer), p_(nullptr) {}
  FormatArg(const plist::Value& v) : kind_(Kind::Value), v_(&v) {}
  FormatArg(const GWObject& o) : kind_(Kind::Object), o_(&o) {}
  template <class T>
  requires std::derived_from<T, GWObject> FormatArg(const std::shared_ptr<T>& o)
      : kind_(Kind::Object), o_(o.get()) {}
  FormatArg(const std::exception& e) : kind_(Kind::Exception), e_(&e) {}

  Kind kind() const { return kind_; }
  std::int64_t asSigned() const { return i_; }
  std::uint64_t asUnsigned() const { return u_; }
  double asReal() const { return d_; }
  const char* asCString() const { return s_; }
  std::string_view asString() const { return sv_; }
  const void* asPointer() const { return p_; }
  const plist::Value& asValue() const { return *v_; }
  const GWObject* asObject() const { return o_; }
  const std::exception& asException() const { return *e_; }

 private:
  Kind kind_;
  union {
    std::int64_t i_;
    std::uint64_t u_;
    double d_;
    const char* s_;
    std::string_view sv_;
    const void* p_;
    const plist::Value* v_;
    const GWObject* o_;
    const std::exception* e_;
  };
};

// Formats with the arguments already captured.
GW_EXPORT std::string formatArgs(std::string_view format, std::span<const FormatArg> args);

// What "%@" prints for an argument: a value's description, an object's, an exception's reason,
// a C string's text; "(null)" for a null object or string.
GW_EXPORT std::string describeArg(const FormatArg& arg);

template <class... Args>
std::string format(std::string_view fmt, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    return formatArgs(fmt, {});
  } else {
    const FormatArg captured[] = {FormatArg(args)...};
    return formatArgs(fmt, captured);
  }
}

}  // namespace gw
