// GWUserCanLogin against a daemon built on the server half, beside a raw baseline that does the
// same exchange with plain sockets: connect, 36-byte request, 44-byte reply, close.
//
// Prints the median and p99 latency of each, the ratio of the medians (goal: at most 1.3), and
// calls per second from 1 and 2 threads. A plain driver rather than Google Benchmark, because the
// percentiles need every call's time. Usage: ipc_bench [CALLS]
#include <gatewise/log.h>
#include <gatewise/login.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ipc/dispatcher.h"
#include "ipc/message_server.h"

namespace {

using Clock = std::chrono::steady_clock;

// The baseline: what any program would do with the daemon's socket and no library.
bool rawUserCanLogin(const sockaddr_un& address, std::int32_t* reason) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool ok = false;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    std::uint8_t request[40] = {36, 0, 0, 0};
    mach_msg_header_t h{0x1513, 36, 0x103, 0x40000003, 0, 5016};
    std::memcpy(request + 4, &h, sizeof h);
    const std::uint8_t ndr[8] = {0, 0, 0, 0, 1, 0, 0, 0};
    std::memcpy(request + 28, ndr, 8);
    std::uint32_t uid = 501;
    std::memcpy(request + 36, &uid, 4);
    std::uint8_t reply[48];
    std::size_t have = 0;
    if (::send(fd, request, sizeof request, MSG_NOSIGNAL) == sizeof request) {
      ssize_t n;
      while (have < sizeof reply && (n = ::read(fd, reply + have, sizeof reply - have)) > 0) {
        have += std::size_t(n);
      }
    }
    if (have == sizeof reply) {
      std::memcpy(reason, reply + 4 + 40, 4);
      ok = true;
    }
  }
  ::close(fd);
  return ok;
}

struct Stats {
  double median, p99;
};

Stats measure(std::size_t calls, const std::function<void()>& call) {
  std::vector<double> micros(calls);
  for (std::size_t i = 0; i < calls; ++i) {
    auto start = Clock::now();
    call();
    micros[i] = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
  }
  std::sort(micros.begin(), micros.end());
  return {micros[calls / 2], micros[std::min(calls - 1, calls * 99 / 100)]};
}

double callsPerSecond(int threads, const std::function<void()>& call) {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> total{0};
  std::vector<std::thread> workers;
  auto start = Clock::now();
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&] {
      std::uint64_t n = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        call();
        ++n;
      }
      total += n;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  stop = true;
  for (auto& w : workers) w.join();
  return double(total) / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t calls = argc > 1 ? std::size_t(std::atoll(argv[1])) : 20000;
  char folder[] = "/tmp/gatewise-bench-XXXXXX";
  if (!::mkdtemp(folder)) return 1;
  ::setenv("GATEWISE_BOOTSTRAP_DIR", folder, 1);
  gGWFrameworkLoggingLevel = 0;

  gw::ipc::Dispatcher dispatcher(gw::ipc::Service::Daemon);
  dispatcher.handle("_GWMIGUserCanLogin", [](const gw::ipc::Request&) {
    gw::ipc::Reply reply;
    reply.scalars = {900, 2};
    return reply;
  });
  std::string error;
  auto server = gw::ipc::MessageServer::listen(
      gw::ipc::serviceSocketPathFor(gw::ipc::Service::Daemon), dispatcher, &error);
  if (!server) {
    std::fprintf(stderr, "ipc_bench: %s\n", error.c_str());
    return 1;
  }
  std::thread serving([&] { server->run(); });
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, server->path().c_str(), sizeof address.sun_path - 1);

  std::int32_t reason = 0;
  gw::plist::Date date;
  std::atomic<int> failures{0};
  auto library = [&] {
    std::int32_t r = 0;
    GWUserCanLogin(501, &r, &date);
    if (r != 2) ++failures;
  };
  auto raw = [&] { rawUserCanLogin(address, &reason); };
  measure(calls / 10, library);  // warm up both paths
  measure(calls / 10, raw);
  // Alternate halves so that drift in machine load hits both sides alike.
  Stats rawStats = measure(calls / 2, raw);
  Stats libraryStats = measure(calls / 2, library);
  Stats rawStats2 = measure(calls / 2, raw);
  Stats libraryStats2 = measure(calls / 2, library);
  rawStats = {(rawStats.median + rawStats2.median) / 2, std::max(rawStats.p99, rawStats2.p99)};
  libraryStats = {(libraryStats.median + libraryStats2.median) / 2,
                  std::max(libraryStats.p99, libraryStats2.p99)};
  if (reason != 2) {
    std::fprintf(stderr, "ipc_bench: unexpected reason %d\n", reason);
    return 1;
  }

  std::printf("%-22s %12s %12s %14s %14s\n", "exchange", "median (us)", "p99 (us)", "calls/s 1 thr",
              "calls/s 2 thr");
  std::printf("%-22s %12.1f %12.1f %14.0f %14.0f\n", "raw sockets", rawStats.median, rawStats.p99,
              callsPerSecond(1, raw), callsPerSecond(2, raw));
  std::printf("%-22s %12.1f %12.1f %14.0f %14.0f\n", "GWUserCanLogin", libraryStats.median,
              libraryStats.p99, callsPerSecond(1, library), callsPerSecond(2, library));
  if (failures) std::printf("failed library calls: %d\n", failures.load());
  double ratio = libraryStats.median / rawStats.median;
  std::printf("ratio (median, library / raw): %.2f  (goal <= 1.30: %s)\n", ratio,
              ratio <= 1.3 ? "met" : "NOT met");

  server->stop();
  serving.join();
  server.reset();
  std::filesystem::remove_all(folder);
  return 0;
}
