// Where signatures live: embedded ones in an extended attribute of the program, detached ones in a
// file written once and read back, and the test for a program that cannot be changed.
//
// The attribute is "trusted.gatewise.signature" for root, whose trusted namespace ordinary users
// can neither read nor forge, and "user.gatewise.signature" for anyone else. Writing uses
// XATTR_CREATE, so it either adds the whole value or leaves the program as it was. The program (a
// file or a bundle folder) is opened with O_NOFOLLOW, so a link planted at the path is refused.
// Thread-safe; nothing throws.
#pragma once

#include <gatewise/plist.h>

#include <optional>
#include <string>

namespace gw::codesign {

// The attribute name for this process ("trusted." when running as root, else "user.").
std::string signatureAttributeName();

// The embedded signature; nullopt when there is none (or it cannot be read; *error then says why).
std::optional<plist::Data> readEmbeddedSignature(const std::string& path, std::string* error);
// Stores signature; false with *error when the attribute exists already or cannot be written.
bool writeEmbeddedSignature(const std::string& path, const plist::Data& signature,
                            std::string* error);

// Writes bytes to a new file at path (O_EXCL, O_NOFOLLOW, 0600), reads it back and removes it, as
// the detached pass hands its result over. nullopt with *error on any failure; the file is gone.
std::optional<plist::Data> passThroughDetachedFile(const std::string& path,
                                                   const plist::Data& bytes, std::string* error);

enum class VolumeState { Writable, Locked, Unknown };
// Locked: a read-only mount or an immutable file. Unknown: the path cannot be examined.
VolumeState volumeStateOf(const std::string& path, std::string* error);

}  // namespace gw::codesign
