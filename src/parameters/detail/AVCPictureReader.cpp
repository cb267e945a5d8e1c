#include "parameters/detail/AVCPictureReader.h"

#include <algorithm>

#include "parameters/detail/RBSPReading.h"
#include "platform/Error.h"

namespace tarn {
namespace {

enum NALType : uint8_t {
  slice = 1,
  idr = 5,
  sei = 6,
  delimiter = 9,
  endOfSequence = 10,
  endOfStream = 11,
  filler = 12,
};
enum SliceType : uint32_t { P = 0, B = 1, I = 2, SP = 3, SI = 4 };

constexpr uint32_t mostReferences = 32;

Error unreadable(const char* words) {
  return {"PictureReader", -1, words};
}

AVCPPSInfo readPPS(ByteView unit) {
  const Bytes cleaned = removeEmulationPrevention(unit);
  BitReader bits(ByteView(cleaned).subspan(1));
  AVCPPSInfo info;
  info.id = readUE(bits);
  info.sps = readUE(bits);
  info.usesCABAC = bits.readBits(1) != 0;
  info.hasDeltaOfBottom = bits.readBits(1) != 0;
  if (readUE(bits) != 0) throw unreadable("The pictures are divided into slice groups, which are not read");
  for (uint32_t& count : info.activeReferences) count = readUE(bits) + 1;
  info.weighsP = bits.readBits(1) != 0;
  info.weighsB = bits.readBits(2) == 1;
  for (int i = 0; i < 3; ++i) bits.readSE();  // initial quantizers, offset of the chroma's
  info.hasDeblocking = bits.readBits(1) != 0;
  bits.readBits(1);  // constrained_intra_pred_flag
  info.hasRedundantPictures = bits.readBits(1) != 0;
  return info;
}

/// Reads one slice header from front to back; each step says whether its values are allowed.
class HeaderReader {
 public:
  HeaderReader(ByteView rbsp, bool isIDR, uint8_t referenceIDC) : bits_(rbsp), isIDR_(isIDR), idc_(referenceIDC) {}

  /// Nothing for a slice of no such set.
  std::optional<StreamUnit> read(const std::map<uint32_t, AVCSPSInfo>& allSPS,
                                 const std::map<uint32_t, AVCPPSInfo>& allPPS) {
    const uint32_t firstBlock = readUE(bits_);
    sliceType_ = readUE(bits_);
    if (sliceType_ > 9) return std::nullopt;
    sliceType_ %= 5;
    const auto pps = allPPS.find(readUE(bits_));
    if (pps == allPPS.end()) return std::nullopt;
    pps_ = &pps->second;
    sps_ = &allSPS.at(pps_->sps);
    if (isIDR_ && (idc_ == 0 || !isIntra())) return std::nullopt;
    unit_ = {.isFirst = firstBlock == 0, .isSync = isIDR_, .startsOrder = isIDR_, .isReference = idc_ != 0};
    readPlace();
    const uint32_t blocks = sps_->macroblocks / (unit_.isField ? 2 : 1);
    const bool isAllowed = firstBlock < blocks && readReferences() && readMarking() && readDecoding() && !bits_.atEnd();
    return isAllowed ? std::optional(unit_) : std::nullopt;
  }

 private:
  bool isB() const { return sliceType_ == B; }
  bool isIntra() const { return sliceType_ == I || sliceType_ == SI; }
  bool isP() const { return sliceType_ == P || sliceType_ == SP; }

  /// Number and order of the picture.
  void readPlace() {
    if (sps_->hasSeparatePlanes) bits_.readBits(2);
    unit_.frameNumber = bits_.readBits(static_cast<int>(sps_->frameNumberBits));
    if (!sps_->framesOnly) unit_.isField = bits_.readBits(1) != 0;
    if (unit_.isField) unit_.isBottom = bits_.readBits(1) != 0;
    if (isIDR_) readUE(bits_);  // idr_pic_id
    if (sps_->orderType == 0) {
      unit_.orderLSB = bits_.readBits(static_cast<int>(sps_->orderBits));
      if (pps_->hasDeltaOfBottom && !unit_.isField) unit_.deltaOfBottom = bits_.readSE();
    }
    if (pps_->hasRedundantPictures) readUE(bits_);
  }

