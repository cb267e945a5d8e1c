#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "platform/Bytes.h"

namespace tarn::test {

/// Boxes, well-formed and malformed, put together by hand.

Bytes joined(std::initializer_list<Bytes> parts);

/// What hexadecimal digits and text in single quotes say; blanks are for the reader.
Bytes bytesFrom(std::string_view text);

/// Big-endian values in a row.
Bytes values(std::initializer_list<uint32_t> fields);

/// A box with an 8-byte header around its contents.
Bytes box(std::string_view type, std::initializer_list<Bytes> contents = {});

/// A box with a 16-byte header.
Bytes longBox(std::string_view type, std::initializer_list<Bytes> contents = {});

/// A box whose size field says something else than its length.
Bytes boxClaiming(uint32_t sizeField, std::string_view type, std::initializer_list<Bytes> contents = {});
Bytes longBoxClaiming(uint64_t size, std::string_view type, std::initializer_list<Bytes> contents = {});

/// A full box of version and flags 0 with 32-bit fields.
Bytes fullBox(std::string_view type, std::initializer_list<uint32_t> fields);

/// `hdlr`, and an `mdia` that holds one and nothing else.
Bytes handlerBox(std::string_view handlerType);
Bytes mediaBox(std::string_view handlerType);

/// A visual sample entry: 86 bytes of header and fields, then the children.
Bytes visualSampleEntry(std::string_view tag, std::initializer_list<Bytes> children = {});

/// An `stsd` of these entries.
Bytes sampleDescriptionBox(std::initializer_list<Bytes> entries);

/// A `trak` of the handler type whose `stbl` holds these boxes.
Bytes trackBox(std::string_view handlerType, std::initializer_list<Bytes> sampleTable);

}  // namespace tarn::test
