#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "plugin/EngineDriver.h"

namespace tarn::test {

/// Does the steps one by one, some of them in the middle of a run, and looks after each whether the promises hold.
class EngineModel : protected EngineDriver {
 public:
  /// Does all the steps, and then lets everything come to its end. The first promise that was broken; nothing when all
  /// were kept.
  static std::optional<std::string> brokenBy(const std::vector<ModelStep>& steps);

  ~EngineModel() override;

 protected:
  explicit EngineModel(const std::vector<ModelStep>& steps);

  void startProcess() override;
  void endProcess() override;
  void killAndRestart();
  void doNext();
  void perform(const ModelStep& step) override;
  void inTheMiddleOfARun(uint64_t number) override;
  std::optional<uint64_t> start(uint32_t argument) override;
  void cancel(uint64_t number, int64_t id) override;
  void cancelEverything(const std::string& method) override;
  void heard(int64_t id, bool isSaved) override;
  void began(int64_t id, const DownloadRequest& request) noexcept override;
  void ended(const RunOutcome& outcome) noexcept override;
  bool isOpen(int64_t id) override { return begun_.contains(id); }
  void letTimePass() override;
  bool isLate(int round) override { return round == 100; }
  void look();

  const std::vector<ModelStep>& steps_;
  size_t next_ = 0;
  std::set<int64_t> begun_;  ///< downloads of which the listener has not heard the end

 private:
  std::map<int64_t, RunOutcome> outcomes_;  ///< that this process has told, the last of each download
};

}  // namespace tarn::test
