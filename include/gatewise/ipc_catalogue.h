// The routine catalogue: every daemon and web-filter routine described once, as data.
//
// Each routine is described by its service, id, kind (one-way with a send time-out, one-way
// blocking, or two-way), its request fields in the order of the stub's arguments, its reply shape
// and out fields, and its receive limit. The wire order follows from the argument order by one
// rule: descriptors (out-of-line regions and ports, in argument order) come first, then the NDR
// record, then the other fields in argument order, then one 32-bit size per out-of-line region.
// The client stubs, the server's decoder and encoder, the CLI's `ipc call` and the tests all read
// this table; nothing else knows a routine's layout (docs/wire-mapping.md). The table is immutable
// static data; any thread. callRoutine() is the generic exchange every stub uses, exported for
// tools that call a routine chosen at run time.
#pragma once

#include <gatewise/export.h>
#include <gatewise/mach.h>

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

namespace gw::ipc {

enum class Service : std::uint8_t { Daemon, WebFilter };

enum class FieldType : std::uint8_t {
  Int32,      // 32-bit scalar
  Int64,      // 64-bit scalar
  Inline,     // 32-bit count, then the bytes padded to a multiple of 4 (at most 1024 bytes)
  OutOfLine,  // a memory region: a descriptor, and its size after the inline part
  Port,       // a port descriptor (copy-send)
};

enum class RoutineKind : std::uint8_t {
  OneWayTimed,     // sent with a send time-out, no reply
  OneWayBlocking,  // sent without a time-out, no reply
  TwoWay,          // sent and answered within the time-out
};

enum class ReplyShape : std::uint8_t {
  None,   // one-way
  Plain,  // NDR, return code, the out scalars
  Data,   // complex: one out-of-line region, NDR, its size
};

struct Field {
  std::string_view name;
  FieldType type;
};

struct Routine {
  std::string_view name;
  Service service;
  std::int32_t id;
  RoutineKind kind;
  std::span<const Field> request;  // in stub argument order
  ReplyShape reply;
  std::span<const Field> replyOut;  // Plain: Int32 scalars; Data: one OutOfLine field
  std::uint32_t receiveLimit;       // largest reply accepted (0 for one-way)
  std::uint32_t callerTimeoutMs;    // the library caller's time-out; 0 when there is none
};

inline constexpr std::uint32_t kMaxInlineBytes = 1024;
inline constexpr std::int32_t kReplyIdOffset = 100;
// The request sizes below never exceed this (100 bytes of fixed part plus one inline array).
inline constexpr std::uint32_t kMaxRequestSize = 1152;

GW_EXPORT std::span<const Routine> allRoutines();
GW_EXPORT const Routine* routineNamed(std::string_view name);
GW_EXPORT const Routine* routineWithId(Service service, std::int32_t id);
// "com.morvane.gatewise" or "com.morvane.webfilter".
GW_EXPORT std::string_view serviceName(Service service);

// Sizes that follow from a routine's fields.
struct RequestLayout {
  std::uint32_t outOfLineCount = 0;
  std::uint32_t portCount = 0;
  bool complex = false;
  bool hasNdr = false;
  std::uint32_t fixedSize = 0;  // total size with every inline array empty
};
GW_EXPORT RequestLayout requestLayout(const Routine& routine);
// The full reply size: 36 + 4 per scalar for plain replies, 56 for data replies, 0 for one-way.
GW_EXPORT std::uint32_t replySize(const Routine& routine);

constexpr std::uint32_t paddedLength(std::uint32_t n) { return (n + 3) & ~std::uint32_t(3); }

// One request argument: integer for Int32, Int64 and Port fields (a port is a descriptor of this
// process); bytes and length for Inline and OutOfLine fields.
struct Argument {
  std::int64_t integer = 0;
  const void* bytes = nullptr;
  std::uint32_t length = 0;
};

// Where a reply's out fields go: one pointer per Plain scalar, or the region and its size.
struct OutPointers {
  std::int32_t* scalars[4] = {};
  vm_offset_t* data = nullptr;
  mach_msg_type_number_t* dataCount = nullptr;
};

// Sends routine to server with arguments in stub order, as its stub does. Returns 0, a transport
// status, a MIG status or the daemon's return code. Out fields are stored only on success; a
// received region then belongs to the caller (vm_deallocate). KERN_INVALID_ARGUMENT when the
// arguments do not match the routine's fields.
GW_EXPORT kern_return_t callRoutine(const Routine& routine, mach_port_t server,
                                    mach_msg_timeout_t timeout, std::span<const Argument> arguments,
                                    const OutPointers& out = {});

}  // namespace gw::ipc
