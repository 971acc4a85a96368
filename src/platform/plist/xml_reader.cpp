// XML property-list reader: a tokenizer for the part of XML that property lists use, and the
// meaning of the property-list elements, in one pass over the document without an XML tree.
//
// What XML allows around the values is read and checked as a general XML 1.0 parser would: an XML
// declaration (UTF-8, US-ASCII, ISO-8859-1 or UTF-16; Latin-1 and UTF-16 documents are converted
// to UTF-8 first),
// a document type declaration whose internal subset may hold element, attribute-list and notation
// declarations, comments and processing instructions (skipped), attributes (checked, then
// ignored), CDATA sections, the five predefined entities and character references. Text must be
// UTF-8 of XML characters; line ends read as line feeds. Entity declarations are refused
// outright, so no document expands beyond its own bytes.
//
// The values are built in place as their elements close: a stack of open containers, each
// array's vector and each dictionary's map filled directly, leaf text taken straight from the
// document when it holds no reference, CDATA or line end to rewrite. Every step moves forward
// through the document and the stack is bounded by ReadOptions::maxDepth, so time and memory
// stay linear. The first violation ends the read with a one-line error and its line and column.
#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <unordered_set>

#include "platform/text/utf8.h"
#include "platform/plist/codec.h"
#include "platform/plist/scalar_text.h"

namespace gw::plist {
namespace {

enum class Element : std::uint8_t {
  Plist,
  Dict,
  Array,
  Key,  // Key and everything below it are leaves: text only, no child elements
  String,
  Data,
  Date,
  Integer,
  Real,
  True,
  False,
  Unknown
};

// Element names in the order of the enumeration.
constexpr std::string_view kElementNames[] = {"plist", "dict",    "array", "key",  "string", "data",
                                              "date",  "integer", "real",  "true", "false",  "?"};
static_assert(std::size(kElementNames) == std::size_t(Element::Unknown) + 1);

std::string_view nameOf(Element e) { return kElementNames[std::size_t(e)]; }

// Called for every tag: tells the names apart by length and first letter before comparing.
Element elementNamed(std::string_view name) {
  Element e = Element::Unknown;
  switch (name.size()) {
    case 3:
      e = Element::Key;
      break;
    case 4:
      e = name[0] == 'd' ? Element::Date : name[0] == 'r' ? Element::Real : Element::True;
      if (name[0] == 'd' && name[1] == 'i') e = Element::Dict;
      if (name[0] == 'd' && name[1] == 'a' && name[2] == 't' && name[3] == 'a') e = Element::Data;
      break;
    case 5:
      e = name[0] == 'p' ? Element::Plist : name[0] == 'a' ? Element::Array : Element::False;
      break;
    case 6:
      e = Element::String;
      break;
    case 7:
      e = Element::Integer;
      break;
    default:
      return Element::Unknown;
  }
  return nameOf(e) == name ? e : Element::Unknown;
}

bool isLeaf(Element e) { return e >= Element::Key; }

// Text quoted for an error message: short, on one line.
std::string quoted(std::string_view s) {
  constexpr std::size_t kMax = 40;
  std::string out = "\"";
  for (std::size_t i = 0; i < s.size() && i < kMax; ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    out += c < 0x20 ? ' ' : char(c);
  }
  if (s.size() > kMax) out += "...";
  out += '"';
  return out;
}

// Byte classes, one table look-up per byte in the loops that matter.
enum ByteClass : std::uint8_t {
  kPlain = 0,    // a character that stands for itself in text
  kBlank = 1,    // space, tab, line feed (carriage return is kSpecial: it is rewritten)
  kSpecial = 2,  // '<', '&', '\r', ']', a byte that starts a multi-byte sequence, or invalid
};

constexpr std::array<std::uint8_t, 256> kClass = [] {
  std::array<std::uint8_t, 256> t{};
  for (int c = 0; c < 0x20; ++c) t[c] = kSpecial;
  for (int c = 0x80; c < 0x100; ++c) t[c] = kSpecial;
  t[' '] = t['\t'] = t['\n'] = kBlank;
  t['\r'] = t['<'] = t['&'] = t[']'] = kSpecial;
  return t;
}();

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Names are ASCII: the names of the property-list elements are, and so are the attribute names
// writers use. (XML would allow letters of other scripts in names; no property list needs them.)
bool isNameStart(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
}
bool isNameChar(unsigned char c) {
  return isNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

// The length of the valid UTF-8 sequence of an XML character at p (lead byte >= 0x80), or 0:
// overlong forms, surrogates, U+FFFE, U+FFFF and anything above U+10FFFF are not characters.
std::size_t utf8Length(const unsigned char* p, const unsigned char* end) {
  const unsigned char c = p[0];
  const std::ptrdiff_t left = end - p;
  auto cont = [](unsigned char b) { return (b & 0xC0) == 0x80; };
  if (c >= 0xC2 && c <= 0xDF) return left >= 2 && cont(p[1]) ? 2 : 0;
  if (c >= 0xE0 && c <= 0xEF) {
    if (left < 3 || !cont(p[1]) || !cont(p[2])) return 0;
    if (c == 0xE0 && p[1] < 0xA0) return 0;                                     // overlong
    if (c == 0xED && p[1] >= 0xA0) return 0;                                    // surrogate
    if (c == 0xEF && p[1] == 0xBF && (p[2] == 0xBE || p[2] == 0xBF)) return 0;  // U+FFFE/F
    return 3;
  }
  if (c >= 0xF0 && c <= 0xF4) {
    if (left < 4 || !cont(p[1]) || !cont(p[2]) || !cont(p[3])) return 0;
    if (c == 0xF0 && p[1] < 0x90) return 0;   // overlong
    if (c == 0xF4 && p[1] >= 0x90) return 0;  // above U+10FFFF
    return 4;
  }
  return 0;
}

bool isXMLChar(std::uint32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i] >= 'a' && a[i] <= 'z' ? char(a[i] - 32) : a[i];
    char y = b[i] >= 'a' && b[i] <= 'z' ? char(b[i] - 32) : b[i];
    if (x != y) return false;
  }
  return true;
}

// One open container (or the <plist> element) while its children are read.
struct Frame {
  Element element;
  std::vector<Value> items;  // Array
  Dictionary::Map entries;   // Dict
  std::string key;           // Dict: the key waiting for its value
  bool hasKey = false;
};

// Thrown inside the reader to unwind to read() at the first error; never leaves this file.
struct Stop {};
// Thrown when the XML declaration names ISO-8859-1: the document is read again as UTF-8.
struct Latin1 {};

class XMLReader {
 public:
  explicit XMLReader(const ReadOptions& options) : options_(options) {}

