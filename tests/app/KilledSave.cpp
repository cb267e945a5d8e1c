// A save that is killed at a chosen moment: `killed_save HOME URL N` does what `tarn save` does and sends itself
// SIGKILL just before its Nth change of the file system. Exits 0 when the save was over before that.

#include <csignal>
#include <cstdlib>
#include <string>

#include "app/InProcessClient.h"
#include "engine/Host.h"
#include "platform/ForwardingFileManager.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultyFileManager.h"

int main(int, char** argv) {
  using namespace tarn;
  const Path home = argv[1];
  PosixFileManager real(home);
  test::FaultyFileManager files(real);
  files.arm({.call = std::stoul(argv[3]), .among = test::changes, .strike = [] { raise(SIGKILL); }});
  Host host(files, {.home = home});
  InProcessClient client(host);
  host.start();
  auto answer = client.call("saveVideo", {{"url", argv[2]}, {"album", "Trips"}, {"filename", "clip.mp4"}});
  if (!answer.resolved) return EXIT_FAILURE;
  while (auto event = client.nextEvent()) {
    if (event->name != "downloadComplete") continue;
    client.waitUntilGone(*event->data.find("id")->get<int64_t>());
    return EXIT_SUCCESS;
  }
  return EXIT_FAILURE;
}
