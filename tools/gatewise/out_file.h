// Output files the tool writes at a path its user names (--out, archive files).
//
// The bytes go to a temporary file created exclusively in the target's folder, synced and renamed
// over the target: nothing planted under a fixed name (a link to another file) is written through,
// and a reader sees the old file or the new one. On failure errno says why and no temporary file
// is left behind.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace gwcli {

// The new file gets mode (0644 unless asked otherwise).
bool writeOutFile(const std::string& path, std::string_view bytes, mode_t mode = 0644);

}  // namespace gwcli
