#include <gtest/gtest.h>

#include "TransferHarness.h"
#include "platform/memory/ScriptedURLSession.h"

namespace tarn::test {
namespace {

class ScriptedURLSessionTest : public testing::Test {
 protected:
  void TearDown() override { std::filesystem::remove_all(root_); }

  const Path root_ = std::filesystem::temp_directory_path() / ("tarn-scripted-" + makeUUID());
  PosixFileManager files_{root_};
  ScriptedURLSessionService service_{files_, root_};
  std::shared_ptr<Listener> listener_ = std::make_shared<Listener>(files_);
  std::unique_ptr<NSURLSession> session_ = service_.makeBackgroundSession("downloads", listener_);
  const std::string url_ = "http://127.0.0.1/file";
};

TEST_F(ScriptedURLSessionTest, EventsComeWhenTheyAreFired) {
  const auto task = session_->downloadTask(url_, "one");
  task->resume();
  service_.writeData(url_, 5, 10);
  EXPECT_EQ(task->fractionCompleted(), 0.5);
  service_.finish(url_, randomBytes(10, 1));
  EXPECT_TRUE(service_.storedTaskDescriptions().empty());
  service_.complete(url_);
  const Heard heard = listener_->heard(task->taskIdentifier());
  EXPECT_EQ(heard.file, randomBytes(10, 1));
  EXPECT_TRUE(heard.inOrder);
  EXPECT_EQ(heard.ends, 1);
  EXPECT_TRUE(files_.contentsOfDirectory(root_).empty());
}

TEST_F(ScriptedURLSessionTest, CancellationComesLateAndInPlaceOfAnyOtherEnd) {
  const auto first = session_->downloadTask(url_, "one");
  const auto second = session_->downloadTask(url_ + "2", "two");
  first->cancel();
  second->resume();
  second->cancel();
  EXPECT_EQ(listener_->heard(first->taskIdentifier()).ends, 0);
  service_.finish(url_ + "2", Bytes{1});
  service_.complete(url_ + "2");
  service_.deliverCancellations();
  for (const auto& task : {first, second}) {
    const Heard heard = listener_->heard(task->taskIdentifier());
    EXPECT_EQ(heard.error->code(), URLError::cancelled);
    EXPECT_EQ(heard.ends, 1);
    EXPECT_EQ(heard.finishes, 0);
  }
}

TEST_F(ScriptedURLSessionTest, TransfersOutliveTheirSession) {
  const auto before = session_->downloadTask(url_, "one");
  session_->downloadTask(url_ + "2", "two")->cancel();
  session_.reset();
  EXPECT_EQ(service_.storedTaskDescriptions(), std::vector<std::string>{"one"});
  session_ = service_.makeBackgroundSession("downloads", listener_);
  ASSERT_EQ(service_.tasks().size(), 1U);
  const auto after = service_.task(url_);
  EXPECT_EQ(after->taskIdentifier(), before->taskIdentifier());
  EXPECT_EQ(after->state(), NSURLSessionTaskState::running);
}

}  // namespace
}  // namespace tarn::test
