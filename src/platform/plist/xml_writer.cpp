// XML property-list writer: the standard document form, one element per line, tab indentation.
//
// The document type names no external DTD: readers never fetch one, and the document stays
// self-contained.
//
// Strings escape "&", "<" and ">", and a carriage return as "&#13;" so that XML's line-end
// normalisation cannot turn it into a line feed on reading. Control characters that XML 1.0 cannot
// carry at all are written through unchanged, as other writers do; such strings only survive the
// binary encoding. Dictionary keys come out in the map's (byte-wise sorted) order. A UID is
// written as the dictionary of the single key "CF$UID" with its value, the form other readers
// and writers use and the reader turns back into a UID.
#include "platform/plist/codec.h"
#include "platform/plist/scalar_text.h"
#include "platform/plist/shared_walk.h"

namespace gw::plist {
namespace {

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist>\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kFooter = "</plist>\n";

// Base64 lines of data hold 76 characters, as in the common writers.
constexpr std::size_t kBase64LineLength = 76;

class XMLWriter {
 public:
  explicit XMLWriter(std::string& out) : out_(out) {}

  void write(const Value& v, unsigned level);

 private:
  void indent(unsigned level) { out_.append(level, '\t'); }
  void escaped(std::string_view s);

  std::string& out_;
};

void XMLWriter::escaped(std::string_view s) {
  std::size_t run = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    std::string_view replacement;
    switch (s[i]) {
      case '&':
        replacement = "&amp;";
        break;
      case '<':
        replacement = "&lt;";
        break;
      case '>':
        replacement = "&gt;";
        break;
      case '\r':
        replacement = "&#13;";
        break;
      default:
        continue;
    }
    out_.append(s.data() + run, i - run);
    out_.append(replacement);
    run = i + 1;
  }
  out_.append(s.data() + run, s.size() - run);
}

void XMLWriter::write(const Value& v, unsigned level) {
  switch (v.type()) {
    case Type::Boolean:
      indent(level);
      out_ += v.boolean() ? "<true/>\n" : "<false/>\n";
      return;
    case Type::Integer:
      indent(level);
      out_ += "<integer>";
      text::appendInteger(out_, v.integer());
      out_ += "</integer>\n";
      return;
    case Type::Real:
      indent(level);
      out_ += "<real>";
      text::appendReal(out_, v.real());
      out_ += "</real>\n";
      return;
    case Type::Date:
      indent(level);
      out_ += "<date>";
      text::appendISO8601(out_, v.date());
      out_ += "</date>\n";
      return;
    case Type::String:
      indent(level);
      out_ += "<string>";
      escaped(v.string());
      out_ += "</string>\n";
      return;
    case Type::Data:
      indent(level);
      out_ += "<data>\n";
      text::appendBase64Lines(out_, v.data(), std::string(level, '\t'), kBase64LineLength);
      indent(level);
      out_ += "</data>\n";
      return;
    case Type::Array: {
      const Array& a = *v.array();
      indent(level);
      if (a.empty()) {
        out_ += "<array/>\n";
        return;
      }
      out_ += "<array>\n";
      for (const Value& item : a) write(item, level + 1);
      indent(level);
      out_ += "</array>\n";
      return;
    }
    case Type::Dictionary: {
      const Dictionary& d = *v.dictionary();
      indent(level);
      if (d.empty()) {
        out_ += "<dict/>\n";
        return;
      }
      out_ += "<dict>\n";
      for (const auto& [key, item] : d) {
        indent(level + 1);
        out_ += "<key>";
        escaped(key);
        out_ += "</key>\n";
        write(item, level + 1);
      }
      indent(level);
      out_ += "</dict>\n";
      return;
    }
    case Type::UID:
      indent(level);
      out_ += "<dict>\n";
      indent(level + 1);
      out_ += "<key>CF$UID</key>\n";
      indent(level + 1);
      out_ += "<integer>";
      text::appendInteger(out_, Integer::fromUnsigned(v.uid().value));
      out_ += "</integer>\n";
      indent(level);
      out_ += "</dict>\n";
      return;
    default:
      // Null and objects were refused by isValidPropertyList before writing began.
      return;
  }
}

}  // namespace

bool writeXMLPropertyList(const Value& value, std::string& out, std::string* error) {
  // Every element takes at least a line of 8 bytes ("<true/>" and its line end), every key one
  // more, and strings, keys and data at least their length.
  if (walk::expandedSize(value, 8) > kMaxPropertyListFileSize) {
    if (error) {
      *error =
          "the XML text would be larger than a property list may be (containers held in "
          "many places are written out at each)";
    }
    return false;
  }
  out += kHeader;
  XMLWriter(out).write(value, 0);
  out += kFooter;
  return true;
}

}  // namespace gw::plist
