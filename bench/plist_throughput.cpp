// Parse and write throughput of the property-list codec on given files, and of libplist's parsers
// beside it when built with GATEWISE_BENCH_LIBPLIST.
//
// Usage: plist_throughput XML_FILE BINARY_FILE [REPEAT]
// Prints one line per measurement, "<implementation> <operation> <bytes> <best seconds>", where
// bytes is the size of the file of that encoding; plist_bench.sh turns them into MB/s and ratios.
// Everything runs from memory: reading the files is not timed.
#include <gatewise/plist.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "platform/fs/file_io.h"

#ifdef GATEWISE_BENCH_LIBPLIST
#include <plist/plist.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

// The best of repeat runs: the least disturbed by whatever else shares the machine.
double bestSeconds(int repeat, const std::function<void()>& run) {
  double best = 1e300;
  for (int i = 0; i < repeat; ++i) {
    auto start = Clock::now();
    run();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
  }
  return best;
}

void report(const char* who, const char* what, std::size_t bytes, double seconds) {
  std::printf("%s %s %zu %.6f\n", who, what, bytes, seconds);
  std::fflush(stdout);
}

[[noreturn]] void die(const std::string& message) {
  std::fprintf(stderr, "plist_throughput: %s\n", message.c_str());
  std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) die("usage: plist_throughput XML_FILE BINARY_FILE [REPEAT]");
  const int repeat = argc > 3 ? std::max(1, std::atoi(argv[3])) : 3;
  std::string error;
  std::optional<std::string> xml = gw::fs::readFile(argv[1], std::size_t(1) << 30, &error);
  if (!xml) die(error);
  std::optional<std::string> binary = gw::fs::readFile(argv[2], std::size_t(1) << 30, &error);
  if (!binary) die(error);

  struct Encoding {
    const char* name;
    const std::string& bytes;
    gw::plist::Format format;
  } encodings[] = {{"xml", *xml, gw::plist::Format::XML},
                   {"binary", *binary, gw::plist::Format::Binary}};

  for (const Encoding& e : encodings) {
    gw::plist::ReadResult parsed;
    double parse = bestSeconds(repeat, [&] { parsed = gw::plist::readPropertyList(e.bytes); });
    if (!parsed) die(std::string("cannot parse the ") + e.name + " file: " + parsed.error);
    report("gatewise", (std::string("parse-") + e.name).c_str(), e.bytes.size(), parse);

    std::optional<std::string> written;
    double write = bestSeconds(
        repeat, [&] { written = gw::plist::writePropertyList(*parsed.value, e.format, &error); });
    if (!written) die(std::string("cannot write ") + e.name + ": " + error);
    report("gatewise", (std::string("write-") + e.name).c_str(), e.bytes.size(), write);
  }

#ifdef GATEWISE_BENCH_LIBPLIST
  // Only libplist's parsers: its binary writer is far too slow on files of this size to be a
  // useful baseline.
  double xmlParse = bestSeconds(repeat, [&] {
    plist_t root = nullptr;
    plist_from_xml(xml->data(), uint32_t(xml->size()), &root);
    if (!root) die("libplist cannot parse the XML file");
    plist_free(root);
  });
  report("libplist", "parse-xml", xml->size(), xmlParse);
  double binaryParse = bestSeconds(repeat, [&] {
    plist_t root = nullptr;
    plist_from_bin(binary->data(), uint32_t(binary->size()), &root);
    if (!root) die("libplist cannot parse the binary file");
    plist_free(root);
  });
  report("libplist", "parse-binary", binary->size(), binaryParse);
#endif
  return 0;
}
