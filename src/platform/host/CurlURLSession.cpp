#include "platform/host/CurlURLSession.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <utility>

#include "platform/TransferRules.h"
#include "platform/URL.h"
#include "platform/host/DelegateQueue.h"
#include "platform/host/Transfer.h"
#include "platform/host/TransferLoop.h"
#include "platform/host/TransferStore.h"

namespace tarn {
namespace {

class CurlURLSession : public NSURLSession {
 public:
  CurlURLSession(FileManager& files, std::shared_ptr<const std::string> identifier,
                 std::shared_ptr<TransferStore> store, std::shared_ptr<DelegateQueue> delegateQueue,
                 const CurlURLSessionOptions& options)
      : identifier_(std::move(identifier)),
        store_(std::move(store)),
        delegateQueue_(std::move(delegateQueue)),
        loop_(std::make_shared<TransferLoop>(files, store_, delegateQueue_, options)) {
    for (const auto& record : store_->records(*identifier_)) {
      const auto part = files.attributes(store_->partFile(record.taskIdentifier));
      const auto phase = record.started ? Transfer::Phase::running : Transfer::Phase::suspended;
      const auto transfer = remember(std::make_shared<Transfer>(record, phase, part ? part->size : 0, loop_));
      if (record.started) {
        loop_->start(transfer);
      } else {
        suspended_.push_back(transfer);
      }
    }
  }

  ~CurlURLSession() override {
    loop_->stop();
    delegateQueue_->close();
  }

  std::shared_ptr<NSURLSessionDownloadTask> downloadTask(const std::string& url, const std::string& taskDescription,
                                                         const TransferOptions& options) override {
    if (!URL::parse(url)) throw URLError(CURLE_URL_MALFORMAT, fmt::format("not an http or https URL: {}", url));
    if (const auto why = whyRefused(options)) throw URLError(CURLE_BAD_FUNCTION_ARGUMENT, *why);
    const auto record = store_->add(*identifier_, url, taskDescription, options);
    return remember(std::make_shared<Transfer>(record, Transfer::Phase::suspended, 0, loop_));
  }

  std::vector<std::shared_ptr<NSURLSessionDownloadTask>> allTasks() override {
    std::lock_guard guard(mutex_);
    std::vector<std::shared_ptr<NSURLSessionDownloadTask>> tasks;
    for (const auto& weak : tasks_) {
      auto task = weak.lock();
      if (task && task->state() != NSURLSessionTaskState::completed) tasks.push_back(std::move(task));
    }
    return tasks;
  }

 private:
  std::shared_ptr<Transfer> remember(std::shared_ptr<Transfer> transfer) {
    std::lock_guard guard(mutex_);
    std::erase_if(tasks_, [](const auto& weak) { return weak.expired(); });
    tasks_.push_back(transfer);
    return transfer;
  }

  const std::shared_ptr<const std::string> identifier_;
  const std::shared_ptr<TransferStore> store_;
  const std::shared_ptr<DelegateQueue> delegateQueue_;
  const std::shared_ptr<TransferLoop> loop_;
  std::mutex mutex_;
  std::vector<std::weak_ptr<Transfer>> tasks_;
  std::vector<std::shared_ptr<Transfer>> suspended_;  ///< of the last process: nobody else holds them yet
};

CurlURLSessionOptions withUserAgent(CurlURLSessionOptions options) {
  if (options.userAgent.empty()) options.userAgent = "tarn/" TARN_VERSION;
  return options;
}

}  // namespace

CurlURLSessionService::CurlURLSessionService(FileManager& files, Dispatch& dispatch, Path transfersDirectory,
                                             CurlURLSessionOptions options)
    : files_(files),
      dispatch_(dispatch),
      options_(withUserAgent(std::move(options))),
      store_(std::make_shared<TransferStore>(files, std::move(transfersDirectory), options_.keepsOptions)) {}

std::unique_ptr<NSURLSession> CurlURLSessionService::makeBackgroundSession(
    const std::string& identifier, std::weak_ptr<NSURLSessionDownloadDelegate> delegate) {
  const auto claim = std::make_shared<const std::string>(identifier);
  {
    std::lock_guard guard(mutex_);
    auto& holder = identifiers_[identifier];
    if (!holder.expired()) throw URLError(-1, fmt::format("the session {} exists already", identifier));
    holder = claim;
  }
  auto queue = std::make_shared<DelegateQueue>(dispatch_.makeSerialQueue(identifier, true), std::move(delegate));
  return std::make_unique<CurlURLSession>(files_, claim, store_, std::move(queue), options_);
}

std::vector<std::string> CurlURLSessionService::storedTaskDescriptions() {
  return store_->taskDescriptions();
}

}  // namespace tarn
