// The dictionary form of GWApp: conversion to and from the stored record and its key accessors.
#include <gatewise/apps.h>
#include <gatewise/format.h>

namespace gw {

GWAppRef GWApp::initWithDictionary(const plist::Value& dictionary) {
  if (!dictionary.isDictionary()) return nullptr;
  auto copy = plist::mutableCopy(dictionary).dictionary();
  const plist::Value* subApps = copy->find("subApps");
  if (subApps && subApps->isArray() && !subApps->array()->empty()) {
    plist::ArrayRef stored = subApps->array();
    copy->remove("subApps");
    auto records = plist::Array::make();
    for (const plist::Value& element : *stored) {
      if (GWAppRef record = appWithDictionary(element)) records->append(record);
    }
    if (!records->empty()) copy->set("subApps", records);
  }
  return std::make_shared<GWApp>(std::move(copy));
}

plist::DictionaryRef GWApp::plistRepresentation() const {
  plist::ArrayRef records = subApps();
  if (!records || records->empty()) return _dictionary;
  // The copy is made without the sub-apps, so their live records never leave this object.
  plist::Value held = _dictionary->get("subApps");
  _dictionary->remove("subApps");
  auto copy = plist::mutableCopy(_dictionary).dictionary();
  _dictionary->set("subApps", held);
  auto forms = plist::Array::make();
  for (const plist::Value& element : *records) {
    auto record = element.ifObject<GWApp>();
    if (!record) continue;
    if (plist::DictionaryRef form = record->plistRepresentation()) forms->append(form);
  }
  if (!forms->empty()) copy->set("subApps", forms);
  return copy;
}

plist::ArrayRef GWApp::subApps() const {
  const plist::Value* value = _dictionary->find("subApps");
  return value && value->isArray() ? value->array() : nullptr;
}

void GWApp::setSubApps(plist::ArrayRef subApps) {
  if (subApps) {
    _dictionary->set("subApps", std::move(subApps));
  } else {
    _dictionary->remove("subApps");
  }
}

std::string GWApp::description() const {
  return format("<GWApp: %p>:\tpath: %@\tbundleID: %@", static_cast<const void*>(this),
                path().value_or("(null)"), bundleID().value_or("(null)"));
}

int GWApp::compare(const GWApp& other) const {
  int order = displayName().value_or("").compare(other.displayName().value_or(""));
  return order < 0 ? -1 : order > 0 ? 1 : 0;
}

std::optional<std::string> GWApp::string(const char* key) const {
  const std::string* text = _dictionary->get(key).ifString();
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

void GWApp::setString(const char* key, std::optional<std::string> value) {
  if (value) {
    _dictionary->set(key, std::move(*value));
  } else {
    _dictionary->remove(key);
  }
}

std::optional<plist::Data> GWApp::data(const char* key) const {
  const plist::Value& value = _dictionary->get(key);
  return value.isData() ? std::optional<plist::Data>(value.data()) : std::nullopt;
}

void GWApp::setData(const char* key, std::optional<plist::Data> value) {
  if (value) {
    _dictionary->set(key, std::move(*value));
  } else {
    _dictionary->remove(key);
  }
}

}  // namespace gw
