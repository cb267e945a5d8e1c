#include "audio/MP4AudioTrackReplacer.h"

#include "audio/replace/ReplacedFile.h"
#include "audio/replace/ReplacedMovie.h"
#include "audio/replace/ReplacerInput.h"
#include "movie/MovieError.h"
#include "platform/Log.h"
#include "platform/OpenFile.h"

namespace tarn {
namespace {

AudioTrackReplacerError replacerError(const MovieError& error) {
  const bool isUnreadable = error.kind() == MovieError::Case::unreadable;
  return isUnreadable ? AudioTrackReplacerError::ioError(error)
                      : AudioTrackReplacerError::corruptedMP4(error.description());
}

}  // namespace

void MP4AudioTrackReplacer::replaceAudioTrack(FileManager& files, const Path& originalMP4, const Path& newAudioM4A,
                                              const Path& outputURL, EditList editList, const RewriteCheck& check) try {
  logLine("MP4AudioTrackReplacer: Starting audio track replacement");
  log("  Original: {}", originalMP4.filename().string());
  log("  New audio: {}", newAudioM4A.filename().string());
  log("  Output: {}", outputURL.filename().string());
  const ReplacerInput original(files, originalMP4, originalWords);
  const ReplacerInput newAudio(files, newAudioM4A, audioWords);
  const auto patches = makePatches(makeReplacedMovie(original, newAudio, editList), original, newAudio);

  const auto output =
      openFile(files, outputURL, OpenMode::creating, AudioTrackReplacerError::writeError("Cannot create output file"));
  const auto copied = writeReplacedFile(original, newAudio, patches, *output);
  output->synchronize();
  const uint64_t size = output->seekToEnd();
  output->close();
  log("MP4AudioTrackReplacer: Complete, output size: {} bytes", size);
  if (check) check(outputURL, copied);
} catch (const MovieError& error) {
  throw replacerError(error);
}

}  // namespace tarn