  enum class Source { UTF8, Latin1, UTF16 };  // what the UTF-8 being read was converted from
  ReadResult read(const char* begin, const char* end, Source source);

 private:
  // --- tokenizer ---
  [[noreturn]] void fail(std::string message) { failAt(p_, std::move(message)); }
  [[noreturn]] void failAt(const char* where, std::string message) {
    if (error_.empty()) {
      error_ = std::move(message);
      errorAt_ = where;
    }
    throw Stop{};
  }
  bool startsWith(std::string_view s) const {
    return std::size_t(end_ - p_) >= s.size() && std::memcmp(p_, s.data(), s.size()) == 0;
  }
  void need(std::string_view s, const char* message) {
    if (!startsWith(s)) fail(p_ == end_ ? "unclosed token" : message);
    p_ += s.size();
  }
  bool skipSpace() {
    const char* start = p_;
    while (p_ < end_ && isSpace(*p_)) ++p_;
    return p_ != start;
  }
  std::string_view name();
  void checkChars(const char* from, const char* to);
  std::uint32_t reference(std::string& out);
  void xmlDeclaration();
  void doctype();
  void internalSubset();
  void comment();
  void processingInstruction();
  void startTag();
  void endTag();
  void cdata();
  void content();
  void leafText();
  void otherText();
  std::string_view quotedLiteral();

  // --- meaning of the elements ---
  void start(std::string_view name);
  void end();
  void text(std::string_view s);
  bool mayStartValue(Element e);
  void finishLeaf(Element e, std::string_view text);
  void finishContainer();
  template <class Arg>
  void addValue(Arg&& arg);
  bool isMutable() const { return options_.mutability == Mutability::MutableContainers; }
  [[noreturn]] void semanticFail(std::string message) { fail(std::move(message)); }

  const ReadOptions& options_;
  const char* begin_ = nullptr;
  const char* p_ = nullptr;
  const char* end_ = nullptr;
  bool asciiOnly_ = false;  // a US-ASCII document
  Source source_ = Source::UTF8;
  bool sawDoctype_ = false;
  bool externalSubset_ = false;  // entities might be declared outside the document

