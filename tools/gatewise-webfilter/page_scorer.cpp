#include "page_scorer.h"

#include <algorithm>
#include <cstring>

#include "web/page_text.h"

namespace gw::webfilter {
namespace {

bool isWordByte(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c >= 0x80;
}

bool startsWithNoCase(std::span<const std::uint8_t> bytes, std::size_t at, std::string_view what) {
  if (bytes.size() - at < what.size()) return false;
  for (std::size_t i = 0; i < what.size(); ++i) {
    unsigned char c = bytes[at + i];
    if (c >= 'A' && c <= 'Z') c = c - 'A' + 'a';
    if (c != static_cast<unsigned char>(what[i])) return false;
  }
  return true;
}

// The end of a script or style element that starts at `at` (just after "<script" or "<style").
std::size_t skipRawElement(std::span<const std::uint8_t> bytes, std::size_t at,
                           std::string_view closing) {
  for (std::size_t i = at; i < bytes.size(); ++i) {
    if (bytes[i] == '<' && startsWithNoCase(bytes, i, closing)) return i;
  }
  return bytes.size();
}

void countWords(const WordList& list, std::string_view text, PageScore& score) {
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && !isWordByte(static_cast<unsigned char>(text[i]))) ++i;
    std::size_t start = i;
    while (i < text.size() && isWordByte(static_cast<unsigned char>(text[i]))) ++i;
    if (i == start) break;
    std::string word(text.substr(start, i - start));
    lowerASCII(word);
    auto found = list.weights.find(word);
    if (found == list.weights.end()) continue;
    score.score += found->second;
    ++score.matches[word];
  }
}

}  // namespace

std::string visibleText(std::span<const std::uint8_t> page) {
  page = page.first(std::min(page.size(), kMaxScoredBytes));
  std::string text;
  text.reserve(std::min<std::size_t>(page.size(), 1 << 20));
  bool lastWasSpace = true;
  for (std::size_t i = 0; i < page.size(); ++i) {
    unsigned char c = page[i];
    if (c == '<') {
      std::size_t end = i;
      if (startsWithNoCase(page, i, "<script"))
        end = skipRawElement(page, i + 7, "</script");
      else if (startsWithNoCase(page, i, "<style"))
        end = skipRawElement(page, i + 6, "</style");
      const std::uint8_t* close =
          static_cast<const std::uint8_t*>(std::memchr(page.data() + end, '>', page.size() - end));
      i = close ? std::size_t(close - page.data()) : page.size();
      c = ' ';
    }
    bool space = c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c < 0x20;
    if (space) {
      if (!lastWasSpace) text.push_back(' ');
      lastWasSpace = true;
    } else {
      text.push_back(char(c));
      lastWasSpace = false;
    }
  }
  if (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

PageScore scorePage(const WordList& list, std::span<const std::uint8_t> page,
                    const std::string& title, const std::string& url) {
  PageScore score;
  score.truncated = page.size() > kMaxScoredBytes;
  countWords(list, visibleText(page), score);
  countWords(list, title, score);
  countWords(list, url, score);
  score.wantsToBlock = score.score >= list.threshold;
  score.description =
      "score " + std::to_string(score.score) + " of " + std::to_string(list.threshold);
  if (score.matches.empty()) {
    score.description += ": no listed words";
  } else {
    const char* separator = ": ";
    for (const auto& [word, count] : score.matches) {
      score.description += separator + word + " x" + std::to_string(count);
      separator = ", ";
    }
  }
  if (score.truncated) score.description += " (first 8 MiB read)";
  return score;
}

std::string pageDump(const PageScore& score, const std::string& text, const std::string& title,
                     const std::string& url) {
  std::string dump = "url: " + web::boundedText(url, kMaxDumpLineBytes) +
                     "\ntitle: " + web::boundedText(title, kMaxDumpLineBytes) + "\n" +
                     score.description + "\nblocked: " + (score.wantsToBlock ? "yes" : "no") +
                     "\ntext:\n" + web::boundedText(text, kMaxDumpTextBytes);
  // Invalid bytes are replaced one for one, so the text was cut exactly when it was longer.
  if (text.size() > kMaxDumpTextBytes) dump += "\n[text cut at 64 KiB]";
  dump += "\n";
  return dump;
}

}  // namespace gw::webfilter
