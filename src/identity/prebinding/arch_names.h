// Names of processor architectures ("ppc", "i386", "x86_64"...) and the processor types and
// subtypes they stand for, as used in messages ("(for architecture ppc)") and by the CLI.
// Constant tables; callable from any thread.
#pragma once

#include <cstdint>
#include <span>

#include "identity/prebinding/byte_order.h"

namespace gw::macho {

struct ArchFlag {
  const char* name;
  std::int32_t cputype;
  std::int32_t cpusubtype;
};

// The table entry named `name`, or nullptr.
const ArchFlag* get_arch_from_flag(const char* name);
// The name for a type and subtype (the subtype's capability bits ignored), or nullptr.
const char* get_arch_name_from_types(std::int32_t cputype, std::int32_t cpusubtype);
// The family entry (the generic subtype) for a processor type, or nullptr.
const ArchFlag* get_arch_family_from_cputype(std::int32_t cputype);
// The byte order a processor uses, or Unknown.
ByteSex get_byte_sex_from_flag(const ArchFlag& flag);
// Index of the best fat_arch for a type and subtype: the exact subtype, else the family's
// generic subtype, else the first of the same type; -1 when none runs that type.
int cpusubtype_findbestarch(std::int32_t cputype, std::int32_t cpusubtype,
                            std::span<const fat_arch> archs);
// The subtype that runs both subtypes of one processor type, or -1 when they do not combine.
std::int32_t cpusubtype_combine(std::int32_t cputype, std::int32_t a, std::int32_t b);

}  // namespace gw::macho