  std::vector<Frame> stack_;
  std::vector<Element> open_;        // every open element, for matching ends
  Element leaf_ = Element::Unknown;  // the open leaf element, if any
  std::string text_;                 // leaf text that had to be rewritten
  std::string_view leafText_;        // the leaf's text: in the document or in text_
  bool leafRewritten_ = false;       // leafText_ lives in text_
  unsigned depth_ = 0;               // open arrays and dictionaries
  std::optional<Value> root_;
  std::string error_;
  const char* errorAt_ = nullptr;
};

// --- tokenizer ---

std::string_view XMLReader::name() {
  const char* start = p_;
  if (p_ == end_) fail("unclosed token");
  if (!isNameStart(static_cast<unsigned char>(*p_))) fail("not well-formed (invalid token)");
  while (p_ < end_ && isNameChar(static_cast<unsigned char>(*p_))) ++p_;
  return std::string_view(start, std::size_t(p_ - start));
}

// Every byte of [from, to) must belong to an XML character.
void XMLReader::checkChars(const char* from, const char* to) {
  const auto* q = reinterpret_cast<const unsigned char*>(from);
  const auto* e = reinterpret_cast<const unsigned char*>(to);
  while (q < e) {
    unsigned char c = *q;
    if (c >= 0x80) {
      std::size_t n = asciiOnly_ ? 0 : utf8Length(q, e);
      if (n == 0) failAt(reinterpret_cast<const char*>(q), "not well-formed (invalid token)");
      q += n;
    } else {
      if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') {
        failAt(reinterpret_cast<const char*>(q), "not well-formed (invalid token)");
      }
      ++q;
    }
  }
}

// At '&': appends the character or predefined entity it stands for and returns its code.
std::uint32_t XMLReader::reference(std::string& out) {
  const char* at = p_;
  ++p_;
  if (p_ < end_ && *p_ == '#') {
    ++p_;
    const bool hex = p_ < end_ && *p_ == 'x';
    if (hex) ++p_;
    std::uint32_t c = 0;
    const char* digits = p_;
    while (p_ < end_ && *p_ != ';') {
      int d = -1;
      char x = *p_;
      if (x >= '0' && x <= '9') d = x - '0';
      if (hex && x >= 'a' && x <= 'f') d = x - 'a' + 10;
      if (hex && x >= 'A' && x <= 'F') d = x - 'A' + 10;
      if (d < 0) fail("not well-formed (invalid token)");
      c = std::min<std::uint32_t>(c * (hex ? 16 : 10) + std::uint32_t(d), 0x110000);
      ++p_;
    }
    if (p_ == end_) fail("unclosed token");
    if (p_ == digits) fail("not well-formed (invalid token)");
    ++p_;
    if (!isXMLChar(c)) failAt(at, "reference to invalid character number");
    gw::text::appendUTF8(out, c);
    return c;
  }
  std::string_view entity = name();
  if (p_ == end_) fail("unclosed token");
  if (*p_ != ';') fail("not well-formed (invalid token)");
  ++p_;
  static constexpr std::pair<std::string_view, char> kPredefined[] = {
      {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
  for (const auto& [n, c] : kPredefined) {
    if (entity == n) {
      out += c;
      return std::uint32_t(c);
    }
  }
  failAt(at,
         externalSubset_ ? "undefined entity &" + std::string(entity) + ";" : "undefined entity");
}

// A quoted literal (attribute value, system or public identifier): its contents.
std::string_view XMLReader::quotedLiteral() {
  if (p_ == end_) fail("unclosed token");
  const char quote = *p_;
  if (quote != '"' && quote != '\'') fail("not well-formed (invalid token)");
  const char* start = ++p_;
  const char* close = static_cast<const char*>(std::memchr(p_, quote, std::size_t(end_ - p_)));
  if (!close) {
    p_ = end_;
    fail("unclosed token");
  }
  p_ = close + 1;
  return std::string_view(start, std::size_t(close - start));
}

void XMLReader::xmlDeclaration() {
  // At "<?xml" and a space, at the very start of the document.
  const char* at = p_;
  p_ += 5;
  std::string_view version, encoding, standalone;
  auto attribute = [&](std::string_view wanted, std::string_view& value) {
    const char* save = p_;
    bool spaced = skipSpace();
    if (!spaced || !startsWith(wanted)) {
      p_ = save;
      return false;
    }
    p_ += wanted.size();
    skipSpace();
    if (p_ == end_ || *p_ != '=') failAt(at, "XML declaration not well-formed");
    ++p_;
    skipSpace();
    if (p_ == end_ || (*p_ != '"' && *p_ != '\'')) failAt(at, "XML declaration not well-formed");
    value = quotedLiteral();
    return true;
  };
  if (!attribute("version", version)) failAt(at, "XML declaration not well-formed");
  attribute("encoding", encoding);
  attribute("standalone", standalone);
  skipSpace();
  if (!startsWith("?>")) failAt(at, "XML declaration not well-formed");
  p_ += 2;
  auto versionChar = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '.' || c == ':' || c == '-';
  };
  if (version.empty() || !std::all_of(version.begin(), version.end(), versionChar)) {
    failAt(at, "XML declaration not well-formed");
  }
  if (!standalone.empty() && standalone != "yes" && standalone != "no") {
    failAt(at, "XML declaration not well-formed");
  }
  if (!encoding.empty()) {
    auto encodingChar = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
             c == '_' || c == '.' || c == '-';
    };
    if (!std::all_of(encoding.begin(), encoding.end(), encodingChar) ||
        !((encoding[0] | 0x20) >= 'a' && (encoding[0] | 0x20) <= 'z')) {
      failAt(at, "XML declaration not well-formed");
    }
    const bool utf16 = equalsIgnoringCase(encoding, "UTF-16") ||
                       equalsIgnoringCase(encoding, "UTF-16LE") ||
                       equalsIgnoringCase(encoding, "UTF-16BE");
    if (source_ == Source::UTF16 || utf16) {
      if (source_ != Source::UTF16 || !utf16) {
        failAt(at, "encoding specified in XML declaration is incorrect");
      }
    } else if (equalsIgnoringCase(encoding, "US-ASCII")) {
      asciiOnly_ = true;
    } else if (equalsIgnoringCase(encoding, "ISO-8859-1")) {
      if (source_ != Source::Latin1) throw Latin1{};
    } else if (!equalsIgnoringCase(encoding, "UTF-8")) {
      failAt(at, "unknown encoding");
    }
  }
}

