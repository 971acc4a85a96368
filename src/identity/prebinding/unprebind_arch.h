// The per-image rewrite of unprebinding: takes the prebinding out of one Mach-O image in place.
//
// Called by unprebind with the toolkit state set up (statics()); reports problems through the
// message helpers, which count errors. The image keeps its size: every change is a field
// rewritten in the image's own byte order.
#pragma once

#include "identity/prebinding/ofile.h"

namespace gw::macho {

// Whether the image is one unprebinding rewrites (a prebound executable, dylib or bundle).
// Reports why not when the image is of a kind that can never be handled.
bool archNeedsUnprebinding(const OFile& ofile, const ArchRecord& arch);

// Rewrites the image of `arch` inside ofile.bytes. Returns false when an error was reported.
bool unprebindArch(OFile& ofile, const ArchRecord& arch);

// The checksum filled into an empty LC_PREBIND_CKSUM when checksums are not zeroed: the CRC-32
// of the image as it was read.
std::uint32_t imageChecksum(std::span<const std::uint8_t> image);

}  // namespace gw::macho
