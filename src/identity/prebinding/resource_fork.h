// Resource forks on Linux, as unprebinding sees them.
//
// Linux file systems have no named forks. What stands for a file's resource fork and file
// information here is its "._" sidecar: the file "._<name>" beside it in the double-file format
// (RFC 1740: magic 0x00051607, version, 16 filler bytes, a 16-bit entry count at offset 24, then
// 12-byte entries of id, offset and length, all big-endian). Extended attributes are not
// consulted. Stateless; callable from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace gw::macho {

inline constexpr std::uint32_t kDoubleFileMagic = 0x00051607;
inline constexpr std::uint32_t kDoubleFileResourceForkId = 2;
inline constexpr std::uint32_t kDoubleFileInfoId = 9;

// "dir/._name" for "dir/name" (and "._name" for "name").
std::string sidecarPath(const std::string& path);

// Whether the file's sidecar holds a non-empty resource fork or a file type or creator code.
bool has_resource_fork(const char* path);

}  // namespace gw::macho
