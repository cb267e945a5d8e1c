#pragma once

#include <memory>
#include <string>

#include "platform/Dispatch.h"

namespace tarn {

/// The queues of a process on threads: global queues share a pool of eight, serial queues run one at a time on that
/// pool or on a thread of their own, and the main queue has a thread of its own. An idle dispatch uses no CPU.
///
/// Its end waits for the work that is running, and for work that such work waits for in sync(); other work that has not
/// begun is dropped, delayed work too. From then on the operations of its queues do nothing; queues may outlive it. It
/// must not be stopped or destroyed from one of its own queues.
class AsioDispatch : public Dispatch {
 public:
  AsioDispatch();
  ~AsioDispatch() override;

  /// Ends all work now; the queues stay for whoever still holds them. A second call does nothing.
  void stop();

  DispatchQueue& mainQueue() override;
  DispatchQueue& globalQueue(QualityOfService qualityOfService) override;
  std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label, bool ownThread) override;

 private:
  class Core;
  class Queue;

  std::shared_ptr<Core> core_;
  std::shared_ptr<DispatchQueue> main_;
  std::shared_ptr<DispatchQueue> global_;
};

}  // namespace tarn
