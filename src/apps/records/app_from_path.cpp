// Building an application record from the program on disk: names, identifier, nested programs,
// signing and the designated requirement.
#include <gatewise/apps.h>
#include <gatewise/bundle_info.h>
#include <gatewise/format.h>
#include <gatewise/log.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <string_view>

#include "platform/apps/item_info.h"
#include "platform/bundle/bundle.h"
#include "platform/fs/file_info.h"

namespace gw {
namespace {

// Programs known to break when a signature is written into them: they check their own bytes.
constexpr std::array<std::string_view, 13> kIdentifiersCorruptedBySigning = {
    "com.skype.skype",          "com.blizzard.launcher",   "com.blizzard.downloader",
    "com.blizzard.Installer",   "com.blizzard.starcraft2", "com.blizzard.errorreporter",
    "com.blizzard.BNUpdate",    "com.blizzard.Patcher",    "com.blizzard.Starcraft",
    "com.blizzard.WarcraftIII", "com.blizzard.Diablo2",    "com.adobe.director.projector",
    "com.armygame.operations"};

// Creator codes of projector programs that carry their data appended to the executable.
constexpr std::array<std::uint32_t, 3> kCreatorCodesCorruptedBySigning = {0x504A3033, 0x504A3037,
                                                                          0x46503938};

std::mutex gKeychainLock;
GWKeychainRef gKeychainForCodesigning;

void logAs(const char* function, int level, const std::string& message) {
  if (logLevelEnabled(level)) writeLogLine(function, __LINE__, message);
}

bool IsExecutableThatGetsCorruptedByCodesigning(const std::string& executablePath,
                                                const std::optional<std::string>& bundleID) {
  bool corrupted = bundleID && std::find(kIdentifiersCorruptedBySigning.begin(),
                                         kIdentifiersCorruptedBySigning.end(),
                                         *bundleID) != kIdentifiersCorruptedBySigning.end();
  if (!corrupted) {
    std::optional<std::uint32_t> creator = iteminfo::fileCreatorCode(executablePath);
    corrupted = creator && std::find(kCreatorCodesCorruptedBySigning.begin(),
                                     kCreatorCodesCorruptedBySigning.end(),
                                     *creator) != kCreatorCodesCorruptedBySigning.end();
  }
  if (corrupted)
    logAs(__func__, 1, format("*** Found app incompatible with codesigning: %@", executablePath));
  return corrupted;
}

std::string lastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::optional<std::string> stringIn(const plist::DictionaryRef& info, std::string_view key) {
  if (!info) return std::nullopt;
  const std::string* text = info->get(key).ifString();
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

// Whether an embedded signature can be written into the program (always, unless signing).
bool compatibleWithEmbeddedSignature(const GWApp& app, const bundle::BundleRef& bundle,
                                     const std::string& path, bool creatingSignature) {
  if (!creatingSignature) return true;
  std::string executable = bundle ? bundle->executablePath() : std::string();
  if (executable.empty()) executable = path;
  GW_LOG(2, "Found executablePath: %@", executable);
  return !IsExecutableThatGetsCorruptedByCodesigning(executable, app.bundleID());
}

void addSubApps(GWApp& app, const std::string& path, bool creatingSignature) {
  std::vector<std::string> paths = GWGetAppPathsAtPath(path).value_or(std::vector<std::string>());
  GW_LOG(2, "Found %d sub apps", int(paths.size()));
  std::stable_sort(paths.begin(), paths.end(), [](const std::string& a, const std::string& b) {
    return ReversePathComponentCountSort(a, b, nullptr) < 0;
  });
  if (paths.empty()) return;
  auto records = plist::Array::make();
  for (const std::string& subPath : paths) {
    GW_LOG(2, "Creating new GWApp object for: %@", subPath);
    GWAppRef record = GWApp::initWithPath(subPath, false, creatingSignature, true);
    GW_LOG(2, "Created object: %p", static_cast<const void*>(record.get()));
    if (record) records->append(record);
  }
  app.setSubApps(records);
}

std::optional<plist::Data> sign(const std::string& path, bool compatible, bool detached) {
  GW_LOG(2, "GWApp: Creating app sig for %@", path);
  bool detachedPassFirst = !compatible || (detached && CodeSignWillGenerateDetachedSignature(path));
  if (!compatible && !detached) {
    GW_LOG(0,
           "*** Asked to create embedded sig for app not compatible with embedded sigs and no "
           "option to create detached sig. Signature will not be stored.");
    return std::nullopt;
  }
  std::optional<plist::Data> signature;
  if (!GWCreateAppSignature(path, GWApp::keychainForCodesigning(), detached ? &signature : nullptr,
                            detachedPassFirst))
    GW_LOG(1, "GWApp: GWCreateAppSignature failed (already signed?)");
  return signature;
}

}  // namespace

void GWApp::setKeychainForCodesigning(GWKeychainRef keychain) {
  std::lock_guard<std::mutex> hold(gKeychainLock);
  gKeychainForCodesigning = std::move(keychain);
}

GWKeychainRef GWApp::keychainForCodesigning() {
  std::lock_guard<std::mutex> hold(gKeychainLock);
  return gKeychainForCodesigning;
}

GWAppRef GWApp::initWithPath(const std::optional<std::string>& path, bool addingSubApps,
                             bool creatingSignature, bool detached) {
  return returningOnException(__func__, __LINE__, GWAppRef(), [&]() -> GWAppRef {
    GW_LOG(2, "path: %@\tfindSubApps: %d\tcreatingSignature: %d\tdetached: %d",
           path.value_or("(null)"), int(addingSubApps), int(creatingSignature), int(detached));
    if (!path || path->empty()) {
      GW_LOG(0, "*** Couldn't get url from path");
      return nullptr;
    }
    auto app = std::make_shared<GWApp>(plist::Dictionary::make());
    app->setPath(*path);
    bundle::BundleRef bundle = bundle::Bundle::open(*path);
    GW_LOG(2, "Found bundle: %p", static_cast<const void*>(bundle.get()));

    plist::DictionaryRef info = bundle ? bundle->infoDictionary() : nullptr;
    std::optional<std::string> name =
        stringIn(bundle ? bundle->localizedInfoDictionary() : nullptr, "CFBundleName");
    if (!name) name = stringIn(info, "CFBundleName");
    if (!name) name = lastComponent(*path);
    app->setDisplayName(name);
    GW_LOG(2, "Found bundleName: %@", *name);

    std::optional<std::string> bundleID = stringIn(info, "CFBundleIdentifier");
    if (!bundleID) bundleID = GWCopyBundleIDFudgingIfNecessary(*path, std::nullopt);
    GW_LOG(2, "Found bundleID: %@", bundleID.value_or("(null)"));
    app->setBundleID(bundleID);

    bool compatible = compatibleWithEmbeddedSignature(*app, bundle, *path, creatingSignature);
    if (addingSubApps) addSubApps(*app, *path, creatingSignature);
    if (creatingSignature) app->setDetachedSignature(sign(*path, compatible, detached));

    GW_LOG(2, "GWApp: Creating designated requirement for %@", *path);
    std::optional<plist::Data> requirement =
        GWCreateDesignatedRequirement(*path, std::nullopt, app->detachedSignature());
    GW_LOG(2, "Got code signature: %@", requirement ? plist::Value(*requirement) : plist::Value());
    app->setAppID(std::move(requirement));
    return app;
  });
}

bool GWApp::validateCodeSig(GWError* error) const {
  return returningOnException(__func__, __LINE__, false, [&] {
    std::optional<plist::Data> requirement = appID();
    if (!requirement) return true;
    std::optional<std::string> program = path();
    if (!program) {
      if (error) *error = GWError{kGWErrorDomain, -1, "Object has no path reference."};
      return true;
    }
    if (!fs::exists(*program)) {
      if (error)
        *error =
            GWError{kGWErrorDomain, -2, "Application is no longer located at its stored path."};
      return true;
    }
    return GWValidateSignedApplication(*program, detachedSignature(), requirement,
                                       kGWDoNotValidateResources);
  });
}

}  // namespace gw
