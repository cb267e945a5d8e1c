#pragma once

#include <memory>
#include <string>

#include "movie/MediaLayout.h"
#include "movie/MovieError.h"
#include "movie/MovieTree.h"
#include "mp4/MP4RemuxError.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

// How the remux opens and reads a movie.

/// An ioError of the domain "FileHandle".
MP4RemuxError fileHandleError(const std::string& description);

/// Opens a file that must exist. Throws fileNotFound, and fileHandleError(refusal) when it cannot be opened.
std::unique_ptr<FileHandle> openFile(FileManager& files, const Path& path, OpenMode mode, const char* refusal);

/// What a failure of the movie toolkit is to the remux.
MP4RemuxError remuxError(const MovieError& error);

/// The top level of the file. Moves the file's position. Throws MP4RemuxError: ioError for a box header that cannot be
/// read, corruptedMP4 if the boxes end before the end of the `moov`.
MediaLayout scanAround(FileHandle& file, const BoxHeader& moov);

/// The whole `moov`, fit to be edited in memory. One that reaches to the end of the file gets its size written out.
/// Moves the file's position. Throws MP4RemuxError: ioError if it cannot be read, corruptedMP4.
Bytes readEditableMoov(FileHandle& file, const BoxHeader& moov);

/// The `moov` taken apart. Throws corruptedMP4.
MovieBox parseMoov(ByteView moov);

}  // namespace tarn