void XMLReader::doctype() {
  // At "<!DOCTYPE".
  p_ += 9;
  if (!skipSpace()) fail("syntax error");
  name();
  const bool spaced = skipSpace();
  if (spaced && (startsWith("SYSTEM") || startsWith("PUBLIC"))) {
    const bool isPublic = startsWith("PUBLIC");
    p_ += 6;
    if (!skipSpace()) fail("syntax error");
    if (isPublic) {
      std::string_view id = quotedLiteral();
      for (char c : id) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || std::strchr(" \r\n-'()+,./:=?;!*#@$_%", c);
        if (!ok || c == '\0') fail("syntax error");
      }
      if (!skipSpace()) fail("syntax error");
    }
    std::string_view system = quotedLiteral();
    checkChars(system.data(), system.data() + system.size());
    externalSubset_ = true;
    skipSpace();
  }
  if (p_ < end_ && *p_ == '[') {
    ++p_;
    internalSubset();
    skipSpace();
  }
  if (p_ == end_) fail("unclosed token");
  if (*p_ != '>') fail("syntax error");
  ++p_;
}

// Declarations of elements, attribute lists and notations are skipped (they change nothing a
// property list holds); entity declarations and parameter-entity references are refused.
void XMLReader::internalSubset() {
  for (;;) {
    skipSpace();
    if (p_ == end_) fail("unclosed token");
    if (*p_ == ']') {
      ++p_;
      return;
    }
    if (startsWith("<!--")) {
      comment();
    } else if (startsWith("<?")) {
      processingInstruction();
    } else if (startsWith("<!ENTITY")) {
      fail("entity declarations are not allowed");
    } else if (startsWith("<!ELEMENT") || startsWith("<!ATTLIST") || startsWith("<!NOTATION")) {
      const char* start = p_;
      p_ += 2;
      name();
      if (!skipSpace()) fail("syntax error");
      while (p_ < end_ && *p_ != '>') {
        if (*p_ == '"' || *p_ == '\'') {
          quotedLiteral();
        } else if (*p_ == '<' || *p_ == '&' || *p_ == '%') {
          fail("syntax error");
        } else {
          ++p_;
        }
      }
      if (p_ == end_) fail("unclosed token");
      checkChars(start, p_);
      ++p_;
    } else if (*p_ == '%') {
      fail("undefined entity");
    } else {
      fail("syntax error");
    }
  }
}

void XMLReader::comment() {
  // At "<!--"; "--" may not occur inside.
  const char* start = p_ + 4;
  p_ = start;
  for (;;) {
    const char* dash = static_cast<const char*>(std::memchr(p_, '-', std::size_t(end_ - p_)));
    if (!dash || end_ - dash < 2) {
      p_ = end_;
      fail("unclosed token");
    }
    if (dash[1] == '-') {
      if (end_ - dash < 3) {
        p_ = end_;
        fail("unclosed token");
      }
      if (dash[2] != '>') failAt(dash, "not well-formed (invalid token)");
      checkChars(start, dash);
      p_ = dash + 3;
      return;
    }
    p_ = dash + 1;
  }
}

void XMLReader::processingInstruction() {
  // At "<?": a target other than "xml" in any case, then anything up to "?>".
  const char* at = p_;
  p_ += 2;
  std::string_view target = name();
  if (equalsIgnoringCase(target, "xml")) {
    failAt(at, "XML or text declaration not at start of entity");
  }
  if (startsWith("?>")) {
    p_ += 2;
    return;
  }
  if (!skipSpace()) fail("not well-formed (invalid token)");
  const char* start = p_;
  for (;;) {
    const char* q = static_cast<const char*>(std::memchr(p_, '?', std::size_t(end_ - p_)));
    if (!q || q + 1 >= end_) {
      p_ = end_;
      fail("unclosed token");
    }
    if (q[1] == '>') {
      checkChars(start, q);
      p_ = q + 2;
      return;
    }
    p_ = q + 1;
  }
}

