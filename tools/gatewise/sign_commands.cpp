// gatewise sign / sign verify / sign requirement / keychain create-temp: application signing.
#include <gatewise/signing.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include "cli.h"

namespace {

constexpr std::size_t kMaxInputFile = 1 << 20;

// The whole file, at most kMaxInputFile bytes; nullopt when it cannot be read or is larger.
std::optional<std::string> readSmallFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes;
  char buffer[8192];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    bytes.append(buffer, std::size_t(in.gcount()));
    if (bytes.size() > kMaxInputFile) return std::nullopt;
  }
  return bytes;
}

std::optional<gw::plist::Data> readDataFile(const std::string& path) {
  auto bytes = readSmallFile(path);
  if (!bytes) return std::nullopt;
  return gw::plist::Data(bytes->begin(), bytes->end());
}

int signCommand(const std::string& path, const std::string& keychainPath,
                const std::string& passwordFile, const std::string& detachedOut) {
  gw::GWKeychainRef keychain;
  if (!keychainPath.empty()) {
    std::string password;
    if (!passwordFile.empty()) {
      auto text = readSmallFile(passwordFile);
      if (!text) return gwcli::fail("cannot read " + passwordFile);
      password = text->substr(0, text->find('\n'));
    }
    keychain = std::make_shared<const gw::GWKeychain>(gw::GWKeychain{keychainPath, password});
  }
  std::optional<gw::plist::Data> signature;
  bool detached = !detachedOut.empty();
  if (!GWCreateAppSignature(path, keychain, detached ? &signature : nullptr, detached))
    return gwcli::fail("cannot sign " + path);
  if (signature) {
    std::ofstream out(detachedOut, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(signature->data()), std::streamsize(signature->size()));
    if (!out.flush()) return gwcli::fail("cannot write " + detachedOut);
  }
  return gwcli::kExitYes;
}

int verifyCommand(const std::string& path, const std::string& detachedFile,
                  const std::string& requirementFile) {
  std::optional<gw::plist::Data> detached, requirement;
  if (!detachedFile.empty() && !(detached = readDataFile(detachedFile)))
    return gwcli::fail("cannot read " + detachedFile);
  if (!requirementFile.empty() && !(requirement = readDataFile(requirementFile)))
    return gwcli::fail("cannot read " + requirementFile);
  gw::GWValidation result =
      gw::GWValidateSignedApplicationWithReason(path, detached, requirement, 0);
  if (result.valid) {
    std::printf("valid\n");
    return gwcli::kExitYes;
  }
  std::printf("invalid: %s\n", result.reason.c_str());
  return gwcli::kExitNo;
}

int requirementCommand(const std::string& path, const std::string& detachedFile) {
  std::optional<gw::plist::Data> detached;
  if (!detachedFile.empty() && !(detached = readDataFile(detachedFile)))
    return gwcli::fail("cannot read " + detachedFile);
  auto requirement = GWCreateDesignatedRequirement(path, std::nullopt, detached);
  if (!requirement) return gwcli::fail(path + " is not signed");
  for (std::uint8_t byte : *requirement) std::printf("%02x", byte);
  std::printf("\n");
  return gwcli::kExitYes;
}

void registerSignCommands(CLI::App& app, gwcli::Context& context) {
  CLI::App* sign = app.add_subcommand("sign", "Sign a program, or check its signature");
  sign->require_subcommand(0, 1);
  auto path = std::make_shared<std::string>();
  auto keychain = std::make_shared<std::string>();
  auto passwordFile = std::make_shared<std::string>();
  auto detachedOut = std::make_shared<std::string>();
  sign->add_option("PATH", *path, "Program file or bundle folder");
  sign->add_option("--keychain", *keychain, "PKCS#12 keychain holding the signing identity");
  sign->add_option("--password-file", *passwordFile, "File whose first line is the password");
  sign->add_option("--detached", *detachedOut, "Write a detached signature here instead");

  auto verifyPath = std::make_shared<std::string>();
  auto verifyDetached = std::make_shared<std::string>();
  auto verifyRequirement = std::make_shared<std::string>();
  CLI::App* verify = sign->add_subcommand("verify", "Check a program's signature");
  verify->add_option("PATH", *verifyPath, "Program file or bundle folder")->required();
  verify->add_option("--detached", *verifyDetached, "Detached signature file");
  verify->add_option("--requirement", *verifyRequirement, "Requirement blob file");
  verify->callback([&context, verifyPath, verifyDetached, verifyRequirement] {
    context.run = [=] { return verifyCommand(*verifyPath, *verifyDetached, *verifyRequirement); };
  });

  auto requirementPath = std::make_shared<std::string>();
  auto requirementDetached = std::make_shared<std::string>();
  CLI::App* requirement =
      sign->add_subcommand("requirement", "Print a program's designated requirement (hex)");
  requirement->add_option("PATH", *requirementPath, "Program file or bundle folder")->required();
  requirement->add_option("--detached", *requirementDetached, "Detached signature file");
  requirement->callback([&context, requirementPath, requirementDetached] {
    context.run = [=] { return requirementCommand(*requirementPath, *requirementDetached); };
  });

  sign->callback([&context, sign, path, keychain, passwordFile, detachedOut] {
    if (!sign->get_subcommands().empty()) return;
    if (path->empty()) {
      context.run = [] { return gwcli::fail("sign: PATH is required"); };
      return;
    }
    context.run = [=] { return signCommand(*path, *keychain, *passwordFile, *detachedOut); };
  });

  CLI::App* keychainApp = app.add_subcommand("keychain", "Signing keychains");
  keychainApp->require_subcommand(1);
  CLI::App* createTemp =
      keychainApp->add_subcommand("create-temp", "Make a temporary signing keychain");
  auto showPassword = std::make_shared<bool>(false);
  createTemp->add_flag("--show-password", *showPassword,
                       "Also print the keychain's password on a second line");
  createTemp->callback([&context, showPassword] {
    context.run = [showPassword] {
      gw::GWKeychainRef keychain = GWCreateTempKeychainForCodesigning();
      if (keychain == nullptr) return gwcli::fail("cannot create a temporary keychain");
      std::printf("%s\n", keychain->path.c_str());
      if (*showPassword) std::printf("%s\n", keychain->password.c_str());
      return gwcli::kExitYes;
    };
  });
}

}  // namespace

GW_CLI_COMMANDS(registerSignCommands);
