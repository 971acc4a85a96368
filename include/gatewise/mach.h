// Mach-style messaging for talking to the daemon, carried over AF_UNIX sockets.
//
// The library frames its daemon messages exactly as Mach clients do (header, descriptors, NDR
// record, fields) and hands them to mach_msg(); on Linux each exchange travels over its own
// AF_UNIX stream connection to "<bootstrap folder>/<service name>" (docs/wire-mapping.md). The
// bootstrap folder is $GATEWISE_BOOTSTRAP_DIR, else "<root>/run/gatewise/bootstrap".
//
// Port names are plain numbers: bootstrap_look_up() gives a non-zero name per service, the reply
// port is a per-thread name, and a port *sent* in a message (a port descriptor) is a file
// descriptor of this process, passed to the receiver with SCM_RIGHTS.
//
// Threads: every call may be made from any thread. A look-up's connection belongs to the thread
// that made it and is used by that thread's next message on the port; messages sent from other
// threads connect afresh. Each exchange owns its connection, so replies never cross threads, and a
// reply that arrives after its time-out is never read: the connection is closed by then.
//
// Ownership: out-of-line regions received in a reply are allocated for the caller, who releases
// them with vm_deallocate(). Nothing here throws; every failure is a status below.
#pragma once

#include <gatewise/export.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t mach_port_t;
typedef uint32_t mach_port_name_t;
typedef mach_port_t mach_port_array_t;
typedef int32_t kern_return_t;
typedef kern_return_t mach_msg_return_t;
typedef uint32_t mach_msg_bits_t;
typedef uint32_t mach_msg_size_t;
typedef int32_t mach_msg_id_t;
typedef uint32_t mach_msg_option_t;
typedef uint32_t mach_msg_timeout_t;
typedef uint32_t mach_msg_type_number_t;
typedef uintptr_t vm_offset_t;
typedef uintptr_t vm_address_t;
typedef uintptr_t vm_size_t;
typedef mach_port_t vm_map_t;

// The six words every message starts with.
typedef struct {
  mach_msg_bits_t msgh_bits;
  mach_msg_size_t msgh_size;
  mach_port_t msgh_remote_port;
  mach_port_t msgh_local_port;
  uint32_t msgh_voucher_port;  // the reserved word: always 0
  mach_msg_id_t msgh_id;
} mach_msg_header_t;

// The 8-byte data-representation record.
typedef struct {
  uint8_t mig_vers, if_vers, reserved1, mig_encoding, int_rep, char_rep, float_rep, reserved2;
} NDR_record_t;

#pragma pack(push, 4)
// Out-of-line memory descriptor, 64-bit layout (16 bytes).
typedef struct {
  uint64_t address;
  uint8_t deallocate;
  uint8_t copy;
  uint8_t pad1;
  uint8_t type;
  mach_msg_size_t size;
} mach_msg_ool_descriptor_t;

// Port descriptor (12 bytes).
typedef struct {
  mach_port_t name;
  uint32_t pad1;
  uint16_t pad2;
  uint8_t disposition;
  uint8_t type;
} mach_msg_port_descriptor_t;
#pragma pack(pop)

// Header bits.
#define MACH_MSG_TYPE_MOVE_SEND_ONCE 18
#define MACH_MSG_TYPE_COPY_SEND 19
#define MACH_MSG_TYPE_MAKE_SEND_ONCE 21
#define MACH_MSGH_BITS(remote, local) ((remote) | ((local) << 8))
#define MACH_MSGH_BITS_COMPLEX 0x80000000u
#define MACH_MSGH_BITS_REMOTE(bits) ((bits)&0x1f)

// Descriptor types and copy options.
#define MACH_MSG_PORT_DESCRIPTOR 0
#define MACH_MSG_OOL_DESCRIPTOR 1
#define MACH_MSG_VIRTUAL_COPY 1

// mach_msg options.
#define MACH_SEND_MSG 0x00000001u
#define MACH_RCV_MSG 0x00000002u
#define MACH_SEND_TIMEOUT 0x00000010u
#define MACH_RCV_TIMEOUT 0x00000100u
#define MACH_MSG_TIMEOUT_NONE 0u