void XMLReader::startTag() {
  // At "<" and a name start.
  const char* at = p_;
  ++p_;
  std::string_view tag = name();
  // Attributes are checked (names, one of each, quoted values of characters and references) and
  // then ignored: the property-list elements have no attribute that changes their value.
  std::vector<std::string_view> seen;
  std::unordered_set<std::string_view> many;
  std::string scratch;
  for (;;) {
    const bool spaced = skipSpace();
    if (p_ == end_) fail("unclosed token");
    if (*p_ == '>' || *p_ == '/') break;
    if (!spaced) fail("not well-formed (invalid token)");
    std::string_view attribute = name();
    skipSpace();
    if (p_ == end_) fail("unclosed token");
    if (*p_ != '=') fail("not well-formed (invalid token)");
    ++p_;
    skipSpace();
    const char* valueAt = p_;
    std::string_view value = quotedLiteral();
    for (const char* q = value.data(); q < value.data() + value.size();) {
      if (*q == '<') failAt(q, "not well-formed (invalid token)");
      if (*q == '&') {
        const char* save = p_;
        p_ = q;
        reference(scratch);
        q = p_;
        p_ = save;
        if (q > value.data() + value.size()) failAt(valueAt, "not well-formed (invalid token)");
        continue;
      }
      ++q;
    }
    checkChars(value.data(), value.data() + value.size());
    // One of each name: a short list while it is short, a set beyond, so that a tag of many
    // attributes costs linear time.
    if (seen.size() < 16) {
      if (std::find(seen.begin(), seen.end(), attribute) != seen.end()) {
        failAt(at, "duplicate attribute");
      }
      seen.push_back(attribute);
      if (seen.size() == 16) many.insert(seen.begin(), seen.end());
    } else if (!many.insert(attribute).second) {
      failAt(at, "duplicate attribute");
    }
  }
  const bool empty = *p_ == '/';
  if (empty) {
    ++p_;
    if (p_ == end_) fail("unclosed token");
    if (*p_ != '>') fail("not well-formed (invalid token)");
  }
  ++p_;
  const char* after = p_;
  p_ = at;  // errors about the element point at its tag
  start(tag);
  if (empty) end();
  p_ = after;
}

void XMLReader::endTag() {
  // At "</".
  const char* at = p_;
  p_ += 2;
  std::string_view tag = name();
  skipSpace();
  if (p_ == end_) fail("unclosed token");
  if (*p_ != '>') fail("not well-formed (invalid token)");
  ++p_;
  if (open_.empty() || tag != nameOf(open_.back())) failAt(at, "mismatched tag");
  const char* after = p_;
  p_ = at;
  end();
  p_ = after;
}

void XMLReader::cdata() {
  // At "<![CDATA[": the text up to "]]>", line ends rewritten.
  p_ += 9;
  const char* start = p_;
  const char* close = nullptr;
  for (const char* q = p_;
       (q = static_cast<const char*>(std::memchr(q, ']', std::size_t(end_ - q)))) != nullptr; ++q) {
    if (end_ - q >= 3 && q[1] == ']' && q[2] == '>') {
      close = q;
      break;
    }
  }
  if (!close) {
    p_ = end_;
    fail("unclosed CDATA section");
  }
  checkChars(start, close);
  p_ = close + 3;
  std::string_view raw(start, std::size_t(close - start));
  if (raw.find('\r') == std::string_view::npos) {
    text(raw);
    return;
  }
  std::string rewritten;
  for (std::size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\r') {
      rewritten += '\n';
      if (i + 1 < raw.size() && raw[i + 1] == '\n') ++i;
    } else {
      rewritten += raw[i];
    }
  }
  text(rewritten);
}

// Character data in a leaf, up to the next markup. The common case, text without references,
// carriage returns or multi-byte characters to check one by one, is a single scan, and the leaf's
// text then stays in the document.
void XMLReader::leafText() {
  const char* start = p_;
  while (p_ < end_ && kClass[static_cast<unsigned char>(*p_)] != kSpecial) ++p_;
  if (p_ < end_ && *p_ == '<' && !leafRewritten_ && leafText_.empty()) {
    leafText_ = std::string_view(start, std::size_t(p_ - start));
    return;
  }
  // Anything else collects in text_.
  if (!leafRewritten_) {
    text_.assign(leafText_);
    leafRewritten_ = true;
  }
  text_.append(start, p_);
  while (p_ < end_ && *p_ != '<') {
    const unsigned char c = static_cast<unsigned char>(*p_);
    if (kClass[c] != kSpecial) {
      text_ += char(c);
      ++p_;
    } else if (c == '&') {
      reference(text_);
    } else if (c == '\r') {
      text_ += '\n';
      ++p_;
      if (p_ < end_ && *p_ == '\n') ++p_;
    } else if (c == ']') {
      if (end_ - p_ >= 3 && p_[1] == ']' && p_[2] == '>') fail("not well-formed (invalid token)");
      text_ += ']';
      ++p_;
    } else if (c >= 0x80) {
      std::size_t n = asciiOnly_ ? 0
                                 : utf8Length(reinterpret_cast<const unsigned char*>(p_),
                                              reinterpret_cast<const unsigned char*>(end_));
      if (n == 0) fail("not well-formed (invalid token)");
      text_.append(p_, n);
      p_ += n;
    } else {
      fail("not well-formed (invalid token)");
    }
  }
  leafText_ = text_;
}

