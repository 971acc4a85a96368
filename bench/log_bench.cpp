// The cost of a log call that the threshold suppresses: it must stay about one integer compare,
// because trace messages sit in every hot path. A plain compare of a global runs beside it.
#include <benchmark/benchmark.h>
#include <gatewise/log.h>

namespace {

volatile std::int32_t gBaselineThreshold = 0;

void BM_IntegerCompareBaseline(benchmark::State& state) {
  std::int64_t written = 0;
  for (auto _ : state) {
    if (gBaselineThreshold >= 2) ++written;
    benchmark::DoNotOptimize(written);
  }
}
BENCHMARK(BM_IntegerCompareBaseline);

void BM_SuppressedLog(benchmark::State& state) {
  gGWFrameworkLoggingLevel = 0;
  gw::plist::Value user("kim");
  for (auto _ : state) {
    GW_LOG(2, "user: %@ found %d apps", user, 12);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_SuppressedLog);

// For scale: a line that is written (to a capture function, not to syslog).
void BM_WrittenLogToCapture(benchmark::State& state) {
  gGWFrameworkLoggingLevel = 2;
  gw::LogDestinations d;
  d.syslog = false;
  std::size_t bytes = 0;
  d.capture = [&](std::string_view line) { bytes += line.size(); };
  gw::setLogDestinations(d);
  gw::plist::Value user("kim");
  for (auto _ : state) GW_LOG(2, "user: %@ found %d apps", user, 12);
  benchmark::DoNotOptimize(bytes);
  gw::setLogDestinations({});
}
BENCHMARK(BM_WrittenLogToCapture);

}  // namespace

BENCHMARK_MAIN();
