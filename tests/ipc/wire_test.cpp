// The bytes every routine puts on the wire, checked from the server side against layouts written
// out here field by field (sizes as the message catalogue states them).
#include <gatewise/ipc.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>

#include "platform/mach/frame.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gw::ipc::Service;
using gwtest::TestDaemon;

// Expected message bytes after the header, written the way a server reads them.
struct Wire {
  std::vector<std::uint8_t> bytes;
  Wire& u32(std::uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes.push_back(std::uint8_t(v >> (8 * i)));
    return *this;
  }
  Wire& u64(std::uint64_t v) { return u32(std::uint32_t(v)).u32(std::uint32_t(v >> 32)); }
  Wire& ndr() {
    bytes.insert(bytes.end(), {0, 0, 0, 0, 1, 0, 0, 0});
    return *this;
  }
  Wire& inl(std::string_view s) {
    u32(std::uint32_t(s.size()));
    bytes.insert(bytes.end(), s.begin(), s.end());
    while (bytes.size() % 4) bytes.push_back(0);
    return *this;
  }
  // Out-of-line descriptor: the region's offset in the frame, deallocate 0, copy 1, type 1.
  Wire& ool(std::uint64_t offset, std::uint32_t size) {
    u64(offset);
    bytes.insert(bytes.end(), {0, 1, 0, 1});
    return u32(size);
  }
  Wire& port(std::uint32_t name) {
    u32(name).u32(0);
    bytes.insert(bytes.end(), {0, 0, 19, 0});
    return *this;
  }
};

vm_offset_t at(const std::string& s) { return reinterpret_cast<vm_offset_t>(s.data()); }
std::uint32_t len(const std::string& s) { return std::uint32_t(s.size()); }

const std::string kAbc = "abc", kKim = "kim", kPath = "/bn", kPage = "page-bytes";
const std::string kOne = "one", kSecond = "second", kData4 = "xyz1", kLog = "log";
const std::string kReq = "req", kA = "a", kBb = "bb", kCcc = "ccc", kEmpty;
constexpr std::int64_t kThird = 0x0102030405060708;

struct WireCase {
  const char* routine;
  Service service;
  std::uint32_t bits;
  std::uint32_t size;  // as the catalogue states it, with "+p" = 4 for a 3-byte string
  std::function<kern_return_t(mach_port_t)> call;
  Wire body;  // after the header
  std::string regions;
};

