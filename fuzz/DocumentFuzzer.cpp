#include "Fuzzing.h"
#include "download/TaskStore.h"
#include "download/TransferNote.h"
#include "pipeline/ProcessingState.h"
#include "platform/Error.h"
#include "platform/SafeName.h"
#include "platform/URL.h"
#include "platform/host/TransferStore.h"

using namespace tarn;

namespace {

/// A document that can be read says the same once it was written again.
void processingStates(ByteView document) {
  try {
    const ProcessingStates states = decodeProcessingStates(document);
    const Bytes written = encodeProcessingStates(states);
    fuzz::require(encodeProcessingStates(decodeProcessingStates(written)) == written);
  } catch (const Error&) {
    // Not a document of this kind.
  }
}

void downloadTasks(ByteView document) {
  try {
    const Bytes written = encodeDownloadTasks(decodeDownloadTasks(document));
    fuzz::require(encodeDownloadTasks(decodeDownloadTasks(written)) == written);
  } catch (const Error&) {
    // Likewise.
  }
}

void transferRecords(ByteView document) {
  InMemoryFileManager files;
  files.createDirectory("/home/Transfers");
  writeFileAtomically(files, "/home/Transfers/7.json", document);
  TransferStore(files, "/home/Transfers").records("downloads");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ByteView document(data, size);
  const std::string text(textOf(document));
  processingStates(document);
  downloadTasks(document);
  transferRecords(document);
  if (auto note = TransferNote::parse(text)) fuzz::require(TransferNote::parse(note->text())->id == note->id);
  if (auto url = URL::parse(text)) url->lastPathComponent();
  pathFromFileURL(text);
  const std::string name = safeName(text, NameKind::file);
  fuzz::require(!name.empty() && name.size() <= 255 && name.find('/') == std::string::npos && name[0] != '.');
  fuzz::require(safeName(name, NameKind::file) == name);
  return 0;
}
