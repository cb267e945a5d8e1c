#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/Capacitor.h"
#include "platform/FileManager.h"
#include "platform/PHPhotoLibrary.h"

namespace tarn {

/// Serves a plug-in to the pages of this machine's browsers, on 127.0.0.1 alone (of ::1 it holds the port): HTTP for
/// what can be read and for what a second plug-in, the host's, offers beside it; a WebSocket for each page's commands,
/// answers and events. docs/bridge.md tells what both sides keep to, and who is refused. Runs on a thread of its own;
/// commands, and reads of the photo library, run on others, so that none of them holds up an event.
class BridgeServer {
 public:
  struct Settings {
    uint16_t port = 0;  ///< 0: any that is free
    Path webFolder;     ///< the built page; the script of the bridge is the server's own
    std::string token;  ///< what a browser must know
    Path localFolder;   ///< the server's own: where files of a browser's machine arrive; cleared at the start
    Path logFile;       ///< what the page calls the log
  };
  /// Told, on the server's thread, when the pages send the application to the foreground (true) or the background.
  using LifeHandler = std::function<void(bool isActive)>;

  /// All but the settings must outlive the server. Throws Error when the page is missing or the port is taken.
  BridgeServer(FileManager& files, PHPhotoLibrary& photos, CAPPlugin& plugin, CAPPlugin& host, const Settings& settings,
               LifeHandler onLife);
  /// Cuts all pages off. A command that has begun is waited for; its answer, if it comes later, is dropped.
  ~BridgeServer();
  BridgeServer(const BridgeServer&) = delete;
  BridgeServer& operator=(const BridgeServer&) = delete;

  /// The link that lets a browser in.
  std::string entryAddress() const;

  /// Sends an event of the plug-in to every page. From any thread; events of one thread keep their order.
  void sendEvent(const std::string& name, const JSObject& data);

 private:
  class Core;
  std::unique_ptr<Core> core_;
};

}  // namespace tarn