std::vector<WireCase> wireCases(int agentFd) {
  std::vector<WireCase> cases = {
      {"_GWMIGLumewayVisitedPage", Service::Daemon, 0x80000013, 68,
       [](mach_port_t p) {
         return _GWMIGLumewayVisitedPage(p, 1000, at(kPage), len(kPage), 501, kAbc.data(), 3);
       },
       Wire().u32(1).ool(68, 10).ndr().u32(501).inl("abc").u32(10), kPage},
      {"_GWMIGLumewayWriteBookmarks", Service::Daemon, 0x80001513, 88,
       [](mach_port_t p) {
         return _GWMIGLumewayWriteBookmarks(p, 1000, at(kOne), 3, at(kSecond), 6, 502, kKim.data(),
                                            3);
       },
       Wire().u32(2).ool(88, 3).ool(91, 6).ndr().u32(502).inl("kim").u32(3).u32(6), kOne + kSecond},
      {"_GWMIGLumewayReadExistingBookmarks", Service::Daemon, 0x80001513, 68,
       [](mach_port_t p) {
         vm_offset_t d = 0;
         mach_msg_type_number_t n = 0;
         kern_return_t kr = _GWMIGLumewayReadExistingBookmarks(p, 1000, at(kEmpty), 0, 503,
                                                               kKim.data(), 3, &d, &n);
         vm_deallocate(mach_task_self(), d, n);
         return kr;
       },
       Wire().u32(1).ool(68, 0).ndr().u32(503).inl("kim").u32(0), ""},
  };
  for (const char* name : {"_GWMIGContentFilterPageWasBlocked", "_GWMIGContentFilterPageWasVisited",
                           "_GWMIGOverrideWebBlock", "_GWMIGMailAddContactsToWhiteList",
                           "_GWMIGMailRemoveContactFromWhiteList"}) {
    using Stub = kern_return_t (*)(mach_port_t, gw_timeout_t, vm_offset_t, mach_msg_type_number_t);
    static const std::map<std::string, Stub> stubs = {
        {"_GWMIGContentFilterPageWasBlocked", _GWMIGContentFilterPageWasBlocked},
        {"_GWMIGContentFilterPageWasVisited", _GWMIGContentFilterPageWasVisited},
        {"_GWMIGOverrideWebBlock", _GWMIGOverrideWebBlock},
        {"_GWMIGMailAddContactsToWhiteList", _GWMIGMailAddContactsToWhiteList},
        {"_GWMIGMailRemoveContactFromWhiteList", _GWMIGMailRemoveContactFromWhiteList}};
    Stub stub = stubs.at(name);
    cases.push_back({name, Service::Daemon, 0x80000013, 56,
                     [stub](mach_port_t p) { return stub(p, 1000, at(kData4), 4); },
                     Wire().u32(1).ool(56, 4).ndr().u32(4), kData4});
  }
  auto uidCase = [](const char* name, kern_return_t (*stub)(mach_port_t, gw_timeout_t, uint32_t),
                    std::uint32_t uid) {
    return WireCase{name,
                    Service::Daemon,
                    0x13,
                    36,
                    [stub, uid](mach_port_t p) { return stub(p, 0, uid); },
                    Wire().ndr().u32(uid),
                    ""};
  };
  std::vector<WireCase> more = {
      {"_GWMIGParletSaveChatLog", Service::Daemon, 0x80000013, 60,
       [](mach_port_t p) { return _GWMIGParletSaveChatLog(p, 1000, at(kLog), 3, 7); },
       Wire().u32(1).ool(60, 3).ndr().u32(7).u32(3), kLog},
      {"_GWMIGHasAppLaunchRestrictions", Service::Daemon, 0x1513, 36,
       [](mach_port_t p) {
         std::int32_t result;
         return _GWMIGHasAppLaunchRestrictions(p, 1000, 9, &result);
       },
       Wire().ndr().u32(9), ""},
      // The 3-byte path takes 4 bytes and moves both integers.
      {"_GWMIGAppCanLaunch", Service::Daemon, 0x1513, 48,
       [](mach_port_t p) {
         std::int32_t result, reason;
         return _GWMIGAppCanLaunch(p, 5000, kPath.data(), 3, 1, 4, &result, &reason);
       },
       Wire().ndr().inl("/bn").u32(1).u32(4), ""},
      {"_GWMIGNotifyKernelOfDetachedSignature", Service::Daemon, 0x1513, 44,
       [](mach_port_t p) {
         std::int32_t result;
         return _GWMIGNotifyKernelOfDetachedSignature(p, 5000, kPath.data(), 3, 5, &result);
       },
       Wire().ndr().inl("/bn").u32(5), ""},
      {"_GWMIGAppCanSublaunch", Service::Daemon, 0x1513, 56,
       [](mach_port_t p) {
         std::int32_t result;
         return _GWMIGAppCanSublaunch(p, 1000, kPath.data(), 3, 1, 2, kThird, &result);
       },
       Wire().ndr().inl("/bn").u32(1).u32(2).u64(kThird), ""},
      {"_GWMIGAppLaunchBlocked", Service::Daemon, 0x13, 48,
       [](mach_port_t p) { return _GWMIGAppLaunchBlocked(p, 1000, kPath.data(), 3, 3, 0); },
       Wire().ndr().inl("/bn").u32(3).u32(0), ""},
      // Here the path comes last, after the 64-bit field.
      {"_GWMIGAppSublaunchBlocked", Service::Daemon, 0x13, 56,
       [](mach_port_t p) {
         return _GWMIGAppSublaunchBlocked(p, 1000, 1, 2, kThird, kPath.data(), 3);
       },
       Wire().ndr().u32(1).u32(2).u64(kThird).inl("/bn"), ""},
      // A bare header: no NDR record, no body.
      {"_GWMIGGetStatusItems", Service::Daemon, 0x1513, 24,
       [](mach_port_t p) {
         vm_offset_t d = 0;
         mach_msg_type_number_t n = 0;
         kern_return_t kr = _GWMIGGetStatusItems(p, 1000, &d, &n);
         vm_deallocate(mach_task_self(), d, n);
         return kr;
       },
       Wire(), ""},
      {"_GWMIGUserCanLogin", Service::Daemon, 0x1513, 36,
       [](mach_port_t p) {
         std::int32_t seconds, reason;
         return _GWMIGUserCanLogin(p, 5000, 501, &seconds, &reason);
       },
       Wire().ndr().u32(501), ""},
      // The port's descriptor precedes the NDR record although the integer is the first argument.
      {"_GWMIGRegisterUserAgent", Service::Daemon, 0x80000013, 52,
       [agentFd](mach_port_t p) { return _GWMIGRegisterUserAgent(p, 0, 17, mach_port_t(agentFd)); },
       Wire().u32(1).port(std::uint32_t(agentFd)).ndr().u32(17), ""},
      uidCase("_GWMIGReadOverrides", _GWMIGReadOverrides, 518),
      uidCase("_GWMIGResetUsageData", _GWMIGResetUsageData, 519),
      uidCase("_GWMIGReadSettings", _GWMIGReadSettings, 520),
      uidCase("_GWMIGSaveUsageData", _GWMIGSaveUsageData, 521),
      {"_GWMIGListeningStatusChanged", Service::Daemon, 0x13, 24,
       [](mach_port_t p) { return _GWMIGListeningStatusChanged(p, 0); }, Wire(), ""},
      {"_GWMIGCreateMOCProxyForUser", Service::Daemon, 0x80000013, 64,
       [](mach_port_t p) {
         return _GWMIGCreateMOCProxyForUser(p, 1000, at(kReq), 3, kKim.data(), 3);
       },
       Wire().u32(1).ool(64, 3).ndr().inl("kim").u32(3), kReq},
      {"_GWMIGReleaseMOCProxyForUser", Service::Daemon, 0x80000013, 64,
       [](mach_port_t p) {
         return _GWMIGReleaseMOCProxyForUser(p, 1000, at(kReq), 3, kKim.data(), 3);
       },
       Wire().u32(1).ool(64, 3).ndr().inl("kim").u32(3), kReq},
      {"_GWMIGExecuteRequestForUser", Service::Daemon, 0x80001513, 104,
       [](mach_port_t p) {
         vm_offset_t d = 0;
         mach_msg_type_number_t n = 0;
         kern_return_t kr = _GWMIGExecuteRequestForUser(p, 1000, at(kA), 1, at(kBb), 2, at(kCcc), 3,
                                                        kKim.data(), 3, &d, &n);
         vm_deallocate(mach_task_self(), d, n);
         return kr;
       },
       Wire().u32(3).ool(104, 1).ool(105, 2).ool(107, 3).ndr().inl("kim").u32(1).u32(2).u32(3),
       "abbccc"},
      {"_WFMIGEvalutePageContent", Service::WebFilter, 0x80001513, 76,
       [](mach_port_t p) {
         vm_offset_t d = 0;
         mach_msg_type_number_t n = 0;
         kern_return_t kr = _WFMIGEvalutePageContent(p, 1000, at(kA), 1, at(kBb), 2, &d, &n);
         vm_deallocate(mach_task_self(), d, n);
         return kr;
       },
       Wire().u32(2).ool(76, 1).ool(77, 2).ndr().u32(1).u32(2), "abb"},
      {"_WFMIGGetPageDump", Service::WebFilter, 0x80001513, 76,
       [](mach_port_t p) {
         vm_offset_t d = 0;
         mach_msg_type_number_t n = 0;
         kern_return_t kr = _WFMIGGetPageDump(p, 1000, at(kA), 1, at(kBb), 2, &d, &n);
         vm_deallocate(mach_task_self(), d, n);
         return kr;
       },
       Wire().u32(2).ool(76, 1).ool(77, 2).ndr().u32(1).u32(2), "abb"},
  };
  cases.insert(cases.end(), more.begin(), more.end());
  return cases;
}

