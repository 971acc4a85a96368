// End actions without logind: signals to the user's processes.
#include <gatewise/log.h>
#include <signal.h>

#include <cstring>
#include <map>

#include "daemon/enforce/session_actions.h"
#include "daemon/enforce/user_processes.h"

namespace gw::daemon {
namespace {

// Processes may fork while they are being killed; the SIGKILL sweep is repeated until a pass finds
// nobody, this many times at most.
constexpr int kMaxKillPasses = 8;

class SignalActions final : public SessionActions {
 public:
  SignalActions(sd_event* loop, std::chrono::milliseconds grace)
      : loop_(sd_event_ref(loop)), grace_(grace) {}
  ~SignalActions() override {
    for (auto& [uid, pending] : pendingKills_) sd_event_source_disable_unref(pending.timer);
    sd_event_unref(loop_);
  }
  SignalActions(const SignalActions&) = delete;
  SignalActions& operator=(const SignalActions&) = delete;

  bool logout(uid_t uid) override {
    if (uid == 0) {
      GW_LOG(0, "*** refusing to end the sessions of root");
      return false;
    }
    std::optional<std::size_t> signalled = signalProcessesOfUser(uid, SIGTERM);
    if (!signalled) return false;
    GW_LOG(1, "sent SIGTERM to %zu processes of uid %u", *signalled, uid);
    if (!pendingKills_.contains(uid)) armKill(uid);
    return true;
  }

  bool lock(uid_t uid) override {
    GW_LOG(0, "*** cannot lock the sessions of uid %u without logind", uid);
    return false;
  }

 private:
  struct PendingKill {
    SignalActions* owner = nullptr;
    uid_t uid = 0;
    sd_event_source* timer = nullptr;
  };

  void armKill(uid_t uid) {
    PendingKill& pending = pendingKills_[uid];
    pending = {this, uid, nullptr};
    auto grace = std::chrono::duration_cast<std::chrono::microseconds>(grace_);
    int r = sd_event_add_time_relative(loop_, &pending.timer, CLOCK_MONOTONIC,
                                       std::uint64_t(grace.count()), 1000, onGraceOver, &pending);
    if (r < 0) {
      // Without the timer the stragglers are killed now rather than never.
      GW_LOG(0, "*** cannot arm the kill timer: %s; killing at once", std::strerror(-r));
      pendingKills_.erase(uid);
      killRemaining(uid);
    }
  }

  static int onGraceOver(sd_event_source*, std::uint64_t, void* userdata) {
    auto* pending = static_cast<PendingKill*>(userdata);
    SignalActions* owner = pending->owner;
    uid_t uid = pending->uid;
    sd_event_source_disable_unref(pending->timer);
    owner->pendingKills_.erase(uid);  // pending is gone from here on
    owner->killRemaining(uid);
    return 0;
  }

  void killRemaining(uid_t uid) {
    std::size_t total = 0;
    for (int pass = 0; pass < kMaxKillPasses; ++pass) {
      std::optional<std::size_t> signalled = signalProcessesOfUser(uid, SIGKILL);
      if (!signalled || *signalled == 0) break;
      total += *signalled;
    }
    if (total > 0) GW_LOG(1, "sent SIGKILL to %zu processes of uid %u", total, uid);
  }

  sd_event* loop_;
  std::chrono::milliseconds grace_;
  std::map<uid_t, PendingKill> pendingKills_;  // nodes stay put: timers point at them
};

}  // namespace

std::unique_ptr<SessionActions> makeSignalSessionActions(sd_event* loop,
                                                         std::chrono::milliseconds grace) {
  return std::make_unique<SignalActions>(loop, grace);
}

}  // namespace gw::daemon
