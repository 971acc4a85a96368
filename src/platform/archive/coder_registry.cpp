#include "platform/archive/coder_registry.h"

#include <map>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/archive/archive_layout.h"

namespace gw::archive {
namespace {

struct Registry {
  std::mutex mutex;
  std::unordered_map<std::type_index, std::shared_ptr<const ClassCoder>> byType;
  std::map<std::string, std::shared_ptr<const ClassCoder>, std::less<>> byName;
};

// Built on first use, so that registrations from other files' static initialisers find it.
Registry& registry() {
  static Registry* instance = new Registry;  // never destroyed: coders may be used at exit
  return *instance;
}

}  // namespace

void registerCoder(std::type_index type, ClassCoder coder) {
  if (coder.classes.empty() || coder.classes.front() != coder.className)
    coder.classes.insert(coder.classes.begin(), coder.className);
  auto shared = std::make_shared<const ClassCoder>(std::move(coder));
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.byType[type] = shared;
  r.byName[shared->className] = shared;
}

std::shared_ptr<const ClassCoder> coderForType(std::type_index type) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto found = r.byType.find(type);
  return found == r.byType.end() ? nullptr : found->second;
}

std::shared_ptr<const ClassCoder> coderForClassName(std::string_view className) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto found = r.byName.find(className);
  return found == r.byName.end() ? nullptr : found->second;
}

}  // namespace gw::archive

namespace gw::archive {

std::string className(const plist::Value& value) {
  switch (value.type()) {
    case plist::Type::Array:
      return std::string(layout::kArrayClass);
    case plist::Type::Dictionary:
      return std::string(layout::kDictionaryClass);
    case plist::Type::String:
      return "NSString";
    case plist::Type::Data:
      return "NSData";
    case plist::Type::Date:
      return "NSDate";
    case plist::Type::Boolean:
    case plist::Type::Integer:
    case plist::Type::Real:
      return "NSNumber";
    case plist::Type::Object: {
      if (!value.object()) return "nil";
      const GWObject& object = *value.object();  // typeid of a name: no side effect
      auto coder = coderForType(std::type_index(typeid(object)));
      return coder ? coder->className : typeid(object).name();
    }
    default:
      return "nil";
  }
}

}  // namespace gw::archive
