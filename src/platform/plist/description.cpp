// The classic description text of a value, as "%@" prints it.
//
// Containers are written one element per line, four spaces of indentation per level. A nested
// container also indents its own opening line by its level, after whatever its parent wrote
// before it; that gives the familiar "key =     (" and doubly indented "(" of nested arrays that
// existing log readers and scripts expect. Inside containers, strings (and dictionary keys) are
// quoted unless they consist only of letters, digits and "_$./-"; quoted text escapes quotes,
// backslashes and control characters, and writes characters beyond ASCII as \Uxxxx (UTF-16 units).
//
// Shared containers are written at each place that holds them, so the text is bounded: the writer
// stops once the text passes the limit, and refuses at once when the value's expanded size already
// shows the text would. A container met again below itself is written as "(...)" or "{...}".
#include <gatewise/plist.h>

#include <cmath>
#include <cstdio>
#include <unordered_set>

#include "platform/plist/scalar_text.h"
#include "platform/plist/shared_walk.h"

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

class Describer {
 public:
  Describer(std::string& out, std::size_t limit) : out_(out), limit_(limit) {}

  // False once the text has passed the limit.
  bool describe(const Value& v, unsigned level, bool inContainer) {
    std::string& out = out_;
    switch (v.type()) {
      case Type::Null:
        out += "<null>";
        return out.size() <= limit_;
      case Type::Boolean:
        out += v.boolean() ? '1' : '0';
        return out.size() <= limit_;
      case Type::Integer:
        text::appendInteger(out, v.integer());
        return out.size() <= limit_;
      case Type::Real: {
        double d = v.real();
        if (std::isnan(d)) {
          out += "nan";
        } else if (std::isinf(d)) {
          out += d > 0 ? "inf" : "-inf";
        } else {
          text::appendReal(out, d);
        }
        return out.size() <= limit_;
      }
      case Type::String:
        appendString(out, v.string(), inContainer);
        return out.size() <= limit_;
      case Type::Date: {
        std::string date;
        text::appendDescriptionDate(date, v.date());
        appendString(out, date, inContainer);
        return out.size() <= limit_;
      }
      case Type::Data:
        appendData(out, v.data());
        return out.size() <= limit_;
      case Type::UID:
        out += "{value = " + std::to_string(v.uid().value) + "}";
        return out.size() <= limit_;
      case Type::Object:
        out += v.object() ? v.object()->description() : "<null>";
        return out.size() <= limit_;
      case Type::Array: {
        const Array& a = *v.array();
        appendIndent(out, level);
        if (a.empty()) {
          out += "()";
          return true;
        }
        const void* shared = walk::sharedContainer(v);
        if (shared && !open_.insert(shared).second) {
          out += "(...)";
          return true;
        }
        out += "(\n";
        for (std::size_t i = 0; i < a.size(); ++i) {
          appendIndent(out, level + 1);
          if (!describe(a[i], level + 1, true)) return false;
          out += i + 1 < a.size() ? ",\n" : "\n";
        }
        appendIndent(out, level);
        out += ')';
        if (shared) open_.erase(shared);
        return out.size() <= limit_;
      }
      case Type::Dictionary: {
        const Dictionary& d = *v.dictionary();
        appendIndent(out, level);
        if (d.empty()) {
          out += "{}";
          return true;
        }
        const void* shared = walk::sharedContainer(v);
        if (shared && !open_.insert(shared).second) {
          out += "{...}";
          return true;
        }
        out += "{\n";
        for (const auto& [key, item] : d) {
          appendIndent(out, level + 1);
          appendString(out, key, true);
          out += " = ";
          if (!describe(item, level + 1, true)) return false;
          out += ";\n";
        }
        appendIndent(out, level);
        out += '}';
        if (shared) open_.erase(shared);
        return out.size() <= limit_;
      }
    }
    return out.size() <= limit_;
  }

 private:
  std::string& out_;
  std::size_t limit_;
  std::unordered_set<const void*> open_;  // shared containers being written
};

}  // namespace

std::optional<std::string> description(const Value& v, std::size_t maxBytes) {
  // Every node takes at least one byte of text, and strings, keys and data their length.
  if (walk::expandedSize(v, 1) > maxBytes) return std::nullopt;
  std::string out;
  if (!Describer(out, maxBytes).describe(v, 0, false)) return std::nullopt;
  return out;
}

std::string description(const Value& v) {
  std::string out;
  if (!Describer(out, kMaxDescriptionSize).describe(v, 0, false)) {
    out.resize(kMaxDescriptionSize);
    out += "...";
  }
  return out;
}

}  // namespace gw::plist
