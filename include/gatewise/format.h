// Object format strings: printf's syntax plus "%@", which prints a value's description.
//
// gw::format("%s [%d] -- %@", fn, line, value) formats like printf, with arguments checked at run
// time against their conversions: a conversion given an argument of a kind it cannot print (a
// string for "%d", a missing argument) prints a marker such as "(%d?)" instead of misbehaving, and
// surplus arguments are ignored. Supported: flags "-+ #0" ("'" is accepted and ignored), width and
// precision (also "*"; both are capped at 4096), conversions d i u o x X c s p f F e E g G a A @ %.
// Length modifiers l ll q j z t L are accepted and ignored, because the argument's own type decides
// its width; h and hh narrow as in printf. An integer given to a real conversion prints as that
// number. Anything else after a "%" (including "%n") is copied as written.
//
// "%@" prints a plist::Value's description, a GWObject's description (objects by reference, raw
// pointer or shared_ptr), an exception's what(), a string's text, a number; "(null)" for null.
// Thread-safe: formatting uses only per-call storage; the arguments must outlive the call.
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
#include <type_traits>

namespace gw {

// One argument of a format call, captured by kind without copying strings or values. Integers
// keep the width of their own type, so "%x" of an int -1 prints "ffffffff" as printf does.
class GW_EXPORT FormatArg {
 public:
  enum class Kind {
    Signed,
    Unsigned,
    Real,
    CString,
    String,
    Pointer,
    Value,
    Array,
    Dictionary,
    Object,
    Exception
  };

  template <std::integral T>
  FormatArg(T n)
      : kind_(std::is_signed_v<T> ? Kind::Signed : Kind::Unsigned),
        size_(sizeof(T)),
        bits_(std::is_signed_v<T> ? std::uint64_t(std::int64_t(n)) : std::uint64_t(n)) {}
  template <std::floating_point T>
  FormatArg(T d) : kind_(Kind::Real), d_(double(d)) {}
  FormatArg(const char* s) : kind_(Kind::CString), s_(s) {}
  FormatArg(char* s) : kind_(Kind::CString), s_(s) {}
  FormatArg(const std::string& s) : kind_(Kind::String), sv_(s) {}
  FormatArg(std::string_view s) : kind_(Kind::String), sv_(s) {}
  FormatArg(const void* p) : kind_(Kind::Pointer), p_(p) {}
  FormatArg(std::nullptr_t) : kind_(Kind::Pointer), p_(nullptr) {}
  FormatArg(const plist::Value& v) : kind_(Kind::Value), v_(&v) {}
  FormatArg(const plist::ArrayRef& a) : kind_(Kind::Array), a_(&a) {}
  FormatArg(const plist::DictionaryRef& d) : kind_(Kind::Dictionary), dict_(&d) {}
  FormatArg(const GWObject& o) : kind_(Kind::Object), o_(&o) {}
  template <class T>
  requires std::derived_from<T, GWObject> FormatArg(const T* o) : kind_(Kind::Object), o_(o) {}
  template <class T>
  requires std::derived_from<T, GWObject> FormatArg(const std::shared_ptr<T>& o)
      : kind_(Kind::Object), o_(o.get()) {}
  FormatArg(const std::exception& e) : kind_(Kind::Exception), e_(&e) {}

  Kind kind() const { return kind_; }
  bool isInteger() const { return kind_ == Kind::Signed || kind_ == Kind::Unsigned; }
  // An integer's bits read as signed or unsigned in the width of its own type: an unsigned 32-bit
  // 0xffffffff is -1 as signed, an int -1 is 0xffffffff as unsigned.
  std::int64_t asSigned() const;
  std::uint64_t asUnsigned() const;
  // An integer as a number, whatever its signedness (unsigned values above INT64_MAX as they are).
  double asNumber() const { return kind_ == Kind::Unsigned ? double(bits_) : double(asSigned()); }
  unsigned size() const { return size_; }
  double asReal() const { return d_; }
  const char* asCString() const { return s_; }
  std::string_view asString() const { return sv_; }
  const void* asPointer() const { return p_; }
  const plist::Value& asValue() const { return *v_; }
  const plist::ArrayRef& asArray() const { return *a_; }
  const plist::DictionaryRef& asDictionary() const { return *dict_; }
  const GWObject* asObject() const { return o_; }
  const std::exception& asException() const { return *e_; }

 private:
  Kind kind_;
  unsigned size_ = 0;  // bytes of an integer's own type
  union {
    std::uint64_t bits_;  // integers, sign-extended from their own type
    double d_;
    const char* s_;
    std::string_view sv_;
    const void* p_;
    const plist::Value* v_;
    const plist::ArrayRef* a_;
    const plist::DictionaryRef* dict_;
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
