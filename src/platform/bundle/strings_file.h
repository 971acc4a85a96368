// Old-style ".strings" files: "key" = "value"; pairs, as localizations are stored.
//
// Accepts UTF-8 (with or without a byte-order mark) and UTF-16 in either byte order with a
// byte-order mark; C and C++ comments; the escapes \" \\ \n \t \r \U+hex; unquoted keys and values
// made of letters, digits and "_.$:/-"; a lone "key"; meaning key = key. Returns nullopt with a
// one-line reason for a file that is not well formed; never throws.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace gw::bundle {

using StringsTable = std::map<std::string, std::string, std::less<>>;

std::optional<StringsTable> parseStringsFile(std::string_view bytes, std::string* error = nullptr);
std::optional<StringsTable> readStringsFile(const std::string& path, std::string* error = nullptr);

}  // namespace gw::bundle
