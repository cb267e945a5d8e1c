#include "Fuzzing.h"
#include "download/DownloadRequest.h"
#include "download/detail/TaskStore.h"
#include "pipeline/ProcessingState.h"
#include "platform/SafeName.h"
#include "platform/URL.h"
#include "platform/host/TransferStore.h"

namespace tarn::fuzz {
namespace {

/// A document that can be read says the same once it was written again.
template <typename Decode, typename Encode>
void roundTrip(ByteView document, Decode decode, Encode encode) {
  finishes([&] {
    const Bytes written = encode(decode(document));
    require(encode(decode(written)) == written);
  });
}

void transferRecords(ByteView document) {
  InMemoryFileManager files;
  files.createDirectory("/home/Transfers");
  writeFileAtomically(files, "/home/Transfers/7.json", document);
  TransferStore(files, "/home/Transfers", std::chrono::hours(720)).records("downloads");
}

}  // namespace

void run(Input input) {
  const ByteView document = input.rest();
  const std::string text(textOf(document));
  roundTrip(
      document, [](ByteView given) { return decodeProcessingStates(given).states; }, encodeProcessingStates);
  roundTrip(document, decodeDownloadTasks, encodeDownloadTasks);
  transferRecords(document);
  if (auto note = NotedDownload::parse(text)) require(NotedDownload::parse(note->fullText()) == note);
  if (auto url = URL::parse(text)) url->lastPathComponent();
  pathFromFileURL(text);
  const std::string name = safeName(text, NameKind::file);
  require(!name.empty() && name.size() <= 255 && name.find('/') == std::string::npos && name[0] != '.');
  require(safeName(name, NameKind::file) == name);
}

}  // namespace tarn::fuzz
