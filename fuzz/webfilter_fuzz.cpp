// The web-filter service's two readers of outside text: the word list (a file an administrator may
// edit by hand) and the page scorer (any page a browser sends). The input's first line is read as
// a word list, the rest as a page; the page is also scored against the list shipped with the
// service. Scoring and the text dump must end without a crash, and the dump must be UTF-8.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

#include "page_scorer.h"
#include "platform/text/utf8.h"
#include "word_list.h"

namespace {

const gw::webfilter::WordList& shippedList() {
  static const gw::webfilter::WordList list = [] {
    std::string error;
    std::optional<gw::webfilter::WordList> read = gw::webfilter::parseWordList(
        "threshold 10\n5 casino\n3 poker\n-3 recipe\n2 \xc3\xa9t\xc3\xa9\n", &error);
    if (!read) std::abort();
    return *read;
  }();
  return list;
}

void score(const gw::webfilter::WordList& list, std::span<const std::uint8_t> page,
           const std::string& title, const std::string& url) {
  gw::webfilter::PageScore scored = gw::webfilter::scorePage(list, page, title, url);
  std::string dump = gw::webfilter::pageDump(scored, gw::webfilter::visibleText(page), title, url);
  if (!gw::text::isValidUTF8(dump)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string error;
  std::optional<gw::webfilter::WordList> list = gw::webfilter::parseWordList(input, &error);
  if (!list && error.empty()) std::abort();

  // "title\nurl\npage..." against the shipped list, and against the whole input read as a list.
  std::size_t first = input.find('\n');
  std::size_t second = first == std::string_view::npos ? first : input.find('\n', first + 1);
  std::string title(input.substr(0, first));
  std::string url = first == std::string_view::npos
                        ? std::string()
                        : std::string(input.substr(first + 1, second - first - 1));
  std::span<const std::uint8_t> page(data, size);
  if (second != std::string_view::npos) page = page.subspan(second + 1);
  score(shippedList(), page, title, url);
  if (list) score(*list, page, title, url);
  return 0;
}
