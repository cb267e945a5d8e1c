#pragma once

#include "mp4/BoxWalker.h"

namespace tarn {

/// What the workers that edit a `moov` do differently, most of it with damaged files. How a walk treats damage stands
/// in BoxWalkPolicy.
struct EditRules {
  /// Which `moov` counts if a file has several.
  enum class WhichMoov { first, last };
  /// A `moov` that the end of the file cuts off.
  enum class CutMoov { isRefused, isTaken };
  /// A `moov` with a 64-bit size.
  enum class LongMoov { isRefused, isTaken };
  /// Which headers the boxes on the way from the `moov` to the chunk offsets may have; see requireEditable.
  enum class Way {
    plainSizes,  ///< sizes of 8 and above in 32 bits; the way to the `stsd` counts too
    shortSizes,  ///< all but 64-bit sizes
    anySizes,    ///< all
  };
  /// A child that reaches over the end of its parent.
  enum class Overrun {
    isFound,   ///< it is found, as cut off
    isHidden,  ///< it is not found; one that would be taken apart is refused
  };
  /// A size field of 0, which says that the box reaches to the end of its parent.
  enum class ZeroSize { stays, isWrittenOut };
  /// Whose chunk offsets move along with the media.
  enum class Tables {
    allInMoov,           ///< each `stco` and `co64`, wherever it stands
    firstInSampleTable,  ///< of each track's sample table the first one
  };
  /// How an audio or video track is known.
  enum class Track {
    byHandler,            ///< by its handler type
    byHandlerOrHeader,    ///< by its handler type or its media header
    byHandlerThenHeader,  ///< by its media header only if no track has the handler type
  };
  /// Bytes at the end of the file that are no box.
  enum class Tail {
    isMedia,    ///< copied, and chunk offsets move with them
    isCopied,   ///< copied; chunk offsets move only if there is an `mdat` after the `moov`
    isDropped,  ///< left out
  };
  /// An `mdat`, or a box of more than 10 MiB that is not taken for the tail, that the end of the file cuts off.
  enum class CutMedia { isRefused, isCopied };

  const BoxWalkPolicy& topLevel;
  WhichMoov moov;
  CutMoov cutMoov;
  LongMoov longMoov;
  Way way;
  Overrun overrun;
  ZeroSize zeroSize;
  Tables tables;
  Track track;
  Tail tail;
  CutMedia cutMedia;
};

namespace edit {

using R = EditRules;

// clang-format off
//                             top level              moov                 cut moov                64-bit moov              way                 overrun               size 0                     tables                         track                          tail                 cut mdat
inline constexpr R remuxing  {boxwalk::topLevelScan, R::WhichMoov::first, R::CutMoov::isRefused, R::LongMoov::isRefused, R::Way::plainSizes, R::Overrun::isFound,  R::ZeroSize::stays,        R::Tables::allInMoov,          R::Track::byHandler,           R::Tail::isMedia,   R::CutMedia::isRefused};
inline constexpr R syncing   {boxwalk::topLevel,     R::WhichMoov::first, R::CutMoov::isTaken,   R::LongMoov::isRefused, R::Way::shortSizes, R::Overrun::isFound,  R::ZeroSize::stays,        R::Tables::firstInSampleTable, R::Track::byHandler,           R::Tail::isCopied,  R::CutMedia::isCopied};
inline constexpr R stripping {boxwalk::topLevelScan, R::WhichMoov::last,  R::CutMoov::isRefused, R::LongMoov::isRefused, R::Way::shortSizes, R::Overrun::isFound,  R::ZeroSize::stays,        R::Tables::allInMoov,          R::Track::byHandlerOrHeader,   R::Tail::isDropped, R::CutMedia::isRefused};
inline constexpr R replacing {boxwalk::topLevelScan, R::WhichMoov::first, R::CutMoov::isRefused, R::LongMoov::isTaken,   R::Way::anySizes,   R::Overrun::isHidden, R::ZeroSize::isWrittenOut, R::Tables::allInMoov,          R::Track::byHandlerThenHeader, R::Tail::isCopied,  R::CutMedia::isCopied};
// clang-format on

}  // namespace edit
}  // namespace tarn
