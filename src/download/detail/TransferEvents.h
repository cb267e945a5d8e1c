#pragma once

#include <cstdint>
#include <exception>
#include <optional>

#include "download/detail/DownloadStarter.h"
#include "download/detail/EngineState.h"
#include "download/detail/ProcessingLine.h"

namespace tarn {

/// Is told what becomes of transfers, and hands their files over to the pipeline. Events come on the session's delegate
/// queue, one at a time: it has a thread of its own, so an event may wait for a name and look into a whole file.
class TransferEvents : public NSURLSessionDownloadDelegate {
 public:
  /// All must outlive it.
  TransferEvents(EngineState& engine, DownloadStarter& starter, ProcessingLine& line)
      : engine_(engine), starter_(starter), line_(line) {}

  void urlSessionDidWriteData(const TaskPointer& transfer, int64_t bytesWritten, int64_t totalBytesWritten,
                              int64_t totalBytesExpectedToWrite) override;
  void urlSessionDidFinishDownloading(const TaskPointer& transfer, const Path& location) override;
  void urlSessionDidComplete(const TaskPointer& transfer, const std::optional<Error>& error) override;

  /// Hands a file over that no transfer has brought. From any thread; may wait for a name and look into the whole file.
  void handOver(const DownloadTaskPointer& task, const DownloadRequest& request, const Path& location);

 private:
  DownloadRegistry::Match findTask(const TaskPointer& transfer);
  bool wasHandedOver(const DownloadTask& task);
  std::optional<ProcessingState> takeFile(const DownloadTaskPointer& task, const DownloadRequest& request,
                                          const Path& location);
  NamesInTheMaking::Hold holdDestination(int64_t id, const DownloadRequest& request);
  void moveIntoPlace(const Path& location, const Path& destination);
  void failHandOver(const DownloadTaskPointer& task, const std::exception_ptr& failure);

  EngineState& engine_;
  DownloadStarter& starter_;
  ProcessingLine& line_;
};

}  // namespace tarn
