// GWAllowance over its stored dictionary.
#include <gatewise/exception.h>
#include <gatewise/format.h>
#include <gatewise/schedule/allowance.h>
#include <gatewise/schedule/calendar.h>

#include "platform/time/local_time.h"

namespace gw {

GWAllowance::GWAllowance() : _dictionary(plist::Dictionary::make()) {}

GWAllowanceRef GWAllowance::init() { return std::make_shared<GWAllowance>(); }

GWAllowanceRef GWAllowance::initWithDictionary(const plist::DictionaryRef& dictionary) {
  if (!dictionary) return nullptr;
  return std::make_shared<GWAllowance>(plist::mutableCopy(plist::Value(dictionary)).dictionary());
}

GWAllowanceRef GWAllowance::initWithDictionary(const plist::Value& dictionary) {
  return dictionary.isDictionary() ? initWithDictionary(dictionary.dictionary()) : nullptr;
}

GWAllowanceRef GWAllowance::defaultAllowance() {
  GWAllowanceRef allowance = init();
  allowance->setFromDay(GWFirstWeekday());
  allowance->setToDay(GWLastWeekday());
  allowance->setSpan(0);
  allowance->setTimeLimitSeconds(7200);
  return allowance;
}

std::int32_t GWAllowance::number(const char* key) const {
  return std::int32_t(std::uint32_t(std::uint64_t(_dictionary->get(key).intValue())));
}

void GWAllowance::setNumber(const char* key, std::int32_t value) { _dictionary->set(key, value); }

bool GWAllowance::dayIsInEffect(std::int32_t day) const {
  std::int32_t from = fromDay(), to = toDay();
  if (from <= to) return from <= day && day <= to;
  // Wrapping spans: the test below can never hold, and that is the stored meaning.
  return day <= to && day >= from;
}

bool GWAllowance::dateIsInEffect(plist::Date date) const {
  return dayIsInEffect(GWReverseDayMapping[time::localComponents(date).weekday]);
}

GWEffectivity GWAllowance::effectivity() const {
  std::int32_t from = fromDay(), to = toDay();
  if (std::uint32_t(to) - std::uint32_t(from) == 6u) return GWEffectiveEveryDay;
  if (from == GWFirstWeekendDay() && to == GWLastWeekendDay()) return GWEffectiveWeekends;
  if (from == GWFirstWeekday() && to == GWLastWeekday()) return GWEffectiveWeekdays;
  if (from == to && from >= 0 && from <= 6) return GWEffectiveMonday + from;
  return GWEffectiveCustom;
}

void GWAllowance::setEffectivity(GWEffectivity effectivity) {
  switch (effectivity) {
    case GWEffectiveEveryDay:
      setFromDay(0);
      setToDay(6);
      return;
    case GWEffectiveWeekdays:
      setFromDay(GWFirstWeekday());
      setToDay(GWLastWeekday());
      return;
    case GWEffectiveWeekends:
      setFromDay(GWFirstWeekendDay());
      setToDay(GWLastWeekendDay());
      return;
    case GWEffectiveCustom:
      throw GWException("Illegal parameter",
                        "Parameter must not be GWEffectiveEveryDay, GWEffectiveWeekends, or "
                        "GWEffectiveWeekdays.");
    default:
      if (effectivity >= GWEffectiveMonday && effectivity <= GWEffectiveSunday) {
        setFromDay(effectivity - GWEffectiveMonday);
        setToDay(effectivity - GWEffectiveMonday);
      }
  }
}

std::string GWAllowance::description() const {
  return format("\n\t\tAllowance: %d seconds\n\t\tFrom: %d\n\t\tTo: %d\n\t\tSpan: %@\n",
                timeLimitSeconds(), fromDay(), toDay(), span() != 0 ? "Weekly" : "Daily");
}

}  // namespace gw
