#include "platform/bundle/library_resources.h"

#include <dlfcn.h>

#include <cstdlib>

#include "platform/fs/file_info.h"

#ifndef GATEWISE_RESOURCE_DIR
#define GATEWISE_RESOURCE_DIR "/usr/share/gatewise"
#endif

namespace gw::bundle {
namespace {

std::string parentOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The installed library lives in <prefix>/lib or <prefix>/lib/<multiarch>; its data directory is
// <prefix>/share/gatewise. Looking from the library's own file keeps a relocated install working.
std::string folderBesideInstalledLibrary() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&libraryResourceFolder), &info) == 0 || !info.dli_fname) {
    return {};
  }
  std::string libraryFolder = parentOf(info.dli_fname);
  for (const char* up : {"/../share/gatewise", "/../../share/gatewise"}) {
    std::string candidate = libraryFolder + up;
    if (fs::isDirectory(candidate)) return candidate;
  }
  return {};
}

}  // namespace

std::string libraryResourceFolder() {
  if (const char* env = ::secure_getenv("GATEWISE_RESOURCE_DIR"); env && *env) return env;
  static const std::string beside = folderBesideInstalledLibrary();
  if (!beside.empty()) return beside;
  return GATEWISE_RESOURCE_DIR;
}

std::string libraryResourcePath(std::string_view name, std::string_view type,
                                const std::vector<std::string>& preferredLanguages) {
  std::string folder = libraryResourceFolder();
  std::vector<std::string> languages = preferredLanguages;
  languages.insert(languages.end(), {"English", "en"});
  for (const std::string& language : languages) {
    if (language.empty() || language.find('/') != std::string::npos || language == "..") continue;
    std::string path = folder + "/" + language + ".lproj/" + std::string(name);
    if (!type.empty()) path += "." + std::string(type);
    if (fs::isRegularFile(path)) return path;
  }
  return {};
}

}  // namespace gw::bundle
