#include "platform/fs/file_url.h"

namespace gw::fs {
namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string pathOfFileURL(std::string_view url) {
  if (!url.starts_with("file://")) return std::string(url);
  url.remove_prefix(7);
  if (url.starts_with("localhost/")) url.remove_prefix(9);
  std::string path;
  for (std::size_t i = 0; i < url.size(); ++i) {
    if (url[i] == '%' && i + 2 < url.size() && hexDigit(url[i + 1]) >= 0 &&
        hexDigit(url[i + 2]) >= 0) {
      path += char(hexDigit(url[i + 1]) * 16 + hexDigit(url[i + 2]));
      i += 2;
    } else {
      path += url[i];
    }
  }
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace gw::fs
