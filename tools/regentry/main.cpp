// regentry: the managed-client agent. Started as `regentry "-u UID" -f` when a user's managed
// preferences were changed from outside (GWUtilities::kickQRMDForUID), it has tutelad reread that
// user's managed settings and overrides. The user id may also come as two arguments ("-u" "UID").
// Exit status: 0 sent, 1 the daemon could not be reached, 2 bad arguments.
#include <gatewise/ipc.h>

#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>

namespace {

std::optional<uid_t> parseUid(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  std::uint32_t uid = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), uid);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return {};
  return uid_t(uid);
}

int usage() {
  std::fprintf(stderr, "usage: regentry -u UID [-f]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::optional<uid_t> uid;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "-f") continue;  // a refresh is always forced: there is nothing cached here
    if (arg == "-u" && i + 1 < argc) {
      uid = parseUid(argv[++i]);
    } else if (arg.starts_with("-u ")) {
      uid = parseUid(arg.substr(3));
    } else {
      return usage();
    }
    if (!uid) return usage();
  }
  if (!uid) return usage();
  if (GWUtilities::fcdReadSettingsFor(*uid) != 0) return 1;
  return GWUtilities::fcdReadOverridesFor(*uid) == 0 ? 0 : 1;
}
