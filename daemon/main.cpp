// tutelad: the root daemon that enforces managed users' settings.
#include <cstdio>

int main() {
  std::fprintf(stderr, "tutelad: not built yet\n");
  return 2;
}
