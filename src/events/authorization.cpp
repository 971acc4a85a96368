#include "events/authorization.h"

#include <gatewise/auth.h>
#include <gatewise/log.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "platform/fs/file_io.h"

namespace gw::events {
namespace {

constexpr std::uint8_t kMagic[4] = {'G', 'W', 'A', 'X'};

void put(std::uint8_t* at, std::uint64_t value, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; ++i) at[i] = std::uint8_t(value >> (8 * i));
}

std::uint64_t get(const std::uint8_t* at, std::size_t bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < bytes; ++i) value |= std::uint64_t(at[i]) << (8 * i);
  return value;
}

class ProcessAuthorization final : public GWAuthorization {
 public:
  std::int32_t makeExternalForm(GWAuthorizationExternalForm* form) const override {
    std::optional<GWAuthorizationExternalForm> made = externalFormOfThisProcess();
    if (!made) return auth::kStatusInternal;
    *form = *made;
    return 0;
  }
};

}  // namespace

std::optional<std::uint64_t> startTimeOfProcess(pid_t pid) {
  if (pid <= 0) return std::nullopt;
  std::optional<std::string> stat = fs::readFile("/proc/" + std::to_string(pid) + "/stat", 4096);
  if (!stat) return std::nullopt;
  // The command name may hold spaces and parentheses: fields are counted after the last ')'.
  std::size_t close = stat->rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(stat->substr(close + 1));
  std::string field;
  for (int index = 3; index <= 22; ++index) {
    if (!(fields >> field)) return std::nullopt;
  }
  char* end = nullptr;
  unsigned long long value = std::strtoull(field.c_str(), &end, 10);
  if (field.empty() || *end != '\0') return std::nullopt;
  return value;
}

std::optional<GWAuthorizationExternalForm> externalFormOfThisProcess() {
  std::optional<std::uint64_t> start = startTimeOfProcess(::getpid());
  if (!start) return std::nullopt;
  GWAuthorizationExternalForm form{};
  std::memcpy(form.data(), kMagic, 4);
  put(form.data() + 4, kExternalFormVersion, 4);
  put(form.data() + 8, std::uint32_t(::getpid()), 4);
  put(form.data() + 12, std::uint32_t(::geteuid()), 4);
  put(form.data() + 16, *start, 8);
  return form;
}

std::string checkExternalForm(std::span<const std::uint8_t> bytes, pid_t pid, uid_t uid) {
  if (bytes.size() != sizeof(GWAuthorizationExternalForm)) {
    return "authorization of " + std::to_string(bytes.size()) + " bytes";
  }
  if (std::memcmp(bytes.data(), kMagic, 4) != 0 ||
      get(bytes.data() + 4, 4) != kExternalFormVersion || get(bytes.data() + 24, 8) != 0) {
    return "not an authorization";
  }
  if (get(bytes.data() + 8, 4) != std::uint32_t(pid) ||
      get(bytes.data() + 12, 4) != std::uint32_t(uid)) {
    return "authorization of another process";
  }
  std::optional<std::uint64_t> start = startTimeOfProcess(pid);
  if (!start || *start != get(bytes.data() + 16, 8)) return "authorization of an earlier process";
  return {};
}

}  // namespace gw::events

namespace gw {

GWAuthorization::~GWAuthorization() = default;

GWAuthorizationRef GWProcessAuthorization(bool interactive, std::int32_t* status) {
  std::shared_ptr<auth::Provider> provider = auth::currentProvider();
  auth::Answer answer;
  if (provider) {
    answer = provider->requestRight(
        kGWEventsReadRight,
        auth::kFlagExtendRights | (interactive ? auth::kFlagInteractionAllowed : 0));
  }
  if (status) *status = answer.status;
  if (answer.status != auth::kStatusSuccess) {
    GW_LOG(0, "*** The right %s was not granted: %d", std::string(kGWEventsReadRight).c_str(),
           answer.status);
    return nullptr;
  }
  return GWProcessAuthorizationWithoutAsking();
}

GWAuthorizationRef GWProcessAuthorizationWithoutAsking() {
  return std::make_shared<events::ProcessAuthorization>();
}

}  // namespace gw
