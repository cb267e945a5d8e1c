// A save that is killed at a chosen moment: `killed_save HOME URL change N` does what `tarn save` does and sends itself
// SIGKILL just before its Nth change of the file system, `killed_save HOME URL recipe N` just after its Nth store of a
// recipe. Exits 0 when the save was over before that.

#include <csignal>
#include <cstdlib>
#include <string>
#include <string_view>

#include "api/InProcessClient.h"
#include "engine/Host.h"
#include "platform/ForwardingFileManager.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultyFileManager.h"

namespace {

/// Kills the process after a store of a recipe: what follows from that store is not done.
class DeadlyRecipes : public tarn::ForwardingFileManager {
 public:
  DeadlyRecipes(tarn::FileManager& base, unsigned long deadly) : ForwardingFileManager(base), left_(deadly) {}

  void replaceItem(const tarn::Path& target, const tarn::Path& source) override {
    base().replaceItem(target, source);
    if (target.extension() == ".recipe" && left_ > 0 && --left_ == 0) raise(SIGKILL);
  }

 private:
  unsigned long left_;
};

}  // namespace

int main(int, char** argv) {
  using namespace tarn;
  const Path home = argv[1];
  const bool isRecipe = std::string_view(argv[3]) == "recipe";
  const unsigned long number = std::stoul(argv[4]);
  PosixFileManager real(home);
  DeadlyRecipes recipes(real, isRecipe ? number : 0);
  test::FaultyFileManager files(recipes);
  if (!isRecipe) files.arm({.call = number, .among = test::changes, .strike = [] { raise(SIGKILL); }});
  Host host(files, {.home = home});
  InProcessClient client(host);
  host.start();
  auto answer = client.call("saveVideo", {{"url", argv[2]}, {"album", "Trips"}, {"filename", "clip.mp4"}});
  if (!answer.resolved) return EXIT_FAILURE;
  while (auto event = client.nextEvent(std::nullopt)) {
    if (event->name != "downloadComplete") continue;
    client.waitUntilGone(*event->data.find("id")->get<int64_t>());
    return EXIT_SUCCESS;
  }
  return EXIT_FAILURE;
}
