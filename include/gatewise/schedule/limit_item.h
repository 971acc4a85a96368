// GWLimitItem (temporary minimal stand-in): a limit item held as its stored dictionary.
//
// Only what status items need: building one from its stored dictionary and turning it back. The
// full class, with every accessor, lives on the limits branch and replaces this file at merge.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>

#include <memory>
#include <string>

namespace gw {

class GWLimitItem;
using GWLimitItemRef = std::shared_ptr<GWLimitItem>;

class GW_EXPORT GWLimitItem : public GWObject {
 public:
  explicit GWLimitItem(plist::DictionaryRef dictionary) : _dictionary(std::move(dictionary)) {}
  // nullptr unless stored is a dictionary.
  static GWLimitItemRef initWithDictionary(const plist::Value& stored);
  static GWLimitItemRef limitItemWithDictionary(const plist::Value& stored) {
    return initWithDictionary(stored);
  }
  plist::DictionaryRef plistRepresentation() const { return _dictionary; }
  std::string description() const override;

 private:
  plist::DictionaryRef _dictionary;
};

}  // namespace gw