std::int32_t idOf(const char* routine) { return gw::ipc::routineNamed(routine)->id; }

class WireTest : public ::testing::Test {
 protected:
  gwtest::TempRoot root_;
  TestDaemon daemon_{Service::Daemon};
  TestDaemon filter_{Service::WebFilter};

  mach_port_t lookUp(Service service) {
    mach_port_t port = 0;
    EXPECT_EQ(bootstrap_look_up(bootstrap_port, std::string(gw::ipc::serviceName(service)).c_str(),
                                &port),
              KERN_SUCCESS);
    return port;
  }
};

TEST_F(WireTest, EveryRoutineSendsTheCatalogueLayout) {
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  auto cases = wireCases(pipeFds[1]);
  ASSERT_EQ(cases.size(), 28u);
  for (const WireCase& c : cases) {
    SCOPED_TRACE(c.routine);
    TestDaemon& server = c.service == Service::Daemon ? daemon_ : filter_;
    std::size_t before = server.requestCount();
    mach_port_t port = lookUp(c.service);
    ASSERT_EQ(c.call(port), KERN_SUCCESS);
    ASSERT_TRUE(server.waitForRequests(before + 1));
    gwtest::ReceivedRequest got = server.received()[before];
    EXPECT_EQ(got.routine, c.routine);

    mach_msg_header_t h;
    std::memcpy(&h, got.frame.data(), sizeof h);
    EXPECT_EQ(h.msgh_bits, c.bits);
    EXPECT_EQ(h.msgh_size, c.size);
    EXPECT_EQ(h.msgh_remote_port, port);
    if (c.bits & 0x1500) {
      EXPECT_EQ(h.msgh_local_port, mig_get_reply_port());
    } else {
      EXPECT_EQ(h.msgh_local_port, 0u);
    }
    EXPECT_EQ(h.msgh_voucher_port, 0u);
    EXPECT_EQ(h.msgh_id, idOf(c.routine));
    std::vector<std::uint8_t> body(got.frame.begin() + 24, got.frame.begin() + h.msgh_size);
    EXPECT_EQ(body, c.body.bytes);
    std::string regions(got.frame.begin() + h.msgh_size, got.frame.end());
    EXPECT_EQ(regions, c.regions);
  }
  ::close(pipeFds[0]);
  ::close(pipeFds[1]);
}

