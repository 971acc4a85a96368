// Matching a user's language list against the localizations a bundle offers.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>

#include "platform/bundle/bundle.h"

namespace gw::bundle {
namespace {

// Old bundles name their localizations in English words; users name languages by code.
constexpr std::pair<std::string_view, std::string_view> kLegacyNames[] = {
    {"english", "en"},   {"german", "de"}, {"french", "fr"},   {"spanish", "es"},
    {"italian", "it"},   {"dutch", "nl"},  {"japanese", "ja"}, {"swedish", "sv"},
    {"norwegian", "nb"}, {"danish", "da"}, {"finnish", "fi"},  {"portuguese", "pt"},
    {"russian", "ru"},   {"polish", "pl"}, {"korean", "ko"},   {"chinese", "zh"},
};

// "en_US", "en-us", "English" -> "en-us", "en-us", "en".
std::string canonical(std::string_view name) {
  std::string out;
  for (char c : name) out += c == '_' ? '-' : char(std::tolower(static_cast<unsigned char>(c)));
  for (auto [legacy, code] : kLegacyNames) {
    if (out == legacy) return std::string(code);
  }
  return out;
}

std::string baseLanguage(const std::string& canonicalName) {
  return canonicalName.substr(0, canonicalName.find('-'));
}

}  // namespace

std::vector<std::string> preferredLocalizations(const std::vector<std::string>& available,
                                                const std::vector<std::string>& languages,
                                                std::string_view developmentRegion) {
  for (const std::string& language : languages) {
    std::string wanted = canonical(language);
    if (wanted.empty()) continue;
    std::vector<std::string> exact, sameBase;
    for (const std::string& localization : available) {
      std::string offered = canonical(localization);
      if (offered == wanted) {
        exact.push_back(localization);
      } else if (offered == baseLanguage(wanted) || baseLanguage(offered) == wanted) {
        sameBase.push_back(localization);
      }
    }
    if (!exact.empty() || !sameBase.empty()) {
      exact.insert(exact.end(), sameBase.begin(), sameBase.end());
      return exact;
    }
  }
  if (!developmentRegion.empty() &&
      std::find(available.begin(), available.end(), developmentRegion) != available.end()) {
    return {std::string(developmentRegion)};
  }
  return {};
}

std::vector<std::string> processLanguages() {
  std::vector<std::string> languages;
  auto add = [&](std::string_view locale) {
    locale = locale.substr(0, locale.find_first_of(".@"));
    if (locale.empty() || locale == "C" || locale == "POSIX") return;
    languages.emplace_back(locale);
  };
  if (const char* list = std::getenv("LANGUAGE"); list && *list) {
    std::string_view rest = list;
    while (!rest.empty()) {
      std::size_t colon = rest.find(':');
      add(rest.substr(0, colon));
      rest = colon == std::string_view::npos ? "" : rest.substr(colon + 1);
    }
    if (!languages.empty()) return languages;
  }
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (const char* value = std::getenv(name); value && *value) {
      add(value);
      break;
    }
  }
  return languages;
}

}  // namespace gw::bundle
