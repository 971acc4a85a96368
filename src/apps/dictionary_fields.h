// The fields of records that keep their whole state in one dictionary (application records,
// widgets): a missing or mistyped key reads as nullopt, and setting nullopt removes the key. A
// record whose dictionary is an immutable copy refuses every change; the refusal is logged and
// nothing changes.
#pragma once

#include <gatewise/log.h>
#include <gatewise/plist.h>

#include <optional>
#include <string>

namespace gw::apps {

inline std::optional<std::string> stringField(const plist::Dictionary& d, const char* key) {
  const std::string* text = d.get(key).ifString();
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

inline std::optional<plist::Data> dataField(const plist::Dictionary& d, const char* key) {
  const plist::Value& value = d.get(key);
  return value.isData() ? std::optional<plist::Data>(value.data()) : std::nullopt;
}

template <typename T>
void setField(plist::Dictionary& d, const char* key, std::optional<T> value) {
  try {
    if (value) {
      d.set(key, std::move(*value));
    } else {
      d.remove(key);
    }
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
}

}  // namespace gw::apps
