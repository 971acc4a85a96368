// Encoding detection and the file entry points of the property-list codec.
#include "platform/plist/codec.h"

#include <cstring>

#include "platform/fs/file_io.h"
#include "platform/plist/binary_format.h"
#include "platform/plist/file_bytes.h"

namespace gw::plist {

ReadResult readPropertyList(std::span<const std::uint8_t> bytes, const ReadOptions& options) {
  if (bytes.size() >= 8 && std::memcmp(bytes.data(), binary::kMagic, 8) == 0) {
    return readBinaryPropertyList(bytes, options);
  }
  return readXMLPropertyList(bytes, options);
}

ReadResult readPropertyList(std::string_view bytes, const ReadOptions& options) {
  return readPropertyList(std::span<const std::uint8_t>(
                              reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()),
                          options);
}

ReadResult readPropertyListFile(const std::string& path, const ReadOptions& options) {
  FileBytes file;
  std::string error;
  if (!readFileBytes(path, kMaxPropertyListFileSize, file, error)) {
    ReadResult failed;
    failed.error = error;
    return failed;
  }
  return readPropertyList(std::span<const std::uint8_t>(file.bytes.get(), file.size), options);
}

std::optional<std::string> writePropertyList(const Value& v, Format format, std::string* error) {
  if (!isValidPropertyList(v, format)) {
    if (error) {
      *error = std::string("not a property list for ") +
               (format == Format::XML ? "XML" : "binary") +
               " (null or object inside, or a container inside itself)";
    }
    return std::nullopt;
  }
  std::string out;
  if (format == Format::XML) {
    if (!writeXMLPropertyList(v, out, error)) return std::nullopt;
  } else {
    writeBinaryPropertyList(v, out);
  }
  return out;
}

bool writePropertyListFile(const std::string& path, const Value& v, Format format,
                           std::string* error) {
  std::optional<std::string> bytes = writePropertyList(v, format, error);
  if (!bytes) return false;
  return fs::writeFileAtomically(path, *bytes, 0644, error);
}

}  // namespace gw::plist
