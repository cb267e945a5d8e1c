#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/ByteArray.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/Bytes.h"
#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

/// The contents of one table box (a full box: ISO/IEC 14496-12 4.2): its fixed fields, then its entries, read when they
/// are asked for and only as many as the counts promise. Throws sampleTableError for what cannot be read and
/// ByteArrayError where the box or the file ends before what it must hold. The file must outlive it.
class TableBox {
 public:
  /// Bytes of version and flags with one or two fields of 32 bits after them.
  static constexpr size_t oneField = 8;
  static constexpr size_t twoFields = 12;

  /// Reads up to `fieldBytes` at the start of the contents, version and flags included.
  TableBox(FileHandle& file, const MP4BoxInfo& box, size_t fieldBytes);

  uint8_t version() const { return fields_.front(); }
  uint32_t field() { return cursor_->readUInt32(); }

  /// The next `count` big-endian values in the box. The count is compared with the bytes that are there before memory
  /// is taken for it.
  template <typename T>
  std::vector<T> entries(uint64_t count) {
    if (count > left_ / sizeof(T)) throw tooShortFor(count, sizeof(T));
    std::vector<T> values(count);
    std::span<uint8_t> memory(reinterpret_cast<uint8_t*>(values.data()), count * sizeof(T));
    if (readInto(memory) < memory.size()) throw tooShortFor(count, sizeof(T));
    for (size_t i = 0; i < count && sizeof(T) > 1; ++i) {
      if constexpr (sizeof(T) == 8) {
        values[i] = loadUInt64(memory.subspan(i * 8).template first<8>());
      } else if constexpr (sizeof(T) == 4) {
        values[i] = loadUInt32(memory.subspan(i * 4).template first<4>());
      }
    }
    return values;
  }

 private:
  size_t readInto(std::span<uint8_t> memory);
  Error unreadable() const;
  ByteArrayError tooShortFor(uint64_t count, size_t width) const;

  FileHandle& file_;
  std::string type_;
  uint64_t offset_;
  uint64_t left_ = 0;  ///< bytes of the contents that the file holds and that were not read yet
  Bytes fields_;
  std::optional<ByteArray> cursor_;  ///< over the fields
};

/// The box's child of this type; throws sampleTableError "<type> box not found".
MP4BoxInfo requireTableBox(FileHandle& file, const MP4BoxInfo& parent, std::string_view type);

}  // namespace tarn
