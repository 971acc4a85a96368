// The dictionary form of GWApp: conversion to and from the stored record and its key accessors.
#include <gatewise/apps.h>
#include <gatewise/format.h>
#include <gatewise/log.h>

#include "apps/dictionary_fields.h"

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
  // The live sub-app records never leave this object: the copy carries their dictionary forms.
  auto copy = plist::mutableCopy(_dictionary).dictionary();
  copy->remove("subApps");
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
  try {
    if (subApps) {
      _dictionary->set("subApps", std::move(subApps));
    } else {
      _dictionary->remove("subApps");
    }
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);  // an immutable copy
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
  return apps::stringField(*_dictionary, key);
}

void GWApp::setString(const char* key, std::optional<std::string> value) {
  apps::setField(*_dictionary, key, std::move(value));
}

std::optional<plist::Data> GWApp::data(const char* key) const {
  return apps::dataField(*_dictionary, key);
}

void GWApp::setData(const char* key, std::optional<plist::Data> value) {
  apps::setField(*_dictionary, key, std::move(value));
}

GWAppRef GWApp::copy() const {
  auto dictionary = plist::mutableCopy(_dictionary).dictionary();
  dictionary->makeImmutable();
  return std::make_shared<GWApp>(std::move(dictionary));
}

GWAppRef GWApp::mutableCopy() const {
  return std::make_shared<GWApp>(plist::mutableCopy(_dictionary).dictionary());
}

}  // namespace gw
