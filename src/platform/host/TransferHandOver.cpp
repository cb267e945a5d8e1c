#include "platform/host/TransferHandOver.h"

#include "platform/Error.h"
#include "platform/TempFile.h"

namespace tarn {
namespace {

/// Makes the file and the fact that it is whole durable, then gives it its second name.
void makeDelivery(FileManager& files, TransferStore& store, TransferRecord record, const Path& delivery) {
  const Path part = store.partFile(record.taskIdentifier);
  const auto handle = files.open(part, OpenMode::updating);
  record.expectedSize = handle->seekToEnd();
  handle->synchronize();
  handle->close();
  if (!record.complete) {
    record.complete = true;
    store.save(record);
  }
  try {
    files.linkItem(part, delivery);
  } catch (const PosixError&) {
    files.copyItem(part, delivery);  // not every file system has hard links
  }
}

}  // namespace

void report(const std::shared_ptr<Transfer>& transfer, NSURLSessionDownloadDelegate& delegate) {
  const auto progress = transfer->takeReport();
  delegate.urlSessionDidWriteData(transfer, progress.written, progress.total, progress.expected);
}

void handOver(FileManager& files, TransferStore& store, const std::shared_ptr<Transfer>& transfer,
              TransferRecord record, NSURLSessionDownloadDelegate& delegate) {
  using Phase = Transfer::Phase;
  if (transfer->phase() != Phase::whole) return;
  {
    const TempFile delivery(files, store.deliveryFile(transfer->taskIdentifier()));
    try {
      makeDelivery(files, store, std::move(record), delivery.path());
    } catch (const Error& failure) {
      if (!transfer->advance(Phase::whole, Phase::completed)) return;
      store.remove(transfer->taskIdentifier());
      delegate.urlSessionDidComplete(transfer, failure);
      return;
    }
    report(transfer, delegate);
    if (!transfer->advance(Phase::whole, Phase::handedOver)) return;
    delegate.urlSessionDidFinishDownloading(transfer, delivery.path());
  }
  store.remove(transfer->taskIdentifier());
  transfer->advance(Phase::handedOver, Phase::completed);
  delegate.urlSessionDidComplete(transfer, std::nullopt);
}

}  // namespace tarn
