// The Mach-O, fat and archive file layouts, as the unprebinding reader and the test writer use
// them.
//
// Everything here is plain data: structures in host byte order with the on-disk size of each in a
// static_assert, the constants of the published format, and a field-width description of every
// structure (kLayout) that the byte-swapping code walks. A structure is read by copying its bytes
// and, when the image's byte order differs from the host's, reversing each field named in its
// layout; writing does the same backwards. No pointer into a file is ever cast to one of these.
//
// Byte layouts (offsets in bytes, all fields 32-bit unless noted):
//   mach_header     0 magic, 4 cputype, 8 cpusubtype, 12 filetype, 16 ncmds, 20 sizeofcmds,
//                   24 flags [, 28 reserved in the 64-bit header]
//   load_command    0 cmd, 4 cmdsize (every command starts so; cmdsize includes the whole command)
//   fat_header      0 magic 0xCAFEBABE, 4 nfat_arch, then nfat_arch fat_arch records of
//                   cputype, cpusubtype, offset, size, align; always big-endian
//   archive         "!<arch>\n", then members: a 60-byte header (name 16, date 12, uid 6, gid 6,
//                   mode 8, size 10, "`\n"), the member bytes, padding to an even offset; a name
//                   "#1/N" means the real name is the first N bytes of the member
#pragma once

#include <cstddef>
#include <cstdint>

