#include "remux/detail/MovieAccess.h"

#include <fmt/format.h>

#include "movie/MoovCheck.h"
#include "movie/MovieRewrite.h"
#include "mp4/BoxLayout.h"
#include "platform/OpenFile.h"

namespace tarn {
namespace {

MP4RemuxError corruptedMoov(std::string_view problem, const BoxHeader& moov) {
  return MP4RemuxError::corruptedMP4(fmt::format("moov box at {} of {} bytes {}", moov.offset, moov.size, problem));
}

MP4RemuxError moovError(const MovieError& error, const BoxHeader& moov) {
  switch (error.kind()) {
    case MovieError::Case::unreadable:
      return MP4RemuxError::ioError(Error("Cannot read moov box", -1, "Cannot read moov box"));
    case MovieError::Case::cutOff:
      return corruptedMoov("extends beyond the end of the file", moov);
    case MovieError::Case::longSize:
      return corruptedMoov("has a 64-bit size field", moov);
    case MovieError::Case::doesNotFit:
      return corruptedMoov("does not fit a 32-bit size field", moov);
    case MovieError::Case::damaged:
      break;
  }
  return remuxError(error);
}

/// A rewrite that finds the file shorter than its boxes say.
MP4RemuxError cutOffError(const BoxHeader& box) {
  if (box.type == "mdat") return MP4RemuxError::writeError("Failed to copy mdat");
  if (RewriteListener::isTail(box)) return MP4RemuxError::writeError("Failed to copy the end of the file");
  return MP4RemuxError::writeError("Failed to stream " + box.type + " box");
}

}  // namespace

MP4RemuxError fileHandleError(const std::string& description) {
  return MP4RemuxError::ioError(Error("FileHandle", -1, description));
}

std::unique_ptr<FileHandle> openFile(FileManager& files, const Path& path, OpenMode mode, const char* refusal) {
  if (!files.fileExists(path)) throw MP4RemuxError::fileNotFound();
  return openFile(files, path, mode, fileHandleError(refusal));
}

MP4RemuxError remuxError(const MovieError& error) {
  switch (error.kind()) {
    case MovieError::Case::unreadable:
      return fileHandleError(error.description());
    case MovieError::Case::cutOff:
      return cutOffError(error.box());
    case MovieError::Case::longSize:
    case MovieError::Case::damaged:
    case MovieError::Case::doesNotFit:
      break;
  }
  return MP4RemuxError::corruptedMP4(error.description());
}

MediaLayout scanAround(FileHandle& file, const BoxHeader& moov) try {
  MediaLayout layout = MediaLayout::scan(file, edit::remuxing);
  if (layout.end < moov.end()) throw MP4RemuxError::corruptedMP4(fmt::format("no box begins at {}", layout.end));
  return layout;
} catch (const MovieError& error) {
  throw remuxError(error);
}

Bytes readEditableMoov(FileHandle& file, const BoxHeader& moov) try {
  Bytes bytes = readMoov(file, moov, edit::remuxing);
  layout::store(bytes.data(), layout::boxSize, bytes.size());
  requireEditable(bytes, moov.offset, edit::remuxing);
  return bytes;
} catch (const MovieError& error) {
  throw moovError(error, moov);
}

MovieBox parseMoov(ByteView moov) try {
  return MovieBox::parse(moov, edit::remuxing);
} catch (const MovieError& error) {
  throw remuxError(error);
}

}  // namespace tarn
