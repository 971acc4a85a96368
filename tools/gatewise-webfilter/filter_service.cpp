#include "filter_service.h"

#include <gatewise/web.h>

#include "page_scorer.h"

namespace gw::webfilter {
namespace {

struct Page {
  std::span<const std::uint8_t> content;
  plist::DictionaryRef description;
  std::string title, url;
};

std::optional<Page> pageOf(const ipc::Request& request) {
  std::span<const std::uint8_t> meta = request.field("second").bytes;
  if (meta.size() > kMaxDescriptionBytes) return std::nullopt;
  plist::ReadResult read = plist::readPropertyList(meta);
  if (!read || !read.value->isDictionary()) return std::nullopt;
  Page page{request.field("first").bytes, read.value->dictionary(), {}, {}};
  if (const std::string* title = page.description->get(kWFPageTitleKey).ifString()) {
    page.title = *title;
  }
  if (const std::string* url = page.description->get(kWFURLKey).ifString()) page.url = *url;
  return page;
}

ipc::Reply malformed() {
  ipc::Reply reply;
  reply.returnCode = ipc::kMigBadArguments;
  return reply;
}

std::vector<std::uint8_t> bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

ipc::Reply evaluate(const WordList& list, const ipc::Request& request) {
  std::optional<Page> page = pageOf(request);
  if (!page) return malformed();
  PageScore score = scorePage(list, page->content, page->title, page->url);
  plist::Value verdict = plist::Value::newDictionary({
      {kWFFilterWantsToBlockKey, score.wantsToBlock},
      {kWFFilterRestrictedScoreKey, score.score},
      {kWFFilterDescriptionKey, score.description},
  });
  plist::Dictionary& out = *verdict.dictionary();
  if (!page->url.empty()) out.set(kWFURLKey, page->url);
  if (page->description->get(kWFDebugPageKey).boolValue()) {
    out.set(kWFDebugMessageKey,
            pageDump(score, visibleText(page->content), page->title, page->url));
  }
  std::optional<std::string> xml = plist::writePropertyList(verdict, plist::Format::XML);
  if (!xml) return malformed();
  ipc::Reply reply;
  reply.data = bytesOf(*xml);
  return reply;
}

ipc::Reply dump(const WordList& list, const ipc::Request& request) {
  std::optional<Page> page = pageOf(request);
  if (!page) return malformed();
  PageScore score = scorePage(list, page->content, page->title, page->url);
  ipc::Reply reply;
  reply.data = bytesOf(pageDump(score, visibleText(page->content), page->title, page->url));
  return reply;
}

}  // namespace

void serveFilterRoutines(ipc::Dispatcher& dispatcher, const WordList& list) {
  dispatcher.handle("_WFMIGEvalutePageContent",
                    [&list](const ipc::Request& r) { return evaluate(list, r); });
  dispatcher.handle("_WFMIGGetPageDump", [&list](const ipc::Request& r) { return dump(list, r); });
}

}  // namespace gw::webfilter
