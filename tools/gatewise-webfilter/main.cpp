// gatewise-webfilter: a small web-filter service that scores pages from a word list.
//
//   gatewise-webfilter [--root DIR] [--words FILE] [--socket PATH]
//
// Serves "com.morvane.webfilter" on "<bootstrap folder>/com.morvane.webfilter" (or PATH) until
// SIGTERM or SIGINT, and prints "listening on PATH" once it does. --words names the word list
// (format in word_list.h; default: the list installed with the library's data). Exit 2 for bad
// usage, an unreadable word list or a socket that cannot be made.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "filter_service.h"
#include "ipc/message_server.h"

namespace {

gw::ipc::MessageServer* gServer = nullptr;

void stopServing(int) {
  if (gServer) gServer->stop();  // async-signal-safe: an atomic store and a write(2)
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Gatewise web-filter service: scores pages from a word list"};
  std::string root, words = GATEWISE_WEBFILTER_WORDS, socketPath;
  app.add_option("--root", root, "System root (overrides GATEWISE_ROOT)");
  app.add_option("--words", words, "Word list file");
  app.add_option("--socket", socketPath, "Socket path (default: the service's bootstrap name)");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "gatewise-webfilter: %s\n", e.what());
    return 2;
  }
  if (!root.empty()) ::setenv("GATEWISE_ROOT", root.c_str(), 1);

  std::string error;
  std::optional<gw::webfilter::WordList> list = gw::webfilter::readWordList(words, &error);
  if (!list) {
    std::fprintf(stderr, "gatewise-webfilter: %s\n", error.c_str());
    return 2;
  }
  gw::ipc::Dispatcher dispatcher(gw::ipc::Service::WebFilter);
  gw::webfilter::serveFilterRoutines(dispatcher, *list);
  if (socketPath.empty()) socketPath = gw::ipc::serviceSocketPathFor(gw::ipc::Service::WebFilter);
  std::unique_ptr<gw::ipc::MessageServer> server =
      gw::ipc::MessageServer::listen(socketPath, dispatcher, &error);
  if (!server) {
    std::fprintf(stderr, "gatewise-webfilter: %s\n", error.c_str());
    return 2;
  }
  gServer = server.get();
  struct sigaction action {};
  action.sa_handler = stopServing;
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  std::printf("listening on %s\n", server->path().c_str());
  std::fflush(stdout);
  server->run();
  gServer = nullptr;
  return 0;
}
