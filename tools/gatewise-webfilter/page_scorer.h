// Scores a page against a word list, and writes its text dump.
//
// The page's visible text is its bytes with markup left out (everything between "<" and ">", and
// the insides of script and style elements); its words, with those of its title and URL, are
// looked up in the list and their weights summed. Only the first kMaxScoredBytes of a page are
// read, so one request costs bounded time whatever it carries.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>

#include "word_list.h"

namespace gw::webfilter {

inline constexpr std::size_t kMaxScoredBytes = std::size_t(8) << 20;
// The longest text a dump carries; longer text is cut at a character boundary and marked.
inline constexpr std::size_t kMaxDumpTextBytes = std::size_t(64) << 10;
// The longest address or title a dump shows.
inline constexpr std::size_t kMaxDumpLineBytes = 4096;

struct PageScore {
  std::int64_t score = 0;
  bool wantsToBlock = false;
  std::map<std::string, std::int64_t> matches;  // word -> occurrences
  bool truncated = false;                       // the page was longer than kMaxScoredBytes
  std::string description;                      // "score S of T: casino x3, poker x1"
};

// The page's visible text (bounded by kMaxScoredBytes of input), words separated by spaces.
std::string visibleText(std::span<const std::uint8_t> page);

PageScore scorePage(const WordList& list, std::span<const std::uint8_t> page,
                    const std::string& title, const std::string& url);

// The text dump: url, title, score and matches, then the visible text (bounded); valid UTF-8
// whatever the page's bytes were ("?" for each byte that is not).
std::string pageDump(const PageScore& score, const std::string& text, const std::string& title,
                     const std::string& url);

}  // namespace gw::webfilter
