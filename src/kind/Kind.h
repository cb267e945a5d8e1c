#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/FileManager.h"

namespace tarn {

/// How the user has named a file, which the advice speaks of.
enum class NamedBy { address, path };

/// What a file is, told from its first bytes and from its boxes.
struct Kind {
  enum class What {
    plainMovie,       ///< its `moov` lists all samples
    fragmentedMovie,  ///< samples are listed in `moof` boxes (ISO/IEC 14496-12 8.8), maybe beside those of the `moov`
    lacksMoov,        ///< boxes of a movie whose `moov` is missing, or cut off within its first track
    lacksSamples,     ///< a movie of which no track has a sample
    audio,            ///< a movie whose tracks are sound, or a file of sound alone
    otherContainer,   ///< WebM, Matroska, AVI, MPEG-TS and their like, by signature
    picture,
    webPage,
    playlist,
    archive,
    empty,
    unknown,
  };

  What what = What::unknown;
  std::string words;   ///< what it is, to follow "NAME is ": `a web page ("Sign in")`
  std::string advice;  ///< what to try, to follow a colon: "the address needs a login"; empty if there is none

  /// The advice about what is not itself the video.
  static constexpr const char* adviseVideoItself = "give the address of the video itself";

  /// A player could show it: a movie with samples, sound, another container.
  bool isMedia() const;

  /// `NAME is a web page ("Sign in"): the address needs a login`.
  std::string sentence(std::string_view name, NamedBy namedBy) const;
};

/// Looks at a file: its first 64 KiB, and the headers of its boxes. Throws PosixError if it cannot be read.
Kind kindOf(FileManager& files, const Path& path);

/// Why no player could show a file, as a sentence for people without its stop, in which it is called by this name;
/// nothing if one could. Throws PosixError.
std::optional<std::string> whyNoPlayerShows(FileManager& files, const Path& path, std::string_view name,
                                            NamedBy namedBy = NamedBy::address);

}  // namespace tarn
