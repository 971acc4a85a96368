// The toolkit's read-only entry points: what a file is, what it loads, what it is called, its
// checksums, and whether its prebinding is out of date.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gatewise/prebinding.h"
#include "identity/prebinding/arch_names.h"
#include "identity/prebinding/prebinding_state.h"

namespace gw::macho {
namespace {

// Sets up the state for a query and releases it (handing out the messages on failure) however
// the query ends.
class QueryScope {
 public:
  QueryScope(const char* programName, char** errorMessage) : errorMessage_(errorMessage) {
    reset_statics();
    if (errorMessage_ != nullptr) *errorMessage_ = nullptr;
    statics().progname = programName;
  }
  ~QueryScope() { release_statics(statics().errors != 0 ? errorMessage_ : nullptr); }
  QueryScope(const QueryScope&) = delete;
  QueryScope& operator=(const QueryScope&) = delete;

 private:
  char** errorMessage_;
};

bool readObjectFile(const char* path, OFile& ofile) {
  if (path == nullptr) {
    error("no file name given");
    return false;
  }
  std::string reason;
  if (!ofile_map(path, ofile, reason)) {
    error("%s", reason.c_str());
    return false;
  }
  if (!breakout(ofile, reason)) {
    error("%s: %s", path, reason.c_str());
    return false;
  }
  return true;
}

struct DylibReference {
  std::uint32_t cmd;
  std::string name;
  dylib_command command;
};

std::vector<DylibReference> dylibCommands(OFile& ofile, const ArchRecord& arch) {
  std::vector<DylibReference> found;
  auto image = imageBytes(ofile, arch);
  for (std::size_t at : arch.commands) {
    std::uint32_t cmd = load32(image.data() + at, arch.byteSex);
    if (cmd != LC_LOAD_DYLIB && cmd != LC_LOAD_WEAK_DYLIB && cmd != LC_REEXPORT_DYLIB &&
        cmd != LC_ID_DYLIB) {
      continue;
    }
    auto command = loadStruct<dylib_command>(image.data() + at, arch.byteSex);
    found.push_back({cmd, loadCommandString(image, at, command.cmdsize, command.name), command});
  }
  return found;
}

// Copies strings into one malloc'd block: a NULL-terminated pointer array, then the texts.
char** packStrings(const std::vector<std::string>& strings) {
  std::size_t size = (strings.size() + 1) * sizeof(char*);
  for (const std::string& s : strings) size += s.size() + 1;
  auto* block = static_cast<char**>(std::malloc(size));
  if (block == nullptr) return nullptr;
  char* text = reinterpret_cast<char*>(block + strings.size() + 1);
  for (std::size_t i = 0; i < strings.size(); ++i) {
    block[i] = text;
    std::memcpy(text, strings[i].c_str(), strings[i].size() + 1);
    text += strings[i].size() + 1;
  }
  block[strings.size()] = nullptr;
  return block;
}

std::string libraryPath(const std::string& name, const char* executablePath, const char* rootDir) {
  static const std::string kExecutablePath = "@executable_path/";
  if (executablePath != nullptr && name.rfind(kExecutablePath, 0) == 0) {
    std::string folder = executablePath;
    folder.erase(folder.rfind('/') == std::string::npos ? 0 : folder.rfind('/') + 1);
    return folder + name.substr(kExecutablePath.size());
  }
  return rootDir != nullptr ? std::string(rootDir) + name : name;
}

// The LC_ID_DYLIB timestamp of the library image that best matches a processor type.
std::optional<std::uint32_t> libraryTimestamp(const std::string& path, std::int32_t cputype) {
  OFile library;
  if (!readObjectFile(path.c_str(), library)) return std::nullopt;
  for (const ArchRecord& arch : library.archs) {
    if (!arch.isMachO || std::int32_t(arch.header.cputype) != cputype) continue;
    for (const DylibReference& dylib : dylibCommands(library, arch)) {
      if (dylib.cmd == LC_ID_DYLIB) return dylib.command.timestamp;
    }
  }
  error("library has no LC_ID_DYLIB command for the processor: %s", path.c_str());
  return std::nullopt;
}

}  // namespace
}  // namespace gw::macho

using namespace gw::macho;

int needs_redo_prebinding(const char* file_name, const char* executable_path, const char* root_dir,
                          const char* program_name, char** error_message) {
  QueryScope scope(program_name, error_message);
  OFile ofile;
  if (!readObjectFile(file_name, ofile)) return -1;
  bool sawPrebound = false;
  for (const ArchRecord& arch : ofile.archs) {
    if (!arch.isMachO || (arch.header.flags & MH_PREBOUND) == 0) continue;
    sawPrebound = true;
    for (const DylibReference& dylib : dylibCommands(ofile, arch)) {
      if (dylib.cmd == LC_ID_DYLIB) continue;
      auto stamp = libraryTimestamp(libraryPath(dylib.name, executable_path, root_dir),
                                    std::int32_t(arch.header.cputype));
      if (!stamp) return -1;
      if (*stamp != dylib.command.timestamp) return 1;
    }
  }
  return sawPrebound ? 0 : 2;
}