// Character data between elements: it must be white space, references included.
void XMLReader::otherText() {
  std::string s;
  while (p_ < end_ && *p_ != '<') {
    const unsigned char c = static_cast<unsigned char>(*p_);
    if (c == '&') {
      reference(s);
    } else if (c == '\r') {
      s += '\n';
      ++p_;
      if (p_ < end_ && *p_ == '\n') ++p_;
    } else if (c == ']' && end_ - p_ >= 3 && p_[1] == ']' && p_[2] == '>') {
      fail("not well-formed (invalid token)");
    } else if (c >= 0x80) {
      std::size_t n = asciiOnly_ ? 0
                                 : utf8Length(reinterpret_cast<const unsigned char*>(p_),
                                              reinterpret_cast<const unsigned char*>(end_));
      if (n == 0) fail("not well-formed (invalid token)");
      s.append(p_, n);
      p_ += n;
    } else if (c < 0x20 && c != '\t' && c != '\n') {
      fail("not well-formed (invalid token)");
    } else {
      s += char(c);
      ++p_;
    }
    // Text between elements is refused at its first character that is not white space.
    if (!s.empty() && !isSpace(s.back())) break;
  }
  const char* save = p_;
  text(s);
  p_ = save;
}

// Everything from the root element's start tag to its end tag.
void XMLReader::content() {
  startTag();
  while (!open_.empty()) {
    if (leaf_ != Element::Unknown) {
      leafText();
    } else {
      while (p_ < end_ && kClass[static_cast<unsigned char>(*p_)] == kBlank) ++p_;
      if (p_ < end_ && *p_ != '<') otherText();
    }
    if (p_ == end_) fail("no element found");
    // At '<'.
    if (end_ - p_ < 2) fail("unclosed token");
    const char next = p_[1];
    if (next == '/') {
      endTag();
    } else if (next == '!') {
      if (startsWith("<!--")) {
        comment();
      } else if (startsWith("<![CDATA[")) {
        cdata();
      } else {
        fail(end_ - p_ < 9 ? "unclosed token" : "not well-formed (invalid token)");
      }
    } else if (next == '?') {
      processingInstruction();
    } else {
      startTag();
    }
  }
}

// --- meaning of the elements ---

bool XMLReader::mayStartValue(Element e) {
  if (leaf_ != Element::Unknown) {
    semanticFail("unexpected <" + std::string(nameOf(e)) + "> inside <" +
                 std::string(nameOf(leaf_)) + ">");
  }
  if (stack_.empty() || stack_.back().element == Element::Plist) {
    if (root_) semanticFail("more than one root value (<" + std::string(nameOf(e)) + ">)");
    return true;
  }
  Frame& top = stack_.back();
  if (top.element == Element::Dict && e != Element::Key && !top.hasKey) {
    semanticFail("<" + std::string(nameOf(e)) + "> without a key in <dict>");
  }
  return true;
}

void XMLReader::start(std::string_view name) {
  Element e = elementNamed(name);
  switch (e) {
    case Element::Unknown:
      semanticFail("unknown element <" + std::string(name.substr(0, 40)) + ">");
    case Element::Plist:
      if (!open_.empty()) {
        semanticFail("unexpected <plist> inside <" + std::string(nameOf(open_.back())) + ">");
      }
      stack_.push_back(Frame{Element::Plist, {}, {}, {}, false});
      break;
    case Element::Array:
    case Element::Dict:
      mayStartValue(e);
      if (++depth_ > options_.maxDepth) {
        semanticFail("nesting deeper than " + std::to_string(options_.maxDepth) + " levels");
      }
      stack_.push_back(Frame{e, {}, {}, {}, false});
      break;
    case Element::Key: {
      mayStartValue(e);
      Frame* top = stack_.empty() ? nullptr : &stack_.back();
      if (!top || top->element != Element::Dict) semanticFail("<key> outside a <dict>");
      if (top->hasKey) semanticFail("key " + quoted(top->key) + " has no value");
      leaf_ = e;
      break;
    }
    default:
      mayStartValue(e);
      leaf_ = e;
      break;
  }
  if (isLeaf(e)) {
    leafText_ = {};
    leafRewritten_ = false;
  }
  open_.push_back(e);
}

