#include "daemon/sessions/logind_session.h"

#include <string_view>

namespace gw::daemon::logind {
namespace {

int readBoolVariant(sd_bus_message* m, bool* out) {
  int value = 0;
  int r = sd_bus_message_read(m, "v", "b", &value);
  if (r >= 0) *out = value != 0;
  return r;
}

// One dictionary entry's value, the key already read; unknown keys and unexpected types are
// skipped (a property of a type this reader does not expect is not trusted).
int readProperty(sd_bus_message* m, std::string_view key, SessionState* state) {
  const char* contents = nullptr;
  int r = sd_bus_message_peek_type(m, nullptr, &contents);
  if (r < 0) return r;
  std::string_view type = contents ? contents : "";
  if (key == "User" && type == "(uo)") {
    std::uint32_t uid = 0;
    const char* path = nullptr;
    r = sd_bus_message_read(m, "v", "(uo)", &uid, &path);
    if (r >= 0) state->uid = uid;
    return r;
  }
  if (key == "Class" && type == "s") {
    const char* cls = nullptr;
    r = sd_bus_message_read(m, "v", "s", &cls);
    if (r >= 0) state->userClass = std::string_view(cls) == "user";
    return r;
  }
  if (type == "b") {
    if (key == "Active") return readBoolVariant(m, &state->active);
    if (key == "IdleHint") return readBoolVariant(m, &state->idle);
    if (key == "LockedHint") return readBoolVariant(m, &state->locked);
  }
  return sd_bus_message_skip(m, "v");
}

}  // namespace

bool isTrackedProperty(const char* name) {
  std::string_view key = name;
  return key == "User" || key == "Class" || key == "Active" || key == "IdleHint" ||
         key == "LockedHint";
}

int readSessionList(sd_bus_message* reply, std::size_t maxCount, std::vector<ListedSession>* out) {
  int r = sd_bus_message_enter_container(reply, 'a', "(susso)");
  if (r < 0) return r;
  const char *id = nullptr, *user = nullptr, *seat = nullptr, *path = nullptr;
  std::uint32_t uid = 0;
  while ((r = sd_bus_message_read(reply, "(susso)", &id, &uid, &user, &seat, &path)) > 0) {
    if (out->size() < maxCount) out->push_back({id, uid, path});
  }
  if (r < 0) return r;
  return sd_bus_message_exit_container(reply);
}

int readSessionProperties(sd_bus_message* message, SessionState* state) {
  int r = sd_bus_message_enter_container(message, 'a', "{sv}");
  if (r < 0) return r;
  while ((r = sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
    const char* key = nullptr;
    if ((r = sd_bus_message_read(message, "s", &key)) < 0 ||
        (r = readProperty(message, key, state)) < 0 ||
        (r = sd_bus_message_exit_container(message)) < 0) {
      return r;
    }
  }
  if (r < 0) return r;
  return sd_bus_message_exit_container(message);
}

}  // namespace gw::daemon::logind
