#pragma once

#include <functional>
#include <utility>

#include "platform/ForwardingFileManager.h"

namespace tarn::test {

/// Lets a test do something in the middle of an operation of the engine: once, just before the first change of a file
/// of this name, or the first flush of such a directory, on the thread that makes it.
class MeantimeFiles : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;

  void beforeChangeOf(std::string name, std::function<void()> work) {
    name_ = std::move(name);
    work_ = std::move(work);
  }

  void removeItem(const Path& path) override {
    happen(path);
    base().removeItem(path);
  }
  void synchronizeDirectory(const Path& path) override {
    happen(path);
    base().synchronizeDirectory(path);
  }
  void replaceItem(const Path& target, const Path& source) override {
    happen(target);
    base().replaceItem(target, source);
  }

 private:
  void happen(const Path& path) {
    if (path.filename() == name_) std::exchange(work_, [] {})();
  }

  std::string name_;
  std::function<void()> work_ = [] {};
};

}  // namespace tarn::test
