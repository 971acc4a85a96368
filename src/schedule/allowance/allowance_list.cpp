// The work-day and weekend allowances of a limit item's list, recognised by their first day.
#include <gatewise/schedule/allowance.h>
#include <gatewise/schedule/calendar.h>

#include <algorithm>

namespace gw::allowances {
namespace {

GWAllowanceRef firstStartingOn(const plist::ArrayRef& list, std::int32_t day) {
  if (!list) return nullptr;
  for (const plist::Value& entry : *list) {
    if (auto allowance = entry.ifObject<GWAllowance>(); allowance && allowance->fromDay() == day) {
      return allowance;
    }
  }
  return nullptr;
}

void setSeconds(plist::ArrayRef& list, bool weekend, std::int32_t seconds) {
  GWAllowanceRef allowance = weekend ? weekendAllowance(list) : weekdayAllowance(list);
  if (!allowance) {
    allowance = GWAllowance::allowance();
    if (!list) list = plist::Array::make();
    list->append(allowance);
  }
  allowance->setFromDay(weekend ? GWFirstWeekendDay() : GWFirstWeekday());
  allowance->setToDay(weekend ? GWLastWeekendDay() : GWLastWeekday());
  allowance->setTimeLimitSeconds(seconds);
  allowance->setSpan(0);
}

// Removes every occurrence of that very object; allowances compare by identity.
void removeObject(const plist::ArrayRef& list, const GWAllowanceRef& allowance) {
  if (!list || !allowance) return;
  std::erase_if(list->mutableItems(), [&](const plist::Value& entry) {
    return entry.ifObject<GWAllowance>() == allowance;
  });
}

}  // namespace

GWAllowanceRef weekdayAllowance(const plist::ArrayRef& list) {
  return firstStartingOn(list, GWFirstWeekday());
}

GWAllowanceRef weekendAllowance(const plist::ArrayRef& list) {
  return firstStartingOn(list, GWFirstWeekendDay());
}

void setWeekdayAllowanceSeconds(plist::ArrayRef& list, std::int32_t seconds) {
  setSeconds(list, false, seconds);
}

void setWeekendAllowanceSeconds(plist::ArrayRef& list, std::int32_t seconds) {
  setSeconds(list, true, seconds);
}

void removeWeekdayAllowance(const plist::ArrayRef& list) {
  removeObject(list, weekdayAllowance(list));
}

void removeWeekendAllowance(const plist::ArrayRef& list) {
  removeObject(list, weekendAllowance(list));
}

}  // namespace gw::allowances
