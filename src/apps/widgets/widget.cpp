// GWWidget: describing one widget bundle, and its dictionary form.
#include <gatewise/format.h>
#include <gatewise/log.h>
#include <gatewise/widgets.h>

#include <algorithm>

#include "apps/dictionary_fields.h"
#include "platform/bundle/bundle.h"

namespace gw {
namespace {

std::optional<std::string> nonEmptyString(const plist::DictionaryRef& info, std::string_view key) {
  const std::string* text = info->get(key).ifString();
  return text && !text->empty() ? std::optional<std::string>(*text) : std::nullopt;
}

// A localized name shorter than two characters counts as missing (the lookup's default is "0").
std::optional<std::string> displayNameOf(const bundle::Bundle& bundle) {
  std::string localized = bundle.localizedString("CFBundleDisplayName", "0", "InfoPlist");
  if (localized.size() >= 2) return localized;
  if (auto name = nonEmptyString(bundle.infoDictionary(), "CFBundleDisplayName")) return name;
  return nonEmptyString(bundle.infoDictionary(), "CFBundleName");
}

}  // namespace

GWWidgetRef GWWidget::initWithPath(const std::optional<std::string>& path) {
  return returningOnException(__func__, __LINE__, GWWidgetRef(), [&]() -> GWWidgetRef {
    if (!path) return nullptr;
    if (path->empty()) {
      GW_LOG(0, "*** Couldn't get url from path: %@", *path);
      return nullptr;
    }
    auto widget = std::make_shared<GWWidget>(plist::Dictionary::make());
    widget->setPath(*path);
    bundle::BundleRef bundle = bundle::Bundle::open(*path);
    if (!bundle || bundle->isBareFile()) {
      GW_LOG(0, "*** Couldn't get bundle of widget at %@", *path);
      return nullptr;
    }
    std::optional<std::string> bundleID = bundle->bundleIdentifier();
    if (!bundleID) {
      GW_LOG(0, "*** Couldn't get bundle ID of widget at %@", *path);
      return nullptr;
    }
    widget->setBundleID(bundleID);
    std::optional<std::string> name = displayNameOf(*bundle);
    if (!name) {
      GW_LOG(0, "*** Couldn't get display name of widget at %@", *path);
      return nullptr;
    }
    widget->setDisplayName(name);
    std::optional<plist::Data> widgetID = GWGetWidgetIDForPath(*path);
    if (!widgetID) {
      GW_LOG(0, "*** Couldn't get widgetID of widget at %@", *path);
      return nullptr;
    }
    widget->setWidgetID(std::move(widgetID));
    return widget;
  });
}

GWWidgetRef GWWidget::initWithDictionary(const plist::Value& dictionary) {
  if (!dictionary.isDictionary()) return nullptr;
  return std::make_shared<GWWidget>(plist::mutableCopy(dictionary).dictionary());
}

std::vector<GWWidgetRef> GWWidget::installedWidgets() {
  std::vector<GWWidgetRef> widgets;
  for (const std::string& path : GWGetAllWidgetPaths()) {
    if (GWWidgetRef widget = widgetWithPath(path)) widgets.push_back(std::move(widget));
  }
  std::stable_sort(widgets.begin(), widgets.end(),
                   [](const GWWidgetRef& a, const GWWidgetRef& b) { return a->compare(*b) < 0; });
  return widgets;
}

std::optional<plist::Data> GWWidget::widgetID() const {
  return apps::dataField(*_dictionary, "widgetID");
}

std::string GWWidget::description() const { return path().value_or("(null)"); }

int GWWidget::compare(const GWWidget& other) const {
  int order = displayName().value_or("").compare(other.displayName().value_or(""));
  return order < 0 ? -1 : order > 0 ? 1 : 0;
}

GWWidgetRef GWWidget::copy() const {
  auto dictionary = plist::mutableCopy(_dictionary).dictionary();
  dictionary->makeImmutable();
  return std::make_shared<GWWidget>(std::move(dictionary));
}

GWWidgetRef GWWidget::mutableCopy() const {
  return std::make_shared<GWWidget>(plist::mutableCopy(_dictionary).dictionary());
}

std::optional<std::string> GWWidget::string(const char* key) const {
  return apps::stringField(*_dictionary, key);
}

void GWWidget::setString(const char* key, std::optional<std::string> value) {
  apps::setField(*_dictionary, key, std::move(value));
}

void GWWidget::setData(const char* key, std::optional<plist::Data> value) {
  apps::setField(*_dictionary, key, std::move(value));
}

}  // namespace gw
