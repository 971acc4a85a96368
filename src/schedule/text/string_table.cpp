// The schedule texts' string table: "Localizable.strings" of the library's resources, in the
// language of the week-data locale when it has one, else English. The English table is also built
// in, so that the phrases exist when the resources are not installed or cannot be read.
#include "schedule/text/string_table.h"

#include <gatewise/log.h>
#include <gatewise/schedule/calendar.h>
#include <unicode/uloc.h>

#include <map>
#include <memory>
#include <mutex>
#include <type_traits>

#include "platform/bundle/library_resources.h"
#include "platform/bundle/strings_file.h"

static_assert(std::is_same_v<gw::bundle::StringsTable, gw::text::StringTable>);

namespace gw::text {
namespace {

std::string languageOf(const std::string& localeID) {
  char language[ULOC_LANG_CAPACITY] = {};
  UErrorCode status = U_ZERO_ERROR;
  uloc_getLanguage(localeID.c_str(), language, sizeof language, &status);
  return U_SUCCESS(status) ? std::string(language) : std::string();
}

// The table for the current locale's language; tables are read once per file.
std::shared_ptr<const StringTable> currentTable() {
  static std::mutex mutex;
  static std::map<std::string, std::shared_ptr<const StringTable>> tablesByPath;
  std::string path =
      bundle::libraryResourcePath("Localizable", "strings", {languageOf(weekDataLocale())});
  std::lock_guard<std::mutex> lock(mutex);
  auto cached = tablesByPath.find(path);
  if (cached != tablesByPath.end()) return cached->second;
  std::shared_ptr<const StringTable> table;
  if (!path.empty()) {
    std::string error;
    if (std::optional<bundle::StringsTable> read = bundle::readStringsFile(path, &error)) {
      table = std::make_shared<const StringTable>(std::move(*read));
    } else {
      GW_LOG(0, "*** Couldn't read the string table %@: %@", path, error);
    }
  }
  if (!table) table = std::make_shared<const StringTable>(englishStrings());
  tablesByPath.emplace(path, table);
  return table;
}

}  // namespace

const StringTable& englishStrings() {
  static const StringTable table = {
      {"TIME_MINUTE_ZERO", "0 minutes"},      {"TIME_SECOND_ZERO", "less than a second"},
      {"TIME_DAY_SINGULAR", "%d day"},        {"TIME_DAY_PLURAL", "%d days"},
      {"TIME_HOUR_SINGULAR", "%d hour"},      {"TIME_HOUR_PLURAL", "%d hours"},
      {"TIME_MINUTE_SINGULAR", "%d minute"},  {"TIME_MINUTE_PLURAL", "%d minutes"},
      {"TIME_SECOND_SINGULAR", "%d second"},  {"TIME_SECOND_PLURAL", "%d seconds"},
      {"TIME_FORMAT_2", "%@ and %@"},         {"TIME_FORMAT_3", "%@, %@ and %@"},
      {"TIME_FORMAT_4", "%@, %@, %@ and %@"},
  };
  return table;
}

std::string localizedString(std::string_view key) {
  std::shared_ptr<const StringTable> table = currentTable();
  auto found = table->find(key);
  return found == table->end() ? std::string() : found->second;
}

}  // namespace gw::text
