// gatewise identity / unprebind / macho info: executable identity and the Mach-O toolkit.
#include <gatewise/identity.h>
#include <gatewise/prebinding.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"

namespace {

constexpr std::uint32_t kPrebound = 0x10;

// Frees a malloc'd result of the library when it goes out of scope.
template <class T>
struct Freed {
  T* pointer = nullptr;
  ~Freed() { std::free(pointer); }
};

int identityCommand(const std::string& path, const std::vector<std::string>& excludes) {
  // The library gives a missing path the identity of an empty walk; a shell user is told instead.
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0) {
    return gwcli::fail("cannot read " + path + ": " + std::strerror(errno));
  }
  std::vector<const char*> excluded;
  for (const std::string& e : excludes) excluded.push_back(e.c_str());
  excluded.push_back(nullptr);
  Freed<std::uint8_t> record;
  std::uint32_t length = 0;
  std::int32_t status = IdentityCreateWithPath(
      path.c_str(), excludes.empty() ? nullptr : excluded.data(), &record.pointer, &length);
  if (status != 0)
    return gwcli::fail("identity of " + path + " failed: status " + std::to_string(status));
  for (std::uint32_t i = 0; i < length; ++i) std::printf("%02x", record.pointer[i]);
  std::printf("\n");
  return gwcli::kExitYes;
}

int unprebindCommand(const std::string& input, const std::string& output) {
  Freed<char> message;
  int result = unprebind(input.c_str(), output.c_str(), "gatewise unprebind", &message.pointer, 1,
                         nullptr, 0, nullptr, nullptr);
  if (result == REDO_PREBINDING_FAILURE && message.pointer != nullptr) {
    std::fputs(message.pointer, stderr);
  } else if (result == REDO_PREBINDING_NOT_NEEDED) {
    std::fprintf(stderr, "gatewise unprebind: %s is not prebound; nothing written\n",
                 input.c_str());
  }
  return result;
}

const char* fileTypeName(std::uint32_t type) {
  switch (type) {
    case 1:
      return "object";
    case 2:
      return "executable";
    case 6:
      return "dynamic library";
    case 7:
      return "dynamic linker";
    case 8:
      return "bundle";
    default:
      return "other";
  }
}

int machoInfoCommand(const std::string& path) {
  Freed<char> message;
  Freed<GWMachOArchInfo> infos;
  std::uint64_t count = 0;
  if (GWMachOCopyArchInfo(path.c_str(), &infos.pointer, &count, &message.pointer) != 0) {
    std::string text = message.pointer != nullptr ? message.pointer : "not a Mach-O file";
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return gwcli::fail(text);
  }
  static const char* const kKinds[] = {"other",  "executable", "dynamic library",
                                       "bundle", "archive",    "inconsistent"};
  int kind = object_file_type(path.c_str(), nullptr, nullptr);
  std::printf("file: %s\n", path.c_str());
  std::printf("type: %s\n", kind >= 0 && kind <= 5 ? kKinds[kind] : "unreadable");
  for (std::uint64_t i = 0; i < count; ++i) {
    const GWMachOArchInfo& info = infos.pointer[i];
    std::string processor =
        info.arch_name[0] != '\0' ? info.arch_name : "cputype " + std::to_string(info.cputype);
    std::printf("architecture: %s%s%s (%s, %s-bit) %s, %s\n", processor.c_str(),
                info.member_name[0] != '\0' ? " in member " : "", info.member_name,
                info.big_endian ? "big-endian" : "little-endian", info.is_64_bit ? "64" : "32",
                fileTypeName(info.filetype),
                (info.flags & kPrebound) ? "prebound" : "not prebound");
  }
  Freed<char> name;
  name.pointer = install_name(path.c_str(), nullptr, nullptr);
  std::printf("install name: %s\n", name.pointer != nullptr ? name.pointer : "(none)");
  Freed<char*> libraries;
  libraries.pointer = dependent_libs(path.c_str(), nullptr, nullptr);
  std::printf("dependent libraries:%s\n",
              libraries.pointer == nullptr || libraries.pointer[0] == nullptr ? " (none)" : "");
  for (char** library = libraries.pointer; library != nullptr && *library != nullptr; ++library) {
    std::printf("  %s\n", *library);
  }
  return gwcli::kExitYes;
}

void registerIdentityCommands(CLI::App& app, gwcli::Context& context) {
  auto path = std::make_shared<std::string>();
  auto excludes = std::make_shared<std::vector<std::string>>();
  CLI::App* identity =
      app.add_subcommand("identity", "Print the identity record of a file or bundle folder (hex)");
  identity->add_option("PATH", *path, "File or folder")->required();
  identity->add_option("--exclude", *excludes, "Path relative to PATH whose own entry is left out");
  identity->callback([&context, path, excludes] {
    context.run = [path, excludes] { return identityCommand(*path, *excludes); };
  });

  auto input = std::make_shared<std::string>();
  auto output = std::make_shared<std::string>();
  CLI::App* unprebindApp = app.add_subcommand(
      "unprebind",
      "Write the unprebound form of a Mach-O file (exit 0 written, 1 failed, 2 not prebound)");
  unprebindApp->add_option("IN", *input, "Mach-O, fat or archive file")->required();
  unprebindApp->add_option("OUT", *output, "Where to write the result")->required();
  unprebindApp->callback([&context, input, output] {
    context.run = [input, output] { return unprebindCommand(*input, *output); };
  });

  auto file = std::make_shared<std::string>();
  CLI::App* macho = app.add_subcommand("macho", "Inspect Mach-O files");
  macho->require_subcommand(1);
  CLI::App* info = macho->add_subcommand(
      "info", "File type, processor, prebinding, install name and dependent libraries");
  info->add_option("FILE", *file, "Mach-O, fat or archive file")->required();
  info->callback([&context, file] { context.run = [file] { return machoInfoCommand(*file); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerIdentityCommands);
