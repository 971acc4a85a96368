// gatewise-test-daemon: the test daemon as a program, for the demo and shell tests.
//
//   gatewise-test-daemon [--webfilter] [--answer ROUTINE=N[,N...]] [--data ROUTINE=TEXT|@PATH]
//                        [--error ROUTINE=CODE] [--misbehave ROUTINE=KIND[:MS]] ...
//
// Serves "<bootstrap folder>/<service name>" (GATEWISE_BOOTSTRAP_DIR, else below GATEWISE_ROOT),
// prints "listening on PATH" once ready and runs until SIGINT or SIGTERM. KIND is one of delay,
// close, wrong-id, wrong-size, complex-bit, swapped-ndr. Data replies read from a file with
// @PATH serve, for example, a keyed archive of status items:
// --data _GWMIGGetStatusItems=@items.archive (see `gatewise status-items archive`).
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "support/test_daemon.h"

namespace {

int usage(const std::string& message) {
  std::fprintf(stderr, "gatewise-test-daemon: %s\n", message.c_str());
  return 2;
}

std::vector<std::int32_t> numbers(const std::string& list) {
  std::vector<std::int32_t> out;
  std::size_t at = 0;
  while (at <= list.size()) {
    std::size_t comma = list.find(',', at);
    if (comma == std::string::npos) comma = list.size();
    out.push_back(std::int32_t(std::strtol(list.substr(at, comma - at).c_str(), nullptr, 0)));
    at = comma + 1;
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  gw::ipc::Service service = gw::ipc::Service::Daemon;
  struct Setting {
    std::string option, routine, value;
  };
  std::vector<Setting> settings;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--webfilter") {
      service = gw::ipc::Service::WebFilter;
      continue;
    }
    if (i + 1 >= argc) return usage("missing value after " + arg);
    std::string value = argv[++i];
    std::size_t equals = value.find('=');
    if (equals == std::string::npos) return usage("expected ROUTINE=VALUE, got " + value);
    std::string routine = value.substr(0, equals);
    if (!gw::ipc::routineNamed(routine)) return usage("no routine named " + routine);
    settings.push_back({arg, routine, value.substr(equals + 1)});
  }

  // Signals are taken by sigwait below, so the serving thread must not receive them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  try {
    gwtest::TestDaemon daemon(service);
    static const std::map<std::string, gwtest::Misbehaviour> kKinds = {
        {"delay", gwtest::Misbehaviour::Delay},
        {"close", gwtest::Misbehaviour::CloseWithoutReply},
        {"wrong-id", gwtest::Misbehaviour::WrongId},
        {"wrong-size", gwtest::Misbehaviour::WrongSize},
        {"complex-bit", gwtest::Misbehaviour::ComplexBit},
        {"swapped-ndr", gwtest::Misbehaviour::SwappedNdr}};
    for (const Setting& s : settings) {
      if (s.option == "--answer") {
        daemon.answer(s.routine, numbers(s.value));
      } else if (s.option == "--error") {
        daemon.answerError(s.routine, numbers(s.value).at(0));
      } else if (s.option == "--data") {
        std::string bytes = s.value;
        if (!bytes.empty() && bytes[0] == '@') {
          std::ifstream in(bytes.substr(1), std::ios::binary);
          if (!in) return usage("cannot read " + bytes.substr(1));
          bytes.assign(std::istreambuf_iterator<char>(in), {});
        }
        daemon.answerData(s.routine, std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
      } else if (s.option == "--misbehave") {
        std::size_t colon = s.value.find(':');
        auto kind = kKinds.find(s.value.substr(0, colon));
        if (kind == kKinds.end()) return usage("unknown misbehaviour " + s.value);
        long ms =
            colon == std::string::npos ? 0 : std::strtol(s.value.c_str() + colon + 1, nullptr, 10);
        daemon.misbehave(s.routine, kind->second, std::chrono::milliseconds(ms));
      } else {
        return usage("unknown option " + s.option);
      }
    }
    std::printf("listening on %s\n", daemon.socketPath().c_str());
    std::fflush(stdout);
    int received = 0;
    sigwait(&signals, &received);
  } catch (const std::exception& e) {
    return usage(e.what());
  }
  return 0;
}
