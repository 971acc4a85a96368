// File URLs as callers hand them in ("file:///a%20b/C.app/"): the path they name.
//
// Pure string work, any thread. Only the file scheme is understood; anything else is taken to be a
// path already.
#pragma once

#include <string>
#include <string_view>

namespace gw::fs {

// "file:///a%20b/C.app/" -> "/a b/C.app" (percent escapes decoded, a "localhost" host and trailing
// slashes dropped); a plain path comes back as it is.
std::string pathOfFileURL(std::string_view url);

}  // namespace gw::fs
