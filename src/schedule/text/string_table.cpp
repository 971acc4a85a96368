// The schedule texts' string table. The English table is built in, so that the phrases exist even
// when the library's resources are not installed.
#include "schedule/text/string_table.h"

namespace gw::text {

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
  const StringTable& table = englishStrings();
  auto found = table.find(key);
  return found == table.end() ? std::string() : found->second;
}

}  // namespace gw::text
