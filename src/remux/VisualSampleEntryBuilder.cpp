#include "remux/VisualSampleEntryBuilder.h"

#include <algorithm>
#include <span>
#include <string>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/ByteArray.h"
#include "mp4/DataExtensions.h"
#include "platform/Log.h"
#include "remux/detail/CodecWords.h"
#include "remux/detail/DataFormat.h"

namespace tarn {
namespace {

constexpr uint64_t tooLargeChild = 0x6400000;

/// Clean aperture (ISO/IEC 14496-12 12.1.4): the whole picture.
Bytes createClapBox(const PictureSize& size) {
  Bytes box;
  ByteWriter(box)
      .uint32(40)
      .text("clap")
      .uint32(static_cast<uint32_t>(size.width))
      .uint32(1)
      .uint32(static_cast<uint32_t>(size.height))
      .uint32(1)
      .uint32(0)  // horizOff
      .uint32(1)
      .uint32(0)  // vertOff
      .uint32(1);
  return box;
}

Bytes updateFrmaInSinf(ByteView sinf, std::string_view targetCodecTag) {
  Bytes result(sinf.begin(), sinf.end());
  if (replaceDataFormat(result, targetCodecTag)) log("    Updated frma data_format to '{}'", targetCodecTag);
  return result;
}

/// The size, where an entry can state it.
std::optional<PictureSize> usableSize(const std::optional<PictureSize>& size) {
  if (!size) return std::nullopt;
  auto fits = [](int64_t length) { return length >= 0 && length <= UINT16_MAX; };
  if (fits(size->width) && fits(size->height)) return size;
  log("WARNING: Dimensions {}x{} do not fit a sample entry, leaving its dimensions alone", size->width, size->height);
  return std::nullopt;
}

class Clone {
 public:
  Clone(ByteView original, std::string_view target, std::optional<PictureSize> size, const VideoCodec& codec)
      : original_(original), target_(target), size_(size), codec_(codec), words_(wordsFor(codec)) {
    if (original.size() < layout::visualEntrySize) {
      throw VisualSampleEntryBuilderError(fmt::format("Sample entry too small: {} bytes", original.size()));
    }
    ByteArray cursor(original);
    originalSize_ = cursor.readUInt32();
    tag_ = cursor.readUTF8Bytes(4);
  }

  Bytes build(ByteView configBox) {
    log("{}Cloning sample entry: '{}' → '{}' (original size: {})", words_.prefix, tag_, target_, originalSize_);
    ByteWriter(entry_).bytes(original_.first(layout::visualEntrySize));
    copyChildren();
    ByteWriter(entry_).bytes(configBox);
    log("  Injected new {} box ({} bytes)", codec_.configBox, configBox.size());
    if (size_) addClap();
    if (entry_.size() > UINT32_MAX) {
      throw VisualSampleEntryBuilderError(fmt::format("Sample entry of {} bytes does not fit a box", entry_.size()));
    }
    writeUInt32(entry_, static_cast<uint32_t>(entry_.size()), 0);
    if (!isEncrypted()) {
      std::ranges::copy(bytesOf(target_).first<4>(), std::span(entry_).subspan(layout::boxType.offset).begin());
    }
    if (size_) overwriteDimensions();
    log("{}Created new sample entry: '{}' ({} bytes)", words_.prefix, isEncrypted() ? tag_ : target_, entry_.size());
    return std::move(entry_);
  }

 private:
  bool isEncrypted() const { return isEncryptedVideo(tag_); }

  void copyChildren() {
    BufferBoxWalker walker(original_, layout::visualEntrySize, originalSize_, boxwalk::clonedChildren);
    while (auto child = walker.next()) {
      if (child->size >= tooLargeChild) return;
      copyChild(child->type, original_.subspan(static_cast<size_t>(child->offset), static_cast<size_t>(child->size)));
    }
  }

  void copyChild(const std::string& type, ByteView child) {
    if (type == codec_.configBox) {
      log("  Skipping old {} box ({} bytes)", type, child.size());
    } else if (type == "clap" && size_) {
      replacesClap_ = true;
      log("  Skipping old clap box ({} bytes)", child.size());
    } else if (type == "sinf" && isEncrypted()) {
      ByteWriter(entry_).bytes(updateFrmaInSinf(child, target_));
      log("  Keeping sinf box ({} bytes, frma updated to '{}')", child.size(), target_);
    } else {
      ByteWriter(entry_).bytes(child);
      log("  Keeping '{}' box ({} bytes)", type, child.size());
    }
  }

  void addClap() {
    Bytes clap = createClapBox(*size_);
    ByteWriter(entry_).bytes(clap);
    log("  {} clap box with {}x{} dimensions ({} bytes)", replacesClap_ ? "Replaced" : "Injected", size_->width,
        size_->height, clap.size());
  }

  void overwriteDimensions() {
    writeUInt32(entry_, static_cast<uint32_t>(size_->width << 16 | size_->height), layout::pictureSize.offset);
    log("  Set sample entry dimensions to {}x{}", size_->width, size_->height);
  }

  ByteView original_;
  uint32_t originalSize_ = 0;  ///< as its size field has it
  std::string tag_;
  std::string_view target_;
  std::optional<PictureSize> size_;
  const VideoCodec& codec_;
  const CodecWords& words_;
  Bytes entry_;
  bool replacesClap_ = false;
};

}  // namespace

Bytes VisualSampleEntryBuilder::extractSampleEntry(ByteView stsdData, int64_t entryIndex) {
  if (stsdData.size() < layout::tableHeaderSize) throw VisualSampleEntryBuilderError("stsd data too small");
  ByteArray cursor(stsdData);
  cursor.position = layout::entryCount.offset;
  uint32_t count = cursor.readUInt32();
  if (entryIndex < 0 || entryIndex >= count) {
    throw VisualSampleEntryBuilderError(fmt::format("Entry index {} out of range (count: {})", entryIndex, count));
  }
  for (int64_t i = 0; i < entryIndex; ++i) {
    uint32_t size = cursor.readUInt32();
    if (size < 8) throw VisualSampleEntryBuilderError(fmt::format("Entry {} has a size of {} bytes", i, size));
    cursor.position += size - 4;
  }
  size_t start = cursor.position;
  uint32_t size = cursor.readUInt32();
  cursor.position = start;
  return cursor.readBytes(size);
}

Bytes VisualSampleEntryBuilder::cloneEntry(ByteView originalEntry, ByteView configBox, const VideoCodec& codec,
                                           std::string_view targetCodecTag, std::optional<PictureSize> size) {
  return Clone(originalEntry, targetCodecTag, usableSize(size), codec).build(configBox);
}

Bytes VisualSampleEntryBuilder::cloneEntryWithNewHvcC(ByteView originalEntry, ByteView newHvcCBox,
                                                      std::string_view targetCodecTag,
                                                      std::optional<PictureSize> size) {
  return cloneEntry(originalEntry, newHvcCBox, VideoCodec::hevc, targetCodecTag, size);
}

Bytes VisualSampleEntryBuilder::cloneEntryWithNewAvcC(ByteView originalEntry, ByteView newAvcCBox,
                                                      std::string_view targetCodecTag,
                                                      std::optional<PictureSize> size) {
  return cloneEntry(originalEntry, newAvcCBox, VideoCodec::avc, targetCodecTag, size);
}

}  // namespace tarn
