#include <gatewise/prebinding.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "identity/prebinding/byte_order.h"
#include "support/macho_writer.h"
#include "support/temp_root.h"

namespace {

using gwtest::macho::Bytes;
using gwtest::macho::ImageOptions;
using gwtest::macho::Prebinding;
using gwtest::macho::writeImage;

struct Result {
  int status;
  Bytes output;
  std::string message;
};

Result unprebindMemory(const Bytes& input, bool zeroOut = true, const char* program = nullptr) {
  void* out = nullptr;
  std::uint64_t size = 0;
  char* message = nullptr;
  Result result;
  result.status = unprebind(nullptr, nullptr, program, &message, zeroOut, input.data(),
                            input.size(), &out, &size);
  if (out != nullptr) {
    auto* bytes = static_cast<std::uint8_t*>(out);
    result.output.assign(bytes, bytes + size);
    std::free(out);
  }
  if (message != nullptr) {
    result.message = message;
    std::free(message);
  }
  return result;
}

Prebinding otherPrebinding() {
  Prebinding other;
  other.base = 0x9A000000;
  other.libraryTimestamps[0] = 0x45000000;
  other.libraryTimestamps[1] = 0x46000000;
  other.currentVersion = 0x00590000;
  other.idTimestamp = 0x47000000;
  other.checksum = 0x12345678;
  other.bound[0] = 0x91000010, other.bound[1] = 0x91000020;
  other.bound[2] = 0x91000030, other.bound[3] = 0x91000040;
  return other;
}

std::string describe(const ImageOptions& o) {
  return std::string(o.bigEndian ? "big-endian " : "little-endian ") +
         (o.is64 ? "64-bit " : "32-bit ") + (o.dylib ? "library" : "executable");
}

const ImageOptions kAllKinds[] = {
    {true, false, false}, {true, false, true}, {false, false, false}, {false, false, true},
    {true, true, false},  {true, true, true},  {false, true, false},  {false, true, true},
};

// The canonical bytes of a library are based at zero: equality also checks the rebasing.
TEST(UnprebindTest, PreboundImagesOfEveryKindComeBackToTheirCanonicalBytes) {
  for (const ImageOptions& options : kAllKinds) {
    SCOPED_TRACE(describe(options));
    Bytes canonical = writeImage(options);
    Bytes prebound = writeImage(options, Prebinding{});
    Bytes preboundElsewhere = writeImage(options, otherPrebinding());
    ASSERT_NE(prebound, canonical);
    ASSERT_NE(prebound, preboundElsewhere);
    Result first = unprebindMemory(prebound);
    Result second = unprebindMemory(preboundElsewhere);
    ASSERT_EQ(first.status, 0) << first.message;
    ASSERT_EQ(second.status, 0) << second.message;
    EXPECT_EQ(first.output, canonical);
    EXPECT_EQ(second.output, canonical);
  }
}

TEST(UnprebindTest, NeverPreboundImageGivesTwoAndWritesNothing) {
  gwtest::TempRoot root;
  Bytes canonical = writeImage({});
  std::string input = root.writeFile("/in", std::string(canonical.begin(), canonical.end()));
  std::string output = root.at("/out");
  char* message = nullptr;
  EXPECT_EQ(
      unprebind(input.c_str(), output.c_str(), nullptr, &message, 1, nullptr, 0, nullptr, nullptr),
      2);
  EXPECT_EQ(message, nullptr);
  EXPECT_NE(::access(output.c_str(), F_OK), 0);
  Result fromMemory = unprebindMemory(canonical);
  EXPECT_EQ(fromMemory.status, 2);
  EXPECT_TRUE(fromMemory.output.empty());
}

TEST(UnprebindTest, FatFilesAndArchivesHaveEveryMemberUnprebound) {
  using namespace gwtest::macho;
  ImageOptions big{true, false, false}, little{false, false, true}, big64{true, true, true};
  Bytes fat = writeFat({{cpuTypeFor(big), 0, writeImage(big, Prebinding{})},
                        {cpuTypeFor(little), 3, writeImage(little, otherPrebinding())}});
  Bytes canonicalFat = writeFat(
      {{cpuTypeFor(big), 0, writeImage(big)}, {cpuTypeFor(little), 3, writeImage(little)}});
  Result result = unprebindMemory(fat);
  ASSERT_EQ(result.status, 0) << result.message;
  EXPECT_EQ(result.output, canonicalFat);

  Bytes archive =
      writeArchive({{"short.dylib", writeImage(big64, Prebinding{})},
                    {"a rather long member name.dylib", writeImage(little, Prebinding{})},
                    {"notes.txt", Bytes{'h', 'i'}}});
  Bytes canonicalArchive = writeArchive({{"short.dylib", writeImage(big64)},
                                         {"a rather long member name.dylib", writeImage(little)},
                                         {"notes.txt", Bytes{'h', 'i'}}});
  result = unprebindMemory(archive);
  ASSERT_EQ(result.status, 0) << result.message;
  EXPECT_EQ(result.output, canonicalArchive);
}

TEST(UnprebindTest, RewritingInPlaceKeepsModeAndOwnerAndLeavesNoTemporaryFile) {
  gwtest::TempRoot root;
  Bytes prebound = writeImage({}, Prebinding{});
  std::string path = root.writeFile("/bin/tool", std::string(prebound.begin(), prebound.end()));
  ASSERT_EQ(::chmod(path.c_str(), 0751), 0);
  const bool superuser = ::geteuid() == 0;
  if (superuser) {
    ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
  }
  ASSERT_EQ(unprebind(path.c_str(), nullptr, nullptr, nullptr, 1, nullptr, 0, nullptr, nullptr), 0);
  std::ifstream in(path, std::ios::binary);
  Bytes written((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(written, writeImage({}));
  struct stat info;
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0751u);
  if (superuser) {
    EXPECT_EQ(info.st_uid, 65534u);
    EXPECT_EQ(info.st_gid, 65534u);
  }
  EXPECT_NE(::access((path + ".redo_prebinding").c_str(), F_OK), 0);
}

TEST(UnprebindTest, ChecksumIsKeptUnlessZeroed) {
  Prebinding prebinding;
  Result kept = unprebindMemory(writeImage({}, prebinding), false);
  ASSERT_EQ(kept.status, 0);
  Bytes expected = writeImage({});
  EXPECT_NE(kept.output, expected);
  // The checksum is the only difference.
  std::size_t differing = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) differing += kept.output[i] != expected[i];
  EXPECT_LE(differing, 4u);
}

TEST(UnprebindTest, FailuresReportTheirTextAndResultOne) {
  Bytes prebound = writeImage({}, Prebinding{});
  // A static executable: clear the dynamically linked flag (bit 0x4 of the last header byte).
  Bytes isStatic = prebound;
  isStatic[27] &= ~0x4;
  Result result = unprebindMemory(isStatic, true, "tester");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(
      result.message.find("tester: file is Mach-O executable that isnot dynamically linked: "),
      std::string::npos)
      << result.message;
  EXPECT_TRUE(result.output.empty());

  // Lazy pointers whose indirect entries run past the table: reserved1 of __la_symbol_ptr.
  Bytes pastTable = prebound;
  std::size_t lazySection = 28 + 56 + 56 + 68 + 56 + 2 * 68;
  gw::macho::store32(pastTable.data() + lazySection + 60, 4, gw::macho::ByteSex::Big);
  result = unprebindMemory(pastTable);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.message.find("mallformed file: (from unprebind() call) (for architecture ppc) "
                                "(indirect symbol table entries for section "
                                "(__DATA,__la_symbol_ptr) extends past the end of the indirect "
                                "symbol table)"),
            std::string::npos)
      << result.message;

