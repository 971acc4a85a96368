#include "support/plistlib.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

extern char** environ;

namespace gwtest {
namespace {

// Closes a descriptor when it goes out of scope.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

void appendHex(std::string& out, std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  for (unsigned char c : bytes) {
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
}

void appendCanonical(std::string& out, const gw::plist::Value& v) {
  using gw::plist::Type;
  char buf[48];
  switch (v.type()) {
    case Type::Boolean:
      out += v.boolean() ? "b:1" : "b:0";
      return;
    case Type::Integer: {
      auto n = v.integer();
      if (n.isBigUnsigned()) {
        std::snprintf(buf, sizeof buf, "i:%llu", static_cast<unsigned long long>(n.uint64()));
      } else {
        std::snprintf(buf, sizeof buf, "i:%lld", static_cast<long long>(n.int64()));
      }
      out += buf;
      return;
    }
    case Type::Real: {
      double d = v.real();
      std::uint64_t bits;
      std::memcpy(&bits, &d, sizeof bits);
      std::snprintf(buf, sizeof buf, "r:%016llx", static_cast<unsigned long long>(bits));
      out += buf;
      return;
    }
    case Type::String:
      out += "s:";
      appendHex(out, v.string());
      return;
    case Type::Data:
      out += "d:";
      appendHex(out,
                std::string_view(reinterpret_cast<const char*>(v.data().data()), v.data().size()));
      return;
    case Type::Date:
      std::snprintf(buf, sizeof buf, "t:%lld",
                    static_cast<long long>(std::floor(v.date().unixTime())));
      out += buf;
      return;
    case Type::UID:
      std::snprintf(buf, sizeof buf, "u:%llu", static_cast<unsigned long long>(v.uid().value));
      out += buf;
      return;
    case Type::Array: {
      out += "a[";
      bool first = true;
      for (const auto& item : *v.array()) {
        if (!first) out += ',';
        first = false;
        appendCanonical(out, item);
      }
      out += ']';
      return;
    }
    case Type::Dictionary: {
      out += '{';
      bool first = true;
      for (const auto& [key, item] : *v.dictionary()) {
        if (!first) out += ',';
        first = false;
        appendHex(out, key);
        out += ':';
        appendCanonical(out, item);
      }
      out += '}';
      return;
    }
    default:
      out += "?";
      return;
  }
}

}  // namespace

ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& input) {
  ProgramResult result;
  int in[2], out[2];
  if (::pipe2(in, O_CLOEXEC) != 0) return result;
  Fd inRead(in[0]), inWrite(in[1]);
  if (::pipe2(out, O_CLOEXEC) != 0) return result;
  Fd outRead(out[0]), outWrite(out[1]);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, inRead.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, outWrite.get(), STDOUT_FILENO);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  int rc = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  inRead.reset();
  outWrite.reset();
  if (rc != 0) return result;

  // A child that exits without reading all its input must not kill the test with SIGPIPE.
  struct sigaction ignore = {}, previous = {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &previous);
  std::size_t written = 0;
  if (input.empty()) inWrite.reset();
  char buf[65536];
  while (outRead.get() >= 0) {
    pollfd fds[2] = {{outRead.get(), POLLIN, 0}, {inWrite.get(), POLLOUT, 0}};
    int n = ::poll(fds, inWrite.get() >= 0 ? 2 : 1, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    if (inWrite.get() >= 0 && (fds[1].revents & (POLLOUT | POLLERR | POLLHUP))) {
      ssize_t w = ::write(inWrite.get(), input.data() + written, input.size() - written);
      if (w > 0) written += std::size_t(w);
      if (w < 0 || written == input.size()) inWrite.reset();
    }
    if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
      ssize_t r = ::read(outRead.get(), buf, sizeof buf);
      if (r > 0) {
        result.output.append(buf, std::size_t(r));
      } else if (r == 0 || errno != EINTR) {
        outRead.reset();
      }
    }
  }
  inWrite.reset();
  ::sigaction(SIGPIPE, &previous, nullptr);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

ProgramResult runPythonScript(const std::string& script, const std::vector<std::string>& args,
                              const std::string& input) {
  std::vector<std::string> argv = {GATEWISE_TEST_PYTHON3,
                                   std::string(GATEWISE_TEST_SOURCE_DIR) + "/support/" + script};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv, input);
}

std::string canonicalText(const gw::plist::Value& v) {
  std::string out;
  appendCanonical(out, v);
  return out;
}

}  // namespace gwtest
