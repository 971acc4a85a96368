#include "daemon/programs/program_watch.h"

#include <dirent.h>
#include <gatewise/log.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace gw::daemon {
namespace {

// The program a process runs (its executable, links resolved by the kernel); "" when unknown.
std::string executableOf(pid_t pid) {
  char link[40];
  std::snprintf(link, sizeof link, "/proc/%d/exe", int(pid));
  char target[4096];
  ssize_t n = ::readlink(link, target, sizeof target - 1);
  if (n <= 0) return {};
  return std::string(target, std::size_t(n));
}

bool sendListen(int fd) {
  alignas(nlmsghdr) char buffer[NLMSG_SPACE(sizeof(cn_msg) + sizeof(std::uint32_t))] = {};
  auto* header = reinterpret_cast<nlmsghdr*>(buffer);
  header->nlmsg_len = NLMSG_LENGTH(sizeof(cn_msg) + sizeof(std::uint32_t));
  header->nlmsg_type = NLMSG_DONE;
  header->nlmsg_pid = std::uint32_t(::getpid());
  auto* message = static_cast<cn_msg*>(NLMSG_DATA(header));
  message->id.idx = CN_IDX_PROC;
  message->id.val = CN_VAL_PROC;
  message->len = sizeof(std::uint32_t);
  std::uint32_t op = PROC_CN_MCAST_LISTEN;
  std::memcpy(message->data, &op, sizeof op);
  return ::send(fd, buffer, header->nlmsg_len, 0) == ssize_t(header->nlmsg_len);
}

}  // namespace

ProgramWatch::ProgramWatch(Wanted wanted, Changed changed)
    : wanted_(std::move(wanted)), changed_(std::move(changed)) {}

ProgramWatch::~ProgramWatch() { sd_event_source_disable_unref(source_); }

std::unique_ptr<ProgramWatch> ProgramWatch::start(sd_event* loop, Wanted wanted, Changed changed) {
  auto watch = std::make_unique<ProgramWatch>(std::move(wanted), std::move(changed));
  watch->loop_ = loop;
  if (watch->connect(loop)) {
    watch->rescan();
  } else {
    GW_LOG(0, "*** Cannot follow processes (%s); program time limits are not counted",
           std::strerror(errno));
  }
  return watch;
}

bool ProgramWatch::connect(sd_event* loop) {
  socket_ = fs::UniqueFd(
      ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_CONNECTOR));
  if (!socket_) return false;
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = CN_IDX_PROC;
  if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      !sendListen(socket_.get())) {
    socket_ = fs::UniqueFd();
    return false;
  }
  int r = sd_event_add_io(loop, &source_, socket_.get(), EPOLLIN, &ProgramWatch::onMessage, this);
  if (r < 0) {
    errno = -r;
    source_ = nullptr;
    socket_ = fs::UniqueFd();
    return false;
  }
  return true;
}

void ProgramWatch::setListening(bool on) {
  if (!loop_ || on == (source_ != nullptr)) return;
  if (!on) {
    source_ = sd_event_source_disable_unref(source_);
    socket_ = fs::UniqueFd();
    processes_.clear();
    return;
  }
  if (connect(loop_)) rescan();
}

int ProgramWatch::onMessage(sd_event_source*, int fd, uint32_t, void* self) {
  auto* watch = static_cast<ProgramWatch*>(self);
  alignas(nlmsghdr) char buffer[8192];
  for (int batch = 0; batch < 64; ++batch) {  // bounded: the loop gets its turn back
    sockaddr_nl from{};
    socklen_t fromLength = sizeof from;
    ssize_t n =
        ::recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (n < 0) {
      if (errno == ENOBUFS) {
        GW_LOG(1, "Process events were lost; reading /proc again");
        watch->rescan();
        continue;
      }
      return 0;  // EAGAIN: all read
    }
    if (from.nl_pid != 0) continue;  // only the kernel speaks here
    int length = int(n);
    for (auto* header = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(header, length);
         header = NLMSG_NEXT(header, length)) {
      if (header->nlmsg_type != NLMSG_DONE) continue;
      if (header->nlmsg_len < NLMSG_LENGTH(sizeof(cn_msg) + sizeof(proc_event))) continue;
      const auto* message = static_cast<const cn_msg*>(NLMSG_DATA(header));
      if (message->id.idx != CN_IDX_PROC || message->id.val != CN_VAL_PROC) continue;
      proc_event event;
      std::memcpy(&event, message->data, sizeof event);
      if (event.what == proc_event::PROC_EVENT_EXEC) {
        watch->learn(event.event_data.exec.process_tgid);
      } else if (event.what == proc_event::PROC_EVENT_EXIT &&
                 event.event_data.exit.process_pid == event.event_data.exit.process_tgid) {
        watch->exited(event.event_data.exit.process_tgid);
      }
    }
  }
  return 0;
}

void ProgramWatch::learn(pid_t pid) {
  char folder[32];
  std::snprintf(folder, sizeof folder, "/proc/%d", int(pid));
  struct stat st {};
  if (::stat(folder, &st) != 0) {
    exited(pid);  // gone already
    return;
  }
  if (st.st_uid == 0 || !wanted_(st.st_uid)) {
    exited(pid);  // an exec may take a process away from a watched user
    return;
  }
  std::string path = executableOf(pid);
  if (path.empty()) return;
  execed(pid, st.st_uid, std::move(path));
}

void ProgramWatch::execed(pid_t pid, uid_t uid, std::string path) {
  auto it = processes_.find(pid);
  std::optional<uid_t> before;
  if (it != processes_.end()) {
    before = it->second.uid;
  } else if (processes_.size() >= kMaxWatchedProcesses) {
    if (!warnedFull_) GW_LOG(0, "*** Too many processes to follow; some are not counted");
    warnedFull_ = true;
    return;
  }
  processes_[pid] = Process{uid, std::move(path)};
  if (before && *before != uid) changed_(*before);
  changed_(uid);
}

void ProgramWatch::exited(pid_t pid) {
  auto it = processes_.find(pid);
  if (it == processes_.end()) return;
  uid_t uid = it->second.uid;
  processes_.erase(it);
  changed_(uid);
}

void ProgramWatch::rescan() {
  std::map<pid_t, Process> before;
  before.swap(processes_);
  DIR* dir = ::opendir("/proc");
  if (dir) {
    while (dirent* entry = ::readdir(dir)) {
      char* end = nullptr;
      long pid = std::strtol(entry->d_name, &end, 10);
      if (*end != '\0' || pid <= 0) continue;
      char folder[32];
      std::snprintf(folder, sizeof folder, "/proc/%ld", pid);
      struct stat st {};
      if (::stat(folder, &st) != 0 || st.st_uid == 0 || !wanted_(st.st_uid)) continue;
      std::string path = executableOf(pid_t(pid));
      if (path.empty() || processes_.size() >= kMaxWatchedProcesses) continue;
      processes_[pid_t(pid)] = Process{st.st_uid, std::move(path)};
    }
    ::closedir(dir);
  }
  std::map<uid_t, bool> owners;
  for (const auto& [pid, process] : before) owners[process.uid] = true;
  for (const auto& [pid, process] : processes_) owners[process.uid] = true;
  for (const auto& [uid, _] : owners) changed_(uid);
}

std::vector<RunningProgram> ProgramWatch::programsOf(uid_t uid) const {
  std::vector<RunningProgram> programs;
  for (const auto& [pid, process] : processes_) {
    if (process.uid == uid) programs.push_back({pid, process.path});
  }
  return programs;
}

}  // namespace gw::daemon