void XMLReader::text(std::string_view s) {
  if (leaf_ != Element::Unknown) {
    if (!leafRewritten_) {
      text_.assign(leafText_);
      leafRewritten_ = true;
    }
    text_.append(s);
    leafText_ = text_;
    return;
  }
  for (char c : s) {
    if (!isSpace(c)) {
      std::string_view where = open_.empty() ? "the document" : nameOf(open_.back());
      semanticFail("unexpected text " + quoted(s) + " in <" + std::string(where) + ">");
    }
  }
}

void XMLReader::end() {
  Element e = open_.back();
  open_.pop_back();
  if (isLeaf(e)) {
    leaf_ = Element::Unknown;
    finishLeaf(e, leafText_);
  } else if (e == Element::Plist) {
    stack_.pop_back();
  } else {
    finishContainer();
  }
}

void XMLReader::finishLeaf(Element e, std::string_view text) {
  switch (e) {
    case Element::Key: {
      Frame& top = stack_.back();
      top.key.assign(text);
      top.hasKey = true;
      return;
    }
    case Element::String:
      addValue(text);
      return;
    case Element::True:
    case Element::False:
      if (text.find_first_not_of(" \t\r\n") != std::string_view::npos) {
        semanticFail("unexpected text " + quoted(text) + " in <" + std::string(nameOf(e)) + ">");
      }
      addValue(e == Element::True);
      return;
    case Element::Integer: {
      Integer n;
      switch (text::parseInteger(text, &n)) {
        case text::IntegerError::None:
          addValue(n);
          return;
        case text::IntegerError::OutOfRange:
          semanticFail("integer out of the 64-bit range: " + quoted(text));
        case text::IntegerError::NotANumber:
          semanticFail("not an integer: " + quoted(text));
      }
      return;
    }
    case Element::Real:
      if (auto d = text::parseReal(text)) {
        addValue(*d);
      } else {
        semanticFail("not a real number: " + quoted(text));
      }
      return;
    case Element::Date:
      if (auto d = text::parseISO8601(text)) {
        addValue(*d);
      } else {
        semanticFail("not an ISO 8601 date: " + quoted(text));
      }
      return;
    case Element::Data: {
      auto data = std::make_shared<Data>();
      if (!text::decodeBase64(text, data.get())) semanticFail("invalid base64 in <data>");
      addValue(std::shared_ptr<const Data>(std::move(data)));
      return;
    }
    default:
      return;
  }
}

void XMLReader::finishContainer() {
  Frame frame = std::move(stack_.back());
  stack_.pop_back();
  --depth_;
  if (frame.element == Element::Array) {
    addValue(Array::make(std::move(frame.items), isMutable()));
    return;
  }
  if (frame.hasKey) semanticFail("key " + quoted(frame.key) + " has no value");
  if (options_.xmlUIDDictionaries && frame.entries.size() == 1) {
    const auto& [key, value] = *frame.entries.begin();
    if (key == "CF$UID" && value.isInteger() && !value.integer().isNegative()) {
      addValue(UID{value.integer().uint64()});
      return;
    }
  }
  addValue(Dictionary::make(std::move(frame.entries), isMutable()));
}

template <class Arg>
void XMLReader::addValue(Arg&& arg) {
  if (stack_.empty() || stack_.back().element == Element::Plist) {
    root_.emplace(std::forward<Arg>(arg));
    return;
  }
  Frame& top = stack_.back();
  if (top.element == Element::Array) {
    top.items.emplace_back(std::forward<Arg>(arg));
  } else {
    Dictionary::Map& entries = top.entries;
    // Writers emit keys in ascending order: then the entry goes at the end without a search.
    if (entries.empty() || std::prev(entries.end())->first < top.key) {
      entries.emplace_hint(entries.end(), std::move(top.key), std::forward<Arg>(arg));
    } else {
      entries.insert_or_assign(std::move(top.key),
                               Value(std::forward<Arg>(arg)));  // out of order
    }
    top.key.clear();
    top.hasKey = false;
  }
}

// --- the document ---

