// Whole-file reads with a size bound, and atomic whole-file writes.
//
// readFile refuses files larger than maxSize without reading them whole. writeFileAtomically writes
// a temporary file in the destination's folder, syncs it, renames it over the destination and syncs
// the folder: a reader sees the old file or the new one, never a mix, and a failure leaves the old
// file as it was and no temporary file behind. Both close every descriptor on every path and
// report failure with a one-line reason (errno text included) instead of throwing.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace gw::fs {

std::optional<std::string> readFile(const std::string& path, std::size_t maxSize,
                                    std::string* error = nullptr);

// The same for `relativePath` inside `folder`, for files in folders that a user controls (read by
// root): every component of relativePath is opened through its parent's descriptor without
// following a symbolic link, so a link planted anywhere below folder is refused, as is anything
// but a regular file at the end. folder itself is opened as given.
std::optional<std::string> readFileBelow(const std::string& folder, std::string_view relativePath,
                                         std::size_t maxSize, std::string* error = nullptr);

bool writeFileAtomically(const std::string& path, std::string_view bytes, mode_t mode = 0644,
                         std::string* error = nullptr);

}  // namespace gw::fs
