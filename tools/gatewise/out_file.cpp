#include "out_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace gwcli {

bool writeOutFile(const std::string& path, std::string_view bytes, mode_t mode) {
  std::string temporary = path + ".XXXXXX";
  int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = ::fchmod(fd, mode) == 0;
  for (std::size_t done = 0; ok && done < bytes.size();) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += std::size_t(n);
  }
  ok = ok && ::fsync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  ok = ok && ::rename(temporary.c_str(), path.c_str()) == 0;
  if (!ok) {
    int saved = errno;
    ::unlink(temporary.c_str());
    errno = saved;
  }
  return ok;
}

}  // namespace gwcli
