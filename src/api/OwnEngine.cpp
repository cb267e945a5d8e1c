#include "api/OwnEngine.h"

#include "platform/Error.h"

namespace tarn {

OwnEngine::OwnEngine(const Path& home, FileManager& files, const EngineOptions& options)
    : host_(files, {.home = home, .keepsLog = options.keepsLog, .backgroundLimit = options.backgroundLimit}),
      clients_({&host_.plugin(), &host_.hostPlugin()}),
      client_(host_, [this](const std::string& name, const JSObject& data) { clients_.sendEvent(name, data); }) {
  host_.start();
  try {
    clients_.listen(home);
  } catch (const Error& error) {
    if (options.warn) {
      options.warn("Other commands cannot work in this home meanwhile: " + error.description() + ".");
    }
  }
}

}  // namespace tarn
