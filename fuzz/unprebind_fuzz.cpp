// unprebind from memory on arbitrary bytes: every input ends in 0, 1 or 2, with no crash or leak.
#include <gatewise/prebinding.h>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  void* output = nullptr;
  std::uint64_t outputSize = 0;
  char* message = nullptr;
  int result = unprebind(nullptr, nullptr, "fuzz", &message, 1, data, size, &output, &outputSize);
  if (result < 0 || result > 2) std::abort();
  if ((result == 0) != (output != nullptr)) std::abort();
  if (result == 0 && outputSize != size) std::abort();  // unprebinding never resizes a file
  std::free(output);
  std::free(message);
  return 0;
}
