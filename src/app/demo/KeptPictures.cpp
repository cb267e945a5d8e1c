#include "app/demo/KeptPictures.h"

#include <algorithm>

#include "platform/Error.h"
#include "presentation/Presentation.h"

namespace tarn {
namespace {

/// The pictures of one movie, one after the other.
class CodedPictures {
 public:
  CodedPictures(FileManager& files, const Path& path)
      : file_(files.open(path, OpenMode::reading)), locations_(locationsIn(files, path)) {}

  uint32_t count() const { return locations_.countInFile(); }
  Bytes at(uint32_t index) {
    const SampleLocation place = locations_.locate(index);
    file_->seek(place.offset);
    return file_->read(place.size);
  }

 private:
  static SampleLocations locationsIn(FileManager& files, const Path& path) {
    const Presentation movie = Presentation::read(files, path);
    const TrackPresentation* const video = movie.first("vide");
    if (!video) throw Error("Demo", -1, "the recording has no pictures");
    return video->locations;
  }

  std::unique_ptr<FileHandle> file_;
  SampleLocations locations_;
};

}  // namespace

KeptPictures keptPictures(FileManager& files, const Path& before, const Path& after) {
  CodedPictures old(files, before);
  CodedPictures now(files, after);
  KeptPictures result{.all = old.count()};
  for (uint32_t i = 0; i < std::min(old.count(), now.count()); ++i) {
    if (old.at(i) == now.at(i)) ++result.kept;
  }
  return result;
}

}  // namespace tarn