// Statuses.
#define KERN_SUCCESS 0
#define KERN_INVALID_ARGUMENT 4
#define MACH_MSG_SUCCESS 0
#define MACH_SEND_INVALID_DATA 0x10000002
#define MACH_SEND_INVALID_DEST 0x10000003
#define MACH_SEND_TIMED_OUT 0x10000004
#define MACH_SEND_INVALID_REPLY 0x10000009
#define MACH_SEND_INVALID_HEADER 0x10000010
#define MACH_RCV_INVALID_NAME 0x10004002
#define MACH_RCV_TIMED_OUT 0x10004003
#define MACH_RCV_TOO_LARGE 0x10004004
#define MACH_RCV_PORT_CHANGED 0x10004006
#define MACH_RCV_INVALID_DATA 0x10004008
#define MACH_RCV_PORT_DIED 0x10004009
#define BOOTSTRAP_UNKNOWN_SERVICE 1102
#define MIG_TYPE_ERROR (-300)
#define MIG_REPLY_MISMATCH (-301)
#define MIG_ARRAY_TOO_LARGE (-307)
#define MIG_SERVER_DIED (-308)
// Id of the send-once notification delivered instead of a reply when the server went away.
#define MACH_NOTIFY_SEND_ONCE 71

// The process's bootstrap port: always valid (non-zero) in this implementation.
GW_EXPORT extern mach_port_t bootstrap_port;

// The calling "task": a constant, accepted by vm_deallocate and mach_port_deallocate.
GW_EXPORT mach_port_t mach_task_self(void);

// Finds the service `name` (at most 127 bytes, one path component). Success: 0 and a non-zero
// *port whose connection this thread's next message on the port will use. Failure: 1102 when
// nothing listens under that name (the socket is missing or refuses), *port left 0;
// MACH_SEND_INVALID_DEST when bp is not bootstrap_port.
GW_EXPORT kern_return_t bootstrap_look_up(mach_port_t bp, const char* name, mach_port_t* port);

// Drops the calling thread's unused look-up connection for name (if any). Always succeeds.
GW_EXPORT kern_return_t mach_port_deallocate(mach_port_t task, mach_port_name_t name);

// Sends and/or receives one message. Supported: MACH_SEND_MSG alone (one-way; with
// MACH_SEND_TIMEOUT the connect and send must complete within timeout ms), and MACH_SEND_MSG |
// MACH_RCV_MSG (two-way; the reply comes back on the request's connection into msg, at most
// rcv_size bytes, within timeout ms when MACH_RCV_TIMEOUT is set; rcv_name must be the request's
// reply port). Out-of-line regions of a received reply are allocated for the caller and their
// descriptors' addresses point at them. A server that closes without replying produces the
// 24-byte send-once notification (id 71) with MACH_MSG_SUCCESS, as a dead Mach server would.
GW_EXPORT mach_msg_return_t mach_msg(mach_msg_header_t* msg, mach_msg_option_t option,
                                     mach_msg_size_t send_size, mach_msg_size_t rcv_size,
                                     mach_port_t rcv_name, mach_msg_timeout_t timeout,
                                     mach_port_t notify);

// The calling thread's reply port: the same non-zero name until mig_dealloc_reply_port() destroys
// it, after which the next call gives a new one.
GW_EXPORT mach_port_t mig_get_reply_port(void);
// Returns the reply port to the thread's cache (it stays the thread's reply port).
GW_EXPORT void mig_put_reply_port(mach_port_t reply_port);
// Destroys the thread's reply port when reply_port is it.
GW_EXPORT void mig_dealloc_reply_port(mach_port_t reply_port);

// Releases what a received message holds: its out-of-line regions and port descriptors.
GW_EXPORT void mach_msg_destroy(mach_msg_header_t* msg);

// Releases an out-of-line region received from mach_msg() or a routine stub. address 0 is a no-op.
GW_EXPORT kern_return_t vm_deallocate(vm_map_t task, vm_address_t address, vm_size_t size);

#ifdef __cplusplus
}
#endif
