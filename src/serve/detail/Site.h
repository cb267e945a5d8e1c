#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/FileManager.h"
#include "platform/JSObject.h"
#include "platform/PHPhotoLibrary.h"
#include "serve/detail/RequestHead.h"
#include "serve/detail/ServedFolder.h"

namespace tarn {

/// An answer to a GET: a text, or a stretch of a file from the handle's position on.
struct SiteAnswer {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> fields = {};
  std::string text = {};
  std::unique_ptr<FileHandle> file = nullptr;
  uint64_t count = 0;  ///< bytes of the file

  uint64_t length() const { return file ? count : text.size(); }

  static SiteAnswer words(int status, std::string words);
  static SiteAnswer json(const JSObject& object, int status = 200);
  /// A whole file. Throws PosixError.
  static SiteAnswer whole(FileManager& files, const Path& path, std::string type);
};

/// The fields of every answer: nothing is stored, sniffed, framed or told to others, and a page runs only scripts of
/// this host.
const std::vector<std::pair<std::string, std::string>>& commonFields();

/// What can be read by GET: the built page with the host's script, the albums, and the saved videos. It does not know
/// below which path it is served, so what it tells of places is relative. Thread-safe.
class Site {
 public:
  /// The first two must outlive the site; `script` is the host's own. Throws Error when the folder holds no page.
  Site(FileManager& files, PHPhotoLibrary& photos, const Path& folder, std::string script);

  /// Whether an answer has to wait for the photo library, which a save may hold for long.
  static bool asksLibrary(const RequestTarget& target);

  /// Throws PosixError, or Error of the library.
  SiteAnswer answer(const RequestHead& head, const RequestTarget& target) const;

 private:
  SiteAnswer index() const;
  SiteAnswer script() const;
  SiteAnswer albums() const;
  SiteAnswer video(const RequestHead& head, const std::string& id, bool isDownload) const;
  SiteAnswer pageFile(const RequestTarget& target) const;

  FileManager& files_;
  PHPhotoLibrary& photos_;
  const ServedFolder folder_;
  const std::string script_;
};

}  // namespace tarn
