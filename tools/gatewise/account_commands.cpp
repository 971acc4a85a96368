// Accounts, managed domains and notifications:
//   gatewise users | domains USER | requires-daemon DOMAIN... | uid NAME | name UID |
//   logged-in UID | notify post NAME [--object S] [--user-info PLIST-FILE] |
//   notify listen NAME... [--count N] [--timeout SECONDS]
#include <gatewise/core.h>
#include <gatewise/notifications.h>
#include <gatewise/plist.h>
#include <gatewise/runloop.h>

#include <chrono>
#include <cstdio>
#include <iostream>

#include "cli.h"

namespace gwcli {
namespace {

int yesOrNo(bool answer) {
  std::cout << (answer ? "yes" : "no") << "\n";
  return answer ? kExitYes : kExitNo;
}

// The description of a value on one line: line breaks and their indentation become one space.
std::string oneLine(const gw::plist::Value& value) {
  std::string text = gw::plist::description(value), out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\n') {
      out += text[i];
      continue;
    }
    while (i + 1 < text.size() && text[i + 1] == ' ') ++i;
    out += ' ';
  }
  return out;
}

struct NotifyOptions {
  std::vector<std::string> names;
  std::string object;
  std::string userInfoFile;
  unsigned count = 0;
  double timeoutSeconds = 0;
};

int post(const NotifyOptions& options) {
  gw::plist::DictionaryRef userInfo;
  if (!options.userInfoFile.empty()) {
    gw::plist::ReadResult read = gw::plist::readPropertyListFile(options.userInfoFile);
    if (!read) return fail(options.userInfoFile + ": " + read.error);
    if (!read.value->isDictionary()) return fail(options.userInfoFile + ": not a dictionary");
    userInfo = read.value->dictionary();
  }
  if (!gw::notify::postNotification(options.names.front(), options.object, userInfo)) {
    std::fprintf(stderr, "gatewise: could not post %s\n", options.names.front().c_str());
    return kExitNo;
  }
  return kExitYes;
}

int listen(const NotifyOptions& options) {
  unsigned received = 0;
  auto print = [&](const gw::notify::Notification& n) {
    std::string info = n.userInfo ? oneLine(gw::plist::Value(n.userInfo)) : "(null)";
    std::printf("%s\t%s\t%s\n", n.name.c_str(), n.object.c_str(), info.c_str());
    std::fflush(stdout);
    ++received;
  };
  for (const std::string& name : options.names) {
    if (!gw::notify::addObserver(name, "", print)) return fail("cannot observe " + name);
  }
  // Whoever started us may post now: every match is installed on the bus.
  std::fprintf(stderr, "gatewise: listening\n");
  using Clock = std::chrono::steady_clock;
  const bool bounded = options.timeoutSeconds > 0;
  const auto deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(bounded ? options.timeoutSeconds : 0));
  while (options.count == 0 || received < options.count) {
    auto wait = std::chrono::microseconds(std::chrono::seconds(3600));
    if (bounded) {
      wait = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
      if (wait.count() <= 0) break;
    }
    if (int r = gw::runloop::runRunLoopOnce(wait); r < 0) return fail("event loop failed");
  }
  return options.count == 0 || received >= options.count ? kExitYes : kExitNo;
}

void registerAccountCommands(CLI::App& app, Context& context) {
  app.add_subcommand("users", "List the managed users as an XML property list")
      ->callback([&context] {
        context.run = [] {
          auto xml = gw::plist::writePropertyList(gw::plist::Value(GWGetLocalManagedUsers()),
                                                  gw::plist::Format::XML);
          if (!xml) return fail("cannot write the user list");
          std::cout << *xml;
          return kExitYes;
        };
      });

  auto user = std::make_shared<std::string>();
  auto* domains = app.add_subcommand("domains", "Managed domains in force for USER, one a line");
  domains->add_option("USER", *user)->required();
  domains->callback([&context, user] {
    context.run = [user] {
      gw::plist::ArrayRef list = GWManagedDomainsForUser(*user);
      if (!list) return fail("refused user name: " + *user);
      for (const auto& domain : *list) std::cout << gw::plist::description(domain) << "\n";
      return kExitYes;
    };
  });

  auto domainList = std::make_shared<std::vector<std::string>>();
  auto* requiresDaemon = app.add_subcommand("requires-daemon", "Whether DOMAIN... need the daemon");
  requiresDaemon->add_option("DOMAIN", *domainList)->required();
  requiresDaemon->callback([&context, domainList] {
    context.run = [domainList] {
      auto array = gw::plist::Array::make();
      for (const auto& domain : *domainList) array->append(domain);
      return yesOrNo(GWPrefDomainsRequireDaemon(array));
    };
  });

  auto name = std::make_shared<std::string>();
  auto* uid = app.add_subcommand("uid", "The uid of NAME (4294967295 when unknown)");
  uid->add_option("NAME", *name)->required();
  uid->callback([&context, name] {
    context.run = [name] {
      std::cout << UIDForShortName(*name) << "\n";
      return kExitYes;
    };
  });

  auto number = std::make_shared<std::uint32_t>();
  auto* nameCommand = app.add_subcommand("name", "The short name of UID");
  nameCommand->add_option("UID", *number)->required();
  nameCommand->callback([&context, number] {
    context.run = [number] {
      auto found = GetUserShortNameForUID(*number);
      if (!found) {
        std::fprintf(stderr, "gatewise: no user name for uid %u\n", *number);
        return kExitNo;
      }
      std::cout << *found << "\n";
      return kExitYes;
    };
  });

  auto* loggedIn = app.add_subcommand("logged-in", "Whether UID has a login session");
  loggedIn->add_option("UID", *number)->required();
  loggedIn->callback(
      [&context, number] { context.run = [number] { return yesOrNo(UserIsLoggedIn(*number)); }; });

  auto options = std::make_shared<NotifyOptions>();
  auto* notify = app.add_subcommand("notify", "Post and observe distributed notifications");
  notify->require_subcommand(1);
  auto* postCommand = notify->add_subcommand("post", "Post notification NAME");
  postCommand->add_option("NAME", options->names)->required()->expected(1);
  postCommand->add_option("--object", options->object, "Object string");
  postCommand->add_option("--user-info", options->userInfoFile, "Property-list file (dictionary)");
  postCommand->callback(
      [&context, options] { context.run = [options] { return post(*options); }; });
  auto* listenCommand =
      notify->add_subcommand("listen", "Print notifications NAME... as they come");
  listenCommand->add_option("NAME", options->names)->required();
  listenCommand->add_option("--count", options->count, "Stop after N notifications");
  listenCommand->add_option("--timeout", options->timeoutSeconds, "Stop after SECONDS");
  listenCommand->callback(
      [&context, options] { context.run = [options] { return listen(*options); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerAccountCommands);

}  // namespace gwcli
