// The library's localised strings for the schedule texts (internal).
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace gw::text {

using StringTable = std::map<std::string, std::string, std::less<>>;

// The text for key in the library's default string table, "" when the table lacks it.
std::string localizedString(std::string_view key);

// The built-in English table: the fallback, and the same texts as the installed English file.
const StringTable& englishStrings();

}  // namespace gw::text
