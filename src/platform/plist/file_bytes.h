// Reads a property-list file into one buffer of its exact size.
//
// A parse needs the whole file in memory; reading it must not need more. The buffer is sized from
// fstat and filled by read(2) without first being zeroed, and the end of the file is confirmed
// with a read into a few bytes on the stack, so a file costs its own size and nothing more. (A
// mapping would avoid even that copy, but a file truncated by another process while mapped kills
// the reader with SIGBUS, and root-run readers open files that users can write.) A file that
// grows while it is read is refused. Same opening rules as fs::readFile: regular files only,
// O_NONBLOCK so a FIFO cannot block the open. Every descriptor is closed on every path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace gw::plist {

struct FileBytes {
  std::unique_ptr<std::uint8_t[]> bytes;
  std::size_t size = 0;
};

// False with a one-line *error ("cannot open PATH: reason", "file too large: PATH: ...").
bool readFileBytes(const std::string& path, std::size_t maxSize, FileBytes& out,
                   std::string& error);

}  // namespace gw::plist