TEST_F(WireTest, PortDescriptorPassesTheDescriptorItself) {
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  mach_port_t port = lookUp(Service::Daemon);
  ASSERT_EQ(_GWMIGRegisterUserAgent(port, 0, 1, mach_port_t(pipeFds[1])), KERN_SUCCESS);
  ASSERT_TRUE(daemon_.waitForRequests(1));
  // The server got its own copy of the write end: closing ours still leaves the pipe writable
  // until the daemon closed its copy after handling; reading sees end of file only then.
  ::close(pipeFds[1]);
  char byte;
  EXPECT_EQ(::read(pipeFds[0], &byte, 1), 0);
  ::close(pipeFds[0]);
}

TEST_F(WireTest, InlineArrayOf1024BytesIsSentAnd1025IsRefusedBeforeSending) {
  std::string path(1024, 'p');
  std::int32_t result = -1, reason = -1;
  daemon_.answer("_GWMIGAppCanLaunch", {1, 6});
  ASSERT_EQ(
      _GWMIGAppCanLaunch(lookUp(Service::Daemon), 5000, path.data(), 1024, 1, 4, &result, &reason),
      KERN_SUCCESS);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(reason, 6);
  ASSERT_EQ(daemon_.requestCount(), 1u);
  EXPECT_EQ(daemon_.received()[0].messageSize, 44u + 1024u);
  EXPECT_EQ(daemon_.received()[0].bytes[0], std::vector<std::uint8_t>(path.begin(), path.end()));

  path.push_back('p');
  result = reason = -1;
  EXPECT_EQ(
      _GWMIGAppCanLaunch(lookUp(Service::Daemon), 5000, path.data(), 1025, 1, 4, &result, &reason),
      MIG_ARRAY_TOO_LARGE);
  EXPECT_EQ(_GWMIGAppLaunchBlocked(lookUp(Service::Daemon), 1000, path.data(), 1025, 1, 0),
            MIG_ARRAY_TOO_LARGE);
  EXPECT_EQ(result, -1);
  EXPECT_FALSE(daemon_.waitForRequests(2, std::chrono::milliseconds(100)));
}

TEST_F(WireTest, RepliesCarryTheirFieldsBack) {
  mach_port_t port = lookUp(Service::Daemon);
  daemon_.answer("_GWMIGAppCanSublaunch", {-7});
  std::int32_t result = 0;
  EXPECT_EQ(_GWMIGAppCanSublaunch(port, 1000, "/x", 2, 0, 0, -1, &result), KERN_SUCCESS);
  EXPECT_EQ(result, -7);
  EXPECT_EQ(daemon_.received().back().integers[3], -1);

  // A write-bookmarks reply is 36 bytes even on success.
  EXPECT_EQ(_GWMIGLumewayWriteBookmarks(lookUp(Service::Daemon), 1000, 0, 0, 0, 0, 1, "u", 1),
            KERN_SUCCESS);

  std::vector<std::uint8_t> archive(100000, 0x5a);
  daemon_.answerData("_GWMIGGetStatusItems", archive);
  vm_offset_t data = 0;
  mach_msg_type_number_t count = 0;
  ASSERT_EQ(_GWMIGGetStatusItems(lookUp(Service::Daemon), 1000, &data, &count), KERN_SUCCESS);
  ASSERT_EQ(count, archive.size());
  EXPECT_EQ(std::memcmp(reinterpret_cast<void*>(data), archive.data(), count), 0);
  vm_deallocate(mach_task_self(), data, count);
}

}  // namespace
