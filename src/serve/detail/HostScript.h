#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/Capacitor.h"

namespace tarn {

/// What a page learns of the host beside the bridge.
struct HostFacts {
  std::string name;                       ///< of the plug-in whose events tell of changes
  std::vector<std::string> methods = {};  ///< that answer its routes
  std::string log = {};                   ///< the path of the log
};

/// The script that puts up the native side of the bridge in a page: the table of the plug-in's methods, the key of the
/// home's pages and the facts of the host, followed by web/host/native.js, which reads them.
std::string hostScript(const CAPBridgedPlugin& plugin, const std::string& pageKey, const HostFacts& host);

/// A page's HTML with the host's script as the first thing in its head, before any script of its own.
std::string withHostScript(std::string_view html);

/// What the printed link shows while the browser takes the cookie. It goes on to `base` by itself: a redirect would not
/// do, since a browser that came by a link of another site sends no strict cookie along with a redirect.
std::string entryPage(const std::string& base);

}  // namespace tarn
