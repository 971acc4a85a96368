// Mail white list and chat logs, as the mail and chat programs send them:
//   gatewise mail add USER CONTACT...     adds contacts to USER's white list
//   gatewise mail remove USER CONTACT     removes one
//   gatewise chat save USER FILE [--with NAME]...
// The daemon decides by the caller's uid: adding takes root or an administrator. `chat save` hands
// FILE over as a chat log of USER: the daemon files a log under the uid that sends it, so root
// sends from a child process that has become USER; anyone else may only save their own.
// Exit 1 when the daemon is not running; 2 with one line for bad input, including a mail request
// over the library's 100K limit.
#include <gatewise/core.h>
#include <gatewise/ipc.h>
#include <gatewise/mail.h>
#include <gatewise/plist.h>
#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"

namespace gwcli {
namespace {

namespace plist = gw::plist;

constexpr std::size_t kMaxChatFile = std::size_t(8) << 20;

struct MailOptions {
  std::string user;
  std::vector<std::string> contacts;
  std::string file;
  std::vector<std::string> participants;
};

bool daemonRunning() {
  mach_port_t port = 0;
  if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS) return false;
  mach_port_deallocate(mach_task_self(), port);
  return true;
}

int checkUser(const std::string& user) {
  if (user.empty() || user.find('/') != std::string::npos || user == "." || user == "..") {
    return fail("invalid user name: " + user);
  }
  return 0;
}

// The same request the library builds, measured against its limit, so that a refusal is said.
int checkPayload(const MailOptions& options, plist::Value request) {
  std::string error;
  std::optional<std::string> xml = plist::writePropertyList(request, plist::Format::XML, &error);
  if (!xml) return fail(error);
  if (xml->size() > kGWMailPayloadLimit) {
    return fail("request of " + std::to_string(xml->size()) + " bytes is over the limit of " +
                std::to_string(kGWMailPayloadLimit) + " (" + options.user + ")");
  }
  return 0;
}

int add(const MailOptions& options) {
  if (int bad = checkUser(options.user)) return bad;
  auto list = plist::Array::make();
  for (const std::string& c : options.contacts) {
    if (c.empty()) return fail("empty contact");
    list->append(c);
  }
  if (int bad =
          checkPayload(options, plist::Value::newDictionary({{kGWMailUserNameKey, options.user},
                                                             {kGWMailContactListKey, list}}))) {
    return bad;
  }
  if (!daemonRunning()) return std::fprintf(stderr, "gatewise: tutelad is not running\n"), kExitNo;
  GWMailAddToWhiteList(list, options.user);
  return kExitYes;
}

int remove(const MailOptions& options) {
  if (int bad = checkUser(options.user)) return bad;
  const std::string& contact = options.contacts.front();
  if (contact.empty()) return fail("empty contact");
  if (int bad =
          checkPayload(options, plist::Value::newDictionary({{kGWMailUserNameKey, options.user},
                                                             {kGWMailEmailAddressKey, contact}}))) {
    return bad;
  }
  if (!daemonRunning()) return std::fprintf(stderr, "gatewise: tutelad is not running\n"), kExitNo;
  GWMailRemoveFromWhiteList(contact, options.user);
  return kExitYes;
}

int saveChat(const MailOptions& options) {
  if (int bad = checkUser(options.user)) return bad;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* pw = nullptr;
  if (::getpwnam_r(options.user.c_str(), &entry, buffer.data(), buffer.size(), &pw) != 0 || !pw) {
    return fail("unknown user: " + options.user);
  }
  uid_t uid = pw->pw_uid;
  gid_t gid = pw->pw_gid;
  if (::getuid() != 0 && ::getuid() != uid) return fail("only root may save another user's chat");
  std::ifstream in(options.file, std::ios::binary);
  if (!in) return fail("cannot read " + options.file);
  plist::Data contents(kMaxChatFile + 1);
  in.read(reinterpret_cast<char*>(contents.data()), std::streamsize(contents.size()));
  if (in.bad()) return fail("cannot read " + options.file);
  contents.resize(std::size_t(in.gcount()));
  if (contents.size() > kMaxChatFile) return fail(options.file + " is larger than 8 MiB");
  auto data = std::make_shared<const plist::Data>(std::move(contents));
  auto with = plist::Array::make();
  for (const std::string& p : options.participants) with->append(p);
  if (!daemonRunning()) return std::fprintf(stderr, "gatewise: tutelad is not running\n"), kExitNo;

  if (::getuid() == uid) {
    GWParletSaveChatLog(with, options.file, data);
    return kExitYes;
  }
  std::fflush(nullptr);
  pid_t child = ::fork();
  if (child < 0) return fail("cannot fork");
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) ::_exit(2);
    GWParletSaveChatLog(with, options.file, data);
    ::_exit(0);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return fail("cannot act as " + options.user);
  return kExitYes;
}

void registerMailCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<MailOptions>();
  CLI::App* mail = app.add_subcommand("mail", "A managed user's mail white list");
  mail->require_subcommand(1);
  CLI::App* addCommand = mail->add_subcommand("add", "Add contacts to the white list");
  addCommand->add_option("USER", options->user, "Short name of the managed user")->required();
  addCommand->add_option("CONTACT", options->contacts, "Mail addresses")->required();
  addCommand->callback([&context, options] { context.run = [options] { return add(*options); }; });
  CLI::App* removeCommand = mail->add_subcommand("remove", "Remove a contact from the white list");
  removeCommand->add_option("USER", options->user, "Short name of the managed user")->required();
  removeCommand->add_option("CONTACT", options->contacts, "One mail address")
      ->required()
      ->expected(1);
  removeCommand->callback(
      [&context, options] { context.run = [options] { return remove(*options); }; });

  CLI::App* chat = app.add_subcommand("chat", "Chat logs kept for the administrator");
  chat->require_subcommand(1);
  CLI::App* save = chat->add_subcommand("save", "Hand a finished chat log to the daemon");
  save->add_option("USER", options->user, "Whose chat it was")->required();
  save->add_option("FILE", options->file, "The chat log")->required();
  save->add_option("--with", options->participants, "A participant (repeatable)");
  save->callback([&context, options] { context.run = [options] { return saveChat(*options); }; });
}

GW_CLI_COMMANDS(registerMailCommands);

}  // namespace
}  // namespace gwcli
