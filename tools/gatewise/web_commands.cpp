// Website restrictions and the content filter:
//   gatewise web restricted USER
//       "yes" (exit 0) when USER is limited to a website white list, else "no" (exit 1).
//   gatewise web check URL [--user USER] [--content FILE]
//       The content filter's verdict on the page at URL: "allowed" (exit 0) or "blocked" (exit 1),
//       then the verdict dictionary as an XML property list (empty when there is no verdict, which
//       lets the page through). USER chooses whose allow and deny lists apply (default: the user
//       at the console); FILE holds the page's bytes (default: an empty page). The filter's own
//       diagnostics go to standard error.
#include <gatewise/web.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>

#include "cli.h"

namespace gwcli {
namespace {

// Pages larger than this are not sent to the filter service (its messages stop at 64 MiB).
constexpr std::uintmax_t kMaxPageFileSize = std::uintmax_t(64) << 20;

bool isUserName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

int restricted(const std::string& user) {
  if (!isUserName(user)) return fail("not a user name: " + user);
  bool answer = GWLumewayHasWebSiteRestrictions(user);
  std::cout << (answer ? "yes" : "no") << "\n";
  return answer ? kExitYes : kExitNo;
}

struct CheckOptions {
  std::string url, user, contentFile;
};

int check(const CheckOptions& options) {
  if (options.url.empty()) return fail("the URL is empty");
  if (!options.user.empty() && !isUserName(options.user)) {
    return fail("not a user name: " + options.user);
  }
  gw::plist::Data content;
  if (!options.contentFile.empty()) {
    std::error_code code;
    std::uintmax_t size = std::filesystem::file_size(options.contentFile, code);
    if (code) return fail(options.contentFile + ": " + code.message());
    if (size > kMaxPageFileSize) return fail(options.contentFile + ": larger than 64 MiB");
    std::ifstream in(options.contentFile, std::ios::binary);
    if (!in) return fail(options.contentFile + ": cannot be read");
    content.assign(std::istreambuf_iterator<char>(in), {});
  }
  if (!options.user.empty()) gUserName = options.user;

  gw::plist::Value meta = gw::plist::Value::newDictionary({{kWFURLKey, options.url}});
  if (!options.user.empty()) meta.dictionary()->set(kWFUsernameKey, options.user);
  gw::plist::Value verdict = GWCopyContentEvaluation(gw::plist::Value(std::move(content)), meta);
  if (!verdict.isDictionary()) verdict = gw::plist::Value::newDictionary();
  bool blocked = verdict.dictionary()->get(kWFFilterWantsToBlockKey).boolValue();
  std::optional<std::string> xml = gw::plist::writePropertyList(verdict, gw::plist::Format::XML);
  std::cout << (blocked ? "blocked" : "allowed") << "\n" << xml.value_or("");
  return blocked ? kExitNo : kExitYes;
}

void registerWebCommands(CLI::App& app, Context& context) {
  auto* web = app.add_subcommand("web", "Website restrictions and the content filter");
  web->require_subcommand(1);

  auto user = std::make_shared<std::string>();
  auto* restrictedCommand =
      web->add_subcommand("restricted", "Whether USER is limited to a website white list");
  restrictedCommand->add_option("USER", *user)->required();
  restrictedCommand->callback(
      [&context, user] { context.run = [user] { return restricted(*user); }; });

  auto options = std::make_shared<CheckOptions>();
  auto* checkCommand = web->add_subcommand("check", "The content filter's verdict on a page");
  checkCommand->add_option("URL", options->url)->required();
  checkCommand->add_option("--user", options->user, "Whose allow and deny lists apply");
  checkCommand->add_option("--content", options->contentFile, "File holding the page's bytes");
  checkCommand->callback(
      [&context, options] { context.run = [options] { return check(*options); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerWebCommands);

}  // namespace gwcli
