#pragma once

#include <tarn/engine.h>

#include <cstdint>
#include <map>
#include <string>

namespace tarn {

/// Tells work that goes on from work that is gone. A stored download may say that it is under way although a kill has
/// taken its transfer or its file: after some looks that find nothing belonging to it, it counts as vanished. One look
/// is not enough, since work changes hands.
class VanishedWork {
 public:
  enum class State {
    underWay,
    vanished,
    resting,  ///< it does not say that it is under way
  };

  /// What the stores say of a download with this status. They must have been read after the status.
  State look(int64_t id, const std::string& status, const Engine::StoredWork& stored);

  /// Why a download of this status has vanished, in words.
  static const char* words(const std::string& status);

 private:
  std::map<int64_t, int> looks_;
};

}  // namespace tarn
