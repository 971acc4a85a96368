// Identities of trees that their owner changes or fills with traps while they are read: FIFOs in
// place of sidecars, sidecars that describe far more than they hold, entries swapped for links.
// Also the writers of the Mach-O toolkit and the identity command's answer for a missing path.
#include <gatewise/identity.h>
#include <gatewise/prebinding.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/fs/file_io.h"
#include "support/macho_writer.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Identity {
  std::int32_t status = -1;
  Bytes record;
};

Identity identityOf(const std::string& path) {
  std::uint8_t* record = nullptr;
  std::uint32_t length = 0;
  Identity result;
  result.status = IdentityCreateWithPath(path.c_str(), nullptr, &record, &length);
  if (result.status == 0) result.record.assign(record, record + length);
  std::free(record);
  return result;
}

std::uint32_t digestCount(const Bytes& record) {
  if (record.size() < 48) return 0;
  return std::uint32_t(record[44]) << 24 | std::uint32_t(record[45]) << 16 |
         std::uint32_t(record[46]) << 8 | record[47];
}

std::string bigEndian(std::uint32_t value, int bytes) {
  std::string out;
  for (int i = bytes - 1; i >= 0; --i) out += char(value >> (8 * i));
  return out;
}

// A double-file sidecar with `count` descriptors, each naming the same `region` bytes as a
// resource fork (id 2 as this host reads it).
std::string sidecarWithEntries(std::uint32_t count, std::uint32_t region) {
  std::string s = bigEndian(0x00051607, 4) + bigEndian(0x00020000, 4) + std::string(16, '\0');
  s += bigEndian(count, 2);
  std::uint32_t dataAt = 26 + 12 * count;
  std::string id(4, '\0');
  std::uint32_t two = 2;
  std::memcpy(id.data(), &two, 4);
  for (std::uint32_t i = 0; i < count; ++i) s += id + bigEndian(dataAt, 4) + bigEndian(region, 4);
  return s + std::string(region, 'R');
}

TEST(HostileTreeTest, FifoSidecarsAndEntriesNeitherBlockNorCount) {
  gwtest::TempRoot root;
  root.writeFile("/App/a.txt", "alpha");
  root.writeFile("/App/b.txt", "beta");
  Identity plain = identityOf(root.at("/App"));
  ASSERT_EQ(plain.status, 0);
  ASSERT_EQ(::mkfifo(root.at("/App/._a.txt").c_str(), 0600), 0);
  // A FIFO opened for reading waits for a writer: run in the tool, which is killed if it hangs.
  gwtest::RunResult run =
      gwtest::runCli({"identity", root.at("/App")}, {.timeout = std::chrono::seconds(30)});
  EXPECT_EQ(run.status, 0) << run.err;
  Identity withFifo = identityOf(root.at("/App"));
  EXPECT_EQ(withFifo.status, 0);
  EXPECT_EQ(withFifo.record, plain.record);
  EXPECT_EQ(digestCount(withFifo.record), 2u);

  // The same for the sidecar of a file given as the root of the walk.
  ASSERT_EQ(::mkfifo(root.at("/._single").c_str(), 0600), 0);
  root.writeFile("/single", "one");
  gwtest::RunResult single =
      gwtest::runCli({"identity", root.at("/single")}, {.timeout = std::chrono::seconds(30)});
  EXPECT_EQ(single.status, 0) << single.err;
}

TEST(HostileTreeTest, SidecarWorkIsBoundedByItsSize) {
  gwtest::TempRoot root;
  root.writeFile("/S/a", "alpha");
  // 65,535 descriptors that all name the same 64 KiB: read naively, 4 GiB of hashing and a
  // 1 MiB record. No more bytes are hashed than the sidecar holds.
  constexpr std::uint32_t kRegion = 64 * 1024;
  std::string huge = sidecarWithEntries(65535, kRegion);
  root.writeFile("/S/._a", huge);
  Identity identity = identityOf(root.at("/S"));
  ASSERT_EQ(identity.status, 0);
  std::uint32_t forks = digestCount(identity.record) - 1;
  EXPECT_GE(forks, 1u);
  EXPECT_LE(forks, huge.size() / kRegion);

  // A well-formed sidecar with a few entries still counts each of them.
  root.writeFile("/S/._a", sidecarWithEntries(3, 16));
  EXPECT_EQ(digestCount(identityOf(root.at("/S")).record), 1u + 3u);
  // Descriptors promised but missing: only those present are read.
  std::string cut = sidecarWithEntries(3, 16);
  cut[25] = char(200);
  root.writeFile("/S/._a", cut);
  EXPECT_EQ(identityOf(root.at("/S")).status, 0);
}

