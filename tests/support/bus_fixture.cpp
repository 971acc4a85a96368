#include "support/bus_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "support/temp_root.h"

extern char** environ;

namespace gwtest {
namespace {

// Anyone may send and receive anything: the tests exercise the library, not bus policy.
std::string configFor(const std::string& socket) {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig>\n"
         "  <listen>unix:path=" +
         socket +
         "</listen>\n"
         "  <auth>EXTERNAL</auth>\n"
         "  <policy context=\"default\">\n"
         "    <allow user=\"*\"/>\n"
         "    <allow own=\"*\"/>\n"
         "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
         "    <allow eavesdrop=\"true\"/>\n"
         "  </policy>\n"
         "</busconfig>\n";
}

}  // namespace

PrivateBus::PrivateBus() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/gatewise-bus-XXXXXX";
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  folder_ = pattern;
  std::string config = folder_ + "/bus.conf";
  std::ofstream(config) << configFor(folder_ + "/system_bus_socket");

  int addressPipe[2];
  if (::pipe(addressPipe) != 0) throw std::runtime_error("pipe failed");
  std::string configArg = "--config-file=" + config;
  std::string printArg = "--print-address=" + std::to_string(addressPipe[1]);
  const char* argv[] = {"/usr/bin/dbus-daemon", configArg.c_str(), "--nofork",
                        "--nopidfile",          printArg.c_str(),  nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclose(&actions, addressPipe[0]);
  int r = ::posix_spawn(&pid_, argv[0], &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(addressPipe[1]);
  if (r != 0) {
    ::close(addressPipe[0]);
    pid_ = -1;
    throw std::runtime_error("cannot start dbus-daemon");
  }
  // The daemon prints its address once it listens.
  std::string line;
  pollfd p{addressPipe[0], POLLIN, 0};
  while (line.find('\n') == std::string::npos && ::poll(&p, 1, 10000) > 0) {
    char chunk[512];
    ssize_t n = ::read(addressPipe[0], chunk, sizeof chunk);
    if (n <= 0) break;
    line.append(chunk, std::size_t(n));
  }
  ::close(addressPipe[0]);
  if (line.find('\n') == std::string::npos) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    removeTree(folder_);
    throw std::runtime_error("dbus-daemon gave no address");
  }
  address_ = line.substr(0, line.find('\n'));
  if (const char* previous = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) previousAddress_ = previous;
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  if (previousAddress_) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", previousAddress_->c_str(), 1);
  } else {
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  }
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    int status;
    ::waitpid(pid_, &status, 0);
  }
  removeTree(folder_);
}

PrivateBus& sharedPrivateBus() {
  static PrivateBus bus;
  return bus;
}

}  // namespace gwtest
