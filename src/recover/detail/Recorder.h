#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "movie/MovieTree.h"
#include "parameters/ParameterSets.h"
#include "parameters/VideoCodec.h"
#include "platform/FileManager.h"

namespace tarn {

/// How a recorder writes pictures.
struct RecordedPictures {
  size_t trak = 0;  ///< which one of the `moov`, counted from 0
  const VideoCodec* codec = nullptr;
  ParameterSets sets;     ///< of the sample entry
  Bytes configuration;    ///< contents of its `avcC` or `hvcC`
  size_t prefixSize = 4;  ///< of the units' lengths, bytes
  uint32_t timescale = 0;
  uint64_t ticks = 0;                   ///< that `count` pictures last, track timescale
  uint64_t count = 1;                   ///< 1 if all last equally long
  int64_t firstCompositionTime = 0;     ///< of the picture that is shown first, track timescale
  std::optional<uint32_t> slices = {};  ///< of each picture, where all have as many

  bool areSteady() const { return count == 1; }
  /// When a picture begins, counted from 0 in decode order, track timescale.
  int64_t timeOf(uint64_t picture) const;
  double seconds(uint64_t pictures) const;
};

/// A track that is neither pictures nor sound.
struct OtherTrack {
  size_t trak = 0;
  std::string handler;  ///< to stand in a sentence
};

/// How a recorder writes sound.
struct RecordedSound {
  size_t trak = 0;
  bool isPCM = false;
  uint32_t timescale = 0;
  uint32_t rate = 0;                  ///< PCM frames per second, of AAC those of the core coder
  uint32_t framesInSample = 0;        ///< PCM frames that a sample holds
  Bytes configuration = {};           ///< AudioSpecificConfig; of AAC alone
  Bytes elements = {};                ///< of each packet, see AACBlock; of AAC alone
  uint32_t blockSize = 0;             ///< bytes of a sample; of PCM alone
  std::vector<uint64_t> pieces = {};  ///< how long in bytes the sound between pictures may be, ascending; of PCM alone

  /// When a sample begins, counted from 0, track timescale.
  uint64_t timeOf(uint64_t sample) const;
};

/// What a healthy movie tells of the recorder that made it.
struct Recorder {
  Bytes ftyp;     ///< a whole box
  MovieBox moov;  ///< with the tables of the healthy movie
  RecordedPictures pictures;
  std::optional<RecordedSound> sound;
  std::vector<OtherTrack> others;     ///< that have samples
  std::vector<uint64_t> otherPieces;  ///< how long in bytes what they hold between the samples is, ascending
  uint64_t firstSample = 0;           ///< how far after the header of the `mdat` the first sample begins, bytes
  double longestPiece = 0;            ///< of one track between two of the other, seconds

  /// Reads the movie, walks its own media and holds what was found against its tables, so that a recorder whose media
  /// cannot be walked is known. Throws LostMoovError for a movie that cannot serve, PosixError.
  static Recorder read(FileManager& files, const Path& healthy);
};

}  // namespace tarn
