// Fixtures shared by the application tests: environment variables set for one test, bundle
// folders, and program headers (Mach-O and ELF) written byte by byte from the published formats.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "support/temp_root.h"

namespace appstest {

using Bytes = std::vector<std::uint8_t>;

// Sets (or with nullopt unsets) an environment variable until the end of the scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = std::getenv(name)) previous_ = old;
    if (value)
      ::setenv(name, value->c_str(), 1);
    else
      ::unsetenv(name);
  }
  ~ScopedEnv() {
    if (previous_)
      ::setenv(name_, previous_->c_str(), 1);
    else
      ::unsetenv(name_);
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> previous_;
};

inline std::string bytesText(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// Writes a file below the root with the given mode; returns its full path.
inline std::string writeProgram(const gwtest::TempRoot& root, const std::string& path,
                                const Bytes& bytes, mode_t mode = 0755) {
  std::string full = root.writeFile(path, bytesText(bytes));
  ::chmod(full.c_str(), mode);
  return full;
}

// An information dictionary with the given string keys.
inline std::string infoPlist(const std::vector<std::pair<std::string, std::string>>& keys) {
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>";
  for (const auto& [key, value] : keys)
    xml += "<key>" + key + "</key><string>" + value + "</string>";
  return xml + "</dict></plist>\n";
}

// A 28-byte Mach-O header: magic, cpu type, subtype, file type, 0 commands, 0 bytes, flags 0.
inline Bytes machHeader(std::uint32_t fileType, bool bigEndian = true, bool is64 = false) {
  std::uint32_t words[7] = {is64 ? 0xFEEDFACFu : 0xFEEDFACEu, 18, 0, fileType, 0, 0, 0};
  Bytes bytes;
  for (std::uint32_t word : words)
    for (int i = 0; i < 4; ++i)
      bytes.push_back(std::uint8_t(bigEndian ? word >> (24 - 8 * i) : word >> (8 * i)));
  return bytes;
}

// A fat file of the given slices, each at a 4096-byte boundary.
inline Bytes fatFile(const std::vector<Bytes>& slices) {
  Bytes bytes;
  auto put32 = [&](std::uint32_t word) {
    for (int i = 0; i < 4; ++i) bytes.push_back(std::uint8_t(word >> (24 - 8 * i)));
  };
  put32(0xCAFEBABE);
  put32(std::uint32_t(slices.size()));
  std::uint32_t offset = 4096;
  for (const Bytes& slice : slices) {
    put32(18), put32(0), put32(offset), put32(std::uint32_t(slice.size())), put32(12);
    offset += 4096;
  }
  for (const Bytes& slice : slices) {
    bytes.resize(((bytes.size() + 4095) / 4096) * 4096, 0);
    bytes.insert(bytes.end(), slice.begin(), slice.end());
  }
  return bytes;
}

struct ElfOptions {
  std::uint16_t type;                   // 2 ET_EXEC, 3 ET_DYN
  bool interpreter;                     // a PT_INTERP segment
  std::optional<std::uint64_t> flags1;  // a PT_DYNAMIC segment holding DT_FLAGS_1 = this
  bool is64;
  bool bigEndian;
};

// A minimal ELF file: header, program headers, and the dynamic section when asked for.
inline Bytes elfImage(std::uint16_t type, bool interpreter = false,
                      std::optional<std::uint64_t> flags1 = std::nullopt, bool is64 = true,
                      bool bigEndian = false) {
  const ElfOptions o{type, interpreter, flags1, is64, bigEndian};
  const std::size_t word = o.is64 ? 8 : 4;
  const std::size_t headerSize = o.is64 ? 64 : 52, phSize = o.is64 ? 56 : 32;
  std::vector<std::uint32_t> segments;
  if (o.interpreter) segments.push_back(3);
  if (o.flags1) segments.push_back(2);
  const std::size_t dynamicOffset = headerSize + phSize * segments.size();
  const std::size_t dynamicSize = 2 * (2 * word);  // DT_FLAGS_1, DT_NULL
  Bytes bytes(dynamicOffset + (o.flags1 ? dynamicSize : 0), 0);
  auto put = [&](std::size_t at, std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i)
      bytes[at + i] = std::uint8_t(value >> (8 * (o.bigEndian ? width - 1 - i : i)));
  };
  bytes[0] = 0x7F, bytes[1] = 'E', bytes[2] = 'L', bytes[3] = 'F';
  bytes[4] = o.is64 ? 2 : 1;
  bytes[5] = o.bigEndian ? 2 : 1;
  bytes[6] = 1;
  put(16, o.type, 2);
  put(18, 62, 2);                             // machine
  put(20, 1, 4);                              // version
  put(o.is64 ? 32 : 28, headerSize, word);    // e_phoff
  put(o.is64 ? 52 : 40, headerSize, 2);       // e_ehsize
  put(o.is64 ? 54 : 42, phSize, 2);           // e_phentsize
  put(o.is64 ? 56 : 44, segments.size(), 2);  // e_phnum
  for (std::size_t i = 0; i < segments.size(); ++i) {
    std::size_t at = headerSize + i * phSize;
    put(at, segments[i], 4);
    if (segments[i] == 2) {
      put(at + (o.is64 ? 8 : 4), dynamicOffset, word);  // p_offset
      put(at + (o.is64 ? 32 : 16), dynamicSize, word);  // p_filesz
    }
  }
  if (o.flags1) {
    put(dynamicOffset, 0x6FFFFFFB, word);
    put(dynamicOffset + word, *o.flags1, word);
  }
  return bytes;
}

}  // namespace appstest
