// gatewise week | curfews | duration: the local week, curfew files and duration texts.
#include <gatewise/plist.h>
#include <gatewise/schedule.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "cli.h"

namespace gwcli {
namespace {

struct ScheduleOptions {
  std::string locale;
  std::string curfewsFile;
  std::string at;
  std::string start;
  std::string end;
  double seconds = 0;
  std::string secondsText;
  bool shortForm = false;
  bool withSeconds = false;
};

void applyLocale(const ScheduleOptions& options) {
  if (!options.locale.empty()) gw::setWeekDataLocale(options.locale);
}

int printWeek(const ScheduleOptions& options) {
  applyLocale(options);
  auto line = [](const char* name, std::int32_t day, const char* key) {
    std::printf("%s %d %s\n", name, day, key ? key : "(nil)");
  };
  line("first-workday", GWFirstWeekday(), GWFirstWeekdayKey());
  line("last-workday", GWLastWeekday(), GWLastWeekdayKey());
  line("first-weekend-day", GWFirstWeekendDay(), GWFirstWeekendDayKey());
  line("last-weekend-day", GWLastWeekendDay(), GWLastWeekendDayKey());
  std::printf("work-week-length %d\nweekend-length %d\n", GWWorkWeekLength(), GWWeekendLength());
  return kExitYes;
}

// The curfews of --curfews FILE; without a file, the empty week when allowed.
gw::GWCurfewsRef loadCurfews(const ScheduleOptions& options, bool fileRequired, int& status) {
  if (options.curfewsFile.empty()) {
    if (fileRequired) status = fail("--curfews FILE is required");
    return fileRequired ? nullptr : gw::GWCurfews::curfews();
  }
  gw::plist::ReadResult read = gw::plist::readPropertyListFile(options.curfewsFile);
  if (!read) {
    status = fail("cannot read " + options.curfewsFile + ": " + read.error);
    return nullptr;
  }
  gw::GWCurfewsRef curfews = gw::GWCurfews::curfewsWithDictionary(*read.value);
  if (!curfews) status = fail(options.curfewsFile + " holds no curfews dictionary");
  return curfews;
}

std::optional<gw::plist::Date> moment(const ScheduleOptions& options) {
  if (options.at.empty()) return gw::plist::Date::now();
  return gw::dateFromLocalString(options.at);
}

int query(const ScheduleOptions& options, const std::string& question) {
  applyLocale(options);
  int status = kExitYes;
  gw::GWCurfewsRef curfews = loadCurfews(options, true, status);
  if (!curfews) return status;
  std::optional<gw::plist::Date> date = moment(options);
  if (!date) return fail("--at wants a local time YYYY-MM-DD HH:MM:SS, not " + options.at);
  if (question == "is-curfewed") {
    bool curfewed = curfews->isDateCurfewed(*date);
    std::puts(curfewed ? "yes" : "no");
    return curfewed ? kExitYes : kExitNo;
  }
  std::optional<gw::plist::Date> answer = question == "next-curfew"
                                              ? curfews->nextCurfewDateAfterDate(*date)
                                              : curfews->nextNonCurfewDateAfterDate(*date);
  std::puts(answer ? gw::localStringFromDate(*answer).c_str() : "none");
  return kExitYes;
}

// A time of day given on the command line: H:MM or H:MM:SS, digits only, within the day. The
// library's own parser stores whatever numbers it scans; a shell user gets a refusal instead.
gw::GWTimeRef parseTime(const std::string& text) {
  int fields[3] = {0, 0, 0};
  int count = 0;
  std::size_t at = 0;
  while (count < 3) {
    std::size_t digits = 0;
    int value = 0;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9' && digits < 2) {
      value = value * 10 + (text[at++] - '0');
      ++digits;
    }
    // Minutes and seconds take two digits, the hour one or two.
    if (digits == 0 || (count > 0 && digits != 2)) return nullptr;
    fields[count++] = value;
    if (at == text.size()) break;
    if (text[at++] != ':') return nullptr;
  }
  if (at != text.size() || count < 2) return nullptr;
  if (fields[0] > 23 || fields[1] > 59 || fields[2] > 59) return nullptr;
  return gw::GWTime::initWithHour(fields[0], fields[1], fields[2]);
}

int edit(const ScheduleOptions& options, const std::string& operation) {
  applyLocale(options);
  int status = kExitYes;
  gw::GWCurfewsRef curfews = loadCurfews(options, false, status);
  if (!curfews) return status;
  // A stored week may lack days (or all of them); the week editing only touches days present.
  curfews->_prep();
  if (operation == "set-weekday" || operation == "set-weekend") {
    gw::GWTimeRef start = parseTime(options.start), end = parseTime(options.end);
    if (!start) return fail("START is not a time of day HH:MM[:SS]: " + options.start);
    if (!end) return fail("END is not a time of day HH:MM[:SS]: " + options.end);
    if (operation == "set-weekday") {
      curfews->setWeekdayCurfewStarting(*start, *end);
    } else {
      curfews->setWeekendCurfewStarting(*start, *end);
    }
  } else if (operation == "remove-weekday") {
    curfews->removeWeekdayCurfew();
  } else {
    curfews->removeWeekendCurfew();
  }
  std::string error;
  std::optional<std::string> xml = gw::plist::writePropertyList(
      gw::plist::Value(curfews->plistRepresentation()), gw::plist::Format::XML, &error);
  if (!xml) return fail("cannot write the curfews: " + error);
  std::fwrite(xml->data(), 1, xml->size(), stdout);
  return kExitYes;
}

int readBack(const ScheduleOptions& options, bool weekend) {
  applyLocale(options);
  int status = kExitYes;
  gw::GWCurfewsRef curfews = loadCurfews(options, true, status);
  if (!curfews) return status;
  gw::GWTimeRef start =
      weekend ? curfews->weekendCurfewStartingTime() : curfews->weekdayCurfewStartingTime();
  gw::GWTimeRef end =
      weekend ? curfews->weekendCurfewEndingTime() : curfews->weekdayCurfewEndingTime();
  std::printf("%s %s\n", start ? start->stringValue().c_str() : "none",
              end ? end->stringValue().c_str() : "none");
  return kExitYes;
}

int printDuration(ScheduleOptions& options) {
  char* end = nullptr;
  options.seconds = std::strtod(options.secondsText.c_str(), &end);
  if (options.secondsText.empty() ||
      end != options.secondsText.c_str() + options.secondsText.size()) {
    return fail("SECONDS is not a number: " + options.secondsText);
  }
  if (!std::isfinite(options.seconds) || options.seconds < 0) {
    return fail("SECONDS is not a duration: " + options.secondsText);
  }
  if (options.shortForm) {
    if (options.seconds > INT32_MAX) return fail("--short wants SECONDS within 32 bits");
    std::puts(gw::GWUtilities::shortTimeDurationStringForSeconds(std::int32_t(options.seconds),
                                                                 options.withSeconds)
                  .c_str());
  } else {
    std::puts(gw::GWTimeDurationString(options.seconds).c_str());
  }
  return kExitYes;
}

void registerScheduleCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<ScheduleOptions>();

