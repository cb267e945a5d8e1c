#include "app/HostSession.h"

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
}

}  // namespace tarn
