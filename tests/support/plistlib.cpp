#include "support/plistlib.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace gwtest {
namespace {

void appendHex(std::string& out, std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  for (unsigned char c : bytes) {
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
}

void appendCanonical(std::string& out, const gw::plist::Value& v) {
  using gw::plist::Type;
  char buf[48];
  switch (v.type()) {
    case Type::Boolean:
      out += v.boolean() ? "b:1" : "b:0";
      return;
    case Type::Integer: {
      auto n = v.integer();
      if (n.isBigUnsigned()) {
        std::snprintf(buf, sizeof buf, "i:%llu", static_cast<unsigned long long>(n.uint64()));
      } else {
        std::snprintf(buf, sizeof buf, "i:%lld", static_cast<long long>(n.int64()));
      }
      out += buf;
      return;
    }
    case Type::Real: {
      double d = v.real();
      std::uint64_t bits;
      std::memcpy(&bits, &d, sizeof bits);
      std::snprintf(buf, sizeof buf, "r:%016llx", static_cast<unsigned long long>(bits));
      out += buf;
      return;
    }
    case Type::String:
      out += "s:";
      appendHex(out, v.string());
      return;
    case Type::Data:
      out += "d:";
      appendHex(out,
                std::string_view(reinterpret_cast<const char*>(v.data().data()), v.data().size()));
      return;
    case Type::Date:
      std::snprintf(buf, sizeof buf, "t:%lld",
                    static_cast<long long>(std::floor(v.date().unixTime())));
      out += buf;
      return;
    case Type::UID:
      std::snprintf(buf, sizeof buf, "u:%llu", static_cast<unsigned long long>(v.uid().value));
      out += buf;
      return;
    case Type::Array: {
      out += "a[";
      bool first = true;
      for (const auto& item : *v.array()) {
        if (!first) out += ',';
        first = false;
        appendCanonical(out, item);
      }
      out += ']';
      return;
    }
    case Type::Dictionary: {
      out += '{';
      bool first = true;
      for (const auto& [key, item] : *v.dictionary()) {
        if (!first) out += ',';
        first = false;
        appendHex(out, key);
        out += ':';
        appendCanonical(out, item);
      }
      out += '}';
      return;
    }
    default:
      out += "?";
      return;
  }
}

}  // namespace

RunResult runPythonScript(const std::string& script, const std::vector<std::string>& args,
                          const std::string& input) {
  std::vector<std::string> argv = {GATEWISE_TEST_PYTHON3,
                                   std::string(GATEWISE_TEST_SOURCE_DIR) + "/support/" + script};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv, {.input = input});
}

std::string canonicalText(const gw::plist::Value& v) {
  std::string out;
  appendCanonical(out, v);
  return out;
}

}  // namespace gwtest
