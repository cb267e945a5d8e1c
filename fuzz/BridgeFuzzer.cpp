#include <memory>
#include <sstream>

#include "Fuzzing.h"
#include "platform/host/HostApplication.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/TarnBridgePlugin.h"
#include "serve/detail/PageMessage.h"

/// One call a line: a byte that chooses the method, then its options as JSON. Each call is answered once.
void tarn::fuzz::run(Input input) {
  InMemoryFileManager files;
  UserDefaults defaults(files, "/home/Defaults");
  SystemClock clock;
  ManualDispatch dispatch;
  HostApplication application(dispatch);
  InMemoryPhotoLibrary photos(files, dispatch);
  ScriptedURLSessionService transfers(files, "/home/delivered");
  auto plugin = TarnBridge::create({files, defaults, clock, dispatch, application, photos, transfers}, {});
  plugin->load();
  const auto& methods = plugin->pluginMethods();
  std::istringstream lines{std::string(textOf(input.rest()))};
  int calls = 0;
  for (std::string line; calls < 16 && std::getline(lines, line); ++calls) {
    if (line.empty()) continue;
    parsePageMessage(line);
    const auto options = JSObject::parse(line.substr(1));
    if (!options) continue;
    require(JSObject::parse(options->json()).has_value());
    const size_t which = static_cast<uint8_t>(line[0]) % (methods.size() + 1);
    const std::string method = which < methods.size() ? methods[which].name : "unknown";
    int answers = 0;
    plugin->call(std::make_shared<CAPPluginCall>(method, *options, [&](const auto&) { ++answers; }));
    dispatch.runUntilIdle();
    require(answers == 1);
  }
  plugin.reset();
  dispatch.runUntilIdle();
}
