#include "daemon/enforce/launch_enforcer.h"

#include <elf.h>
#include <fcntl.h>
#include <gatewise/log.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

namespace gw::daemon {
namespace {

// Enough for a few hundred events per read; the loop reads until the queue is empty.
constexpr std::size_t kEventBufferSize = 16 * 1024;
// Failures to answer are logged this many times, then only counted.
constexpr std::uint64_t kMaxFailureLogs = 20;

// File systems that hold no programs anyone launches.
const std::set<std::string, std::less<>> kPseudoFileSystems = {
    "proc",    "sysfs",       "cgroup",   "cgroup2", "devpts",    "mqueue",  "debugfs",
    "tracefs", "securityfs",  "pstore",   "bpf",     "configfs",  "fusectl", "hugetlbfs",
    "autofs",  "binfmt_misc", "efivarfs", "nsfs",    "rpc_pipefs"};

// mountinfo escapes blanks and backslashes as \ooo.
std::string unescapeMountPath(const std::string& field) {
  auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) &&
        isOctal(field[i + 2]) && isOctal(field[i + 3])) {
      out += char((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
      i += 3;
      continue;
    }
    out += field[i];
  }
  return out;
}

// The dynamic loader named by this program's PT_INTERP. The kernel opens it for execution on every
// exec of a dynamically linked program, so it is allowed whoever runs it; nullopt for a static
// daemon or an unreadable header.
std::optional<std::pair<dev_t, ino_t>> dynamicLoader() {
  fs::UniqueFd self(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  Elf64_Ehdr header{};
  if (!self || ::pread(self.get(), &header, sizeof header, 0) != ssize_t(sizeof header) ||
      std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64 ||
      header.e_phentsize != sizeof(Elf64_Phdr) || header.e_phnum > 256) {
    return std::nullopt;
  }
  for (int i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr program{};
    off_t at = off_t(header.e_phoff + std::uint64_t(i) * sizeof program);
    if (::pread(self.get(), &program, sizeof program, at) != ssize_t(sizeof program)) break;
    if (program.p_type != PT_INTERP || program.p_filesz == 0 || program.p_filesz > 4096) continue;
    std::string path(program.p_filesz, '\0');
    if (::pread(self.get(), path.data(), path.size(), off_t(program.p_offset)) !=
        ssize_t(path.size())) {
      break;
    }
    path.resize(std::strlen(path.c_str()));
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) break;
    return std::make_pair(st.st_dev, st.st_ino);
  }
  return std::nullopt;
}

}  // namespace

std::optional<uid_t> realUidOf(pid_t pid) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/status", int(pid));
  fs::UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
  if (!fd) return std::nullopt;
  // "Uid:" comes within the first kilobyte.
  std::array<char, 1024> buffer;
  ssize_t n = ::read(fd.get(), buffer.data(), buffer.size() - 1);
  if (n <= 0) return std::nullopt;
  buffer[std::size_t(n)] = '\0';
  const char* line = std::strstr(buffer.data(), "\nUid:");
  if (!line) return std::nullopt;
  char* end = nullptr;
  unsigned long uid = std::strtoul(line + 5, &end, 10);
  if (end == line + 5) return std::nullopt;
  return uid_t(uid);
}

std::unique_ptr<LaunchEnforcer> LaunchEnforcer::create(sd_event* loop,
                                                       LaunchEnforcerOptions options,
                                                       std::string* error) {
  auto failed = [&](const std::string& what) -> std::unique_ptr<LaunchEnforcer> {
    if (error) *error = what + ": " + std::strerror(errno);
    return nullptr;
  };
  std::unique_ptr<LaunchEnforcer> enforcer(new LaunchEnforcer());
  enforcer->options_ = std::move(options);
  enforcer->loader_ = dynamicLoader();
  enforcer->fanotify_.reset(::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK,
                                            O_RDONLY | O_CLOEXEC | O_LARGEFILE));
  if (!enforcer->fanotify_) return failed("fanotify_init");
  int fd = enforcer->fanotify_.get();
  if (!enforcer->options_.mounts.empty() && enforcer->markMounts(enforcer->options_.mounts) == 0) {
    return failed("fanotify_mark: no mount could be marked");
  }
  for (const std::string& file : enforcer->options_.files) {
    if (::fanotify_mark(fd, FAN_MARK_ADD, FAN_OPEN_EXEC_PERM, AT_FDCWD, file.c_str()) != 0) {
      return failed("fanotify_mark " + file);
    }
  }
  if (loop) {
    int r = sd_event_add_io(loop, &enforcer->source_, fd, EPOLLIN, &LaunchEnforcer::onReadable,
                            enforcer.get());
    if (r < 0) {
      errno = -r;
      return failed("sd_event_add_io");
    }
    // Answering held execs comes before any other work of the loop.
    sd_event_source_set_priority(enforcer->source_, SD_EVENT_PRIORITY_IMPORTANT);
  }
  if (loop && enforcer->options_.followMounts) {
    // The kernel flags mountinfo with POLLPRI whenever the mount table changes.
    enforcer->mountInfo_.reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    if (!enforcer->mountInfo_ ||
        sd_event_add_io(loop, &enforcer->mountWatch_, enforcer->mountInfo_.get(), EPOLLPRI,
                        &LaunchEnforcer::onMountsChanged, enforcer.get()) < 0) {
      GW_LOG(0, "*** Can't watch for new mounts: those mounted later are not enforced");
    }
  }
  return enforcer;
}

