// Executable identity: a stable digest record of a file or a whole bundle folder.
//
// IdentityCreateWithPath walks the tree below a path and makes a big-endian record whose centre
// is a SHA-1 over the MD5 of the tree's shape (depths, file types and names, the root's name left
// out) and the MD5 of every piece of content: each regular file's data (big-endian thin Mach-O
// images after their prebinding is taken out), its resource fork, and each symbolic link's target
// text. Renaming the root or changing permissions keeps the identity; renaming, adding or moving
// anything inside changes it. Layout (all integers big-endian):
//   0 "4253" | 4 version 1 | 8 SHA-1 of bytes 28.. | 28 MD5 of the shape | 44 N | 48 N MD5s
//
// Threads: any thread may call; the unprebinding it relies on is serialised internally.
// Ownership: the record is malloc'd; release it with free().
// Failure: a negative status (-50 bad argument, -108 out of memory, -36 read error, -1 other),
// with the outputs left NULL and 0.
#pragma once

#include <fts.h>
#include <gatewise/export.h>
#include <stdint.h>
#include <sys/types.h>

// "._", the prefix of sidecar file names, and its length.
GW_EXTERN_C const char* const kMorvaneDoublePrefix;
GW_EXTERN_C const int32_t kMorvaneDoublePrefixLength;

// Makes the identity record of path. excludedPaths: NULL, or a NULL-terminated array of paths
// relative to path whose own entries are left out (their contents are still visited).
GW_EXTERN_C int32_t IdentityCreateWithPath(const char* path, const char* const* excludedPaths,
                                           uint8_t** identity, uint32_t* length);

// The seven 32-bit words of a Mach-O header.
struct GWMachHeader {
  uint32_t magic, cputype, cpusubtype, filetype, ncmds, sizeofcmds, flags;
};
// Reads the 28-byte header at offset into *header in host order: byte-swapped when the magic
// reads 0xCEFAEDFE or 0xCFFAEDFE; a PEF container ("Joy!") becomes magic 0x4A6F7921 with the next
// three words byte-swapped and the rest zero; anything else is left as read (zero where the file
// is short).
GW_EXTERN_C void ReadMachHeader(int fd, struct GWMachHeader* header, off_t offset);

// pread repeated while it fails with EINTR.
GW_EXTERN_C ssize_t fdread(int fd, void* buffer, size_t count, off_t offset);

// Orders walk entries by plain byte-wise comparison of their names.
GW_EXTERN_C int CompareFilenames(const FTSENT** a, const FTSENT** b);
