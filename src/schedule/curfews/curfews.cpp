// GWCurfews: the dictionary of day ranges, single-day editing, the property-list form and the
// date queries. The whole-week editing lives in week_curfews.cpp.
#include <gatewise/format.h>
#include <gatewise/schedule/calendar.h>
#include <gatewise/schedule/curfews.h>

#include <algorithm>

#include "platform/time/local_time.h"
#include "schedule/curfews/curfew_search.h"

namespace gw {
namespace {

constexpr std::int32_t kDaysInWeek = 7;

// D advanced by `days` calendar days and by the seconds from T to t, on the wall clock.
plist::Date advance(plist::Date date, int days, const GWTime& now, const GWTime& target) {
  std::int32_t interval = now.timeIntervalSinceTime(target);
  if (days == 0 && interval == 0) return date;
  return time::atTimeOfDay(date, days, std::int64_t(now.seconds()) + interval);
}

}  // namespace

GWCurfews::GWCurfews() : _dictionary(plist::Dictionary::make()) {}

GWCurfewsRef GWCurfews::init() { return std::make_shared<GWCurfews>(); }

GWCurfewsRef GWCurfews::initWithDictionary(const plist::DictionaryRef& dictionary) {
  if (!dictionary || !plist::isValidPropertyList(plist::Value(dictionary), plist::Format::XML)) {
    return nullptr;
  }
  GWCurfewsRef curfews = init();
  for (const auto& [day, stored] : *dictionary) {
    plist::ArrayRef ranges = plist::Array::make();
    if (const plist::Array* entries = stored.ifArray()) {
      for (const plist::Value& entry : *entries) {
        if (GWTimeRangeRef range = GWTimeRange::timeRangeWithDictionary(entry)) {
          ranges->append(range);
        }
      }
    }
    curfews->_dictionary->set(day, ranges);
  }
  return curfews;
}

GWCurfewsRef GWCurfews::curfews() {
  GWCurfewsRef curfews = init();
  curfews->_prep();
  return curfews;
}

GWCurfewsRef GWCurfews::curfewsWithDictionary(const plist::Value& value) {
  if (!value.isDictionary()) return nullptr;
  return initWithDictionary(value.dictionary());
}

plist::DictionaryRef GWCurfews::plistRepresentation() const {
  plist::DictionaryRef form = plist::Dictionary::make();
  for (const auto& [day, ranges] : *_dictionary) {
    plist::ArrayRef stored = plist::Array::make();
    if (const plist::Array* entries = ranges.ifArray()) {
      for (const plist::Value& entry : *entries) {
        if (auto range = entry.ifObject<GWTimeRange>())
          stored->append(range->plistRepresentation());
      }
    }
    form->set(day, stored);
  }
  return form;
}

std::string GWCurfews::description() const {
  std::string text;
  for (std::int32_t day = 0; day < kDaysInWeek; ++day) {
    const char* key = keyStringForDayIndex(day);
    text += format("%@: %@", key, _dictionary->get(key));
  }
  return text;
}

const char* GWCurfews::keyStringForDayIndex(std::int32_t day) { return dayKeyForStandardDay(day); }

std::int32_t GWCurfews::dayIndexForKeyString(std::string_view key) {
  for (std::int32_t day = 0; day < kDaysInWeek; ++day) {
    if (key == keyStringForDayIndex(day)) return day;
  }
  return -1;
}

plist::Array* GWCurfews::rangesForDay(std::string_view day) const {
  const plist::Value* ranges = _dictionary->find(day);
  return ranges ? ranges->ifArray() : nullptr;
}

std::vector<GWTimeRangeRef> GWCurfews::timeRangesForDay(std::string_view day) const {
  std::vector<GWTimeRangeRef> ranges;
  if (const plist::Array* entries = rangesForDay(day)) {
    for (const plist::Value& entry : *entries) {
      if (auto range = entry.ifObject<GWTimeRange>()) ranges.push_back(std::move(range));
    }
  }
  return ranges;
}

void GWCurfews::_prep() {
  if (_dictionary->size() >= std::size_t(kDaysInWeek)) return;
  for (std::int32_t day = 0; day < kDaysInWeek; ++day) {
    const char* key = keyStringForDayIndex(day);
    if (!_dictionary->contains(key)) _dictionary->set(key, plist::Array::make());
  }
}

void GWCurfews::addTimeRange(const GWTimeRangeRef& range, std::string_view day) {
  plist::Array* ranges = rangesForDay(day);
  if (!ranges || !range) return;
  for (const plist::Value& entry : *ranges) {
    if (auto existing = entry.ifObject<GWTimeRange>(); existing && existing->isEqual(*range))
      return;
  }
  ranges->append(range);
  std::vector<plist::Value>& items = ranges->mutableItems();
  std::stable_sort(items.begin(), items.end(), [](const plist::Value& a, const plist::Value& b) {
    auto left = a.ifObject<GWTimeRange>();
    auto right = b.ifObject<GWTimeRange>();
    return left && right && left->compare(*right) < 0;
  });
}

void GWCurfews::removeTimeRangesInRange(const GWTimeRangeRef& range, std::string_view day) {
  plist::Array* ranges = rangesForDay(day);
  if (!ranges) return;
  if (!range) {
    ranges->clear();
    return;
  }
  std::vector<plist::Value>& items = ranges->mutableItems();
  std::erase_if(items, [&](const plist::Value& entry) {
    auto existing = entry.ifObject<GWTimeRange>();
    if (!existing) return false;
    const GWTime& start = *existing->startTime();
    return range->startTime()->compare(start) <= 0 && start.compare(*range->endTime()) <= 0;
  });
}

void GWCurfews::removeAllCurfews() {
  // Day number 7 has no key and changes nothing; the walk covers it as the editor's code did.
  for (std::int32_t day = 0; day <= kDaysInWeek; ++day) {
    if (const char* key = keyStringForDayIndex(day)) removeTimeRangesInRange(nullptr, key);
  }
}

bool GWCurfews::hasCurfews() const {
  for (const auto& [day, ranges] : *_dictionary) {
    if (const plist::Array* entries = ranges.ifArray(); entries && !entries->empty()) return true;
  }
  return false;
}

std::optional<plist::Date> GWCurfews::nextCurfewDateAfterDate(plist::Date date) const {
  time::LocalComponents local = time::localComponents(date);
  GWTime now(local.hour, local.minute, local.second);
  for (int days = 0; days <= kDaysInWeek; ++days) {
    std::vector<GWTimeRangeRef> ranges =
        timeRangesForDay(keyStringForDayIndex((local.weekday + days) % kDaysInWeek));
    GWTimeRef start;
    if (days == 0) {
      start = curfews::firstCurfew(ranges, &now, nullptr, true);
    } else if (days == kDaysInWeek) {
      start = curfews::firstCurfew(ranges, nullptr, &now, true);
    } else {
      start = curfews::firstCurfew(ranges, nullptr, nullptr, true);
    }
    if (start) return advance(date, days, now, *start);
  }
  return std::nullopt;
}

std::optional<plist::Date> GWCurfews::nextNonCurfewDateAfterDate(plist::Date date) const {
  time::LocalComponents local = time::localComponents(date);
  GWTime now(local.hour, local.minute, local.second);
  for (int days = 0; days <= kDaysInWeek; ++days) {
    std::vector<GWTimeRangeRef> ranges =
        timeRangesForDay(keyStringForDayIndex((local.weekday + days) % kDaysInWeek));
    GWTimeRef free = curfews::firstFree(ranges, days == 0 ? &now : nullptr);
    if (free) return advance(date, days, now, *free);
  }
  return std::nullopt;
}

bool GWCurfews::isDateCurfewed(plist::Date date) const {
  std::optional<plist::Date> free = nextNonCurfewDateAfterDate(date);
  return !free || *free != date;
}

}  // namespace gw