  bool readReferences() {
    if (!isP() && !isB()) return true;
    if (isB()) bits_.readBits(1);  // direct_spatial_mv_pred_flag
    uint32_t active[2] = {pps_->activeReferences[0], pps_->activeReferences[1]};
    const int lists = isB() ? 2 : 1;
    if (bits_.readBits(1) != 0) {
      for (int list = 0; list < lists; ++list) active[list] = readUE(bits_) + 1;
    }
    for (int list = 0; list < lists; ++list) {
      if (active[list] < 1 || active[list] > mostReferences || !readReordering()) return false;
    }
    const bool isWeighed = isP() ? pps_->weighsP : pps_->weighsB;
    return !isWeighed || readWeights({active, static_cast<size_t>(lists)});
  }

  /// ref_pic_list_modification (7.3.3.1).
  bool readReordering() {
    constexpr uint32_t end = 3;
    if (bits_.readBits(1) == 0) return true;
    for (uint32_t i = 0; i <= mostReferences * 2; ++i) {
      const uint32_t operation = readUE(bits_);
      if (operation == end) return true;
      if (operation > end || bits_.atEnd()) return false;
      readUE(bits_);
    }
    return false;
  }

  /// pred_weight_table (7.3.3.2).
  bool readWeights(std::span<const uint32_t> active) {
    constexpr uint32_t largestDenominator = 7;
    const bool hasChroma = sps_->chromaFormatIdc != 0 && !sps_->hasSeparatePlanes;
    if (readUE(bits_) > largestDenominator) return false;
    if (hasChroma && readUE(bits_) > largestDenominator) return false;
    const auto readPair = [&] {
      const auto isAllowed = [](int32_t value) { return value >= -128 && value <= 127; };
      const int32_t weight = bits_.readSE();
      const int32_t offset = bits_.readSE();
      return isAllowed(weight) && isAllowed(offset);
    };
    for (const uint32_t count : active) {
      for (uint32_t i = 0; i < count; ++i) {
        if (bits_.readBits(1) != 0 && !readPair()) return false;
        if (hasChroma && bits_.readBits(1) != 0 && !(readPair() && readPair())) return false;
      }
    }
    return true;
  }

  /// dec_ref_pic_marking (7.3.3.3).
  bool readMarking() {
    if (idc_ == 0) return true;
    if (isIDR_) {
      bits_.readBits(2);
      return true;
    }
    if (bits_.readBits(1) == 0) return true;
    for (uint32_t i = 0; i <= mostReferences * 2; ++i) {
      const uint32_t operation = readUE(bits_);
      if (operation == 0) return true;
      if (operation > 6 || bits_.atEnd()) return false;
      if (operation == 5) unit_.resetsOrder = true;
      if (operation != 5) readUE(bits_);
      if (operation == 3) readUE(bits_);
    }
    return false;
  }

  bool readDecoding() {
    if (pps_->usesCABAC && !isIntra() && readUE(bits_) > 2) return false;
    const int32_t quantizer = bits_.readSE();
    if (quantizer < -87 || quantizer > 87) return false;
    if (sliceType_ == SP || sliceType_ == SI || !pps_->hasDeblocking) return true;
    const uint32_t deblocking = readUE(bits_);
    if (deblocking == 1) return true;
    for (int i = 0; i < 2; ++i) {
      const int32_t offset = bits_.readSE();
      if (offset < -6 || offset > 6) return false;
    }
    return deblocking <= 2;
  }

