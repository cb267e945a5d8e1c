#pragma once

#include "platform/FileManager.h"
#include "platform/NSURLSession.h"
#include "platform/host/Transfer.h"
#include "platform/host/TransferStore.h"

namespace tarn {

/// Gives the whole file of a transfer to the delegate and ends the transfer; on the delegate queue, which so waits for
/// the flush in place of the other transfers. The part itself stays until the delegate has returned, so that a process
/// killed before that moment has a successor that hands over again, without the network. Does nothing if the transfer
/// is being cancelled. A failed flush ends the transfer with its error.
void handOver(FileManager& files, TransferStore& store, const std::shared_ptr<Transfer>& transfer,
              TransferRecord record, NSURLSessionDownloadDelegate& delegate);

/// Tells the delegate of the bytes that have come since the last time.
void report(const std::shared_ptr<Transfer>& transfer, NSURLSessionDownloadDelegate& delegate);

}  // namespace tarn
