#include <dirent.h>
#include <fcntl.h>
#include <gatewise/identity.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "identity/identity_buffer.h"
#include "platform/digest/digest.h"
#include "support/macho_writer.h"
#include "support/temp_root.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes identityOf(const std::string& path, std::vector<const char*> excluded = {},
                 std::int32_t* status = nullptr) {
  std::uint8_t* record = nullptr;
  std::uint32_t length = 0;
  const char* const* list = nullptr;
  if (!excluded.empty()) {
    excluded.push_back(nullptr);
    list = excluded.data();
  }
  std::int32_t result = IdentityCreateWithPath(path.c_str(), list, &record, &length);
  if (status != nullptr) *status = result;
  Bytes out;
  if (result == 0) out.assign(record, record + length);
  std::free(record);
  return out;
}

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// The record computed from its definition: the walk's entries (depth, type bits, name) and the
// content pieces in walk order.
struct Entry {
  std::uint32_t depth, type;
  std::string name;
};
Bytes expectedRecord(const std::vector<Entry>& entries, const std::vector<Bytes>& contents) {
  Bytes shape;
  auto big32 = [](Bytes& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(std::uint8_t(v >> (24 - 8 * i)));
  };
  for (const Entry& e : entries) {
    big32(shape, e.depth);
    big32(shape, e.type);
    shape.insert(shape.end(), e.name.begin(), e.name.end());
  }
  Bytes tail;
  auto shapeDigest = gw::digest::md5(shape);
  tail.insert(tail.end(), shapeDigest.begin(), shapeDigest.end());
  big32(tail, std::uint32_t(contents.size()));
  for (const Bytes& piece : contents) {
    auto d = gw::digest::md5(piece);
    tail.insert(tail.end(), d.begin(), d.end());
  }
  Bytes record = {'4', '2', '5', '3'};
  big32(record, 1);
  auto sha = gw::digest::sha1(tail);
  record.insert(record.end(), sha.begin(), sha.end());
  record.insert(record.end(), tail.begin(), tail.end());
  return record;
}

// Empties a folder through descriptors, so depth and path length do not matter.
void removeContents(int folder) {
  DIR* listing = ::fdopendir(::dup(folder));
  if (listing == nullptr) return;
  while (dirent* entry = ::readdir(listing)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    if (::unlinkat(folder, entry->d_name, 0) == 0) continue;
    int child = ::openat(folder, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (child >= 0) {
      removeContents(child);
      ::close(child);
    }
    ::unlinkat(folder, entry->d_name, AT_REMOVEDIR);
  }
  ::closedir(listing);
}
void removeBelow(const std::string& path) {
  int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY);
  if (folder < 0) return;
  removeContents(folder);
  ::close(folder);
}

constexpr std::uint32_t kDir = 0x4000, kFile = 0x8000, kLink = 0xA000;

std::string sampleBundle(const gwtest::TempRoot& root, const std::string& name = "/App") {
  root.writeFile(name + "/a.txt", "alpha");
  root.writeFile(name + "/sub/b.bin", "beta");
  ::symlink("a.txt", root.at(name + "/link").c_str());
  return root.at(name);
}

TEST(DigestTest, PublishedVectors) {
  auto md5 = gw::digest::md5(bytesOf("abc"));
  auto sha1 = gw::digest::sha1(bytesOf("abc"));
  EXPECT_EQ(md5[0], 0x90);
  EXPECT_EQ(md5[15], 0x72);
  EXPECT_EQ(sha1[0], 0xa9);
  EXPECT_EQ(sha1[19], 0x9d);
}

