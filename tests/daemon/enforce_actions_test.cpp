// End actions: the host preference, logind's TerminateUser and LockSession asked with the right
// arguments on a stand-in logind, and the signal path against real processes of an unprivileged
// uid (SIGTERM first, SIGKILL after the grace for those that ignore it, other users untouched).
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <string>

#include "daemon/enforce/session_actions.h"
#include "platform/notify/system_bus.h"
#include "support/bus_fixture.h"
#include "support/log_capture.h"
#include "support/logind_standin.h"

namespace gw::daemon {
namespace {

using gwtest::LogindStandin;

TEST(EndActionTest, PreferenceValuesMapToActionsAndUnknownOnesLogOut) {
  gwtest::LogCapture log(0);
  EXPECT_EQ(endActionFromPreference(plist::Value()), EndAction::Logout);
  EXPECT_EQ(endActionFromPreference(plist::Value("logout")), EndAction::Logout);
  EXPECT_EQ(endActionFromPreference(plist::Value("lock")), EndAction::Lock);
  EXPECT_EQ(endActionFromPreference(plist::Value("none")), EndAction::None);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(endActionFromPreference(plist::Value("Lock")), EndAction::Logout);
  EXPECT_EQ(endActionFromPreference(plist::Value(true)), EndAction::Logout);
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_TRUE(log.contains("*** unknown endAction Lock"));
}

LogindStandin::Session session(std::string id, uid_t uid) {
  LogindStandin::Session s;
  s.id = std::move(id);
  s.uid = uid;
  return s;
}

class LogindActionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GE(sd_event_new(&loop_), 0);
    standin_.emplace(loop_);
    std::string error;
    bus_ = notify::openSystemBus(&error);
    ASSERT_TRUE(bus_) << error;
    actions_ = makeLogindSessionActions(loop_, bus_.get());
    ASSERT_NE(actions_, nullptr);
  }
  void TearDown() override {
    actions_.reset();
    bus_.reset();
    standin_.reset();
    sd_event_unref(loop_);
  }

  gwtest::PrivateBus privateBus_;
  sd_event* loop_ = nullptr;
  std::optional<LogindStandin> standin_;
  notify::BusPtr bus_;
  std::unique_ptr<SessionActions> actions_;
};

TEST_F(LogindActionsTest, LogoutTerminatesTheUserAndNeverRoot) {
  gwtest::LogCapture log(1);
  standin_->addSession(session("1", 1000));
  standin_->addSession(session("2", 0));
  EXPECT_FALSE(actions_->logout(0));
  EXPECT_TRUE(actions_->logout(1000));
  ASSERT_TRUE(gwtest::runLoopUntil(loop_, [&] { return !standin_->terminatedUsers().empty(); }));
  EXPECT_EQ(standin_->terminatedUsers(), std::vector<uid_t>{1000});

  // logind refusing (a user without sessions) is logged when its answer comes.
  EXPECT_TRUE(actions_->logout(4242));
  ASSERT_TRUE(gwtest::runLoopUntil(
      loop_, [&] { return log.contains("*** logind could not end the sessions of uid 4242"); }));
  EXPECT_EQ(standin_->terminatedUsers(), (std::vector<uid_t>{1000, 4242}));
  EXPECT_TRUE(log.contains("refusing to end the sessions of root"));
}

TEST_F(LogindActionsTest, LockLocksEachOfTheUsersSessionsOnly) {
  standin_->addSession(session("1", 1000));
  standin_->addSession(session("2", 1001));
  standin_->addSession(session("3", 1000));
  EXPECT_FALSE(actions_->lock(0));
  EXPECT_TRUE(actions_->lock(1000));
  ASSERT_TRUE(gwtest::runLoopUntil(loop_, [&] { return standin_->lockedSessions().size() >= 2; }));
  std::vector<std::string> locked = standin_->lockedSessions();
  std::sort(locked.begin(), locked.end());
  EXPECT_EQ(locked, (std::vector<std::string>{"1", "3"}));
  EXPECT_EQ(standin_->lockAllCalls(), 0);  // never the machine-wide lock

  // Destroyed before logind answers: the answer finds nothing to call back into. A newer
  // object's request is answered after it, so once that one has locked, the old answer is in.
  EXPECT_TRUE(actions_->lock(1001));
  actions_ = makeLogindSessionActions(loop_, bus_.get());
  EXPECT_TRUE(actions_->lock(1000));
  ASSERT_TRUE(gwtest::runLoopUntil(loop_, [&] { return standin_->lockedSessions().size() >= 4; }));
  EXPECT_EQ(std::count(standin_->lockedSessions().begin(), standin_->lockedSessions().end(), "2"),
            0);
}

