#include "pipeline/RunOutcome.h"

#include "pipeline/RefusedInput.h"
#include "platform/PhotoAuthorization.h"
#include "platform/URL.h"

namespace tarn {
namespace {

bool isOfFullDisk(const std::exception_ptr& reason) {
  try {
    std::rethrow_exception(reason);
  } catch (const Error& error) {
    return isDiskFull(error);
  } catch (...) {
    return false;
  }
}

bool isRefusal(const std::exception_ptr& reason) {
  try {
    std::rethrow_exception(reason);
  } catch (const RefusedInput&) {
    return true;
  } catch (const PHPhotosError& error) {
    return error.code() == PHPhotosError::invalidResource;
  } catch (...) {
    return false;
  }
}

}  // namespace

RunOutcome RunOutcome::failed(int64_t id, Where where, const std::exception_ptr& failure) {
  RunOutcome outcome{.id = id};
  outcome.setFailed(where, failure);
  return outcome;
}

void RunOutcome::setSaved(const std::optional<std::string>& asset) {
  kind = Kind::saved;
  where = Where::saving;
  assetId = asset;
}

void RunOutcome::setFailed(Where place, const std::exception_ptr& reason) {
  kind = Kind::failed;
  where = place;
  words = withoutSecrets(describe(reason));
  failure = reason;
  isDiskFull = isOfFullDisk(reason);
  isRefused = isRefusal(reason);
}

}  // namespace tarn
