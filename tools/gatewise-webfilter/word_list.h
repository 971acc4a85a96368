// The word list a page is scored against.
//
// File format (UTF-8 text, one entry a line; at most 1 MiB, 20000 words):
//   # a comment, and blank lines, are ignored
//   threshold 10        a page whose score reaches this is blocked (default 10)
//   5 casino            a word and its weight: each occurrence of the word adds the weight
//   -3 recipe           weights may be negative (words that suggest a harmless page)
// Words are matched whole and without regard to ASCII letter case; a word is a run of letters,
// digits and non-ASCII characters, so "e-mail" is two words. Weights lie in -1000..1000.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace gw::webfilter {

struct WordList {
  std::unordered_map<std::string, std::int32_t> weights;  // lower-case word -> weight
  std::int64_t threshold = 10;
};

// The list in text, or nullopt with *error ("line N: reason").
std::optional<WordList> parseWordList(std::string_view text, std::string* error);
// The list in the file at path, or nullopt with *error.
std::optional<WordList> readWordList(const std::string& path, std::string* error);

// Lower-cases ASCII letters in place; other bytes stay as they are.
void lowerASCII(std::string& word);

}  // namespace gw::webfilter
