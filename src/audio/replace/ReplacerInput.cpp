#include "audio/replace/ReplacerInput.h"

#include <fmt/ranges.h>

#include <vector>

#include "audio/AudioTrackReplacerError.h"
#include "movie/MoovCheck.h"
#include "movie/MovieError.h"
#include "platform/Log.h"
#include "platform/OpenFile.h"

namespace tarn {
namespace {

using ReplacerError = AudioTrackReplacerError;

std::unique_ptr<ReadWatch> openInput(FileManager& files, const Path& path, const InputWords& words) {
  if (!files.fileExists(path)) throw ReplacerError::fileNotFound(path);
  return std::make_unique<ReadWatch>(
      openFile(files, path, OpenMode::reading, ReplacerError::ioError(Error("FileHandle", -1, words.cannotOpen))));
}

/// Finds the `moov` in an input that the replacer can work on.
BoxHeader requireMoov(const MediaLayout& layout, const InputWords& words) {
  // The samples of a fragment would be left behind: what describes them is not in the moov.
  if (layout.first("moof")) throw ReplacerError::corruptedMP4("Fragmented MP4 (moof box found)");
  std::vector<std::string_view> types;
  for (const BoxHeader& box : layout.boxes) types.push_back(box.type);
  log("  {} boxes: {}", words.title, fmt::join(types, ", "));
  const auto moov = layout.moov(edit::replacing);
  if (!moov) throw ReplacerError::moovNotFound();
  if (!layout.first("mdat")) throw ReplacerError::corruptedMP4(words.noMdat);
  return *moov;
}

}  // namespace

ReplacerInput::ReplacerInput(FileManager& files, const Path& path, const InputWords& words)
    : words_(words),
      file_(openInput(files, path, words)),
      layout_(MediaLayout::scan(*file_, edit::replacing)),
      moovBox_(requireMoov(layout_, words)) {}

MovieBox ReplacerInput::readMoov() const {
  Bytes moov;
  try {
    moov = tarn::readMoov(*file_, moovBox_, edit::replacing);
  } catch (const MovieError&) {
    // What is there of it is refused below.
  }
  if (moov.size() <= static_cast<size_t>(moovBox_.headerSize)) throw ReplacerError::corruptedMP4(words_.cannotReadMoov);
  return MovieBox::parse(moov, edit::replacing);
}

}  // namespace tarn