  BitReader bits_;
  bool isIDR_;
  uint8_t idc_;
  uint32_t sliceType_ = 0;
  const AVCPPSInfo* pps_ = nullptr;
  const AVCSPSInfo* sps_ = nullptr;
  StreamUnit unit_;
};

}  // namespace

AVCPictureReader::AVCPictureReader(const ParameterSets& sets) {
  for (const Bytes& unit : sets.spsArray) {
    const Bytes cleaned = removeEmulationPrevention(unit);
    if (cleaned.empty()) continue;
    const AVCSPSInfo info = readAVCSPS(ByteView(cleaned).subspan(1));
    if (!info.isPlausible) throw unreadable("A sequence parameter set cannot be read");
    if (info.orderType == 1) throw unreadable("The pictures are numbered by pic_order_cnt_type 1, which is not read");
    sps_[info.id] = info;
    orderType_ = info.orderType;
    orderBits_ = info.orderBits;
  }
  for (const Bytes& unit : sets.ppsArray) {
    if (unit.empty()) continue;
    const AVCPPSInfo info = readPPS(unit);
    if (!sps_.contains(info.sps))
      throw unreadable("A picture parameter set needs a sequence parameter set that is missing");
    pps_[info.id] = info;
  }
  if (pps_.empty()) throw unreadable("There are no picture parameter sets");
}

std::optional<StreamUnit> AVCPictureReader::read(ByteView front) const {
  if (front.empty() || (front[0] & 0x80) != 0) return std::nullopt;
  const uint8_t type = front[0] & 0x1F;
  const bool isEnd = type == endOfSequence || type == endOfStream;
  if (front.size() == 1 && !isEnd) return std::nullopt;
  const uint8_t idc = front[0] >> 5 & 3;
  using Role = StreamUnit::Role;
  switch (type) {
    case slice:
    case idr: {
      const Bytes rbsp = removeEmulationPrevention(front.first(std::min(front.size(), frontSize)));
      return HeaderReader(ByteView(rbsp).subspan(1), type == idr, idc).read(sps_, pps_);
    }
    case sei:
      return idc == 0 && isSEI(front.subspan(1), front.size() < frontSize)
                 ? std::optional(StreamUnit{.role = Role::ahead})
                 : std::nullopt;
    case delimiter:
      return idc == 0 && isDelimiter(front.subspan(1)) ? std::optional(StreamUnit{.role = Role::ahead}) : std::nullopt;
    case avcNALType::sps:
    case avcNALType::pps:
      return idc != 0 ? std::optional(StreamUnit{.role = Role::ahead}) : std::nullopt;
    default:
      return (isEnd || type == filler) && idc == 0 ? std::optional(StreamUnit{.role = Role::behind}) : std::nullopt;
  }
}

bool AVCPictureReader::isSecondField(const StreamUnit& slice) const {
  return openField_ && slice.isField && slice.isBottom != openField_->isBottom &&
         slice.frameNumber == openField_->frameNumber && !slice.isSync;
}

std::optional<PictureOrder> AVCPictureReader::order(const StreamUnit& firstSlice) {
  const bool isSecond = isSecondField(firstSlice);
  openField_ = firstSlice.isField && !isSecond ? std::optional(firstSlice) : std::nullopt;
  if (firstSlice.startsOrder) {
    ++sequence_;
    count_.restart();
  }
  int64_t place = pictures_++;
  if (orderType_ == 0) {
    const int64_t count = count_.next(firstSlice.orderLSB, orderBits_);
    const int64_t first = std::min(count, count + firstSlice.deltaOfBottom);
    if (firstSlice.isReference) count_.setPrevious(count, firstSlice.orderLSB);
    if (firstSlice.resetsOrder) {
      ++sequence_;
      count_.restart(firstSlice.isBottom ? 0 : static_cast<uint32_t>(count - first));
    }
    place = firstSlice.resetsOrder ? 0 : first;
  }
  if (isSecond) return std::nullopt;
  return PictureOrder{.sequence = sequence_, .count = place};
}

}  // namespace tarn
