// GWObject: the base of the library's live objects that property-list containers may hold in
// memory.
//
// Arrays and dictionaries of gw::plist::Value can carry shared GWObjects (applications, limit
// items, widgets...). Such values are never valid property lists for writing; their description, as
// printed by "%@", comes from the object. Objects are shared with std::shared_ptr and are not
// copyable by accident: subclasses that own resources delete their copy operations.
#pragma once

#include <gatewise/export.h>

#include <memory>
#include <string>

namespace gw {

class GW_EXPORT GWObject : public std::enable_shared_from_this<GWObject> {
 public:
  virtual ~GWObject();
  // What "%@" prints for this object.
  virtual std::string description() const = 0;
  // Equality by content where a class defines it; identity otherwise.
  virtual bool isEqual(const GWObject& other) const { return this == &other; }
};

using GWObjectRef = std::shared_ptr<GWObject>;

}  // namespace gw