namespace gw::macho {

// Magic numbers as read in the host's byte order.
inline constexpr std::uint32_t MH_MAGIC = 0xFEEDFACE;
inline constexpr std::uint32_t MH_CIGAM = 0xCEFAEDFE;
inline constexpr std::uint32_t MH_MAGIC_64 = 0xFEEDFACF;
inline constexpr std::uint32_t MH_CIGAM_64 = 0xCFFAEDFE;
inline constexpr std::uint32_t FAT_MAGIC = 0xCAFEBABE;
inline constexpr std::uint32_t FAT_CIGAM = 0xBEBAFECA;
inline constexpr char ARMAG[] = "!<arch>\n";
inline constexpr std::size_t SARMAG = 8;
inline constexpr char AR_EFMT1[] = "#1/";  // long member name stored at the start of the member
inline constexpr char ARFMAG[] = "`\n";

// Processor types.
inline constexpr std::int32_t CPU_ARCH_ABI64 = 0x01000000;
inline constexpr std::int32_t CPU_TYPE_VAX = 1;
inline constexpr std::int32_t CPU_TYPE_MC680x0 = 6;
inline constexpr std::int32_t CPU_TYPE_I386 = 7;
inline constexpr std::int32_t CPU_TYPE_X86_64 = CPU_TYPE_I386 | CPU_ARCH_ABI64;
inline constexpr std::int32_t CPU_TYPE_MC98000 = 10;
inline constexpr std::int32_t CPU_TYPE_HPPA = 11;
inline constexpr std::int32_t CPU_TYPE_ARM = 12;
inline constexpr std::int32_t CPU_TYPE_ARM64 = CPU_TYPE_ARM | CPU_ARCH_ABI64;
inline constexpr std::int32_t CPU_TYPE_MC88000 = 13;
inline constexpr std::int32_t CPU_TYPE_SPARC = 14;
inline constexpr std::int32_t CPU_TYPE_I860 = 15;
inline constexpr std::int32_t CPU_TYPE_POWERPC = 18;
inline constexpr std::int32_t CPU_TYPE_POWERPC64 = CPU_TYPE_POWERPC | CPU_ARCH_ABI64;

// File types.
inline constexpr std::uint32_t MH_OBJECT = 1;
inline constexpr std::uint32_t MH_EXECUTE = 2;
inline constexpr std::uint32_t MH_DYLIB = 6;
inline constexpr std::uint32_t MH_DYLINKER = 7;
inline constexpr std::uint32_t MH_BUNDLE = 8;

// Header flags.
inline constexpr std::uint32_t MH_NOUNDEFS = 0x1;
inline constexpr std::uint32_t MH_DYLDLINK = 0x4;
inline constexpr std::uint32_t MH_PREBOUND = 0x10;
inline constexpr std::uint32_t MH_TWOLEVEL = 0x80;
inline constexpr std::uint32_t MH_PREBINDABLE = 0x800;
inline constexpr std::uint32_t MH_ALLMODSBOUND = 0x1000;
inline constexpr std::uint32_t MH_CANONICAL = 0x4000;

// Load commands.
inline constexpr std::uint32_t LC_REQ_DYLD = 0x80000000;
inline constexpr std::uint32_t LC_SEGMENT = 0x1;
inline constexpr std::uint32_t LC_SYMTAB = 0x2;
inline constexpr std::uint32_t LC_UNIXTHREAD = 0x5;
inline constexpr std::uint32_t LC_DYSYMTAB = 0xB;
inline constexpr std::uint32_t LC_LOAD_DYLIB = 0xC;
inline constexpr std::uint32_t LC_ID_DYLIB = 0xD;
inline constexpr std::uint32_t LC_LOAD_DYLINKER = 0xE;
inline constexpr std::uint32_t LC_PREBOUND_DYLIB = 0x10;
inline constexpr std::uint32_t LC_ROUTINES = 0x11;
inline constexpr std::uint32_t LC_TWOLEVEL_HINTS = 0x16;
inline constexpr std::uint32_t LC_PREBIND_CKSUM = 0x17;
inline constexpr std::uint32_t LC_LOAD_WEAK_DYLIB = 0x18 | LC_REQ_DYLD;
inline constexpr std::uint32_t LC_SEGMENT_64 = 0x19;
inline constexpr std::uint32_t LC_ROUTINES_64 = 0x1A;
inline constexpr std::uint32_t LC_UUID = 0x1B;
inline constexpr std::uint32_t LC_REEXPORT_DYLIB = 0x1F | LC_REQ_DYLD;

// Section types (the low byte of a section's flags).
inline constexpr std::uint32_t SECTION_TYPE = 0xFF;
inline constexpr std::uint32_t S_NON_LAZY_SYMBOL_POINTERS = 0x6;
inline constexpr std::uint32_t S_LAZY_SYMBOL_POINTERS = 0x7;

// Indirect symbol table entries that name no symbol.
inline constexpr std::uint32_t INDIRECT_SYMBOL_LOCAL = 0x80000000;
inline constexpr std::uint32_t INDIRECT_SYMBOL_ABS = 0x40000000;

// Symbol types (n_type).
inline constexpr std::uint8_t N_STAB = 0xE0;
inline constexpr std::uint8_t N_PEXT = 0x10;
inline constexpr std::uint8_t N_TYPE = 0x0E;
inline constexpr std::uint8_t N_EXT = 0x01;
inline constexpr std::uint8_t N_UNDF = 0x0;
inline constexpr std::uint8_t N_ABS = 0x2;
inline constexpr std::uint8_t N_SECT = 0xE;
inline constexpr std::uint8_t N_PBUD = 0xC;
inline constexpr std::uint8_t N_INDR = 0xA;
inline constexpr std::uint8_t NO_SECT = 0;

// Relocation entries. The first word of a scattered entry has its top bit set.
inline constexpr std::uint32_t R_SCATTERED = 0x80000000;
inline constexpr std::uint32_t GENERIC_RELOC_VANILLA = 0;
inline constexpr std::uint32_t GENERIC_RELOC_PB_LA_PTR = 3;
inline constexpr std::uint32_t PPC_RELOC_VANILLA = 0;
inline constexpr std::uint32_t PPC_RELOC_PB_LA_PTR = 9;

// Field widths of a structure, in order; 0 ends the list. A width of 1, 2, 4 or 8 is an integer
// field that swapping reverses; a width with the top bit set (16 | kByteRun) is a run of that many
// bytes, such as a name, that is copied as it stands.
inline constexpr std::uint8_t kByteRun = 0x80;

struct mach_header {
  std::uint32_t magic, cputype, cpusubtype, filetype, ncmds, sizeofcmds, flags;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 4, 4, 4, 0};
};
struct mach_header_64 {
  std::uint32_t magic, cputype, cpusubtype, filetype, ncmds, sizeofcmds, flags, reserved;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 4, 4, 4, 4, 0};
};
struct load_command {
  std::uint32_t cmd, cmdsize;
  static constexpr std::uint8_t kLayout[] = {4, 4, 0};
};
struct segment_command {
  std::uint32_t cmd, cmdsize;
  char segname[16];
  std::uint32_t vmaddr, vmsize, fileoff, filesize, maxprot, initprot, nsects, flags;
  static constexpr std::uint8_t kLayout[] = {4, 4, 16 | kByteRun, 4, 4, 4, 4, 4, 4, 4, 4, 0};
};
struct segment_command_64 {
  std::uint32_t cmd, cmdsize;
  char segname[16];
  std::uint64_t vmaddr, vmsize, fileoff, filesize;
  std::uint32_t maxprot, initprot, nsects, flags;
  static constexpr std::uint8_t kLayout[] = {4, 4, 16 | kByteRun, 8, 8, 8, 8, 4, 4, 4, 4, 0};
};
struct section {
  char sectname[16], segname[16];
  std::uint32_t addr, size, offset, align, reloff, nreloc, flags, reserved1, reserved2;
  static constexpr std::uint8_t kLayout[] = {
      16 | kByteRun, 16 | kByteRun, 4, 4, 4, 4, 4, 4, 4, 4, 4, 0};
};
struct section_64 {
  char sectname[16], segname[16];
  std::uint64_t addr, size;
  std::uint32_t offset, align, reloff, nreloc, flags, reserved1, reserved2, reserved3;
  static constexpr std::uint8_t kLayout[] = {
      16 | kByteRun, 16 | kByteRun, 8, 8, 4, 4, 4, 4, 4, 4, 4, 4, 0};
};
struct symtab_command {
  std::uint32_t cmd, cmdsize, symoff, nsyms, stroff, strsize;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 4, 4, 0};
};
struct dysymtab_command {
  std::uint32_t cmd, cmdsize;
  std::uint32_t ilocalsym, nlocalsym, iextdefsym, nextdefsym, iundefsym, nundefsym;
  std::uint32_t tocoff, ntoc, modtaboff, nmodtab, extrefsymoff, nextrefsyms;
  std::uint32_t indirectsymoff, nindirectsyms, extreloff, nextrel, locreloff, nlocrel;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4,
                                             4, 4, 4, 4, 4, 4, 4, 4, 4, 0};
};
// The name is a string at offset `name` from the start of the command.
struct dylib_command {
  std::uint32_t cmd, cmdsize, name, timestamp, current_version, compatibility_version;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 4, 4, 0};
};
struct prebound_dylib_command {
  std::uint32_t cmd, cmdsize, name, nmodules, linked_modules;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 4, 0};
};
struct prebind_cksum_command {
  std::uint32_t cmd, cmdsize, cksum;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 0};
};
struct twolevel_hints_command {
  std::uint32_t cmd, cmdsize, offset, nhints;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 0};
};
struct uuid_command {
  std::uint32_t cmd, cmdsize;
  std::uint8_t uuid[16];
  static constexpr std::uint8_t kLayout[] = {4, 4, 16 | kByteRun, 0};
};
struct routines_command {
  std::uint32_t cmd, cmdsize, init_address, init_module;
  std::uint32_t reserved1, reserved2, reserved3, reserved4, reserved5, reserved6;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 0};
};
struct routines_command_64 {
  std::uint32_t cmd, cmdsize;
  std::uint64_t init_address, init_module;
  std::uint64_t reserved1, reserved2, reserved3, reserved4, reserved5, reserved6;
  static constexpr std::uint8_t kLayout[] = {4, 4, 8, 8, 8, 8, 8, 8, 8, 8, 0};
};
struct nlist {
  std::uint32_t n_strx;
  std::uint8_t n_type, n_sect;
  std::uint16_t n_desc;
  std::uint32_t n_value;
  static constexpr std::uint8_t kLayout[] = {4, 1, 1, 2, 4, 0};
};
struct nlist_64 {
  std::uint32_t n_strx;
  std::uint8_t n_type, n_sect;
  std::uint16_t n_desc;
  std::uint64_t n_value;
  static constexpr std::uint8_t kLayout[] = {4, 1, 1, 2, 8, 0};
};
struct dylib_module {
  std::uint32_t module_name, iextdefsym, nextdefsym, irefsym, nrefsym, ilocalsym, nlocalsym;
  std::uint32_t iextrel, nextrel, iinit_iterm, ninit_nterm, objc_module_info_addr,
      objc_module_info_size;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 0};
};
struct dylib_table_of_contents {
  std::uint32_t symbol_index, module_index;
  static constexpr std::uint8_t kLayout[] = {4, 4, 0};
};
struct ranlib {
  std::uint32_t ran_strx, ran_off;
  static constexpr std::uint8_t kLayout[] = {4, 4, 0};
};
struct fat_header {
  std::uint32_t magic, nfat_arch;
  static constexpr std::uint8_t kLayout[] = {4, 4, 0};
};
struct fat_arch {
  std::uint32_t cputype, cpusubtype, offset, size, align;
  static constexpr std::uint8_t kLayout[] = {4, 4, 4, 4, 4, 0};
};

