// Names, identifiers and information dictionaries for programs, substituted where missing.
#include <gatewise/bundle_info.h>
#include <gatewise/log.h>

#include <filesystem>

#include "platform/apps/item_info.h"
#include "platform/bundle/bundle.h"
#include "platform/fs/file_url.h"

namespace {

using gw::plist::DictionaryRef;

// The path both forms stand for: the path when given, else the URL's.
std::optional<std::string> pathOf(const std::optional<std::string>& path,
                                  const std::optional<std::string>& url) {
  if (path) return path;
  if (url) return gw::fs::pathOfFileURL(*url);
  return std::nullopt;
}

std::string fileNameWithoutExtension(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return std::filesystem::path(path).filename().replace_extension().string();
}

// The bundle's information dictionary, else that of the bundle whose executable the file is.
DictionaryRef infoDictionaryOf(const std::string& path) {
  if (DictionaryRef info = gw::bundle::copyInfoDictionaryForPath(path)) return info;
  gw::bundle::BundleRef outer = gw::bundle::Bundle::openWithExecutableIfLooksLikeBundle(path);
  if (outer && !outer->infoDictionary()->empty()) return outer->infoDictionary();
  return nullptr;
}

std::optional<std::string> stringIn(const DictionaryRef& info, std::string_view key) {
  if (!info) return std::nullopt;
  const std::string* text = info->get(key).ifString();
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

// The creator code as text; empty when the file has none (always, on this platform).
std::string creatorCodeText(const std::string& path) {
  std::optional<std::uint32_t> code = gw::iteminfo::fileCreatorCode(path);
  return code ? GWGetStringFromOSType(*code) : std::string();
}

}  // namespace

std::optional<std::string> GWCopyBundleNameFudgingIfNecessary(
    const std::optional<std::string>& path, const std::optional<std::string>& url) {
  return gw::returningOnException(__func__, __LINE__, std::optional<std::string>(), [&] {
    std::optional<std::string> program = pathOf(path, url);
    if (!program) return std::optional<std::string>();
    if (auto name = stringIn(infoDictionaryOf(*program), "CFBundleName")) return name;
    GW_LOG(2, "Couldn't find bundle name for %@, using file name", *program);
    return std::optional<std::string>(fileNameWithoutExtension(*program));
  });
}

std::optional<std::string> GWCopyBundleIDFudgingIfNecessary(const std::optional<std::string>& path,
                                                            const std::optional<std::string>& url) {
  return gw::returningOnException(__func__, __LINE__, std::optional<std::string>(), [&] {
    std::optional<std::string> program = pathOf(path, url);
    if (!program) return std::optional<std::string>();
    if (DictionaryRef info = infoDictionaryOf(*program)) {
      if (auto identifier = stringIn(info, "CFBundleIdentifier")) return identifier;
      for (const char* key : {"CFBundleName", "CFBundleExecutable"}) {
        if (auto name = stringIn(info, key))
          return std::optional<std::string>("com.unknown." + *name);
      }
    } else if (std::string code = creatorCodeText(*program); !code.empty()) {
      return std::optional<std::string>("com.morvane.creatorcode." + code);
    }
    return std::optional<std::string>("com.unknown." + fileNameWithoutExtension(*program));
  });
}

DictionaryRef GWCopyInfoDictFudgingIfNecessary(const std::optional<std::string>& path,
                                               const std::optional<std::string>& url) {
  return gw::returningOnException(__func__, __LINE__, DictionaryRef(), [&]() -> DictionaryRef {
    std::optional<std::string> program = pathOf(path, url);
    if (!program) return nullptr;
    if (DictionaryRef info = infoDictionaryOf(*program))
      return gw::plist::mutableCopy(info).dictionary();
    std::string name = fileNameWithoutExtension(*program);
    std::string code = creatorCodeText(*program);
    auto fudged = gw::plist::Dictionary::make();
    fudged->set("CFBundleName", name);
    fudged->set("CFBundleIdentifier",
                code.empty() ? "com.morvane.unknown." + name : "com.morvane.creatorcode." + code);
    return fudged;
  });
}

std::string GWGetStringFromOSType(std::uint32_t code) {
  return {char(code >> 24), char(code >> 16), char(code >> 8), char(code)};
}

namespace gw {

std::optional<std::string> stringWithOSType(const std::uint8_t (&bytes)[4]) {
  if ((bytes[0] | bytes[1] | bytes[2] | bytes[3]) == 0) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(bytes), 4);
}

}  // namespace gw
