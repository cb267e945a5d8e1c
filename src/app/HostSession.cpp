#include "app/HostSession.h"

#include "app/Output.h"

namespace tarn {

HostSession::HostSession(const GlobalOptions& global)
    : home_(homeDirectory(global.home)),
      files_(home_),
      host_(files_, {.home = home_, .verbose = global.verbose, .backgroundLimit = global.backgroundLimit}),
      client_(host_.plugin()),
      watcher_([this] {
        host_.interrupt();
        client_.interrupt();
      }) {
  host_.start();
  for (const std::string& words : host_.storeProblems()) printFailure(words + ".");
}

}  // namespace tarn
