#include "support/BoxBuilder.h"

#include <string>

#include "mp4/DataExtensions.h"

namespace tarn::test {

Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes result;
  for (const Bytes& part : parts) result.insert(result.end(), part.begin(), part.end());
  return result;
}

Bytes bytesFrom(std::string_view text) {
  Bytes bytes;
  bool isQuoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') {
      isQuoted = !isQuoted;
    } else if (isQuoted) {
      bytes.push_back(static_cast<uint8_t>(text[i]));
    } else if (text[i] != ' ') {
      bytes.push_back(static_cast<uint8_t>(std::stoi(std::string(text.substr(i++, 2)), nullptr, 16)));
    }
  }
  return bytes;
}

Bytes values(std::initializer_list<uint32_t> fields) {
  Bytes result;
  for (uint32_t field : fields) ByteWriter(result).uint32(field);
  return result;
}

Bytes box(std::string_view type, std::initializer_list<Bytes> contents) {
  return boxClaiming(static_cast<uint32_t>(8 + joined(contents).size()), type, contents);
}

Bytes longBox(std::string_view type, std::initializer_list<Bytes> contents) {
  return longBoxClaiming(16 + joined(contents).size(), type, contents);
}

Bytes boxClaiming(uint32_t sizeField, std::string_view type, std::initializer_list<Bytes> contents) {
  Bytes result;
  ByteWriter(result).uint32(sizeField).text(type).bytes(joined(contents));
  return result;
}

Bytes longBoxClaiming(uint64_t size, std::string_view type, std::initializer_list<Bytes> contents) {
  Bytes result;
  ByteWriter(result).uint32(1).text(type).uint64(size).bytes(joined(contents));
  return result;
}

Bytes fullBox(std::string_view type, std::initializer_list<uint32_t> fields) {
  return box(type, {values({0}), values(fields)});
}

Bytes handlerBox(std::string_view handlerType) {
  Bytes contents;
  ByteWriter(contents).zeros(8).text(handlerType).zeros(13);
  return box("hdlr", {contents});
}

Bytes mediaBox(std::string_view handlerType) {
  return box("mdia", {handlerBox(handlerType)});
}

Bytes visualSampleEntry(std::string_view tag, std::initializer_list<Bytes> children) {
  return box(tag, {Bytes(78), joined(children)});
}

Bytes sampleDescriptionBox(std::initializer_list<Bytes> entries) {
  return box("stsd", {values({0, static_cast<uint32_t>(entries.size())}), joined(entries)});
}

Bytes trackBox(std::string_view handlerType, std::initializer_list<Bytes> sampleTable) {
  return box("trak", {box("mdia", {handlerBox(handlerType), box("minf", {box("stbl", sampleTable)})})});
}

}  // namespace tarn::test
