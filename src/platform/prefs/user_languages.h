// Another user's preferred languages, most preferred first.
//
// Read from the user's AccountsService record ("<root>/var/lib/AccountsService/users/<name>", key
// "Language" of the [User] group), else from "LANGUAGE" (a colon-separated list) or "LANG" in the
// user's "~/.config/locale.conf" (the home folder from the password database, below the system
// root). Encodings and modifiers are dropped ("de_DE.UTF-8" -> "de_DE"). An unsafe or unknown user
// name, or no setting, gives an empty list. Stateless; any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace gw::prefs {

std::vector<std::string> copyUserLanguages(std::string_view userName);

}  // namespace gw::prefs