TEST(IdentityTest, RecordLayoutMatchesItsDefinition) {
  gwtest::TempRoot root;
  std::string bundle = sampleBundle(root);
  Bytes expected = expectedRecord({{0, kDir, ""},
                                   {1, kFile, "a.txt"},
                                   {1, kLink, "link"},
                                   {1, kDir, "sub"},
                                   {2, kFile, "b.bin"},
                                   {1, kDir, "sub"},
                                   {0, kDir, ""}},
                                  {bytesOf("alpha"), bytesOf("a.txt"), bytesOf("beta")});
  Bytes actual = identityOf(bundle);
  EXPECT_EQ(actual.size(), 48u + 3 * 16);
  EXPECT_EQ(actual, expected);

  // Excluding "sub" leaves out its own two entries, not its child.
  expected = expectedRecord(
      {{0, kDir, ""}, {1, kFile, "a.txt"}, {1, kLink, "link"}, {2, kFile, "b.bin"}, {0, kDir, ""}},
      {bytesOf("alpha"), bytesOf("a.txt"), bytesOf("beta")});
  EXPECT_EQ(identityOf(bundle, {"sub"}), expected);
  EXPECT_EQ(identityOf(bundle + "/", {"sub"}), expected);  // leading slashes of the rest dropped
}

TEST(IdentityTest, PlainFileAndEmptyFolder) {
  gwtest::TempRoot root;
  std::string file = root.writeFile("/tool", "contents");
  EXPECT_EQ(identityOf(file), expectedRecord({{0, kFile, ""}}, {bytesOf("contents")}));
  std::string empty = root.makeFolder("/Empty");
  Bytes record = identityOf(empty);
  EXPECT_EQ(record.size(), 48u);
  EXPECT_EQ(record, expectedRecord({{0, kDir, ""}, {0, kDir, ""}}, {}));
}

TEST(IdentityTest, WhatChangesTheIdentityAndWhatDoesNot) {
  gwtest::TempRoot root;
  Bytes original = identityOf(sampleBundle(root, "/One"));
  ASSERT_FALSE(original.empty());

  ASSERT_EQ(::rename(root.at("/One").c_str(), root.at("/Renamed").c_str()), 0);
  EXPECT_EQ(identityOf(root.at("/Renamed")), original);
  ASSERT_EQ(::chmod(root.at("/Renamed/a.txt").c_str(), 0600), 0);
  ASSERT_EQ(::chmod(root.at("/Renamed/sub").c_str(), 0700), 0);
  EXPECT_EQ(identityOf(root.at("/Renamed")), original);

  sampleBundle(root, "/Two");
  ASSERT_EQ(::rename(root.at("/Two/sub/b.bin").c_str(), root.at("/Two/sub/c.bin").c_str()), 0);
  EXPECT_NE(identityOf(root.at("/Two")), original);

  sampleBundle(root, "/Three");
  root.makeFolder("/Three/empty");
  EXPECT_NE(identityOf(root.at("/Three")), original);

  // Same names and contents, other nesting: b.bin one level up.
  root.writeFile("/Four/a.txt", "alpha");
  root.writeFile("/Four/sub/deeper/b.bin", "beta");
  ::symlink("a.txt", root.at("/Four/link").c_str());
  EXPECT_NE(identityOf(root.at("/Four")), original);
}

TEST(IdentityTest, SymbolicLinksHashTheirTargetTextEvenWhenDangling) {
  gwtest::TempRoot root;
  root.makeFolder("/L");
  ASSERT_EQ(::symlink("nowhere/at/all", root.at("/L/dangling").c_str()), 0);
  Bytes record = identityOf(root.at("/L"));
  EXPECT_EQ(record, expectedRecord({{0, kDir, ""}, {1, kLink, "dangling"}, {0, kDir, ""}},
                                   {bytesOf("nowhere/at/all")}));
}

