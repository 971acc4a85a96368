#include "platform/bundle/strings_file.h"

#include <cstdint>

#include "platform/fs/file_io.h"
#include "platform/text/utf8.h"

namespace gw::bundle {
namespace {

// Localization tables are small; anything larger is not one.
constexpr std::size_t kMaxStringsFileSize = std::size_t(16) << 20;

bool isHighSurrogate(std::uint32_t c) { return c >= 0xD800 && c < 0xDC00; }
bool isLowSurrogate(std::uint32_t c) { return c >= 0xDC00 && c < 0xE000; }

// UTF-16 text (after its byte-order mark) to UTF-8; nullopt for an odd length or a lone surrogate.
std::optional<std::string> utf16ToUTF8(std::string_view bytes, bool bigEndian, std::string* error) {
  if (bytes.size() % 2 != 0) {
    if (error) *error = "UTF-16 text has an odd number of bytes";
    return std::nullopt;
  }
  auto unitAt = [&](std::size_t i) -> std::uint32_t {
    auto b0 = std::uint8_t(bytes[i]), b1 = std::uint8_t(bytes[i + 1]);
    return bigEndian ? (b0 << 8 | b1) : (b1 << 8 | b0);
  };
  std::string out;
  out.reserve(bytes.size());
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    std::uint32_t c = unitAt(i);
    if (isHighSurrogate(c) && i + 2 < bytes.size() && isLowSurrogate(unitAt(i + 2))) {
      c = 0x10000 + ((c - 0xD800) << 10) + (unitAt(i + 2) - 0xDC00);
      i += 2;
    } else if (isHighSurrogate(c) || isLowSurrogate(c)) {
      if (error) *error = "UTF-16 text holds an unpaired surrogate";
      return std::nullopt;
    }
    text::appendUTF8(out, c);
  }
  return out;
}

bool isUnquotedChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '.' || c == '$' || c == ':' || c == '/' || c == '-';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A recursive-descent reader over UTF-8 text: "key" = "value"; pairs with comments between.
class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  std::optional<StringsTable> parse(std::string* error) {
    StringsTable table;
    for (;;) {
      if (!skipBlank()) return failed(error);
      if (pos_ == text_.size()) return table;
      std::string key, value;
      if (!readToken(key)) return failed(error);
      if (!skipBlank()) return failed(error);
      if (peek() == '=') {
        ++pos_;
        if (!skipBlank() || !readToken(value)) return failed(error);
        if (!skipBlank()) return failed(error);
      } else {
        value = key;
      }
      if (peek() != ';') {
        reason_ = "expected \";\"";
        return failed(error);
      }
      ++pos_;
      table.insert_or_assign(std::move(key), std::move(value));
    }
  }

 private:
  char peek() const { return pos_ < text_.size() ? text_[pos_] : '\0'; }

  std::optional<StringsTable> failed(std::string* error) const {
    if (error) {
      int line = 1;
      for (std::size_t i = 0; i < pos_ && i < text_.size(); ++i) line += text_[i] == '\n';
      *error = "line " + std::to_string(line) + ": " + reason_;
    }
    return std::nullopt;
  }

  // Skips white space and comments; false for a comment that never ends.
  bool skipBlank() {
    while (pos_ < text_.size()) {
      char c = text_[pos_];
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
        ++pos_;
      } else if (text_.substr(pos_, 2) == "//") {
        std::size_t end = text_.find('\n', pos_);
        pos_ = end == std::string_view::npos ? text_.size() : end + 1;
      } else if (text_.substr(pos_, 2) == "/*") {
        std::size_t end = text_.find("*/", pos_ + 2);
        if (end == std::string_view::npos) {
          reason_ = "unterminated comment";
          return false;
        }
        pos_ = end + 2;
      } else {
        break;
      }
    }
    return true;
  }

  bool readToken(std::string& out) {
    if (peek() == '"') return readQuoted(out);
    std::size_t start = pos_;
    while (pos_ < text_.size() && isUnquotedChar(text_[pos_])) ++pos_;
    if (pos_ == start) {
      reason_ = pos_ == text_.size() ? "unexpected end of file" : "unexpected character";
      return false;
    }
    out.assign(text_.substr(start, pos_ - start));
    return true;
  }

  bool readQuoted(std::string& out) {
    ++pos_;  // the opening quote
    while (pos_ < text_.size()) {
      char c = text_[pos_++];
      if (c == '"') return true;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (pos_ == text_.size()) break;
      char e = text_[pos_++];
      switch (e) {
        case 'n':
          out += '\n';
          break;
        case 't':
          out += '\t';
          break;
        case 'r':
          out += '\r';
          break;
        case 'a':
          out += '\a';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'v':
          out += '\v';
          break;
        case 'U':
        case 'u':
          if (!readUnicodeEscape(out)) return false;
          break;
        default:
          if (e >= '0' && e <= '7') {
            unsigned v = unsigned(e - '0');
            for (int k = 0; k < 2 && peek() >= '0' && peek() <= '7'; ++k)
              v = v * 8 + (text_[pos_++] - '0');
            text::appendUTF8(out, v & 0xFF);
          } else {
            out += e;  // \" \\ \' and any other character stand for themselves
          }
      }
    }
    reason_ = "unterminated string";
    return false;
  }

  // Up to four hex digits after \U; a high surrogate must be followed by \U and a low one.
  bool readHex4(std::uint32_t& value) {
    value = 0;
    int digits = 0;
    while (digits < 4 && hexValue(peek()) >= 0) {
      value = value * 16 + std::uint32_t(hexValue(text_[pos_++]));
      ++digits;
    }
    if (digits == 0) reason_ = "\\U without hex digits";
    return digits > 0;
  }

  bool readUnicodeEscape(std::string& out) {
    std::uint32_t c;
    if (!readHex4(c)) return false;
    if (isHighSurrogate(c) && text_.substr(pos_, 2).size() == 2 && text_[pos_] == '\\' &&
        (text_[pos_ + 1] == 'U' || text_[pos_ + 1] == 'u')) {
      std::size_t save = pos_;
      pos_ += 2;
      std::uint32_t low;
      if (readHex4(low) && isLowSurrogate(low)) {
        text::appendUTF8(out, 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00));
        return true;
      }
      pos_ = save;
    }
    if (isHighSurrogate(c) || isLowSurrogate(c)) {
      reason_ = "unpaired surrogate escape";
      return false;
    }
    text::appendUTF8(out, c);
    return true;
  }

  std::string_view text_;
  std::size_t pos_ = 0;
  std::string reason_;
};

}  // namespace

std::optional<StringsTable> parseStringsFile(std::string_view bytes, std::string* error) {
  std::string text;
  if (bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF")) {
    auto converted = utf16ToUTF8(bytes.substr(2), bytes[0] == '\xFE', error);
    if (!converted) return std::nullopt;
    text = std::move(*converted);
  } else {
    if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
    if (!text::isValidUTF8(bytes)) {
      if (error) *error = "text is neither UTF-8 nor UTF-16 with a byte-order mark";
      return std::nullopt;
    }
    text.assign(bytes);
  }
  return Parser(text).parse(error);
}

std::optional<StringsTable> readStringsFile(const std::string& path, std::string* error) {
  auto bytes = fs::readFile(path, kMaxStringsFileSize, error);
  if (!bytes) return std::nullopt;
  std::string reason;
  auto table = parseStringsFile(*bytes, &reason);
  if (!table && error) *error = path + ": " + reason;
  return table;
}

}  // namespace gw::bundle