// A relocation entry with its packed word taken apart. On disk an entry is two 32-bit words:
//   plain:     r_address; then r_symbolnum:24, r_pcrel:1, r_length:2, r_extern:1, r_type:4
//   scattered: r_scattered:1, r_pcrel:1, r_length:2, r_type:4, r_address:24; then r_value
// The plain entry's second word is packed most significant field first in a big-endian file and
// least significant field first in a little-endian one, so it is repacked, not just reversed, when
// an entry moves between byte orders. The scattered word has the same bit positions in both.
struct relocation_entry {
  bool scattered = false;
  std::int32_t address = 0;  // plain: r_address; scattered: the 24-bit r_address
  std::uint32_t symbolnum = 0;
  bool pcrel = false;
  std::uint32_t length = 0;  // 0 byte, 1 word, 2 long, 3 quad
  bool external = false;
  std::uint32_t type = 0;
  std::int32_t value = 0;  // scattered only
};
inline constexpr std::size_t kRelocationSize = 8;

static_assert(sizeof(mach_header) == 28 && sizeof(mach_header_64) == 32);
static_assert(sizeof(segment_command) == 56 && sizeof(segment_command_64) == 72);
static_assert(sizeof(section) == 68 && sizeof(section_64) == 80);
static_assert(sizeof(symtab_command) == 24 && sizeof(dysymtab_command) == 80);
static_assert(sizeof(dylib_command) == 24 && sizeof(prebind_cksum_command) == 12);
static_assert(sizeof(nlist) == 12 && sizeof(nlist_64) == 16);
static_assert(sizeof(routines_command) == 40 && sizeof(routines_command_64) == 72);
static_assert(sizeof(dylib_module) == 52 && sizeof(fat_arch) == 20);
static_assert(sizeof(uuid_command) == 24 && sizeof(twolevel_hints_command) == 16);

// A 60-byte archive member header, as text fields.
struct ar_hdr {
  char ar_name[16], ar_date[12], ar_uid[6], ar_gid[6], ar_mode[8], ar_size[10], ar_fmag[2];
};
static_assert(sizeof(ar_hdr) == 60);

}  // namespace gw::macho
