// GWStatusItem: the texts an item composes from its kinds, names and dates.
#include <gatewise/format.h>
#include <gatewise/schedule/text.h>
#include <gatewise/status.h>

#include <array>
#include <cmath>
#include <limits>

#include "login/status_item_coding.h"

namespace gw {
namespace {

// Archives hold items from the moment the library is loaded.
const bool kCoderRegistered = (registerStatusItemCoder(), true);

// The daemon makes warnings a few seconds off whole minutes; within three seconds of one to five
// minutes the whole minute is shown.
constexpr std::array<double, 5> kSnappedMinutes = {60, 120, 180, 240, 300};
constexpr double kSnapWindow = 3;

constexpr std::string_view kWarningTemplate = "Only %@ remains for the %@ \"%@\".";
constexpr std::string_view kCouldNotQuitTemplate =
    "The application %@ did not quit. You have 60 seconds to save your work before the "
    "application will be forced to quit.";

// The termination alerts, in the order title and message test them.
struct TerminationText {
  std::string_view statusKind, title, messageTemplate;
};
constexpr std::array<TerminationText, 3> kTerminationTexts = {{
    {kGWStatusKindAllowanceExceeded, "Application Allowance Expired",
     "Your time with the %@ \"%@\" has expired. \"%@\" will now quit."},
    {kGWStatusKindCurfewUnallowed, "Application Curfew Encountered",
     "The %@ \"%@\" is not allowed at this time. \"%@\" will now quit."},
    {kGWStatusKindBlacklisted, "Application Not Allowed",
     "The %@ \"%@\" is not allowed. \"%@\" will now quit."},
}};

std::int32_t truncatedToInt32(double seconds) {
  if (std::isnan(seconds)) return 0;
  if (seconds >= double(std::numeric_limits<std::int32_t>::max()))
    return std::numeric_limits<std::int32_t>::max();
  if (seconds <= double(std::numeric_limits<std::int32_t>::min()))
    return std::numeric_limits<std::int32_t>::min();
  return std::int32_t(seconds);
}

}  // namespace

GWStatusItem::~GWStatusItem() {
  if (_timer) _timer->invalidate();
}

GWStatusItemRef GWStatusItem::initWithName(std::string itemName, std::string itemKind,
                                           plist::Date expirationDate) {
  (void)kCoderRegistered;
  auto item = std::make_shared<GWStatusItem>();
  item->_itemName = std::move(itemName);
  item->_itemKind = std::move(itemKind);
  item->_expirationDate = expirationDate;
  return item;
}

double GWStatusItem::timeFromCreation() const {
  if (!_itemCreationDate) return 0;
  double t =
      _expirationDate.secondsSinceReferenceDate - _itemCreationDate->secondsSinceReferenceDate;
  for (double minute : kSnappedMinutes) {
    if (t > minute - kSnapWindow && t < minute + kSnapWindow) return minute;
  }
  return t;
}

double GWStatusItem::timeRemaining() const {
  return _expirationDate.secondsSinceReferenceDate - plist::Date::now().secondsSinceReferenceDate;
}

bool GWStatusItem::isWarning() const {
  return !_statusKind || *_statusKind == kGWStatusKindTerminationWarning;
}

bool GWStatusItem::isTerminationAlert() const {
  if (!_statusKind) return false;
  for (const TerminationText& t : kTerminationTexts) {
    if (*_statusKind == t.statusKind) return true;
  }
  return false;
}

bool GWStatusItem::isCouldNotQuitAlert() const {
  return _statusKind && *_statusKind == kGWStatusKindCouldNotQuit;
}

std::string GWStatusItem::itemKindDisplayString() const {
  if (_itemKind == kGWItemKindProgram) return "application";
  if (_itemKind == kGWItemKindComputer) return "computer";
  if (_itemKind == kGWItemKindGroup) return "group";
  return "unknown";
}

std::string GWStatusItem::title() const {
  if (isWarning()) return "Warning";
  for (const TerminationText& t : kTerminationTexts) {
    if (*_statusKind == t.statusKind) return std::string(t.title);
  }
  if (isCouldNotQuitAlert()) return "Application Did Not Quit";
  return "Unknown";
}

std::optional<std::string> GWStatusItem::message() const {
  if (isWarning()) {
    std::string duration =
        GWUtilities::timeDurationStringForSeconds(truncatedToInt32(timeFromCreation()));
    return format(kWarningTemplate, duration, itemKindDisplayString(), _itemName);
  }
  for (const TerminationText& t : kTerminationTexts) {
    if (*_statusKind == t.statusKind)
      return format(t.messageTemplate, itemKindDisplayString(), _itemName, _itemName);
  }
  if (isCouldNotQuitAlert()) return format(kCouldNotQuitTemplate, _itemName);
  return std::nullopt;
}

std::string GWStatusItem::messageForTTS() const {
  std::optional<std::string> text = message();
  if (isCouldNotQuitAlert()) return text.value_or("");
  return text ? format("%@, %@", title(), *text) : format("%@, %@", title(), nullptr);
}

void GWStatusItem::stopTimer() {
  if (_timer) _timer->invalidate();
  setTimer(nullptr);
}

std::string GWStatusItem::description() const {
  std::string generic = format("<GWStatusItem: %p>", static_cast<const void*>(this));
  return format("%@ - %@ - %@", generic, _itemName, _itemID.value_or(""));
}

}  // namespace gw
