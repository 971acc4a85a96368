#include "platform/apps/desktop_entry.h"

#include <cctype>

#include "platform/text/utf8.h"

namespace gw::registry {
namespace {

constexpr std::string_view kMainGroup = "[Desktop Entry]";

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
    text.remove_suffix(1);
  return text;
}

bool isKeyCharacter(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-'; }

bool isLocaleCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '@' || c == '.' ||
         c == '-';
}

// "Name" or "Name[de_DE]".
bool isWellFormedKey(std::string_view key) {
  std::size_t open = key.find('[');
  std::string_view base = key.substr(0, open);
  if (base.empty()) return false;
  for (char c : base)
    if (!isKeyCharacter(c)) return false;
  if (open == std::string_view::npos) return true;
  std::string_view locale = key.substr(open + 1);
  if (locale.size() < 2 || locale.back() != ']') return false;
  locale.remove_suffix(1);
  for (char c : locale)
    if (!isLocaleCharacter(c)) return false;
  return true;
}

std::string unescaped(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    switch (char next = value[++i]) {
      case 's':
        out += ' ';
        break;
      case 'n':
        out += '\n';
        break;
      case 't':
        out += '\t';
        break;
      case 'r':
        out += '\r';
        break;
      case '\\':
        out += '\\';
        break;
      default:
        out += '\\';
        out += next;
        break;  // kept for the Exec quoting rules
    }
  }
  return out;
}

// The words of an Exec value: separated by spaces, double-quoted words with \" \` \$ \\ escapes.
std::optional<std::vector<std::string>> execWords(std::string_view exec) {
  std::vector<std::string> words;
  std::size_t i = 0;
  while (i < exec.size()) {
    while (i < exec.size() && exec[i] == ' ') ++i;
    if (i == exec.size()) break;
    std::string word;
    if (exec[i] == '"') {
      ++i;
      bool closed = false;
      while (i < exec.size()) {
        char c = exec[i++];
        if (c == '"') {
          closed = true;
          break;
        }
        if (c == '\\' && i < exec.size()) c = exec[i++];
        word += c;
      }
      if (!closed) return std::nullopt;
    } else {
      while (i < exec.size() && exec[i] != ' ') word += exec[i++];
    }
    words.push_back(std::move(word));
  }
  return words;
}

bool isEnvProgram(const std::string& word) { return word == "env" || word.ends_with("/env"); }

}  // namespace

std::optional<std::string> DesktopEntry::value(std::string_view key) const {
  auto found = values.find(key);
  return found == values.end() ? std::nullopt : std::optional<std::string>(found->second);
}

std::optional<std::string> DesktopEntry::localizedValue(
    std::string_view key, const std::vector<std::string>& languages) const {
  for (const std::string& language : languages) {
    std::string base = language.substr(0, language.find('_'));
    for (const std::string& locale : {language, base}) {
      if (auto text = value(std::string(key) + "[" + locale + "]")) return text;
    }
  }
  return value(key);
}

bool DesktopEntry::isTrue(std::string_view key) const { return value(key) == "true"; }

std::optional<DesktopEntry> parseDesktopEntry(std::string_view text, std::string* error) {
  DesktopEntry entry;
  bool inMain = false, sawMain = false;
  std::size_t lineNumber = 0;
  while (!text.empty()) {
    std::size_t end = text.find('\n');
    std::string_view line = trimmed(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    ++lineNumber;
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      inMain = line == kMainGroup && !sawMain;
      sawMain = sawMain || inMain;
      continue;
    }
    if (!inMain) continue;
    std::size_t equals = line.find('=');
    std::string_view key =
        equals == std::string_view::npos ? line : trimmed(line.substr(0, equals));
    if (equals == std::string_view::npos || !isWellFormedKey(key)) {
      if (error) *error = "broken key on line " + std::to_string(lineNumber);
      return std::nullopt;
    }
    std::string_view raw = trimmed(line.substr(equals + 1));
    if (!text::isValidUTF8(raw)) {
      if (error) *error = "value on line " + std::to_string(lineNumber) + " is not UTF-8";
      return std::nullopt;
    }
    entry.values.emplace(std::string(key), unescaped(raw));
  }
  if (!sawMain) {
    if (error) *error = "no [Desktop Entry] group";
    return std::nullopt;
  }
  return entry;
}

std::optional<std::string> programOfExec(std::string_view exec) {
  std::optional<std::vector<std::string>> words = execWords(exec);
  if (!words || words->empty()) return std::nullopt;
  std::size_t first = 0;
  if (isEnvProgram((*words)[0])) {
    first = 1;
    // Settings ("A=b") and options; "-u NAME" and "-C FOLDER" take the following word too.
    while (first < words->size() &&
           ((*words)[first].find('=') != std::string::npos || (*words)[first].starts_with('-'))) {
      const std::string& word = (*words)[first++];
      if ((word == "-u" || word == "-C") && first < words->size()) ++first;
    }
  }
  if (first == words->size() || (*words)[first].empty()) return std::nullopt;
  return (*words)[first];
}

}  // namespace gw::registry
