#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/JSObject.h"
#include "serve/detail/RequestCheck.h"

namespace tarn {

/// A method of the host's plug-in, with the options that a request gives it.
struct HostCall {
  std::string method;
  JSObject options = {};
};

/// What a page can ask and tell the host beside the bridge: each route with the method that answers it. Paths are
/// as seen from the base.
class HostRoutes {
 public:
  /// Where a file of the browser's machine is handed in, by PUT.
  static constexpr std::string_view local = "/local";

  /// Why a file of the browser's machine is not taken at this address; nothing if it is.
  static std::optional<Refusal> refuseLocal(const RequestTarget& target);

  /// Which HTTP methods a path takes. That of any other file takes GET alone.
  static std::vector<std::string_view> allowedMethods(std::string_view path);

  /// The most bytes of a POST's body at this path.
  static size_t largestBody(std::string_view path);

  /// Whether a GET at this path is answered by the plug-in.
  static bool isAsked(std::string_view path);

  /// What a request calls that allowedMethods() takes. Refused are a number, an identifier or a body that is none, and
  /// an action that nobody has; what else is given is dropped.
  static std::variant<HostCall, Refusal> callFor(std::string_view httpMethod, const RequestTarget& target,
                                                 std::string_view body);
};

}  // namespace tarn
