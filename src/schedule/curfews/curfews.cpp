// GWCurfews: the dictionary of day ranges, single-day editing, the property-list form and the
// date queries. The whole-week editing lives in week_curfews.cpp.
#include <gatewise/format.h>
#include <gatewise/schedule/calendar.h>
#include <gatewise/schedule/curfews.h>

#include <algorithm>
#include <array>

#include "schedule/curfews/curfew_timeline.h"

namespace gw {
namespace {

constexpr std::int32_t kDaysInWeek = 7;

bool isTimeOfDay(const GWTime& time) {
  return time.hour() >= 0 && time.hour() <= 23 && time.minute() >= 0 && time.minute() <= 59 &&
         time.second() >= 0 && time.second() <= 59;
}

// A stored range keeps within one day with its start not after its end; anything else (a hand-
// edited "25:70:99", a reversed pair) is dropped when read, as an unreadable entry is.
bool isStorableRange(const GWTimeRange& range) {
  return isTimeOfDay(*range.startTime()) && isTimeOfDay(*range.endTime()) &&
         range.startTime()->compare(*range.endTime()) <= 0;
}

// Days are kept sorted by start time; files written by hand may not be.
void sortByStart(plist::Array& ranges) {
  std::vector<plist::Value>& items = ranges.mutableItems();
  std::stable_sort(items.begin(), items.end(), [](const plist::Value& a, const plist::Value& b) {
    auto left = a.ifObject<GWTimeRange>();
    auto right = b.ifObject<GWTimeRange>();
    return left && right && left->compare(*right) < 0;
  });
}

curfews::CurfewTimeline timeline(const GWCurfews& curfews) {
  std::array<std::vector<GWTimeRangeRef>, kDaysInWeek> week;
  for (std::int32_t day = 0; day < kDaysInWeek; ++day) {
    week[std::size_t(day)] = curfews.timeRangesForDay(GWCurfews::keyStringForDayIndex(day));
  }
  return curfews::CurfewTimeline(week);
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
        GWTimeRangeRef range = GWTimeRange::timeRangeWithDictionary(entry);
        if (range && isStorableRange(*range)) ranges->append(range);
      }
    }
    sortByStart(*ranges);
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
  sortByStart(*ranges);
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
  return timeline(*this).firstInstant(date, true);
}

std::optional<plist::Date> GWCurfews::nextNonCurfewDateAfterDate(plist::Date date) const {
  return timeline(*this).firstInstant(date, false);
}

bool GWCurfews::isDateCurfewed(plist::Date date) const {
  std::optional<plist::Date> free = nextNonCurfewDateAfterDate(date);
  return !free || *free != date;
}

}  // namespace gw