TEST(IdentityTest, SidecarFilesAreNeverEntriesButHoldTheResourceFork) {
  gwtest::TempRoot root;
  root.writeFile("/S/a.txt", "alpha");
  Bytes plain = identityOf(root.at("/S"));
  root.writeFile("/S/._a.txt", "not a double file");
  EXPECT_EQ(identityOf(root.at("/S")), plain);

  // An double-file sidecar with one entry, id bytes as given, whose data is "RSRC".
  auto sidecar = [](std::string idBytes) {
    std::string s("\x00\x05\x16\x07\x00\x02\x00\x00", 8);
    s += std::string(16, '\0') + std::string("\x00\x01", 2);
    s += idBytes + std::string("\x00\x00\x00\x26\x00\x00\x00\x04", 8) + "RSRC";
    return s;
  };
  std::string hostTwo(4, '\0');
  std::uint32_t two = 2;
  std::memcpy(hostTwo.data(), &two, 4);
  root.writeFile("/S/._a.txt", sidecar(hostTwo));
  EXPECT_EQ(identityOf(root.at("/S")),
            expectedRecord({{0, kDir, ""}, {1, kFile, "a.txt"}, {0, kDir, ""}},
                           {bytesOf("RSRC"), bytesOf("alpha")}));
  if (std::endian::native == std::endian::little) {
    // The id is compared unconverted: a big-endian 2 is not a resource fork on this host.
    root.writeFile("/S/._a.txt", sidecar(std::string("\x00\x00\x00\x02", 4)));
    EXPECT_EQ(identityOf(root.at("/S")), plain);
  }
}

TEST(IdentityTest, PrebindingDoesNotChangeTheIdentityOfBigEndianImages) {
  using namespace gwtest::macho;
  gwtest::TempRoot root;
  auto install = [&](const std::string& where, const Bytes& image) {
    return root.writeFile(where, std::string(image.begin(), image.end()));
  };
  Prebinding other;
  other.libraryTimestamps[0] = 0x50000000;
  other.bound[1] = 0x92000000;
  for (ImageOptions options : {ImageOptions{true, false, false}, ImageOptions{true, true, true}}) {
    std::string canonical = install("/c/x", writeImage(options));
    std::string prebound = install("/p/x", writeImage(options, Prebinding{}));
    std::string again = install("/q/x", writeImage(options, other));
    Bytes id = identityOf(canonical);
    EXPECT_EQ(identityOf(prebound), id);
    EXPECT_EQ(identityOf(again), id);
    EXPECT_EQ(id, expectedRecord({{0, kFile, ""}}, {writeImage(options)}));
  }
  // Little-endian images are hashed byte for byte, prebinding and all.
  ImageOptions little{false, false, false};
  Bytes prebound = writeImage(little, Prebinding{});
  EXPECT_EQ(identityOf(install("/l/x", prebound)), expectedRecord({{0, kFile, ""}}, {prebound}));
}

TEST(IdentityTest, ThreadsMakingIdentitiesOfPreboundImagesAgree) {
  using namespace gwtest::macho;
  gwtest::TempRoot root;
  for (int i = 0; i < 4; ++i) {
    Prebinding prebinding;
    prebinding.bound[0] += std::uint32_t(i) * 0x100;
    Bytes image = writeImage({true, false, i % 2 == 1}, prebinding);
    root.writeFile("/T/bin" + std::to_string(i), std::string(image.begin(), image.end()));
  }
  Bytes expected = identityOf(root.at("/T"));
  ASSERT_FALSE(expected.empty());
  std::vector<Bytes> results(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 10; ++round) results[t] = identityOf(root.at("/T"));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const Bytes& result : results) EXPECT_EQ(result, expected);
}