char** dependent_libs(const char* file_name, const char* program_name, char** error_message) {
  QueryScope scope(program_name, error_message);
  OFile ofile;
  if (!readObjectFile(file_name, ofile)) return nullptr;
  std::vector<std::string> names;
  for (const ArchRecord& arch : ofile.archs) {
    if (!arch.isMachO) continue;
    for (const DylibReference& dylib : dylibCommands(ofile, arch)) {
      if (dylib.cmd == LC_ID_DYLIB) continue;
      if (std::find(names.begin(), names.end(), dylib.name) == names.end()) {
        names.push_back(dylib.name);
      }
    }
  }
  char** result = packStrings(names);
  if (result == nullptr) error("virtual memory exhausted (malloc failed)");
  return result;
}

char* install_name(const char* file_name, const char* program_name, char** error_message) {
  QueryScope scope(program_name, error_message);
  OFile ofile;
  if (!readObjectFile(file_name, ofile)) return nullptr;
  for (const ArchRecord& arch : ofile.archs) {
    if (!arch.isMachO || arch.header.filetype != MH_DYLIB) continue;
    for (const DylibReference& dylib : dylibCommands(ofile, arch)) {
      if (dylib.cmd == LC_ID_DYLIB) return strdup(dylib.name.c_str());
    }
  }
  return nullptr;
}

int object_file_type(const char* file_name, const char* program_name, char** error_message) {
  QueryScope scope(program_name, error_message);
  OFile ofile;
  if (!readObjectFile(file_name, ofile)) return OFT_FILE_ERROR;
  if (ofile.kind == FileKind::Archive) return OFT_ARCHIVE;
  int type = -2;
  for (const ArchRecord& arch : ofile.archs) {
    int archType = OFT_OTHER;
    if (!arch.isMachO) {
      archType = OFT_ARCHIVE;  // an archive inside a fat file
    } else if (arch.header.filetype == MH_EXECUTE) {
      archType = OFT_EXECUTABLE;
    } else if (arch.header.filetype == MH_DYLIB) {
      archType = OFT_DYLIB;
    } else if (arch.header.filetype == MH_BUNDLE) {
      archType = OFT_BUNDLE;
    }
    if (type == -2) {
      type = archType;
    } else if (type != archType) {
      return OFT_INCONSISTENT;
    }
  }
  return type == -2 ? OFT_OTHER : type;
}

int get_prebind_cksums(const char* file_name, struct prebind_cksum_arch** cksums, uint64_t* ncksums,
                       const char* program_name, char** error_message) {
  QueryScope scope(program_name, error_message);
  if (cksums != nullptr) *cksums = nullptr;
  if (ncksums != nullptr) *ncksums = 0;
  if (cksums == nullptr || ncksums == nullptr) {
    error("no result given for the checksums");
    return 1;
  }
  OFile ofile;
  if (!readObjectFile(file_name, ofile)) return 1;
  std::vector<prebind_cksum_arch> found;
  for (const ArchRecord& arch : ofile.archs) {
    if (!arch.isMachO) continue;
    prebind_cksum_arch entry{std::int32_t(arch.header.cputype),
                             std::int32_t(arch.header.cpusubtype), 0, 0};
    auto image = imageBytes(ofile, arch);
    for (std::size_t at : arch.commands) {
      if (load32(image.data() + at, arch.byteSex) != LC_PREBIND_CKSUM) continue;
      entry.has_cksum = 1;
      entry.cksum = loadStruct<prebind_cksum_command>(image.data() + at, arch.byteSex).cksum;
    }
    found.push_back(entry);
  }
  auto* block = static_cast<prebind_cksum_arch*>(
      std::malloc(std::max<std::size_t>(1, found.size()) * sizeof(prebind_cksum_arch)));
  if (block == nullptr) {
    error("virtual memory exhausted (malloc failed)");
    return 1;
  }
  if (!found.empty()) std::memcpy(block, found.data(), found.size() * sizeof(prebind_cksum_arch));
  *cksums = block;
  *ncksums = found.size();
  return 0;
}

int GWMachOCopyArchInfo(const char* file_name, struct GWMachOArchInfo** infos, uint64_t* count,
                        char** error_message) {
  QueryScope scope(nullptr, error_message);
  if (infos != nullptr) *infos = nullptr;
  if (count != nullptr) *count = 0;
  if (infos == nullptr || count == nullptr) {
    error("no result given for the architectures");
    return 1;
  }
  OFile ofile;
  if (!readObjectFile(file_name, ofile)) return 1;
  std::vector<GWMachOArchInfo> found;
  for (const ArchRecord& arch : ofile.archs) {
    if (!arch.isMachO) continue;
    GWMachOArchInfo info{};
    info.cputype = std::int32_t(arch.header.cputype);
    info.cpusubtype = std::int32_t(arch.header.cpusubtype);
    info.filetype = arch.header.filetype;
    info.flags = arch.header.flags;
    info.is_64_bit = arch.is64;
    info.big_endian = arch.byteSex == ByteSex::Big;
    std::snprintf(info.arch_name, sizeof info.arch_name, "%s", arch.archName.c_str());
    std::snprintf(info.member_name, sizeof info.member_name, "%s", arch.memberName.c_str());
    found.push_back(info);
  }
  auto* block = static_cast<GWMachOArchInfo*>(
      std::malloc(std::max<std::size_t>(1, found.size()) * sizeof(GWMachOArchInfo)));
  if (block == nullptr) {
    error("virtual memory exhausted (malloc failed)");
    return 1;
  }
  if (!found.empty()) std::memcpy(block, found.data(), found.size() * sizeof(GWMachOArchInfo));
  *infos = block;
  *count = found.size();
  return 0;
}
