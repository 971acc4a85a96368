// tutelad under load: login decisions per second and p50/p99 latency from 1 and 64 concurrent
// clients, against tutelad serving 100 managed users, beside a raw-socket server that answers the
// same request with a fixed reply under the same load; tutelad's resident memory with those users;
// and its wake-ups per minute with nobody logged in (voluntary context switches over an idle
// window). Both servers are asked by the same raw client: connect, 36-byte request, 44-byte reply,
// close. Everything happens in a temporary system root; users come from nss_wrapper.
//
// Usage: daemon_bench [REQUESTS_PER_CLIENT] [IDLE_SECONDS]   (defaults 2000 and 20)
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kUsers = 100;
constexpr std::uint32_t kFirstUid = 5001;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  return a;
}

// One _GWMIGUserCanLogin exchange as any program could do it; false on any failure.
bool ask(const sockaddr_un& address, std::uint32_t uid) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool ok = false;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    std::uint8_t request[40] = {36, 0, 0, 0};
    const std::uint32_t header[6] = {0x1513, 36, 0x103, 0x40000003, 0, 5016};
    std::memcpy(request + 4, header, sizeof header);
    const std::uint8_t ndr[8] = {0, 0, 0, 0, 1, 0, 0, 0};
    std::memcpy(request + 28, ndr, 8);
    std::memcpy(request + 36, &uid, 4);
    std::uint8_t reply[48];
    std::size_t have = 0;
    if (::send(fd, request, sizeof request, MSG_NOSIGNAL) == sizeof request) {
      ssize_t n;
      while (have < sizeof reply && (n = ::read(fd, reply + have, sizeof reply - have)) > 0) {
        have += std::size_t(n);
      }
    }
    ok = have == sizeof reply;
  }
  ::close(fd);
  return ok;
}

// The baseline: accept, read the request, write a fixed reply, close. One thread.
void rawServer(int listener, std::atomic<bool>* stop) {
  std::uint8_t reply[48] = {44, 0, 0, 0};
  const std::uint32_t words[11] = {0x12, 44, 0x40000003, 0, 0, 5116, 0, 1, 0, 0, 0};
  std::memcpy(reply + 4, words, sizeof words);
  while (!*stop) {
    int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::uint8_t request[40];
    std::size_t have = 0;
    ssize_t n;
    while (have < sizeof request && (n = ::read(fd, request + have, sizeof request - have)) > 0) {
      have += std::size_t(n);
    }
    if (have == sizeof request) [[maybe_unused]]
      auto w = ::send(fd, reply, sizeof reply, MSG_NOSIGNAL);
    ::close(fd);
  }
}

struct Load {
  double perSecond = 0;
  double p50 = 0, p99 = 0;  // microseconds
  int failures = 0;
};

Load runLoad(const std::string& socket, int clients, int requests) {
  sockaddr_un address = addressOf(socket);
  std::vector<std::vector<double>> latencies(static_cast<std::size_t>(clients));
  std::atomic<int> failures{0};
  auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      auto& mine = latencies[std::size_t(c)];
      mine.reserve(std::size_t(requests));
      for (int i = 0; i < requests; ++i) {
        auto t0 = Clock::now();
        if (!ask(address, kFirstUid + std::uint32_t((c * requests + i) % kUsers))) ++failures;
        mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
      }
    });
  }
  for (auto& t : threads) t.join();
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<double> all;
  for (auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
  std::sort(all.begin(), all.end());
  Load load;
  load.perSecond = double(all.size()) / seconds;
  load.p50 = all[all.size() / 2];
  load.p99 = all[std::min(all.size() - 1, all.size() * 99 / 100)];
  load.failures = failures;
  return load;
}

long statusField(pid_t pid, const char* field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::strlen(field));
  }
  return -1;
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

const char* verdict(bool met) { return met ? "MET" : "NOT MET"; }

}  // namespace

