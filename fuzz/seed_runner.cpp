// A main for a fuzz target built without libFuzzer: feeds it the empty input and then every file
// named on the command line (folders: every file directly inside, in name order), exactly as
// libFuzzer replays a corpus. The test suite builds each target this way and runs it on its seeds,
// so every target keeps compiling and its seeds keep passing without a clang build.
#include <dirent.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/fs/file_io.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

constexpr std::size_t kMaxSeedSize = 16 << 20;

std::vector<std::string> filesOf(const std::string& path) {
  std::vector<std::string> files;
  DIR* folder = ::opendir(path.c_str());
  if (folder == nullptr) return {path};
  while (dirent* entry = ::readdir(folder)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") files.push_back(path + "/" + name);
  }
  ::closedir(folder);
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(""), 0);
  int ran = 1;
  for (int i = 1; i < argc; ++i) {
    for (const std::string& file : filesOf(argv[i])) {
      std::string error;
      std::optional<std::string> bytes = gw::fs::readFile(file, kMaxSeedSize, &error);
      if (!bytes) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
      }
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size());
      ++ran;
    }
  }
  std::printf("%d input(s) ran\n", ran);
  return 0;
}
