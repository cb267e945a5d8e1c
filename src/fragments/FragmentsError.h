#pragma once

#include <string>

#include "pipeline/RefusedInput.h"

namespace tarn {

/// A movie in fragments, or one that broke off, that cannot become a whole plain one, because of what it is: trying
/// again does not help, and nothing was written.
class FragmentsError : public RefusedInput {
 public:
  explicit FragmentsError(const std::string& words) : RefusedInput("Fragments", -1, words) {}

  static FragmentsError ofCutMoov() {
    return FragmentsError(
        "The file ends within its moov, which says where its samples are: download it again, or rebuild it with `tarn "
        "repair --like`");
  }
};

}  // namespace tarn