  // The scattered entry recording the first lazy pointer's value moved to another address.
  Bytes noRecord = prebound;
  std::uint32_t first = gw::macho::load32(noRecord.data() + 0x2010, gw::macho::ByteSex::Big);
  gw::macho::store32(noRecord.data() + 0x2010, first + 0x100, gw::macho::ByteSex::Big);
  result = unprebindMemory(noRecord);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.message.find("(for architecture ppc) (no local relocation entry for lazy symbol "
                                "pointer 0)"),
            std::string::npos)
      << result.message;

  // Every truncation of the image ends in 1 or 2 with nothing written on failure.
  for (std::size_t size = 0; size < prebound.size(); size += 37) {
    Bytes cut(prebound.begin(), prebound.begin() + long(size));
    Result r = unprebindMemory(cut);
    ASSERT_TRUE(r.status == 1 || r.status == 2 || r.status == 0) << size;
    if (r.status == 1) {
      EXPECT_FALSE(r.message.empty());
    }
  }
}

TEST(UnprebindTest, SidecarResourceForkRefusesTheFile) {
  gwtest::TempRoot root;
  Bytes prebound = writeImage({}, Prebinding{});
  std::string path = root.writeFile("/tool", std::string(prebound.begin(), prebound.end()));
  // double-file header with one resource-fork entry (id 2) of 4 bytes at offset 38.
  std::string sidecar("\x00\x05\x16\x07\x00\x02\x00\x00", 8);
  sidecar += std::string(16, '\0');
  sidecar += std::string("\x00\x01", 2);
  sidecar += std::string("\x00\x00\x00\x02\x00\x00\x00\x26\x00\x00\x00\x04", 12);
  sidecar += "RSRC";
  root.writeFile("/._tool", sidecar);
  char* message = nullptr;
  EXPECT_EQ(unprebind(path.c_str(), root.at("/out").c_str(), nullptr, &message, 1, nullptr, 0,
                      nullptr, nullptr),
            1);
  ASSERT_NE(message, nullptr);
  EXPECT_NE(std::string(message).find("redoing the prebinding can't be done because file has a "
                                      "resource fork or type/creator: "),
            std::string::npos);
  std::free(message);
}

