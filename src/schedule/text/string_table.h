// The library's localised strings for the schedule texts (internal).
#pragma once

#include <string>
#include <string_view>

namespace gw::text {

// The text for key in the library's default string table, "" when the table lacks it.
const std::string& localizedString(std::string_view key);

}  // namespace gw::text
