// The former XML property-list reader, on expat: the reference that plist_xml_differential_fuzz
// compares the library's own XML reader against. expat tokenizes, this file gives the elements
// their meaning. Header-only, for that one fuzz target (fuzz builds link expat for it).
//
// The reader keeps a stack of open containers and builds each array's vector and each
// dictionary's map in place, so a value is constructed once and moved into its parent when its
// element closes. Text of leaf elements (<string>, <key>, <integer>...) collects in one reused
// buffer. Any violation stops expat at once and becomes a one-line error with expat's position.
//
// Entity declarations are refused outright: together with expat's default of never loading
// external entities, that leaves no way for a document to expand beyond its own bytes.
#pragma once

#include <expat.h>
#include <gatewise/plist.h>

#include <algorithm>
#include <array>
#include <climits>
#include <memory>

#include "platform/plist/scalar_text.h"

namespace gwfuzz::expat {
using namespace gw::plist;
namespace text = gw::plist::text;
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

// Called for every start tag: tells the names apart by length and first letter before comparing.
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

// One open container (or the <plist> element) while its children are read.
struct Frame {
  Element element;
  std::vector<Value> items;  // Array
  Dictionary::Map entries;   // Dict
  std::string key;           // Dict: the key waiting for its value
  bool hasKey = false;
};

class XMLReader {
 public:
  explicit XMLReader(const ReadOptions& options) : options_(options) {}

  ReadResult read(std::span<const std::uint8_t> bytes);

 private:
  static void XMLCALL onStart(void* self, const XML_Char* name, const XML_Char**) {
    static_cast<XMLReader*>(self)->start(name);
  }
  static void XMLCALL onEnd(void* self, const XML_Char*) { static_cast<XMLReader*>(self)->end(); }
  static void XMLCALL onText(void* self, const XML_Char* s, int len) {
    static_cast<XMLReader*>(self)->text(std::string_view(s, std::size_t(len)));
  }
  static void XMLCALL onEntityDecl(void* self, const XML_Char*, int, const XML_Char*, int,
                                   const XML_Char*, const XML_Char*, const XML_Char*,
                                   const XML_Char*) {
    static_cast<XMLReader*>(self)->fail("entity declarations are not allowed");
  }
  static void XMLCALL onSkippedEntity(void* self, const XML_Char* name, int) {
    static_cast<XMLReader*>(self)->fail("undefined entity &" + std::string(name) + ";");
  }

  void start(std::string_view name);
  void end();
  void text(std::string_view s);
  void fail(std::string message);

  bool mayStartValue(Element e);
  void finishLeaf(Element e);
  void finishContainer();
  // Constructs the value in its place: the root, an array's vector or a dictionary's map.
  template <class Arg>
  void addValue(Arg&& arg);
  bool isMutable() const { return options_.mutability == Mutability::MutableContainers; }

