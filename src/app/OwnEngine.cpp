#include "app/OwnEngine.h"

#include "app/Output.h"
#include "platform/Error.h"

namespace tarn {

OwnEngine::OwnEngine(const Path& home, FileManager& files, const GlobalOptions& global)
    : host_(files, {.home = home, .keepsLog = !global.verbose, .backgroundLimit = global.backgroundLimit}),
      clients_({&host_.plugin(), &host_.hostPlugin()}),
      client_(host_, [this](const std::string& name, const JSObject& data) { clients_.sendEvent(name, data); }) {
  host_.start();
  try {
    clients_.listen(home);
  } catch (const Error& error) {
    printFailure("Other commands cannot work in this home meanwhile: " + error.description() + ".");
  }
}

}  // namespace tarn
