// gatewise log LEVEL FUNCTION LINE MESSAGE: one line through the library's log, for checking how a
// system's log is set up. The message is logged as it is (through "%s"): percent signs in it are
// not conversions. An empty FUNCTION is passed as null, which the log writes as "unknown".
#include <gatewise/log.h>

#include <cstdint>
#include <memory>
#include <string>

#include "cli.h"

namespace gwcli {
namespace {

struct LogOptions {
  std::int32_t level = 0;
  std::string function;
  std::int32_t line = 0;
  std::string message;
};

void registerLogCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<LogOptions>();
  CLI::App* log = app.add_subcommand("log", "Write one line through the library's log");
  log->add_option("LEVEL", options->level, "Message level: 0 error .. 3 launch detail")->required();
  log->add_option("FUNCTION", options->function, "Function name to log (empty: unknown)")
      ->required();
  log->add_option("LINE", options->line, "Source line to log")->required();
  log->add_option("MESSAGE", options->message, "Message text, logged as it is")->required();
  log->callback([&context, options] {
    context.run = [options] {
      const char* function = options->function.empty() ? nullptr : options->function.c_str();
      gw::GWFrameworkLog(options->level, function, options->line, "%s", options->message);
      return kExitYes;
    };
  });
}

}  // namespace

GW_CLI_COMMANDS(registerLogCommands);

}  // namespace gwcli