int main(int argc, char** argv) {
  int requests = argc > 1 ? std::atoi(argv[1]) : 2000;
  int idleSeconds = argc > 2 ? std::atoi(argv[2]) : 20;
  if (requests < 1 || idleSeconds < 1) {
    std::fprintf(stderr, "usage: daemon_bench [REQUESTS_PER_CLIENT] [IDLE_SECONDS] (both >= 1)\n");
    return 2;
  }
  std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  std::string tutelad = (self.parent_path().parent_path() / "bin" / "tutelad").string();
  std::string nssWrapper;
  for (const char* candidate : {"/usr/lib/x86_64-linux-gnu/libnss_wrapper.so",
                                "/usr/lib/aarch64-linux-gnu/libnss_wrapper.so"}) {
    if (::access(candidate, R_OK) == 0) nssWrapper = candidate;
  }
  if (::access(tutelad.c_str(), X_OK) != 0 || nssWrapper.empty()) {
    std::printf("daemon_bench: skipped (needs %s and libnss_wrapper)\n", tutelad.c_str());
    return 0;
  }
  char pattern[] = "/tmp/gatewise-daemon-bench-XXXXXX";
  std::filesystem::path root = ::mkdtemp(pattern);

  // 100 managed users: half with a curfew every evening, half with an allowance every day.
  std::string passwd = "root:x:0:0:root:/root:/bin/sh\n", group = "root:x:0:\n";
  for (int i = 0; i < kUsers; ++i) {
    std::string name = "kid" + std::to_string(i);
    std::uint32_t uid = kFirstUid + std::uint32_t(i);
    passwd += name + ":x:" + std::to_string(uid) + ":" + std::to_string(uid) + "::/:/bin/sh\n";
    group += name + ":x:" + std::to_string(uid) + ":\n";
    std::string item =
        i % 2 ? "<key>allowancesActive</key><true/><key>allowances</key><array><dict>"
                "<key>timeLimitSeconds</key><integer>7200</integer><key>fromDay</key><integer>0"
                "</integer><key>toDay</key><integer>6</integer></dict></array>"
              : "<key>curfews</key><dict>" +
                    [] {
                      std::string days;
                      for (const char* d : {"sunday", "monday", "tuesday", "wednesday", "thursday",
                                            "friday", "saturday"}) {
                        days += std::string("<key>") + d +
                                "</key><array><dict><key>start</key><string>21:00:00</string>"
                                "<key>end</key><string>23:59:59</string></dict></array>";
                      }
                      return days;
                    }() +
                    "</dict>";
    writeFile(root / "Library/Managed Preferences" / name / "com.morvane.gatewise.timelimits.plist",
              "<plist><dict><key>limits-list</key><array><dict><key>itemType</key><string>"
              "com.morvane.gatewise.timelimits.computer</string><key>enabled</key><true/>" +
                  item + "</dict></array></dict></plist>");
  }
  writeFile(root / "etc/passwd", passwd);
  writeFile(root / "etc/group", group);
  std::filesystem::create_directories(root / "run");

  pid_t daemon = ::fork();
  if (daemon == 0) {
    ::setenv("LD_PRELOAD", nssWrapper.c_str(), 1);
    ::setenv("NSS_WRAPPER_PASSWD", (root / "etc/passwd").c_str(), 1);
    ::setenv("NSS_WRAPPER_GROUP", (root / "etc/group").c_str(), 1);
    ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + (root / "no-bus").string()).c_str(), 1);
    ::execl(tutelad.c_str(), tutelad.c_str(), "--root", root.c_str(), nullptr);
    ::_exit(127);
  }
  std::string socket = (root / "run/gatewise/bootstrap/com.morvane.gatewise").string();
  for (int i = 0; i < 200 && !std::filesystem::exists(socket); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }

  std::string rawSocket = (root / "raw.sock").string();
  int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un rawAddress = addressOf(rawSocket);
  ::bind(listener, reinterpret_cast<sockaddr*>(&rawAddress), sizeof rawAddress);
  ::listen(listener, SOMAXCONN);
  std::atomic<bool> stop{false};
  std::thread raw(rawServer, listener, &stop);

  // The two servers take turns, round after round, and each round gives its own ratios: on a
  // machine whose load drifts, a ratio of neighbouring runs means something, one of two long runs
  // apart does not. The medians are reported.
  constexpr int kRounds = 7;
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  std::printf("%-34s %12s %10s %10s   (medians of %d alternating rounds)\n", "", "requests/s",
              "p50 us", "p99 us", kRounds);
  bool allMet = true;
  for (int clients : {1, 64}) {
    int each = std::max(1, (clients == 1 ? requests : std::max(50, requests / 8)) / kRounds);
    std::vector<double> baseRate, baseP50, baseP99, ourRate, ourP50, ourP99, rateRatio, p99Ratio;
    int failures = 0;
    for (int round = 0; round < kRounds; ++round) {
      Load base = runLoad(rawSocket, clients, each);
      Load ours = runLoad(socket, clients, each);
      baseRate.push_back(base.perSecond);
      baseP50.push_back(base.p50);
      baseP99.push_back(base.p99);
      ourRate.push_back(ours.perSecond);
      ourP50.push_back(ours.p50);
      ourP99.push_back(ours.p99);
      rateRatio.push_back(ours.perSecond / base.perSecond);
      p99Ratio.push_back(ours.p99 / base.p99);
      failures += ours.failures;
    }
    std::printf("%-34s %12.0f %10.1f %10.1f\n",
                ("raw server, " + std::to_string(clients) + " clients").c_str(), median(baseRate),
                median(baseP50), median(baseP99));
    std::printf("%-34s %12.0f %10.1f %10.1f%s\n",
                ("tutelad, " + std::to_string(clients) + " clients").c_str(), median(ourRate),
                median(ourP50), median(ourP99),
                failures ? (" (" + std::to_string(failures) + " failed)").c_str() : "");
    double rate = median(rateRatio), p99 = median(p99Ratio);
    bool throughput = rate >= 0.8 && failures == 0;
    bool latency = p99 <= 1.5;
    allMet = allMet && throughput && latency;
    std::printf("  throughput %.2fx raw (goal >= 0.8x): %s; p99 %.2fx raw (goal <= 1.5x): %s\n",
                rate, verdict(throughput), p99, verdict(latency));
  }
  stop = true;
  ask(rawAddress, 0);  // wakes the accept
  raw.join();
  ::close(listener);

  long rssKiB = statusField(daemon, "VmRSS:");
  std::printf("tutelad resident memory with %d users: %.1f MB (goal < 16 MB): %s\n", kUsers,
              double(rssKiB) / 1024, verdict(rssKiB > 0 && rssKiB < 16 * 1024));
  long before = statusField(daemon, "voluntary_ctxt_switches:");
  std::this_thread::sleep_for(std::chrono::seconds(idleSeconds));
  long after = statusField(daemon, "voluntary_ctxt_switches:");
  double perMinute = double(after - before) * 60.0 / idleSeconds;
  std::printf("tutelad wake-ups with nobody logged in: %.1f a minute over %d s (goal <= 2): %s\n",
              perMinute, idleSeconds, verdict(perMinute <= 2));
  allMet = allMet && rssKiB < 16 * 1024 && perMinute <= 2;

  ::kill(daemon, SIGTERM);
  ::waitpid(daemon, nullptr, 0);
  std::filesystem::remove_all(root);
  std::printf("daemon_bench: %s\n", allMet ? "all goals met" : "some goals not met");
  return 0;
}
