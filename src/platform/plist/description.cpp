// The classic description text of a value, as "%@" prints it.
//
// Containers are written one element per line, four spaces of indentation per level. A nested
// container also indents its own opening line by its level, after whatever its parent wrote
// before it; that gives the familiar "key =     (" and doubly indented "(" of nested arrays that
// existing log readers and scripts expect. Inside containers, strings (and dictionary keys) are
// quoted unless they consist only of letters, digits and "_$./-"; quoted text escapes quotes,
// backslashes and control characters, and writes characters beyond ASCII as \Uxxxx (UTF-16 units).
#include <gatewise/plist.h>

#include <cmath>
#include <cstdio>

#include "platform/plist/scalar_text.h"

namespace gw::plist {
namespace {

bool needsQuotes(std::string_view s) {
  if (s.empty()) return true;
  for (char c : s) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '_' || c == '$' || c == '.' || c == '/' || c == '-';
    if (!plain) return true;
  }
  return false;
}

// Decodes one UTF-8 sequence at s[i]; invalid bytes come back as U+FFFD, one byte each.
char32_t nextCodePoint(std::string_view s, std::size_t& i) {
  unsigned char c = static_cast<unsigned char>(s[i++]);
  if (c < 0x80) return c;
  int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : -1;
  if (extra < 0 || i + std::size_t(extra) > s.size()) return 0xFFFD;
  char32_t cp = c & (0x3F >> extra);
  for (int k = 0; k < extra; ++k) {
    unsigned char next = static_cast<unsigned char>(s[i + std::size_t(k)]);
    if ((next & 0xC0) != 0x80) return 0xFFFD;
    cp = (cp << 6) | (next & 0x3F);
  }
  i += std::size_t(extra);
  return cp;
}

void appendQuoted(std::string& out, std::string_view s) {
  out += '"';
  char buf[16];
  for (std::size_t i = 0; i < s.size();) {
    char32_t cp = nextCodePoint(s, i);
    switch (cp) {
      case '"':
        out += "\\\"";
        continue;
      case '\\':
        out += "\\\\";
        continue;
      case '\n':
        out += "\\n";
        continue;
      case '\t':
        out += "\\t";
        continue;
      case '\r':
        out += "\\r";
        continue;
      default:
        break;
    }
    if (cp < 0x20 || cp == 0x7F) {
      std::snprintf(buf, sizeof buf, "\\%03o", unsigned(cp));
      out += buf;
    } else if (cp < 0x80) {
      out += char(cp);
    } else if (cp < 0x10000) {
      std::snprintf(buf, sizeof buf, "\\U%04x", unsigned(cp));
      out += buf;
    } else {
      char32_t v = cp - 0x10000;
      std::snprintf(buf, sizeof buf, "\\U%04x\\U%04x", unsigned(0xD800 + (v >> 10)),
                    unsigned(0xDC00 + (v & 0x3FF)));
      out += buf;
    }
  }
  out += '"';
}

void appendString(std::string& out, std::string_view s, bool inContainer) {
  if (inContainer && needsQuotes(s)) {
    appendQuoted(out, s);
  } else {
    out += s;
  }
}

void appendIndent(std::string& out, unsigned level) { out.append(std::size_t(level) * 4, ' '); }

void appendData(std::string& out, const Data& data) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '<';
  for (std::size_t i = 0; i < data.size(); ++i) {
    if (i > 0 && i % 4 == 0) out += ' ';
    out += kHex[data[i] >> 4];
    out += kHex[data[i] & 15];
  }
  out += '>';
}

void describe(std::string& out, const Value& v, unsigned level, bool inContainer) {
  switch (v.type()) {
    case Type::Null:
      out += "<null>";
      return;
    case Type::Boolean:
      out += v.boolean() ? '1' : '0';
      return;
    case Type::Integer:
      text::appendInteger(out, v.integer());
      return;
    case Type::Real: {
      double d = v.real();
      if (std::isnan(d)) {
        out += "nan";
      } else if (std::isinf(d)) {
        out += d > 0 ? "inf" : "-inf";
      } else {
        text::appendReal(out, d);
      }
      return;
    }
    case Type::String:
      appendString(out, v.string(), inContainer);
      return;
    case Type::Date: {
      std::string date;
      text::appendDescriptionDate(date, v.date());
      appendString(out, date, inContainer);
      return;
    }
    case Type::Data:
      appendData(out, v.data());
      return;
    case Type::UID:
      out += "{value = " + std::to_string(v.uid().value) + "}";
      return;
    case Type::Object:
      out += v.object() ? v.object()->description() : "<null>";
      return;
    case Type::Array: {
      const Array& a = *v.array();
      appendIndent(out, level);
      if (a.empty()) {
        out += "()";
        return;
      }
      out += "(\n";
      for (std::size_t i = 0; i < a.size(); ++i) {
        appendIndent(out, level + 1);
        describe(out, a[i], level + 1, true);
        out += i + 1 < a.size() ? ",\n" : "\n";
      }
      appendIndent(out, level);
      out += ')';
      return;
    }
    case Type::Dictionary: {
      const Dictionary& d = *v.dictionary();
      appendIndent(out, level);
      if (d.empty()) {
        out += "{}";
        return;
      }
      out += "{\n";
      for (const auto& [key, item] : d) {
        appendIndent(out, level + 1);
        appendString(out, key, true);
        out += " = ";
        describe(out, item, level + 1, true);
        out += ";\n";
      }
      appendIndent(out, level);
      out += '}';
      return;
    }
  }
}

}  // namespace

std::string description(const Value& v) {
  std::string out;
  describe(out, v, 0, false);
  return out;
}

}  // namespace gw::plist
