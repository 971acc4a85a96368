#include "platform/fs/root.h"

#include <cstdlib>

namespace gw::fs {

std::string systemRoot() {
  const char* env = ::secure_getenv("GATEWISE_ROOT");
  std::string root = env && *env ? env : "/";
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  return root;
}

std::string rootedPath(std::string_view absolutePath) {
  std::string root = systemRoot();
  if (root == "/") return std::string(absolutePath);
  std::string path = root;
  if (absolutePath.empty() || absolutePath.front() != '/') path += '/';
  path += absolutePath;
  return path;
}

bool isSafeName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

}  // namespace gw::fs