  const ReadOptions& options_;
  XML_Parser parser_ = nullptr;
  std::vector<Frame> stack_;
  std::vector<Element> open_;        // every open element, for matching ends
  Element leaf_ = Element::Unknown;  // the open leaf element, if any
  std::string text_;
  unsigned depth_ = 0;  // open arrays and dictionaries
  std::optional<Value> root_;
  std::string error_;
};

void XMLReader::fail(std::string message) {
  if (!error_.empty()) return;
  error_ = std::move(message);
  XML_StopParser(parser_, XML_FALSE);
}

bool XMLReader::mayStartValue(Element e) {
  if (leaf_ != Element::Unknown) {
    fail("unexpected <" + std::string(nameOf(e)) + "> inside <" + std::string(nameOf(leaf_)) + ">");
    return false;
  }
  if (stack_.empty() || stack_.back().element == Element::Plist) {
    if (root_) {
      fail("more than one root value (<" + std::string(nameOf(e)) + ">)");
      return false;
    }
    return true;
  }
  Frame& top = stack_.back();
  if (top.element == Element::Dict && e != Element::Key && !top.hasKey) {
    fail("<" + std::string(nameOf(e)) + "> without a key in <dict>");
    return false;
  }
  return true;
}

void XMLReader::start(std::string_view name) {
  if (!error_.empty()) return;
  Element e = elementNamed(name);
  switch (e) {
    case Element::Unknown:
      fail("unknown element <" + std::string(name.substr(0, 40)) + ">");
      return;
    case Element::Plist:
      if (!open_.empty()) {
        fail("unexpected <plist> inside <" + std::string(nameOf(open_.back())) + ">");
        return;
      }
      stack_.push_back(Frame{Element::Plist, {}, {}, {}, false});
      break;
    case Element::Array:
    case Element::Dict:
      if (!mayStartValue(e)) return;
      if (++depth_ > options_.maxDepth) {
        fail("nesting deeper than " + std::to_string(options_.maxDepth) + " levels");
        return;
      }
      stack_.push_back(Frame{e, {}, {}, {}, false});
      break;
    case Element::Key: {
      if (!mayStartValue(e)) return;
      Frame* top = stack_.empty() ? nullptr : &stack_.back();
      if (!top || top->element != Element::Dict) {
        fail("<key> outside a <dict>");
        return;
      }
      if (top->hasKey) {
        fail("key " + quoted(top->key) + " has no value");
        return;
      }
      leaf_ = e;
      text_.clear();
      break;
    }
    default:
      if (!mayStartValue(e)) return;
      leaf_ = e;
      text_.clear();
      break;
  }
  open_.push_back(e);
}

void XMLReader::text(std::string_view s) {
  if (!error_.empty()) return;
  if (leaf_ != Element::Unknown) {
    text_.append(s);
    return;
  }
  // Called for every run of indentation between tags: one table look-up per character.
  static constexpr auto kBlank = [] {
    std::array<bool, 256> t{};
    t[' '] = t['\t'] = t['\n'] = t['\r'] = true;
    return t;
  }();
  for (char c : s) {
    if (!kBlank[static_cast<unsigned char>(c)]) {
      std::string_view where = open_.empty() ? "the document" : nameOf(open_.back());
      fail("unexpected text " + quoted(s) + " in <" + std::string(where) + ">");
      return;
    }
  }
}

void XMLReader::end() {
  if (!error_.empty()) return;
  Element e = open_.back();
  open_.pop_back();
  if (isLeaf(e)) {
    leaf_ = Element::Unknown;
    finishLeaf(e);
  } else if (e == Element::Plist) {
    stack_.pop_back();
  } else {
    finishContainer();
  }
}

void XMLReader::finishLeaf(Element e) {
  switch (e) {
    case Element::Key: {
      Frame& top = stack_.back();
      top.key.assign(text_);
      top.hasKey = true;
      return;
    }
    case Element::String:
      addValue(std::string_view(text_));
      return;
    case Element::True:
    case Element::False:
      if (text_.find_first_not_of(" \t\r\n") != std::string::npos) {
        fail("unexpected text " + quoted(text_) + " in <" + std::string(nameOf(e)) + ">");
        return;
      }
      addValue(e == Element::True);
      return;
    case Element::Integer: {
      Integer n;
      switch (text::parseInteger(text_, &n)) {
        case text::IntegerError::None:
          addValue(n);
          return;
        case text::IntegerError::OutOfRange:
          fail("integer out of the 64-bit range: " + quoted(text_));
          return;
        case text::IntegerError::NotANumber:
          fail("not an integer: " + quoted(text_));
          return;
      }
      return;
    }
    case Element::Real:
      if (auto d = text::parseReal(text_)) {
        addValue(*d);
      } else {
        fail("not a real number: " + quoted(text_));
      }
      return;
    case Element::Date:
      if (auto d = text::parseISO8601(text_)) {
        addValue(*d);
      } else {
        fail("not an ISO 8601 date: " + quoted(text_));
      }
      return;
    case Element::Data: {
      auto data = std::make_shared<Data>();
      if (!text::decodeBase64(text_, data.get())) {
        fail("invalid base64 in <data>");
        return;
      }
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
  if (frame.hasKey) {
    fail("key " + quoted(frame.key) + " has no value");
    return;
  }
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
      entries.insert_or_assign(std::move(top.key), Value(std::forward<Arg>(arg)));  // out of order
    }
    top.key.clear();
    top.hasKey = false;
  }
}

ReadResult XMLReader::read(std::span<const std::uint8_t> bytes) {
  ReadResult result;
  result.format = Format::XML;
  std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser(
      XML_ParserCreate(nullptr), &XML_ParserFree);
  if (!parser) {
    result.error = "out of memory for the XML parser";
    return result;
  }
  parser_ = parser.get();
  XML_SetUserData(parser_, this);
  XML_SetElementHandler(parser_, &onStart, &onEnd);
  XML_SetCharacterDataHandler(parser_, &onText);
  XML_SetEntityDeclHandler(parser_, &onEntityDecl);
  XML_SetSkippedEntityHandler(parser_, &onSkippedEntity);
  XML_SetParamEntityParsing(parser_, XML_PARAM_ENTITY_PARSING_NEVER);

  // XML_Parse takes an int length: feed very large documents in pieces.
  constexpr std::size_t kChunk = std::size_t(1) << 30;
  const char* p = reinterpret_cast<const char*>(bytes.data());
  std::size_t left = bytes.size();
  XML_Status status = XML_STATUS_OK;
  do {
    std::size_t n = std::min(left, kChunk);
    status = XML_Parse(parser_, p, int(n), n == left);
    p += n;
    left -= n;
  } while (status == XML_STATUS_OK && left > 0);

  if (status != XML_STATUS_OK || !error_.empty()) {
    std::string what = error_.empty() ? XML_ErrorString(XML_GetErrorCode(parser_)) : error_;
    result.error = "XML property list, line " + std::to_string(XML_GetCurrentLineNumber(parser_)) +
                   ", column " + std::to_string(XML_GetCurrentColumnNumber(parser_)) + ": " + what;
    return result;
  }
  if (!root_) {
    result.error = "XML property list holds no value";
    return result;
  }
  result.value = std::move(root_);
  return result;
}

}  // namespace

inline ReadResult readXMLPropertyList(std::span<const std::uint8_t> bytes,
                                      const ReadOptions& options) {
  try {
    return XMLReader(options).read(bytes);
  } catch (const std::exception& e) {
    ReadResult failed;
    failed.error = std::string("XML property list: ") + e.what();
    return failed;
  }
}

}  // namespace gwfuzz::expat