ReadResult XMLReader::read(const char* begin, const char* end, Source source) {
  ReadResult result;
  result.format = Format::XML;
  begin_ = p_ = begin;
  end_ = end;
  source_ = source;
  try {
    if (startsWith("\xEF\xBB\xBF")) p_ += 3;
    if (startsWith("\xFE\xFF") || startsWith("\xFF\xFE") ||
        startsWith(std::string_view("<\0", 2)) || startsWith(std::string_view("\0<", 2))) {
      fail("UTF-16 documents are not supported");
    }
    if (startsWith("<?xml") && end_ - p_ > 5 && isSpace(p_[5])) xmlDeclaration();
    // The prolog: white space, comments, processing instructions, one document type.
    for (;;) {
      skipSpace();
      if (p_ == end_) fail("no element found");
      if (startsWith("<!--")) {
        comment();
      } else if (startsWith("<?")) {
        processingInstruction();
      } else if (startsWith("<!DOCTYPE")) {
        if (sawDoctype_) fail("syntax error");
        sawDoctype_ = true;
        doctype();
      } else if (*p_ == '<' && end_ - p_ > 1 && isNameStart(static_cast<unsigned char>(p_[1]))) {
        break;
      } else {
        fail(end_ - p_ < 2 && *p_ == '<' ? "unclosed token" : "syntax error");
      }
    }
    content();
    // After the root element: only white space, comments and processing instructions.
    for (;;) {
      skipSpace();
      if (p_ == end_) break;
      if (startsWith("<!--")) {
        comment();
      } else if (startsWith("<?")) {
        processingInstruction();
      } else {
        fail("junk after document element");
      }
    }
  } catch (const Stop&) {
    std::size_t line = 1;
    const char* lineStart = begin_;
    for (const char* q = begin_; q < errorAt_; ++q) {
      if (*q == '\n' || (*q == '\r' && (q + 1 == errorAt_ || q[1] != '\n'))) {
        ++line;
        lineStart = q + 1;
      }
    }
    result.error = "XML property list, line " + std::to_string(line) + ", column " +
                   std::to_string(errorAt_ - lineStart) + ": " + error_;
    return result;
  }
  if (!root_) {
    result.error = "XML property list holds no value";
    return result;
  }
  result.value = std::move(root_);
  return result;
}

// Whether the document is UTF-16, told by its byte order mark or by "<" as its first unit;
// *bigEndian gives the byte order.
bool isUTF16(std::span<const std::uint8_t> b, bool* bigEndian) {
  if (b.size() < 2) return false;
  *bigEndian = (b[0] == 0xFE && b[1] == 0xFF) || (b[0] == 0 && b[1] == '<');
  return *bigEndian || (b[0] == 0xFF && b[1] == 0xFE) || (b[0] == '<' && b[1] == 0);
}

// The UTF-16 document as UTF-8; false for an odd length or a lone surrogate.
bool utf16ToUTF8(std::span<const std::uint8_t> b, bool bigEndian, std::string& out) {
  if (b.size() % 2 != 0) return false;
  out.reserve(b.size() / 2 + b.size() / 8);
  std::size_t i = 0;
  auto unit = [&](std::size_t at) -> std::uint32_t {
    return bigEndian ? (std::uint32_t(b[at]) << 8) | b[at + 1]
                     : (std::uint32_t(b[at + 1]) << 8) | b[at];
  };
  if (unit(0) == 0xFEFF) i = 2;  // the byte order mark
  for (; i < b.size(); i += 2) {
    std::uint32_t c = unit(i);
    if (c >= 0xDC00 && c <= 0xDFFF) return false;
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (i + 2 >= b.size()) return false;
      std::uint32_t low = unit(i + 2);
      if (low < 0xDC00 || low > 0xDFFF) return false;
      c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
      i += 2;
    }
    gw::text::appendUTF8(out, c);
  }
  return true;
}

// A Latin-1 document as UTF-8: every byte above 0x7f becomes two.
std::string latin1ToUTF8(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 8);
  for (std::uint8_t b : bytes) gw::text::appendUTF8(out, b);
  return out;
}

}  // namespace

ReadResult readXMLPropertyList(std::span<const std::uint8_t> bytes, const ReadOptions& options) {
  try {
    using Source = XMLReader::Source;
    bool bigEndian = false;
    if (isUTF16(bytes, &bigEndian)) {
      std::string utf8;
      if (!utf16ToUTF8(bytes, bigEndian, utf8)) {
        ReadResult failed;
        failed.error = "XML property list: not well-formed UTF-16 (invalid token)";
        return failed;
      }
      return XMLReader(options).read(utf8.data(), utf8.data() + utf8.size(), Source::UTF16);
    }
    const char* begin = reinterpret_cast<const char*>(bytes.data());
    try {
      return XMLReader(options).read(begin, begin + bytes.size(), Source::UTF8);
    } catch (const Latin1&) {
      const std::string utf8 = latin1ToUTF8(bytes);
      return XMLReader(options).read(utf8.data(), utf8.data() + utf8.size(), Source::Latin1);
    }
  } catch (const std::exception& e) {
    ReadResult failed;
    failed.error = std::string("XML property list: ") + e.what();
    return failed;
  }
}

}  // namespace gw::plist
