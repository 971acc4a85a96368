// The signing commands of the gatewise tool, end to end in a temporary root.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/process.h"
#include "support/temp_root.h"

namespace {

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

TEST(SigningCliTest, SignVerifyRequirementAndTamper) {
  gwtest::TempRoot root;
  root.makeFolder("/tmp");
  std::string program = root.writeFile("/Applications/tool", "payload");
  gwtest::RunOptions options;
  options.environment = {{"GATEWISE_ROOT", root.path()}, {"XDG_DATA_HOME", root.at("/home/data")}};

  gwtest::RunResult keychain =
      gwtest::runCli({"keychain", "create-temp", "--show-password"}, options);
  ASSERT_EQ(keychain.status, 0) << keychain.err;
  std::string keychainPath = firstLine(keychain.out);
  EXPECT_NE(keychainPath.find("/com.morvane.qrm."), std::string::npos);
  std::string password = keychain.out.substr(keychainPath.size() + 1);
  std::string passwordFile = root.writeFile("/home/password", password);

  std::string detached = root.at("/home/signature.der");
  gwtest::RunResult sign = gwtest::runCli({"sign", program, "--keychain", keychainPath,
                                           "--password-file", passwordFile, "--detached", detached},
                                          options);
  ASSERT_EQ(sign.status, 0) << sign.err;

  gwtest::RunResult unsignedCheck = gwtest::runCli({"sign", "verify", program}, options);
  EXPECT_EQ(unsignedCheck.status, 1);
  EXPECT_EQ(unsignedCheck.out.rfind("invalid: ", 0), 0u) << unsignedCheck.out;

  gwtest::RunResult verify =
      gwtest::runCli({"sign", "verify", program, "--detached", detached}, options);
  EXPECT_EQ(verify.status, 0) << verify.err;
  EXPECT_EQ(verify.out, "valid\n");

  gwtest::RunResult requirement =
      gwtest::runCli({"sign", "requirement", program, "--detached", detached}, options);
  ASSERT_EQ(requirement.status, 0) << requirement.err;
  // magic, length 72, expression form, and, identifier "com.unknown.tool"
  EXPECT_EQ(requirement.out.substr(0, 40),
            "fade0c00000000480000000100000006"
            "00000002");
  EXPECT_EQ(requirement.out.size(), 72u * 2 + 1);

  std::string bytes;
  for (std::size_t i = 0; i + 1 < requirement.out.size(); i += 2)
    bytes += char(std::stoi(requirement.out.substr(i, 2), nullptr, 16));
  std::string requirementFile = root.writeFile("/home/requirement", bytes);
  gwtest::RunResult withRequirement = gwtest::runCli(
      {"sign", "verify", program, "--detached", detached, "--requirement", requirementFile},
      options);
  EXPECT_EQ(withRequirement.out, "valid\n");
  std::string badRequirement = root.writeFile("/home/bad", bytes.substr(0, 20));
  gwtest::RunResult withBad = gwtest::runCli(
      {"sign", "verify", program, "--detached", detached, "--requirement", badRequirement},
      options);
  EXPECT_EQ(withBad.status, 1);
  EXPECT_EQ(withBad.out, "invalid: requirement length does not match its size\n");

  { std::ofstream(program, std::ios::app) << "!"; }
  gwtest::RunResult tampered =
      gwtest::runCli({"sign", "verify", program, "--detached", detached}, options);
  EXPECT_EQ(tampered.status, 1);
  EXPECT_EQ(tampered.out, "invalid: program has changed since it was signed\n");
}

}  // namespace