// While one thread keeps swapping a file for a link to a secret and back, every identity of the
// tree is either that of the file, that of the link (its target text), or a refusal: the
// secret's contents are never read through the link.
TEST(HostileTreeTest, AnEntrySwappedForALinkIsNotFollowed) {
  gwtest::TempRoot root;
  std::string secret = root.writeFile("/secret", "the secret");
  // Hashing "a" holds the walk for a while between listing "f" (with its type) and opening it,
  // which is when the swapper strikes.
  root.writeFile("/T/a", std::string(std::size_t(4) << 20, 'a'));
  root.writeFile("/T/f", "public");
  Identity asFile = identityOf(root.at("/T"));
  ASSERT_EQ(::unlink(root.at("/T/f").c_str()), 0);
  ASSERT_EQ(::symlink(secret.c_str(), root.at("/T/f").c_str()), 0);
  Identity asLink = identityOf(root.at("/T"));
  // What following the link would give: the secret's contents as the file's.
  ASSERT_EQ(::unlink(root.at("/T/f").c_str()), 0);
  root.writeFile("/T/f", "the secret");
  Identity followed = identityOf(root.at("/T"));
  ASSERT_NE(followed.record, asFile.record);
  ASSERT_EQ(::unlink(root.at("/T/f").c_str()), 0);
  Identity absent = identityOf(root.at("/T"));  // between the swapper's two renames
  root.writeFile("/T/f", "public");

  root.writeFile("/spare/f", "public");
  ASSERT_EQ(::symlink(secret.c_str(), root.at("/spare/l").c_str()), 0);
  std::atomic<bool> stop{false};
  std::thread swapper([&] {
    std::string file = root.at("/spare/f"), link = root.at("/spare/l"), entry = root.at("/T/f");
    bool linked = false;
    while (!stop.load()) {
      // Move the current entry out and the other one in, keeping both around.
      std::string away = linked ? link : file, in = linked ? file : link;
      if (::rename(entry.c_str(), away.c_str()) != 0) break;
      if (::rename(in.c_str(), entry.c_str()) != 0) break;
      linked = !linked;
    }
  });
  for (int i = 0; i < 100; ++i) {
    Identity now = identityOf(root.at("/T"));
    if (now.status != 0) {
      EXPECT_EQ(now.status, -1);
      continue;
    }
    ASSERT_FALSE(now.record == followed.record) << "the link was followed";
    ASSERT_TRUE(now.record == asFile.record || now.record == asLink.record ||
                now.record == absent.record)
        << "an identity of a state the tree was never in";
  }
  stop = true;
  swapper.join();
}

TEST(HostileTreeTest, UnprebindWritesNoFileThroughAPlantedLink) {
  using namespace gwtest::macho;
  gwtest::TempRoot root;
  Bytes prebound = writeImage({true, false, true}, Prebinding{});
  Bytes canonical = writeImage({true, false, true});
  std::string victim = root.writeFile("/victim", "keep me");
  std::string in = root.writeFile("/lib.dylib", std::string(prebound.begin(), prebound.end()));
  std::string out = root.at("/out.dylib");
  // The names the temporary files used to have, planted as links to the victim.
  ASSERT_EQ(::symlink(victim.c_str(), (out + ".redo_prebinding").c_str()), 0);
  ASSERT_EQ(::symlink(victim.c_str(), (in + ".redo_prebinding").c_str()), 0);

  EXPECT_EQ(unprebind(in.c_str(), out.c_str(), nullptr, nullptr, 1, nullptr, 0, nullptr, nullptr),
            REDO_PREBINDING_SUCCESS);
  EXPECT_EQ(gw::fs::readFile(out, 1 << 20), std::string(canonical.begin(), canonical.end()));
  // Over the input itself (no output named): the victim is untouched.
  EXPECT_EQ(unprebind(in.c_str(), nullptr, nullptr, nullptr, 1, nullptr, 0, nullptr, nullptr),
            REDO_PREBINDING_SUCCESS);
  EXPECT_EQ(gw::fs::readFile(in, 1 << 20), std::string(canonical.begin(), canonical.end()));
  EXPECT_EQ(gw::fs::readFile(victim, 1 << 20), "keep me");
  // No temporary file is left beside either.
  struct stat link;
  EXPECT_EQ(::lstat((in + ".redo_prebinding").c_str(), &link), 0);
  EXPECT_TRUE(S_ISLNK(link.st_mode));
}

TEST(HostileTreeTest, IdentityCommandRefusesAMissingPath) {
  gwtest::TempRoot root;
  std::string missing = root.at("/no/such/App");
  gwtest::RunResult run = gwtest::runCli({"identity", missing});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find(missing), std::string::npos) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  // The library's own answer is unchanged: the record of an empty walk.
  Identity library = identityOf(missing);
  EXPECT_EQ(library.status, 0);
  EXPECT_EQ(library.record.size(), 48u);
}

}  // namespace
