// `gatewise events USER [--entity NAME] [--since ISO] [--until ISO] [--limit N]`: a user's recorded
// events, asked of the running daemon through GWUserEventsManager, one a line sorted by time:
// "<local time> <entity> key=value ...". --since and --until are dates as the predicate language
// writes them (YYYY-MM-DD[THH:MM[:SS]][Z|+HH:MM]; since inclusive, until exclusive); the limit is
// 1 to 10000 (default 10000, the most recent ones kept when there are more). Bad input exits 2
// with one line; a daemon that is absent or refuses exits 1. The daemon decides from the caller's
// credentials what it may read, so the tool sends its own process's authorization without asking
// for a right first.
#include <gatewise/core.h>
#include <gatewise/events.h>
#include <gatewise/fetch_request.h>
#include <gatewise/plist.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "cli.h"

namespace gwcli {
namespace {

struct EventOptions {
  std::string user;
  std::string entity;
  std::string since;
  std::string until;
  std::string limit;
};

// A date literal of the predicate language; nullopt for anything else (so nothing but a date can
// reach the predicate).
std::optional<std::string> dateLiteral(std::string text) {
  if (text.size() > 10 && text[10] == ' ') text[10] = 'T';
  if (text.empty() || text.size() > 32 || !std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || c == '-' || c == ':' || c == 'T' || c == 'Z' || c == '+';
      })) {
    return std::nullopt;
  }
  if (!gw::GWIsValidEventPredicate("time >= " + text, nullptr)) return std::nullopt;
  return text;
}

std::string localTime(gw::plist::Date date) {
  auto seconds = std::time_t(date.unixTime());
  std::tm local{};
  ::localtime_r(&seconds, &local);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
  return text;
}

int listEvents(const EventOptions& options) {
  if (options.user.empty() || UIDForShortName(options.user) == 0xFFFFFFFFu) {
    return fail("unknown user \"" + options.user + "\"");
  }
  std::string entity(gw::kGWEventAnyEntity);
  if (!options.entity.empty()) {
    if (!gw::GWIsKnownEventEntity(options.entity)) {
      return fail("unknown entity \"" + options.entity + "\"");
    }
    entity = options.entity;
  }
  std::string predicate;
  for (const auto& [text, op] :
       {std::pair{options.since, " >= "}, std::pair{options.until, " < "}}) {
    if (text.empty()) continue;
    std::optional<std::string> literal = dateLiteral(text);
    if (!literal) return fail("not a date: \"" + text + "\"");
    predicate += (predicate.empty() ? "time" : " AND time") + std::string(op) + *literal;
  }
  std::uint64_t limit = gw::kGWMaxFetchLimit;
  if (!options.limit.empty()) {
    char* end = nullptr;
    unsigned long long n = std::strtoull(options.limit.c_str(), &end, 10);
    if (*end != '\0' || options.limit[0] == '-' || n < 1 || n > gw::kGWMaxFetchLimit) {
      return fail("the limit must be a number from 1 to " + std::to_string(gw::kGWMaxFetchLimit));
    }
    limit = n;
  }

  // The newest events within the limit, printed oldest first.
  auto request = gw::GWFetchRequest::fetchRequestWithEntityName(entity);
  request->setPredicate(predicate);
  request->setAscending(false);
  request->setFetchLimit(limit);
  auto manager = gw::GWUserEventsManager::initWithUserName(
      options.user, gw::GWProcessAuthorizationWithoutAsking());
  if (!manager) {
    std::fprintf(stderr, "gatewise: the daemon is not running\n");
    return kExitNo;
  }
  gw::plist::Value events = manager->executeFetchRequest(request, entity);
  if (!events.isArray()) {
    std::fprintf(stderr, "gatewise: the daemon did not answer the query (see the log)\n");
    return kExitNo;
  }
  const auto& items = events.array()->items();
  for (auto it = items.rbegin(); it != items.rend(); ++it) {
    if (auto event = it->ifObject<gw::GWEvent>()) {
      std::printf("%s %s\n", localTime(event->time()).c_str(), event->description().c_str());
    }
  }
  return kExitYes;
}

void registerEventCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<EventOptions>();
  auto* events = app.add_subcommand("events", "Recorded events of USER, asked of the daemon");
  events->add_option("USER", options->user, "User name")->required();
  events->add_option("--entity", options->entity, "Only events of this entity");
  events->add_option("--since", options->since, "From this date (YYYY-MM-DD[THH:MM[:SS]][Z])");
  events->add_option("--until", options->until, "Before this date");
  events->add_option("--limit", options->limit, "At most this many events (1-10000)");
  events->callback(
      [&context, options] { context.run = [options] { return listEvents(*options); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerEventCommands);

}  // namespace gwcli
