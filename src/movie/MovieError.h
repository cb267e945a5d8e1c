#pragma once

#include <string>
#include <utility>

#include "mp4/BoxWalker.h"
#include "platform/Error.h"

namespace tarn {

/// What the movie toolkit throws. A worker turns it into a failure of its own, in one function.
class MovieError : public Error {
 public:
  enum class Case {
    unreadable,  ///< a read failed
    cutOff,      ///< the file ends before the end of a box that must be whole
    longSize,    ///< a `moov` with a 64-bit size, where that cannot be edited
    damaged,     ///< boxes that cannot be edited and stay whole
    doesNotFit,  ///< a size or a place does not fit its field
  };

  MovieError(Case kind, const std::string& words, BoxHeader box = {})
      : Error("Movie", -1, words), kind_(kind), box_(std::move(box)) {}

  static MovieError damaged(const std::string& words) { return {Case::damaged, words}; }

  Case kind() const { return kind_; }
  /// The box that the failure is about, in the file; without a type if there is no single one.
  const BoxHeader& box() const { return box_; }

 private:
  Case kind_;
  BoxHeader box_;
};

}  // namespace tarn
