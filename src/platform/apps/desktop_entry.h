// XDG desktop entries: the "[Desktop Entry]" group of a ".desktop" file, and the program its
// "Exec" line starts.
//
// Parsing follows the freedesktop.org desktop-entry format: "Key=Value" and "Key[locale]=Value" lines,
// "#" comments, blank lines, "[Group]" headers; string values unescaped (\s \n \t \r \\). An entry
// is refused (nullopt, with a one-line reason) when its main group is missing, holds a line that
// is not a comment or a well-formed key (letters, digits, "-", an optional "[locale]"), or a value
// that is not UTF-8. Other groups are not checked. The first occurrence of a key wins.
//
// programOfExec takes the first word of an Exec value (double quotes and their escapes honoured,
// an "env VAR=value ..." prefix skipped). Pure functions on text; any thread; nothing throws.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gw::registry {

struct DesktopEntry {
  // The main group's keys, localized ones under "Key[locale]".
  std::map<std::string, std::string, std::less<>> values;

  std::optional<std::string> value(std::string_view key) const;
  // "Key[lang]" for the first of languages that has one ("de_DE" also tries "de"), else "Key".
  std::optional<std::string> localizedValue(std::string_view key,
                                            const std::vector<std::string>& languages) const;
  // Whether a boolean key holds "true".
  bool isTrue(std::string_view key) const;
};

std::optional<DesktopEntry> parseDesktopEntry(std::string_view text, std::string* error);

// The program word of an Exec value; nullopt when there is none or the quoting is broken.
std::optional<std::string> programOfExec(std::string_view exec);

}  // namespace gw::registry
