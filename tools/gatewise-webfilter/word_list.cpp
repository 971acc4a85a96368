#include "word_list.h"

#include <charconv>

#include "platform/fs/file_io.h"
#include "web/page_text.h"

namespace gw::webfilter {
namespace {

constexpr std::size_t kMaxFileSize = 1 << 20;
constexpr std::size_t kMaxWords = 20000;
constexpr std::size_t kMaxWordLength = 64;
constexpr std::int64_t kMaxWeight = 1000;

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r'))
    s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

std::optional<std::int64_t> number(std::string_view s) {
  std::int64_t value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return value;
}

bool isWordByte(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c >= 0x80;
}

}  // namespace

void lowerASCII(std::string& word) {
  for (char& c : word) {
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  }
}

std::optional<WordList> parseWordList(std::string_view text, std::string* error) {
  WordList list;
  std::size_t lineNumber = 0;
  while (!text.empty()) {
    std::size_t end = text.find('\n');
    std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    ++lineNumber;
    if (line.empty() || line.front() == '#') continue;
    std::size_t space = line.find_first_of(" \t");
    auto fail = [&](const char* reason) {
      *error = "line " + std::to_string(lineNumber) + ": " + reason;
      return std::nullopt;
    };
    if (space == std::string_view::npos) return fail("expected \"WEIGHT WORD\" or \"threshold N\"");
    std::string_view first = line.substr(0, space);
    std::string_view rest = trimmed(line.substr(space + 1));
    if (first == "threshold") {
      std::optional<std::int64_t> value = number(rest);
      if (!value || *value < 1 || *value > kMaxWeight * 100) return fail("bad threshold");
      list.threshold = *value;
      continue;
    }
    std::optional<std::int64_t> weight = number(first);
    if (!weight || *weight < -kMaxWeight || *weight > kMaxWeight) return fail("bad weight");
    if (rest.empty() || rest.size() > kMaxWordLength) return fail("bad word");
    for (unsigned char c : rest) {
      if (!isWordByte(c)) return fail("a word is letters, digits and non-ASCII characters only");
    }
    if (web::boundedText(rest, kMaxWordLength) != rest) return fail("a word must be UTF-8 text");
    if (list.weights.size() >= kMaxWords) return fail("too many words");
    std::string word(rest);
    lowerASCII(word);
    list.weights[word] = std::int32_t(*weight);
  }
  return list;
}

std::optional<WordList> readWordList(const std::string& path, std::string* error) {
  std::string readError;
  std::optional<std::string> text = fs::readFile(path, kMaxFileSize, &readError);
  if (!text) {
    *error = readError;
    return std::nullopt;
  }
  std::optional<WordList> list = parseWordList(*text, error);
  if (!list) *error = path + ": " + *error;
  return list;
}

}  // namespace gw::webfilter
