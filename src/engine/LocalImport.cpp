#include "engine/LocalImport.h"

#include "kind/Kind.h"
#include "platform/Error.h"
#include "platform/SafeName.h"

namespace tarn {

int64_t importLocalFile(FileManager& files, TarnBridge& bridge, const Path& file, const std::string& filename,
                        const std::string& album) {
  const std::string name = safeName(filename, NameKind::file);
  if (const auto why = whyNoPlayerShows(files, file, name, NamedBy::path)) throw Error("LocalImport", -1, *why);
  const auto task = bridge.takeIn(file, {.url = "", .album = album, .filename = name});
  if (!task) throw Error("LocalImport", -1, "Nothing new is taken just now, try again in a moment");
  return task->id;
}

}  // namespace tarn