TEST_F(LogindActionsTest, ChoiceFollowsTheBusAndTheSetting) {
  std::unique_ptr<SessionActions> actions;
  {
    gwtest::ScopedEnvironment force("GATEWISE_SESSION_SOURCE", "logind");
    actions = makeSessionActions(loop_, bus_.get(), std::chrono::seconds(60));
  }
  standin_->addSession(session("9", 1234));
  ASSERT_TRUE(actions->lock(1234));  // only the logind path can lock
  ASSERT_TRUE(gwtest::runLoopUntil(loop_, [&] { return !standin_->lockedSessions().empty(); }));
  EXPECT_EQ(standin_->lockedSessions(), std::vector<std::string>{"9"});
  EXPECT_FALSE(makeSessionActions(loop_, nullptr, std::chrono::seconds(60))->lock(1234));
}

// A child process running as uid, waiting for a signal; killed and reaped by the destructor if the
// test has not reaped it.
class UserProcess {
 public:
  enum class Term { Obey, Ignore, Block };
  UserProcess(uid_t uid, Term term) {
    int ready[2];
    if (::pipe(ready) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ready[0]);
      if (term == Term::Ignore) ::signal(SIGTERM, SIG_IGN);
      if (term == Term::Block) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigprocmask(SIG_BLOCK, &set, nullptr);
      }
      if (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0) ::_exit(3);
      char byte = 1;
      if (::write(ready[1], &byte, 1) != 1) ::_exit(4);
      for (;;) ::pause();
    }
    ::close(ready[1]);
    pollfd p{ready[0], POLLIN, 0};
    char byte = 0;
    started_ = pid_ > 0 && ::poll(&p, 1, 10000) == 1 && ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
    pidfd_ = pid_ > 0 ? int(::syscall(SYS_pidfd_open, pid_, 0)) : -1;
  }
  ~UserProcess() {
    if (pid_ > 0 && !status_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (pidfd_ >= 0) ::close(pidfd_);
  }
  UserProcess(const UserProcess&) = delete;
  UserProcess& operator=(const UserProcess&) = delete;

  bool started() const { return started_ && pidfd_ >= 0; }
  bool ended() const {
    pollfd p{pidfd_, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1;
  }
  // The signal it died of, once it has ended (reaps it); 0 when it exited otherwise.
  int deathSignal() {
    if (!status_) {
      int status = 0;
      if (::waitpid(pid_, &status, 0) != pid_) return -1;
      status_ = status;
    }
    return WIFSIGNALED(*status_) ? WTERMSIG(*status_) : 0;
  }
  int pidfd() const { return pidfd_; }
  // Whether a signal waits, blocked, for the process (from the "ShdPnd:" and "SigPnd:" masks).
  bool hasPending(int signal) const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    std::uint64_t pending = 0;
    while (std::getline(status, line)) {
      if (line.starts_with("ShdPnd:") || line.starts_with("SigPnd:")) {
        pending |= std::stoull(line.substr(7), nullptr, 16);
      }
    }
    return pending & (std::uint64_t(1) << (signal - 1));
  }

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;
  bool started_ = false;
  std::optional<int> status_;
};

// Wakes the loop when a child ends, so the test can wait for it on the loop without polling.
sd_event_source* watchEnd(sd_event* loop, const UserProcess& process) {
  sd_event_source* source = nullptr;
  sd_event_add_io(
      loop, &source, process.pidfd(), EPOLLIN,
      [](sd_event_source* s, int, std::uint32_t, void*) {
        return sd_event_source_set_enabled(s, SD_EVENT_OFF);
      },
      nullptr);
  return source;
}

TEST(SignalActionsTest, TermThenKillAfterGraceOnlyForThatUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run processes as another user";
  // Uids no real account has, different for each run of the suite.
  const uid_t target = 3900000000u + uid_t(::getpid() % 100000) * 2;
  const uid_t bystander = target + 1;
  sd_event* loop = nullptr;
  ASSERT_GE(sd_event_new(&loop), 0);
  {
    using Term = UserProcess::Term;
    UserProcess obeying(target, Term::Obey), ignoring(target, Term::Ignore);
    UserProcess other(bystander, Term::Block);
    ASSERT_TRUE(obeying.started() && ignoring.started() && other.started());
    sd_event_source* sources[] = {watchEnd(loop, obeying), watchEnd(loop, ignoring)};

    auto actions = makeSignalSessionActions(loop, std::chrono::milliseconds(20));
    EXPECT_FALSE(actions->lock(target));
    EXPECT_FALSE(actions->logout(0));
    EXPECT_TRUE(actions->logout(target));
    EXPECT_FALSE(other.hasPending(SIGTERM));  // a signal sent to it would wait there, blocked
    ASSERT_TRUE(gwtest::runLoopUntil(loop, [&] { return obeying.ended() && ignoring.ended(); }));
    EXPECT_EQ(obeying.deathSignal(), SIGTERM);
    EXPECT_EQ(ignoring.deathSignal(), SIGKILL);
    EXPECT_FALSE(other.ended());
    EXPECT_FALSE(other.hasPending(SIGTERM));
    for (sd_event_source* s : sources) sd_event_source_unref(s);
  }
  sd_event_unref(loop);
}

}  // namespace
}  // namespace gw::daemon
