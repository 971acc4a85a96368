#include "platform/auth/polkit_provider.h"

#include <gatewise/log.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>

#include "platform/fs/file_io.h"
#include "platform/notify/system_bus.h"

namespace gw::auth {
namespace {

constexpr const char kService[] = "org.freedesktop.PolicyKit1";
constexpr const char kPath[] = "/org/freedesktop/PolicyKit1/Authority";
constexpr const char kInterface[] = "org.freedesktop.PolicyKit1.Authority";
constexpr std::uint32_t kPolkitAllowUserInteraction = 1;

struct MessageUnref {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

Answer failed(std::int32_t status) {
  Answer answer;
  answer.status = status;
  return answer;
}

// The request's arguments: subject, action id, details, flags, cancellation id.
int appendRequest(sd_bus_message* m, std::string_view right, std::uint32_t flags,
                  std::uint64_t startTime) {
  std::string action(right);
  int r =
      sd_bus_message_append(m, "(sa{sv})", "unix-process", 3, "pid", "u", std::uint32_t(getpid()),
                            "start-time", "t", startTime, "uid", "i", std::int32_t(getuid()));
  if (r < 0) return r;
  std::uint32_t polkitFlags = (flags & kFlagInteractionAllowed) ? kPolkitAllowUserInteraction : 0;
  return sd_bus_message_append(m, "sa{ss}us", action.c_str(), 0, polkitFlags, "");
}

// Reads (bba{ss}): whether authorized, and whether the dialog was dismissed.
int readResult(sd_bus_message* reply, bool* authorized, bool* dismissed) {
  int isAuthorized = 0, isChallenge = 0;
  int r = sd_bus_message_enter_container(reply, 'r', "bba{ss}");
  if (r < 0) return r;
  if ((r = sd_bus_message_read(reply, "bb", &isAuthorized, &isChallenge)) < 0) return r;
  if ((r = sd_bus_message_enter_container(reply, 'a', "{ss}")) < 0) return r;
  const char* key = nullptr;
  const char* value = nullptr;
  while ((r = sd_bus_message_read(reply, "{ss}", &key, &value)) > 0) {
    if (std::strcmp(key, "polkit.dismissed") == 0 && std::strcmp(value, "true") == 0) {
      *dismissed = true;
    }
  }
  if (r < 0) return r;
  *authorized = isAuthorized != 0;
  return 0;
}

class PolkitProvider final : public Provider {
 public:
  Answer requestRight(std::string_view right, std::uint32_t flags) override {
    std::optional<std::uint64_t> startTime = processStartTime();
    if (!startTime) {
      GW_LOG(0, "*** Couldn't read the start time of this process");
      return failed(kStatusInternal);
    }
    std::string error;
    notify::BusPtr bus = notify::openSystemBus(&error);
    if (!bus) {
      GW_LOG(0, "*** Couldn't reach the system bus: %s", error);
      return failed(kStatusInternal);
    }
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus.get(), &raw, kService, kPath, kInterface,
                                           "CheckAuthorization");
    MessagePtr request(raw);
    if (r >= 0) r = appendRequest(request.get(), right, flags, *startTime);
    if (r < 0) {
      GW_LOG(0, "*** Couldn't build the authorization request: %s", std::strerror(-r));
      return failed(kStatusInternal);
    }
    auto timeout = (flags & kFlagInteractionAllowed)
                       ? std::chrono::duration_cast<std::chrono::microseconds>(kInteractiveTimeout)
                       : std::chrono::duration_cast<std::chrono::microseconds>(kQuietTimeout);
    sd_bus_error callError = SD_BUS_ERROR_NULL;
    sd_bus_message* rawReply = nullptr;
    r = sd_bus_call(bus.get(), request.get(), std::uint64_t(timeout.count()), &callError,
                    &rawReply);
    MessagePtr reply(rawReply);
    if (r < 0) {
      GW_LOG(0, "*** CheckAuthorization failed: %s",
             callError.message ? callError.message : std::strerror(-r));
      sd_bus_error_free(&callError);
      return failed(kStatusInternal);
    }
    bool authorized = false, dismissed = false;
    if ((r = readResult(reply.get(), &authorized, &dismissed)) < 0) {
      GW_LOG(0, "*** Couldn't read the authorization result: %s", std::strerror(-r));
      return failed(kStatusInternal);
    }
    if (!authorized) return failed(dismissed ? kStatusCanceled : kStatusDenied);
    Answer answer;
    answer.status = kStatusSuccess;
    if (std::optional<std::uint32_t> minutes = overrideMinutes()) {
      std::vector<std::uint8_t> bytes(sizeof *minutes);
      std::memcpy(bytes.data(), &*minutes, sizeof *minutes);
      answer.info.emplace(std::string(kTimeInfoTag), std::move(bytes));
    }
    return answer;
  }
};

}  // namespace

std::optional<std::uint64_t> processStartTime() {
  std::optional<std::string> stat = fs::readFile("/proc/self/stat", 4096);
  if (!stat) return std::nullopt;
  // The command name may hold spaces and parentheses: fields are counted after the last ')'.
  std::size_t close = stat->rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(stat->substr(close + 1));
  std::string field;
  // Field 3 (state) is the first after the name; the start time is field 22.
  for (int index = 3; index <= 22; ++index) {
    if (!(fields >> field)) return std::nullopt;
  }
  try {
    std::size_t used = 0;
    std::uint64_t value = std::stoull(field, &used);
    if (used != field.size()) return std::nullopt;
    return value;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::shared_ptr<Provider> polkitProvider() {
  static const std::shared_ptr<Provider> provider = std::make_shared<PolkitProvider>();
  return provider;
}

}  // namespace gw::auth
