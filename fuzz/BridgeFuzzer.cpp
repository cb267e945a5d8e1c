#include <memory>

#include "Fuzzing.h"
#include "app/serve/PageMessage.h"
#include "platform/host/HostApplication.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/TarnBridgePlugin.h"

using namespace tarn;

namespace {

/// A plug-in in a world of its own.
class Page {
 public:
  Page() { plugin_->load(); }
  ~Page() {
    plugin_.reset();
    dispatch_.runUntilIdle();
  }
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  const std::vector<CAPPluginMethod>& methods() const { return plugin_->pluginMethods(); }

  void call(const std::string& method, JSObject options) {
    int answers = 0;
    plugin_->call(
        std::make_shared<CAPPluginCall>(method, std::move(options), [&](const CAPPluginCall::Answer&) { ++answers; }));
    dispatch_.runUntilIdle();
    fuzz::require(answers == 1);
  }

 private:
  InMemoryFileManager files_;
  UserDefaults defaults_{files_, "/home/Defaults"};
  SystemClock clock_;
  ManualDispatch dispatch_;
  HostApplication application_{dispatch_};
  InMemoryPhotoLibrary photos_{files_, dispatch_};
  ScriptedURLSessionService transfers_{files_, "/home/delivered"};
  std::shared_ptr<TarnBridge> plugin_ =
      TarnBridge::create({files_, defaults_, clock_, dispatch_, application_, photos_, transfers_}, {});
};

}  // namespace

/// One call a line: a byte that chooses the method, then its options as JSON. Each call is answered once.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Page page;
  const std::string_view text = textOf({data, size});
  for (size_t begin = 0, calls = 0; begin < text.size() && calls < 16; ++calls) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    const std::string_view line = text.substr(begin, end - begin);
    begin = end + 1;
    if (line.empty()) continue;
    parsePageMessage(line);
    const auto options = JSObject::parse(line.substr(1));
    if (!options) continue;
    fuzz::require(JSObject::parse(options->json()).has_value());
    const auto& methods = page.methods();
    const size_t which = static_cast<uint8_t>(line[0]) % (methods.size() + 1);
    page.call(which < methods.size() ? methods[which].name : "unknown", *options);
  }
  return 0;
}
