// Daemon commands: can-login, daemon-status, managed-users-exist, fcd ..., ipc call.
#include <fcntl.h>
#include <gatewise/core.h>
#include <gatewise/ipc.h>
#include <gatewise/ipc_catalogue.h>
#include <gatewise/login.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "out_file.h"

namespace gwcli {
namespace {

std::optional<std::int64_t> parseInteger(const std::string& text) {
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

// A decimal uid, or a user name looked up through the accounts layer.
std::optional<uid_t> resolveUser(const std::string& user) {
  if (auto n = parseInteger(user); n && *n >= 0 && *n <= 0xfffffffe) return uid_t(*n);
  std::uint32_t uid = UIDForShortName(user);
  if (uid == 0xFFFFFFFFu) return std::nullopt;
  return uid_t(uid);
}

// ISO 8601 in local time with the offset written as +hh:mm.
std::string localIsoTime(const gw::plist::Date& date) {
  std::time_t t = std::time_t(date.unixTime());
  std::tm tm{};
  ::localtime_r(&t, &tm);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &tm);
  std::string s = text;
  if (s.size() >= 5) s.insert(s.size() - 2, ":");
  return s;
}

int canLogin(const std::string& user) {
  std::optional<uid_t> uid = resolveUser(user);
  if (!uid) return fail("unknown user \"" + user + "\"");
  std::int32_t reason = 0;
  const gw::plist::Date unset{-1e300};
  gw::plist::Date date = unset;
  bool allowed = GWUserCanLogin(*uid, &reason, &date);
  std::printf("%s reason=%d", allowed ? "allowed" : "denied", reason);
  if (date != unset) std::printf(" until=%s", localIsoTime(date).c_str());
  std::printf("\n");
  return allowed ? kExitYes : kExitNo;
}

int daemonStatus() {
  mach_port_t port = 0;
  bool running =
      bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) == KERN_SUCCESS && port != 0;
  if (port) mach_port_deallocate(mach_task_self(), port);
  std::printf("%s\n", running ? "running" : "not running");
  return running ? kExitYes : kExitNo;
}

int printStatus(kern_return_t status) {
  std::printf("status=%d\n", status);
  return status == KERN_SUCCESS ? kExitYes : kExitNo;
}

// Reads an argument's bytes: "@PATH" is a file's contents, anything else the text itself.
std::optional<std::string> argumentBytes(const std::string& arg, std::string* error) {
  if (arg.empty() || arg[0] != '@') return arg;
  std::ifstream in(arg.substr(1), std::ios::binary);
  if (!in) {
    *error = "cannot read " + arg.substr(1);
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct CallOptions {
  std::string routine;
  std::uint32_t timeout = 0;
  bool timeoutGiven = false;
  std::string out;
  std::vector<std::string> args;
};

int ipcCall(const CallOptions& options) {
  using namespace gw::ipc;
  const Routine* routine = routineNamed(options.routine);
  if (!routine) return fail("no routine named \"" + options.routine + "\"");
  if (options.args.size() != routine->request.size()) {
    std::string names;
    for (const Field& f : routine->request) names += " " + std::string(f.name);
    return fail(options.routine + " takes " + std::to_string(routine->request.size()) +
                " arguments:" + names);
  }
  std::vector<std::string> storage(options.args.size());
  std::vector<Argument> arguments(options.args.size());
  std::vector<int> pipes;
  auto closePipes = [&] {
    for (int fd : pipes) ::close(fd);
  };
  for (std::size_t i = 0; i < options.args.size(); ++i) {
    const Field& field = routine->request[i];
    const std::string& arg = options.args[i];
    std::string error;
    switch (field.type) {
      case FieldType::Int32:
      case FieldType::Int64: {
        auto n = parseInteger(arg);
        bool fits = n && (field.type == FieldType::Int64 || (*n >= INT32_MIN && *n <= UINT32_MAX));
        if (!fits) {
          closePipes();
          return fail(std::string(field.name) + " must be a decimal integer, not \"" + arg + "\"");
        }
        arguments[i].integer = *n;
        break;
      }
      case FieldType::Inline:
      case FieldType::OutOfLine: {
        auto bytes = argumentBytes(arg, &error);
        if (!bytes) {
          closePipes();
          return fail(error);
        }
        storage[i] = std::move(*bytes);
        arguments[i].bytes = storage[i].data();
        arguments[i].length = std::uint32_t(storage[i].size());
        break;
      }
      case FieldType::Port: {
        int ends[2];
        if (arg != "-" || ::pipe2(ends, O_CLOEXEC) != 0) {
          closePipes();
          return fail(std::string(field.name) + " takes \"-\" (a pipe's write end is sent)");
        }
        pipes.insert(pipes.end(), {ends[0], ends[1]});
        arguments[i].integer = ends[1];
        break;
      }
    }
  }
  std::uint32_t timeout = options.timeoutGiven            ? options.timeout
                          : routine->callerTimeoutMs != 0 ? routine->callerTimeoutMs
                                                          : 1000;
  mach_port_t port = 0;
  std::string service(serviceName(routine->service));
  bootstrap_look_up(bootstrap_port, service.c_str(), &port);  // port 0: the send reports it

  std::int32_t scalars[4] = {};
  vm_offset_t data = 0;
  mach_msg_type_number_t dataCount = 0;
  OutPointers out;
  for (int i = 0; i < 4; ++i) out.scalars[i] = &scalars[i];
  out.data = &data;
  out.dataCount = &dataCount;
  kern_return_t status = callRoutine(*routine, port, timeout, arguments, out);
  closePipes();
  if (port) mach_port_deallocate(mach_task_self(), port);

  std::printf("status=%d\n", status);
  if (status != KERN_SUCCESS) return kExitNo;
  int exitCode = kExitYes;
  if (routine->reply == ReplyShape::Data) {
    std::printf("%.*s=<%u bytes>\n", int(routine->replyOut[0].name.size()),
                routine->replyOut[0].name.data(), dataCount);
    if (!options.out.empty()) {
      // Atomic, through an exclusively created temporary file: never written through a link.
      if (!writeOutFile(options.out,
                        std::string_view(reinterpret_cast<const char*>(data), dataCount))) {
        exitCode = fail("cannot write " + options.out + ": " + std::strerror(errno));
      }
    }
    vm_deallocate(mach_task_self(), data, dataCount);
  } else {
    for (std::size_t i = 0; i < routine->replyOut.size() && i < 4; ++i) {
      std::printf("%.*s=%d\n", int(routine->replyOut[i].name.size()),
                  routine->replyOut[i].name.data(), scalars[i]);
    }
  }
  return exitCode;
}

void registerIpcCommands(CLI::App& app, Context& context) {
  auto user = std::make_shared<std::string>();
  auto* canLoginCommand =
      app.add_subcommand("can-login", "Ask the daemon whether a user may log in now");
  canLoginCommand->add_option("user", *user, "User name or uid")->required();
  canLoginCommand->callback([&context, user] { context.run = [user] { return canLogin(*user); }; });

  app.add_subcommand("daemon-status", "Whether the daemon answers its bootstrap name")
      ->callback([&context] { context.run = daemonStatus; });
  app.add_subcommand("managed-users-exist", "Whether the managed preferences folder exists")
      ->callback([&context] {
        context.run = [] {
          bool exist = GWExistsManagedUsers();
          std::printf("%s\n", exist ? "yes" : "no");
          return exist ? kExitYes : kExitNo;
        };
      });

  auto* fcd = app.add_subcommand("fcd", "Ask the daemon to reread or save a user's state");
  fcd->require_subcommand(1);
  struct UidOperation {
    const char* name;
    const char* help;
    kern_return_t (*operation)(uid_t);
  };
  static const UidOperation kOperations[] = {
      {"read-overrides", "Reread the user's daily overrides", GWUtilities::fcdReadOverridesFor},
      {"read-settings", "Reread the user's managed settings", GWUtilities::fcdReadSettingsFor},
      {"save-usage", "Write the user's usage counters", GWUtilities::fcdSaveUsageDataFor},
      {"reset-usage", "Reset the user's usage counters", GWUtilities::fcdResetUsageDataFor},
  };
  for (const UidOperation& op : kOperations) {
    auto uid = std::make_shared<std::string>();
    auto* command = fcd->add_subcommand(op.name, op.help);
    command->add_option("uid", *uid, "User id or name")->required();
    command->callback([&context, uid, &op] {
      context.run = [uid, &op] {
        std::optional<uid_t> resolved = resolveUser(*uid);
        if (!resolved) return fail("unknown user \"" + *uid + "\"");
        return printStatus(op.operation(*resolved));
      };
    });
  }
  fcd->add_subcommand("listening-changed", "Tell the daemon the listening marker changed")
      ->callback([&context] {
        context.run = [] { return printStatus(GWUtilities::fcdListeningStatusChanged()); };
      });

  auto* ipc = app.add_subcommand("ipc", "Call daemon routines directly");
  ipc->require_subcommand(1);
  auto options = std::make_shared<CallOptions>();
  auto* call = ipc->add_subcommand("call", "Call any routine of the catalogue by its name");
  call->add_option("routine", options->routine, "Exported routine name, e.g. _GWMIGUserCanLogin")
      ->required();
  call->add_option("--timeout", options->timeout, "Time-out in milliseconds")
      ->each([options](const std::string&) { options->timeoutGiven = true; });
  call->add_option("--out", options->out, "Write a returned region to this file");
  call->add_option("args", options->args, "The routine's request fields, in argument order");
  call->callback([&context, options] { context.run = [options] { return ipcCall(*options); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerIpcCommands);

}  // namespace gwcli
