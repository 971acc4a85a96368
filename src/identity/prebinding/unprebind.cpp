// unprebind and redo_prebinding: the entry points that rewrite files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "gatewise/prebinding.h"
#include "identity/prebinding/prebinding_state.h"
#include "identity/prebinding/resource_fork.h"
#include "identity/prebinding/unprebind_arch.h"
#include "platform/fs/unique_fd.h"

namespace gw::macho {
namespace {

bool writeAll(int fd, const std::vector<std::uint8_t>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += std::size_t(n);
  }
  return true;
}

// Writes bytes to a new file named after `base` (base + ".XXXXXX") in base's folder, synced,
// with the given mode, and returns its name; the caller renames it into place. The file is
// created exclusively, so nothing planted under that name (a link to another file) is written
// through. Removes the file again on failure.
// With `owner`, the file takes that owner and group, set through the descriptor.
std::optional<std::string> writeNewFile(const std::string& base,
                                        const std::vector<std::uint8_t>& bytes, mode_t mode,
                                        const struct stat* owner = nullptr) {
  std::string path = base + ".XXXXXX";
  int fd;
  do {
    fd = ::mkostemp(path.data(), O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    system_error("can't create output file: %s", base.c_str());
    return std::nullopt;
  }
  fs::UniqueFd file(fd);
  if (::fchmod(fd, mode & 07777) != 0) {
    system_error("can't set permissions on file: %s", path.c_str());
    ::unlink(path.c_str());
    return std::nullopt;
  }
  struct stat created;
  if (owner != nullptr && ::fstat(fd, &created) == 0 &&
      (created.st_uid != owner->st_uid || created.st_gid != owner->st_gid) &&
      ::fchown(fd, owner->st_uid, owner->st_gid) != 0) {
    system_error("can't set owner and group on file: %s", path.c_str());
    ::unlink(path.c_str());
    return std::nullopt;
  }
  if (!writeAll(fd, bytes) || ::fsync(fd) != 0 || ::close(file.release()) != 0) {
    system_error("can't write output file: %s", path.c_str());
    ::unlink(path.c_str());
    return std::nullopt;
  }
  return path;
}

bool writeToMemory(const OFile& ofile, void** outputBuffer, std::uint64_t* outputSize) {
  void* memory = std::malloc(ofile.bytes.empty() ? 1 : ofile.bytes.size());
  if (memory == nullptr) {
    error("can't vm_allocate() buffer for output file: %s of size %lu",
          "(file written out to memory)", static_cast<unsigned long>(ofile.bytes.size()));
    return false;
  }
  if (!ofile.bytes.empty()) std::memcpy(memory, ofile.bytes.data(), ofile.bytes.size());
  *outputBuffer = memory;
  if (outputSize != nullptr) *outputSize = ofile.bytes.size();
  return true;
}

bool writeToFile(const OFile& ofile, const std::string& output, mode_t mode) {
  std::optional<std::string> written = writeNewFile(output + ".redo_prebinding", ofile.bytes, mode);
  if (!written) return false;
  const std::string& temporary = *written;
  if (::rename(temporary.c_str(), output.c_str()) != 0) {
    system_error("can't move temporary file: %s to output file: %s", temporary.c_str(),
                 output.c_str());
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

// Writes the temporary file beside the input and renames it over the input, with the input's
// mode, owner and group.
bool writeOverInput(const OFile& ofile, const std::string& input) {
  struct stat info;
  if (::stat(input.c_str(), &info) != 0) {
    system_error("can't stat input file: %s", input.c_str());
    return false;
  }
  std::optional<std::string> written =
      writeNewFile(input + ".redo_prebinding", ofile.bytes, info.st_mode, &info);
  if (!written) return false;
  const std::string& temporary = *written;
  bool ok = true;
  if (::rename(temporary.c_str(), input.c_str()) != 0) {
    error("can't move temporary file: %s to input file: %s\n", temporary.c_str(), input.c_str());
    ok = false;
  }
  if (!ok) ::unlink(temporary.c_str());
  return ok;
}

int unprebindFile(const char* inputFile, const char* outputFile, const void* inputBuffer,
                  std::uint64_t inputSize, void** outputBuffer, std::uint64_t* outputSize) {
  OFile ofile;
  std::string reason;
  if (inputBuffer != nullptr) {
    std::string name = inputFile != nullptr ? inputFile : "(from unprebind() call)";
    if (inputSize > kMaxObjectFileSize) {
      error("file too large: %s", name.c_str());
      return REDO_PREBINDING_FAILURE;
    }
    std::span<const std::uint8_t> bytes(static_cast<const std::uint8_t*>(inputBuffer),
                                        std::size_t(inputSize));
    if (!ofile_map_from_memory(bytes, name, ofile, reason)) {
      error("%s", reason.c_str());
      return REDO_PREBINDING_FAILURE;
    }
  } else if (inputFile == nullptr) {
    error("no input file given");
    return REDO_PREBINDING_FAILURE;
  } else if (!ofile_map(inputFile, ofile, reason)) {
    error("%s", reason.c_str());
    return REDO_PREBINDING_FAILURE;
  }
  if (!breakout(ofile, reason)) {
    error("%s: %s", ofile.name.c_str(), reason.c_str());
    return REDO_PREBINDING_FAILURE;
  }
  if (inputBuffer == nullptr && has_resource_fork(inputFile)) {
    error(
        "redoing the prebinding can't be done because file has a resource fork or "
        "type/creator: %s",
        inputFile);
    return REDO_PREBINDING_FAILURE;
  }
  for (const ArchRecord& arch : ofile.archs) {
    if (!archNeedsUnprebinding(ofile, arch)) continue;
    statics().seenArchNeeded = true;
    unprebindArch(ofile, arch);
  }
  if (statics().errors != 0) return REDO_PREBINDING_FAILURE;
  if (!statics().seenArchNeeded) return REDO_PREBINDING_NOT_NEEDED;
  bool written;
  if (outputBuffer != nullptr) {
    written = writeToMemory(ofile, outputBuffer, outputSize);
  } else if (outputFile != nullptr) {
    struct stat info;
    mode_t mode = inputFile != nullptr && inputBuffer == nullptr && ::stat(inputFile, &info) == 0
                      ? info.st_mode
                      : 0644;
    written = writeToFile(ofile, outputFile, mode);
  } else if (inputBuffer != nullptr) {
    error("no output file or buffer given for input from memory: %s", ofile.name.c_str());
    written = false;
  } else {
    written = writeOverInput(ofile, inputFile);
  }
  return written ? REDO_PREBINDING_SUCCESS : REDO_PREBINDING_FAILURE;
}

}  // namespace
}  // namespace gw::macho

using namespace gw::macho;

int unprebind(const char* input_file, const char* output_file, const char* program_name,
              char** error_message, int zero_out_prebind_checksum, const void* input_buffer,
              uint64_t input_size, void** output_buffer, uint64_t* output_size) {
  reset_statics();
  if (error_message != nullptr) *error_message = nullptr;
  if (output_buffer != nullptr) *output_buffer = nullptr;
  if (output_size != nullptr) *output_size = 0;
  PrebindingState& state = statics();
  state.progname = program_name;
  state.unprebinding = true;
  state.zeroOutPrebindChecksum = zero_out_prebind_checksum != 0;
  state.checkIfNeeded = true;
  int result;
  try {
    result = unprebindFile(input_file, output_file, input_buffer, input_size, output_buffer,
                           output_size);
  } catch (const FatalError&) {
    result = REDO_PREBINDING_FAILURE;
  } catch (const std::bad_alloc&) {
    error("virtual memory exhausted (malloc failed)");
    result = REDO_PREBINDING_FAILURE;
  }
  if (result == REDO_PREBINDING_FAILURE && output_buffer != nullptr && *output_buffer != nullptr) {
    std::free(*output_buffer);
    *output_buffer = nullptr;
    if (output_size != nullptr) *output_size = 0;
  }
  release_statics(result == REDO_PREBINDING_FAILURE ? error_message : nullptr);
  return result;
}

int redo_prebinding(char** error_message, const char* file_name, const char*, const char*,
                    const char*, const char* program_name, int, int) {
  reset_statics();
  if (error_message != nullptr) *error_message = nullptr;
  statics().progname = program_name;
  error("redoing prebinding is not supported: %s", file_name != nullptr ? file_name : "(null)");
  release_statics(error_message);
  return REDO_PREBINDING_FAILURE;
}