  CLI::App* week = app.add_subcommand("week", "The local work week and weekend");
  week->add_option("--locale", options->locale, "Locale instead of LC_ALL/LC_TIME/LANG");
  week->callback([&context, options] { context.run = [options] { return printWeek(*options); }; });

  CLI::App* duration = app.add_subcommand("duration", "A duration as text");
  duration->add_flag("--short", options->shortForm, "Compact clock form (1:02:05)");
  duration->add_flag("--with-seconds", options->withSeconds, "Show seconds in the compact form");
  duration->add_option("SECONDS", options->secondsText, "Seconds (not negative)")->required();
  duration->callback(
      [&context, options] { context.run = [options] { return printDuration(*options); }; });

  CLI::App* curfews = app.add_subcommand("curfews", "Query and edit curfews");
  curfews->require_subcommand(1);
  curfews->fallthrough();  // --locale may also follow the operation
  curfews->add_option("--locale", options->locale, "Locale instead of LC_ALL/LC_TIME/LANG");
  for (const char* question : {"next-curfew", "next-free", "is-curfewed"}) {
    CLI::App* command = curfews->add_subcommand(question, "Answer for a local time");
    command->add_option("--curfews", options->curfewsFile, "Curfews property list")->required();
    command->add_option("--at", options->at, "Local time YYYY-MM-DD HH:MM:SS (default: now)");
    command->callback([&context, options, q = std::string(question)] {
      context.run = [options, q] { return query(*options, q); };
    });
  }
  for (const char* operation : {"set-weekday", "set-weekend", "remove-weekday", "remove-weekend"}) {
    CLI::App* command = curfews->add_subcommand(operation, "Edit and print the curfews as XML");
    command->add_option("--curfews", options->curfewsFile, "Curfews property list to start from");
    std::string op(operation);
    if (op.starts_with("set-")) {
      command->add_option("START", options->start, "Start time HH:MM:SS")->required();
      command->add_option("END", options->end, "End time HH:MM:SS")->required();
    }
    command->callback(
        [&context, options, op] { context.run = [options, op] { return edit(*options, op); }; });
  }
  for (bool weekend : {false, true}) {
    CLI::App* command = curfews->add_subcommand(weekend ? "weekend-times" : "weekday-times",
                                                "The whole-week curfew as read back");
    command->add_option("--curfews", options->curfewsFile, "Curfews property list")->required();
    command->callback([&context, options, weekend] {
      context.run = [options, weekend] { return readBack(*options, weekend); };
    });
  }
}

GW_CLI_COMMANDS(registerScheduleCommands);

}  // namespace
}  // namespace gwcli
