#pragma once

#include <functional>
#include <span>
#include <string>

#include "movie/CopiedRange.h"
#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

/// A worker calls this with its finished temp file, before the replacement of the file that it rewrites. `copied`
/// says which bytes it took over; ranges are sorted by `from` and do not overlap. It throws RefusedResult, or any other
/// error, to keep the old file: the worker then removes its temp file and passes the error on. May be empty.
using RewriteCheck = std::function<void(const Path& result, std::span<const CopiedRange> copied)>;

/// A result that would harm the presentation: the file of before stays. The description says what would have changed.
class RefusedResult : public Error {
 public:
  explicit RefusedResult(const std::string& words) : Error("Presentation", -1, words) {}
};

}  // namespace tarn
