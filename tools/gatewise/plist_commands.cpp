// gatewise plist convert|print: property-list files from a shell.
//
// Both commands read either encoding (the reader detects it). A file that cannot be read, or a
// value that cannot be written in the asked encoding, is a usage error (exit 2) and leaves no
// output file: files are written atomically, and only once the whole input has been read.
#include <gatewise/plist.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"

namespace gwcli {
namespace {

constexpr const char* kStandardStream = "-";
constexpr std::size_t kMaxPrintedText = std::size_t(1) << 30;

struct ConvertOptions {
  std::string format;
  std::string input;
  std::string output;
};

// Standard input, whole, up to the same bound as a property-list file.
bool readStandardInput(std::string& bytes, std::string& error) {
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = std::string("cannot read standard input: ") + std::strerror(errno);
      return false;
    }
    if (n == 0) return true;
    if (bytes.size() + std::size_t(n) > gw::plist::kMaxPropertyListFileSize) {
      error = "standard input is larger than a property list may be";
      return false;
    }
    bytes.append(buffer, std::size_t(n));
  }
}

bool writeStandardOutput(const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(STDOUT_FILENO, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += std::size_t(n);
  }
  return true;
}

// A large value takes about as long to free as to read, and the process ends right after the
// command: the value is left for the exit to reclaim. It stays reachable from a static, so leak
// checkers do not count it.
void keepUntilExit(gw::plist::Value value) {
  static auto* kept = new std::vector<gw::plist::Value>();
  kept->push_back(std::move(value));
}

// Reads IN ("-": standard input) or fails with the reader's one-line reason.
std::optional<gw::plist::Value> readInput(const std::string& input, std::string& error) {
  gw::plist::ReadResult result;
  if (input == kStandardStream) {
    std::string bytes;
    if (!readStandardInput(bytes, error)) return std::nullopt;
    result = gw::plist::readPropertyList(std::string_view(bytes));
  } else {
    result = gw::plist::readPropertyListFile(input);
  }
  if (!result) {
    error = "cannot read " + (input == kStandardStream ? std::string("standard input") : input) +
            ": " + result.error;
    return std::nullopt;
  }
  return std::move(result.value);
}

int convert(const ConvertOptions& options) {
  std::string error;
  std::optional<gw::plist::Value> value = readInput(options.input, error);
  if (!value) return fail(error);
  keepUntilExit(*value);
  gw::plist::Format format =
      options.format == "binary" ? gw::plist::Format::Binary : gw::plist::Format::XML;
  if (options.output == kStandardStream) {
    std::optional<std::string> bytes = gw::plist::writePropertyList(*value, format, &error);
    if (!bytes) return fail("cannot convert " + options.input + ": " + error);
    if (!writeStandardOutput(*bytes)) return fail("cannot write standard output");
    return kExitYes;
  }
  if (!gw::plist::writePropertyListFile(options.output, *value, format, &error)) {
    return fail("cannot write " + options.output + ": " + error);
  }
  return kExitYes;
}

int print(const std::string& input) {
  std::string error;
  std::optional<gw::plist::Value> value = readInput(input, error);
  if (!value) return fail(error);
  keepUntilExit(*value);
  // A small file can describe an enormous text (containers held in many places are written out at
  // each): refuse it rather than print without end.
  std::optional<std::string> text = gw::plist::description(*value, kMaxPrintedText);
  if (!text) {
    return fail("cannot print " + input + ": its text would be larger than " +
                std::to_string(kMaxPrintedText >> 20) + " MiB (containers held in many places)");
  }
  *text += "\n";
  return writeStandardOutput(*text) ? kExitYes : fail("cannot write standard output");
}

void registerPlistCommands(CLI::App& app, Context& context) {
  CLI::App* plist = app.add_subcommand("plist", "Convert and print property lists");
  plist->require_subcommand(1);

  auto options = std::make_shared<ConvertOptions>();
  CLI::App* convertCommand = plist->add_subcommand(
      "convert", "Read a property list in either encoding and write it in the one asked");
  convertCommand->add_option("--format", options->format, "Encoding to write: xml or binary")
      ->required()
      ->check(CLI::IsMember({"xml", "binary"}));
  convertCommand->add_option("IN", options->input, "Input file, or - for standard input")
      ->required();
  convertCommand->add_option("OUT", options->output, "Output file, or - for standard output")
      ->required();
  convertCommand->callback(
      [&context, options] { context.run = [options] { return convert(*options); }; });

  auto input = std::make_shared<std::string>();
  CLI::App* printCommand =
      plist->add_subcommand("print", "Print the description text of a property list's root value");
  printCommand->add_option("IN", *input, "Input file, or - for standard input")->required();
  printCommand->callback([&context, input] { context.run = [input] { return print(*input); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerPlistCommands);

}  // namespace gwcli
