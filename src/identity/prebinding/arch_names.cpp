#include "identity/prebinding/arch_names.h"

#include <cstring>

namespace gw::macho {
namespace {

constexpr std::int32_t kSubtypeMask = 0x00FFFFFF;  // the top byte holds capability bits

// The generic subtype of each family comes first in the table, so a look-up by type alone finds it.
constexpr ArchFlag kArchFlags[] = {
    {"ppc", CPU_TYPE_POWERPC, 0},      {"ppc601", CPU_TYPE_POWERPC, 1},
    {"ppc603", CPU_TYPE_POWERPC, 3},   {"ppc604", CPU_TYPE_POWERPC, 5},
    {"ppc750", CPU_TYPE_POWERPC, 9},   {"ppc7400", CPU_TYPE_POWERPC, 10},
    {"ppc7450", CPU_TYPE_POWERPC, 11}, {"ppc970", CPU_TYPE_POWERPC, 100},
    {"ppc64", CPU_TYPE_POWERPC64, 0},  {"i386", CPU_TYPE_I386, 3},
    {"x86_64", CPU_TYPE_X86_64, 3},    {"arm", CPU_TYPE_ARM, 0},
    {"armv7", CPU_TYPE_ARM, 9},        {"arm64", CPU_TYPE_ARM64, 0},
    {"m68k", CPU_TYPE_MC680x0, 1},     {"hppa", CPU_TYPE_HPPA, 0},
    {"sparc", CPU_TYPE_SPARC, 0},      {"m88k", CPU_TYPE_MC88000, 0},
    {"m98k", CPU_TYPE_MC98000, 0},     {"i860", CPU_TYPE_I860, 0},
    {"vax", CPU_TYPE_VAX, 0},
};

bool isBigEndianProcessor(std::int32_t cputype) {
  switch (cputype) {
    case CPU_TYPE_POWERPC:
    case CPU_TYPE_POWERPC64:
    case CPU_TYPE_MC680x0:
    case CPU_TYPE_HPPA:
    case CPU_TYPE_SPARC:
    case CPU_TYPE_MC88000:
    case CPU_TYPE_MC98000:
    case CPU_TYPE_I860:
      return true;
    default:
      return false;
  }
}

}  // namespace

const ArchFlag* get_arch_from_flag(const char* name) {
  if (name == nullptr) return nullptr;
  for (const ArchFlag& flag : kArchFlags) {
    if (std::strcmp(flag.name, name) == 0) return &flag;
  }
  return nullptr;
}

const char* get_arch_name_from_types(std::int32_t cputype, std::int32_t cpusubtype) {
  for (const ArchFlag& flag : kArchFlags) {
    if (flag.cputype == cputype && flag.cpusubtype == (cpusubtype & kSubtypeMask)) {
      return flag.name;
    }
  }
  const ArchFlag* family = get_arch_family_from_cputype(cputype);
  return family != nullptr ? family->name : nullptr;
}

const ArchFlag* get_arch_family_from_cputype(std::int32_t cputype) {
  for (const ArchFlag& flag : kArchFlags) {
    if (flag.cputype == cputype) return &flag;
  }
  return nullptr;
}

ByteSex get_byte_sex_from_flag(const ArchFlag& flag) {
  if (get_arch_family_from_cputype(flag.cputype) == nullptr) return ByteSex::Unknown;
  return isBigEndianProcessor(flag.cputype) ? ByteSex::Big : ByteSex::Little;
}

int cpusubtype_findbestarch(std::int32_t cputype, std::int32_t cpusubtype,
                            std::span<const fat_arch> archs) {
  const ArchFlag* family = get_arch_family_from_cputype(cputype);
  int sameType = -1;
  int generic = -1;
  for (std::size_t i = 0; i < archs.size(); ++i) {
    if (std::int32_t(archs[i].cputype) != cputype) continue;
    std::int32_t subtype = std::int32_t(archs[i].cpusubtype) & kSubtypeMask;
    if (subtype == (cpusubtype & kSubtypeMask)) return int(i);
    if (family != nullptr && subtype == family->cpusubtype && generic < 0) generic = int(i);
    if (sameType < 0) sameType = int(i);
  }
  return generic >= 0 ? generic : sameType;
}

std::int32_t cpusubtype_combine(std::int32_t cputype, std::int32_t a, std::int32_t b) {
  a &= kSubtypeMask;
  b &= kSubtypeMask;
  if (a == b) return a;
  const ArchFlag* family = get_arch_family_from_cputype(cputype);
  if (family == nullptr) return -1;
  if (a == family->cpusubtype) return b;
  if (b == family->cpusubtype) return a;
  return -1;
}

}  // namespace gw::macho
