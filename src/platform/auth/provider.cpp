// The process-wide authorization provider and the preset override minutes.
#include <gatewise/auth.h>

#include <mutex>

namespace gw::auth {
namespace {

struct State {
  std::mutex mutex;
  bool chosen = false;  // false until setProvider: the polkit provider serves
  std::shared_ptr<Provider> provider;
  std::optional<std::uint32_t> minutes;
};

State& state() {
  static State* s = new State;  // never destroyed: requests may run while the process exits
  return *s;
}

}  // namespace

Provider::~Provider() = default;

void setProvider(std::shared_ptr<Provider> provider) {
  std::lock_guard lock(state().mutex);
  state().chosen = true;
  state().provider = std::move(provider);
}

std::shared_ptr<Provider> currentProvider() {
  {
    std::lock_guard lock(state().mutex);
    if (state().chosen) return state().provider;
  }
  return polkitProvider();
}

void setOverrideMinutes(std::optional<std::uint32_t> minutes) {
  std::lock_guard lock(state().mutex);
  state().minutes = minutes;
}

std::optional<std::uint32_t> overrideMinutes() {
  std::lock_guard lock(state().mutex);
  return state().minutes;
}

}  // namespace gw::auth
