// Text forms of property-list scalars, shared by the XML reader and writer and by description().
//
// Integers, reals, ISO 8601 dates and base64 data each have one parser and one formatter here so
// the reader and the writer cannot drift apart. Parsers return nullopt (or false) on text that is
// not of the form; they never throw and never read outside the given view. Formatters append to
// the caller's string. All functions are pure and safe to call from any thread.
#pragma once

#include <gatewise/plist.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gw::plist::text {

enum class IntegerError { None, NotANumber, OutOfRange };

// Decimal, or hexadecimal after "0x", with an optional sign, surrounded by optional white space.
// The range is INT64_MIN ... UINT64_MAX.
IntegerError parseInteger(std::string_view s, Integer* out);
void appendInteger(std::string& out, Integer n);

// Decimal or exponent notation, plus the spellings of the special values: "nan", "inf",
// "infinity", each in any case, with an optional sign.
std::optional<double> parseReal(std::string_view s);
// The shortest text that reads back as exactly d; "nan", "+infinity", "-infinity" for the
// special values.
void appendReal(std::string& out, double d);

// "YYYY-MM-DDTHH:MM:SSZ"; trailing fields may be left out ("YYYY-MM-DDZ", "YYYYZ").
std::optional<Date> parseISO8601(std::string_view s);
// "YYYY-MM-DDTHH:MM:SSZ" of the date rounded down to a whole second.
void appendISO8601(std::string& out, Date d);
// "YYYY-MM-DD HH:MM:SS +0000", the form descriptions use.
void appendDescriptionDate(std::string& out, Date d);

// Decodes base64, skipping white space; false on any other character outside the alphabet or a
// dangling single character. Padding ends the data.
bool decodeBase64(std::string_view s, Data* out);
// Lines of at most lineLength characters, each preceded by indent and followed by "\n".
void appendBase64Lines(std::string& out, const Data& data, std::string_view indent,
                       std::size_t lineLength);

}  // namespace gw::plist::text
