#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace tarn {

/// Tells from the pages whether the application is in the foreground: while any page is visible. A page that goes away
/// while it is visible counts for a moment longer, since it may only be loading anew; so does the time before the first
/// page comes.
class PagePresence {
 public:
  using Time = std::chrono::steady_clock::time_point;
  static constexpr std::chrono::seconds grace{3};

  explicit PagePresence(Time start);

  /// A connected page says whether it can be seen.
  void show(const std::string& page, bool isVisible);
  /// A page's connection is gone.
  void leave(const std::string& page, Time now);

  bool isActive(Time now) const;
  /// When isActive may change although no page says anything; nothing when it will not.
  std::optional<Time> nextChange(Time now);

 private:
  std::set<std::string> visible_;
  std::map<std::string, Time> leaving_;  ///< pages that were visible, until when they count
};

}  // namespace tarn