TEST(MachOQueriesTest, AnswerFromTheSameReader) {
  gwtest::TempRoot root;
  Bytes exe = writeImage({}, Prebinding{});
  std::string path = root.writeFile("/tool", std::string(exe.begin(), exe.end()));
  Bytes lib = writeImage({true, false, true}, Prebinding{});
  std::string libPath = root.writeFile("/lib.dylib", std::string(lib.begin(), lib.end()));

  EXPECT_EQ(object_file_type(path.c_str(), nullptr, nullptr), OFT_EXECUTABLE);
  EXPECT_EQ(object_file_type(libPath.c_str(), nullptr, nullptr), OFT_DYLIB);
  char* message = nullptr;
  EXPECT_EQ(object_file_type(root.at("/missing").c_str(), nullptr, &message), OFT_FILE_ERROR);
  EXPECT_NE(message, nullptr);
  std::free(message);

  char** libs = dependent_libs(path.c_str(), nullptr, nullptr);
  ASSERT_NE(libs, nullptr);
  ASSERT_NE(libs[0], nullptr);
  EXPECT_STREQ(libs[0], "/usr/lib/libSystem.B.dylib");
  EXPECT_STREQ(libs[1], "/usr/local/lib/libother.dylib");
  EXPECT_EQ(libs[2], nullptr);
  std::free(libs);

  char* name = install_name(libPath.c_str(), nullptr, nullptr);
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name, "/usr/lib/libfixture.B.dylib");
  std::free(name);
  EXPECT_EQ(install_name(path.c_str(), nullptr, nullptr), nullptr);

  prebind_cksum_arch* sums = nullptr;
  std::uint64_t count = 0;
  ASSERT_EQ(get_prebind_cksums(path.c_str(), &sums, &count, nullptr, nullptr), 0);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(sums[0].cputype, 18);
  EXPECT_EQ(sums[0].has_cksum, 1);
  EXPECT_EQ(sums[0].cksum, Prebinding{}.checksum);
  std::free(sums);

  message = nullptr;
  EXPECT_EQ(redo_prebinding(&message, path.c_str(), nullptr, nullptr, nullptr, nullptr, 0, 1), 1);
  ASSERT_NE(message, nullptr);
  EXPECT_NE(std::string(message).find("not supported"), std::string::npos);
  std::free(message);
}

TEST(MachOQueriesTest, PrebindingIsOutOfDateWhenALibraryStampChanged) {
  gwtest::TempRoot root;
  Prebinding prebinding;
  Bytes exe = writeImage({}, prebinding);
  std::string path = root.writeFile("/tool", std::string(exe.begin(), exe.end()));
  auto installLibrary = [&](const char* where, std::uint32_t stamp) {
    Prebinding libraryBinding;
    libraryBinding.idTimestamp = stamp;
    Bytes lib = writeImage({true, false, true}, libraryBinding);
    root.writeFile(where, std::string(lib.begin(), lib.end()));
  };
  installLibrary("/usr/lib/libSystem.B.dylib", prebinding.libraryTimestamps[0]);
  char* message = nullptr;
  EXPECT_EQ(needs_redo_prebinding(path.c_str(), nullptr, root.path().c_str(), nullptr, &message),
            -1);
  EXPECT_NE(message, nullptr);
  std::free(message);
  installLibrary("/usr/local/lib/libother.dylib", prebinding.libraryTimestamps[1]);
  EXPECT_EQ(needs_redo_prebinding(path.c_str(), nullptr, root.path().c_str(), nullptr, nullptr), 0);
  installLibrary("/usr/local/lib/libother.dylib", prebinding.libraryTimestamps[1] + 1);
  EXPECT_EQ(needs_redo_prebinding(path.c_str(), nullptr, root.path().c_str(), nullptr, nullptr), 1);
  Bytes canonical = writeImage({});
  std::string plain = root.writeFile("/plain", std::string(canonical.begin(), canonical.end()));
  EXPECT_EQ(needs_redo_prebinding(plain.c_str(), nullptr, root.path().c_str(), nullptr, nullptr),
            2);
}

TEST(MachOByteOrderTest, RelocationWordsAreRepackedBetweenByteOrders) {
  Bytes big = writeImage({true, false, false});
  Bytes little = writeImage({false, false, false});
  // The first two local relocations (plain entries at the start of __LINKEDIT) have the same
  // fields in both images; only their packing differs.
  Bytes entries(big.begin() + 0x2000, big.begin() + 0x2010);
  gw::macho::swap_relocation_info(entries.data(), 2, gw::macho::ByteSex::Big,
                                  gw::macho::ByteSex::Little);
  EXPECT_EQ(entries, Bytes(little.begin() + 0x2000, little.begin() + 0x2010));

  // Swapping the whole header area twice gives the original back; once gives the other order.
  Bytes swapped = big;
  ASSERT_TRUE(gw::macho::swap_object_headers(swapped, gw::macho::ByteSex::Big));
  EXPECT_EQ(gw::macho::load32(swapped.data(), gw::macho::ByteSex::Little), 0xFEEDFACEu);
  ASSERT_TRUE(gw::macho::swap_object_headers(swapped, gw::macho::ByteSex::Little));
  EXPECT_EQ(swapped, big);
}

}  // namespace