LaunchEnforcer::~LaunchEnforcer() {
  // Closing the descriptor lets every exec still held go through.
  if (source_) sd_event_source_unref(source_);
  if (mountWatch_) sd_event_source_unref(mountWatch_);
}

std::size_t LaunchEnforcer::markMounts(const std::vector<std::string>& folders) {
  std::size_t marked = 0;
  for (const std::string& folder : folders) {
    // Marking a mount again changes nothing, so a rescan may mark everything anew.
    if (::fanotify_mark(fanotify_.get(), FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_EXEC_PERM,
                        AT_FDCWD, folder.c_str()) == 0) {
      ++marked;
    } else {
      GW_LOG(1, "*** Can't enforce launches on %s: %s", folder.c_str(), std::strerror(errno));
    }
  }
  return marked;
}

int LaunchEnforcer::onMountsChanged(sd_event_source*, int fd, uint32_t, void* self) {
  // Rewind so that the next change is reported again.
  char byte;
  ::lseek(fd, 0, SEEK_SET);
  (void)!::read(fd, &byte, 1);
  static_cast<LaunchEnforcer*>(self)->markMounts(programMounts());
  return 0;
}

int LaunchEnforcer::onReadable(sd_event_source*, int, uint32_t, void* self) {
  static_cast<LaunchEnforcer*>(self)->drain();
  return 0;
}

bool LaunchEnforcer::answer(int fd, bool allow) {
  fanotify_response response{fd, allow ? std::uint32_t(FAN_ALLOW) : std::uint32_t(FAN_DENY)};
  ++answered_;
  if (!allow) ++denied_;
  if (::write(fanotify_.get(), &response, sizeof response) == ssize_t(sizeof response)) {
    return true;
  }
  if (failuresLogged_++ < kMaxFailureLogs) {
    GW_LOG(0, "*** Could not answer an exec permission event: %s", std::strerror(errno));
  }
  return false;
}

void LaunchEnforcer::drain() {
  alignas(fanotify_event_metadata) char buffer[kEventBufferSize];
  for (;;) {
    ssize_t length = ::read(fanotify_.get(), buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return;  // EAGAIN: all answered
    auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer);
    for (; FAN_EVENT_OK(event, length); event = FAN_EVENT_NEXT(event, length)) {
      if (event->vers != FANOTIFY_METADATA_VERSION) {
        GW_LOG(0, "*** fanotify metadata version %d is not %d", int(event->vers),
               FANOTIFY_METADATA_VERSION);
        return;
      }
      if (event->fd < 0) continue;  // queue overflow: nothing to answer
      fs::UniqueFd file(event->fd);
      if (!(event->mask & FAN_OPEN_EXEC_PERM)) continue;
      bool allow = true;
      try {
        std::optional<uid_t> uid = realUidOf(event->pid);
        struct stat st {};
        if (uid && *uid != 0 && options_.decide && ::fstat(file.get(), &st) == 0 &&
            !(loader_ && loader_->first == st.st_dev && loader_->second == st.st_ino)) {
          ExecFile exec{file.get(), st.st_dev, st.st_ino,
                        std::int64_t(st.st_ctim.tv_sec) * 1'000'000'000 + st.st_ctim.tv_nsec};
          allow = options_.decide(*uid, event->pid, exec);
        }
      } catch (const std::exception& e) {
        GW_LOG_CAUGHT(e);
        allow = true;
      }
      answer(file.get(), allow);
    }
  }
}

std::vector<std::string> LaunchEnforcer::programMounts() {
  std::vector<std::string> mounts;
  std::ifstream info("/proc/self/mountinfo");
  std::string line;
  while (std::getline(info, line)) {
    // id parent major:minor root mountpoint options [optional fields...] - fstype source options
    std::istringstream fields(line);
    std::string id, parent, device, root, mountPoint, token;
    fields >> id >> parent >> device >> root >> mountPoint;
    while (fields >> token && token != "-") {
    }
    std::string fsType;
    fields >> fsType;
    if (mountPoint.empty() || fsType.empty() || kPseudoFileSystems.count(fsType)) continue;
    mounts.push_back(unescapeMountPath(mountPoint));
  }
  return mounts;
}

}  // namespace gw::daemon