TEST(IdentityTest, HostileTreesGiveAStatusNotACrash) {
  gwtest::TempRoot root;
  std::int32_t status = 0;
  uint8_t* record = reinterpret_cast<uint8_t*>(1);
  uint32_t length = 7;
  EXPECT_EQ(IdentityCreateWithPath(nullptr, nullptr, &record, &length), -50);
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(length, 0u);

  // Nesting within the path limit walks whole; the longest names a file system allows.
  std::string deep = "/Deep";
  for (int i = 0; i < 60; ++i) deep += "/" + std::string(40, char('a' + i % 26));
  root.writeFile(deep + "/" + std::string(255, 'z'), "bottom");
  Bytes record1 = identityOf(root.at("/Deep"), {}, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(record1.size(), 48u + 16);

  // Nesting past the path limit (made with mkdirat/openat): a status, never a crash.
  int fd = ::open(root.makeFolder("/Deeper").c_str(), O_RDONLY | O_DIRECTORY);
  for (int i = 0; i < 150 && fd >= 0; ++i) {
    std::string name(60, char('a' + i % 26));
    ::mkdirat(fd, name.c_str(), 0755);
    int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
    ::close(fd);
    fd = next;
  }
  ASSERT_GE(fd, 0);
  int leaf = ::openat(fd, "leaf", O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(leaf, 0);
  ::close(leaf);
  ::close(fd);
  Bytes record2 = identityOf(root.at("/Deeper"), {}, &status);
  EXPECT_TRUE(status == 0 || status == -1) << status;
  if (status == 0) {
    EXPECT_EQ((record2.size() - 48) % 16, 0u);
  }
  removeBelow(root.at("/Deeper"));  // by descriptors: paths there are too long for the usual way

  // A FIFO is shape only (never opened).
  root.makeFolder("/Fifo");
  ASSERT_EQ(::mkfifo(root.at("/Fifo/pipe").c_str(), 0600), 0);
  EXPECT_EQ(identityOf(root.at("/Fifo"), {}, &status).size(), 48u);

  // An unreadable file, for a caller who cannot read it, aborts the walk with -1.
  std::string secret = root.writeFile("/Locked/secret", "x");
  ASSERT_EQ(::chmod(secret.c_str(), 0), 0);
  ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
  pid_t child = ::fork();
  if (child == 0) {
    if (::getuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) _exit(100);
    std::int32_t result = 0;
    identityOf(root.at("/Locked"), {}, &result);
    _exit(result == -1 ? 0 : 1);
  }
  int wait = 0;
  ASSERT_EQ(::waitpid(child, &wait, 0), child);
  EXPECT_TRUE(WIFEXITED(wait) && WEXITSTATUS(wait) == 0) << WEXITSTATUS(wait);
}

TEST(IdentityHelpersTest, PushMD5FromFileNeedsTheWholeCount) {
  gwtest::TempRoot root;
  std::string path = root.writeFile("/f", "0123456789");
  int fd = ::open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  gw::identity::IdentityBuffer buffer;
  ASSERT_TRUE(gw::identity::bufferCreate(buffer));
  EXPECT_EQ(_BufferPushMD5FromFile(&buffer, fd, 4), 0);  // "0123"
  EXPECT_EQ(_BufferPushMD5FromFile(&buffer, fd, 100), -36);
  EXPECT_EQ(buffer.length, 16u);
  auto expected = gw::digest::md5(bytesOf("0123"));
  EXPECT_EQ(0, std::memcmp(buffer.data, expected.data(), 16));
  // Growth by 1024: 64 digests fill the first block, the 65th grows it.
  for (int i = 0; i < 64; ++i) ASSERT_EQ(gw::identity::bufferPushMD5(buffer, "x", 1), 0);
  EXPECT_EQ(buffer.capacity, 2048u);
  gw::identity::bufferFree(buffer);
  ::close(fd);
}

TEST(IdentityHelpersTest, ReadMachHeaderTurnsHeadersToHostOrder) {
  gwtest::TempRoot root;
  Bytes image = gwtest::macho::writeImage({});
  std::string path = root.writeFile("/x", std::string(image.begin(), image.end()));
  std::string pef = root.writeFile(
      "/pef", std::string("Joy!\x00\x00\x00\x01peffpwpc", 16) + std::string(12, '\x7f'));
  int fd = ::open(path.c_str(), O_RDONLY);
  GWMachHeader header{};
  ReadMachHeader(fd, &header, 0);
  ::close(fd);
  if (std::endian::native == std::endian::little) {
    EXPECT_EQ(header.magic, 0xFEEDFACEu);
    EXPECT_EQ(header.cputype, 18u);
    EXPECT_EQ(header.filetype, 2u);
  }
  fd = ::open(pef.c_str(), O_RDONLY);
  ReadMachHeader(fd, &header, 0);
  ::close(fd);
  EXPECT_EQ(header.magic, 0x4A6F7921u);
  EXPECT_EQ(header.ncmds, 0u);
  EXPECT_EQ(header.flags, 0u);
  if (std::endian::native == std::endian::little) {
    EXPECT_EQ(header.cputype, 1u);
  }
}

}  // namespace
