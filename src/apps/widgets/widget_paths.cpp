// Where widgets are installed, and the identifier that recognises one.
#include <gatewise/identity.h>
#include <gatewise/log.h>
#include <gatewise/widgets.h>
#include <stdlib.h>

#include <cstdlib>
#include <cstring>

#include "platform/fs/file_info.h"
#include "platform/fs/paths.h"
#include "platform/fs/root.h"
#include "platform/fs/tree_walk.h"

namespace {

constexpr std::string_view kWidgetSuffix = ".wdgt";
constexpr std::size_t kSHA1Offset = 8, kSHA1Size = 20;

// The user's library folder on this platform: the data folder that also holds their keychain.
std::optional<std::string> userLibraryFolder() {
  if (const char* xdg = ::secure_getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/')
    return std::string(xdg) + "/gatewise";
  return std::string("~/.local/share/gatewise");
}

void collectWidgets(const std::string& library, std::vector<std::string>& paths) {
  std::string folder = gw::fs::standardizedPath(library + "/Widgets");
  if (!gw::fs::isDirectory(folder)) return;
  gw::fs::walkFileTree(folder, gw::fs::WalkOptions{}, [&](const gw::fs::WalkEntry& entry) {
    if (entry.type == gw::fs::EntryType::Error) {
      GW_LOG(1, "*** Couldn't read %@: %s", std::string(entry.path), std::strerror(entry.error));
      return gw::fs::WalkAction::Continue;
    }
    if (entry.depth == 0 || entry.name.size() <= kWidgetSuffix.size() ||
        !entry.name.ends_with(kWidgetSuffix))
      return gw::fs::WalkAction::Continue;
    std::string relative(entry.path.substr(folder.size() + 1));
    paths.push_back(gw::fs::standardizedPath(folder + "/" + relative));
    return gw::fs::WalkAction::SkipContents;
  });
}

}  // namespace

std::vector<std::string> GWGetAllWidgetPaths() {
  std::vector<std::string> paths;
  paths.reserve(64);
  return gw::returningOnException(__func__, __LINE__, paths, [&] {
    collectWidgets(gw::fs::rootedPath("/Library"), paths);
    if (std::optional<std::string> user = userLibraryFolder()) collectWidgets(*user, paths);
    return paths;
  });
}

std::optional<gw::plist::Data> GWGetWidgetIDForPath(const std::optional<std::string>& path) {
  if (!path) return std::nullopt;
  static const char* const kExcluded[] = {"identity", nullptr};
  std::uint8_t* record = nullptr;
  std::uint32_t length = 0;
  std::int32_t status = IdentityCreateWithPath(path->c_str(), kExcluded, &record, &length);
  if (status != 0) {
    GW_LOG(0, "IdentityCreateWithPath failed with err %d", int(status));
    return std::nullopt;
  }
  if (record == nullptr || length == 0) {
    std::free(record);
    GW_LOG(0, "IdentityCreateWithPath returned empty buffer");
    return std::nullopt;
  }
  std::optional<gw::plist::Data> widgetID;
  if (length >= kSHA1Offset + kSHA1Size)
    widgetID = gw::plist::Data(record + kSHA1Offset, record + kSHA1Offset + kSHA1Size);
  std::free(record);
  return widgetID;
}
