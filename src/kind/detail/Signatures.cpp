#include "kind/detail/Signatures.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tarn {
namespace {

using What = Kind::What;
using namespace std::string_view_literals;

/// A file that begins so. `second` stands at `secondOffset`, where that is not 0.
struct Signature {
  std::string_view first;
  What what;
  const char* words;
  size_t secondOffset = 0;
  std::string_view second = {};
};

constexpr Signature signatures[] = {
    {"RIFF"sv, What::otherContainer, "an AVI file", 8, "AVI "sv},
    {"RIFF"sv, What::audio, "a WAV file", 8, "WAVE"sv},
    {"RF64"sv, What::audio, "a WAV file", 8, "WAVE"sv},
    {"RIFF"sv, What::picture, "a WebP picture", 8, "WEBP"sv},
    {"OggS\0"sv, What::otherContainer, "an Ogg file"},
    {"FLV\x01"sv, What::otherContainer, "an FLV file"},
    {"\x30\x26\xB2\x75\x8E\x66\xCF\x11"sv, What::otherContainer, "a Windows Media file"},
    {"\0\0\x01\xBA"sv, What::otherContainer, "an MPEG program stream"},
    {"\0\0\x01\xB3"sv, What::otherContainer, "an MPEG video stream"},
    {"\x06\x0E\x2B\x34\x02\x05\x01\x01"sv, What::otherContainer, "an MXF file"},
    {".RMF"sv, What::otherContainer, "a RealMedia file"},
    {"\xB7\xD8\x00\x20\x37\x49\xDA\x11"sv, What::otherContainer, "a Windows Television file"},
    {"\x1F\x07\0"sv, What::otherContainer, "a DV file", 80, "\x3F\x07\0"sv},
    {"nut/multimedia container\0"sv, What::otherContainer, "a NUT file"},
    {"DKIF\0\0\x20\0"sv, What::otherContainer, "an IVF file"},
    {"\0\0\0\x01\x67"sv, What::otherContainer, "an H.264 stream"},
    {"\0\0\0\x01\x09"sv, What::otherContainer, "an H.264 stream"},
    {"\0\0\0\x01\x46\x01"sv, What::otherContainer, "an HEVC stream"},
    {"\0\0\0\x01\x40\x01"sv, What::otherContainer, "an HEVC stream"},
    {"fLaC"sv, What::audio, "a FLAC file"},
    {"ID3"sv, What::audio, "an MP3 file"},
    {"caff\0\x01"sv, What::audio, "a CAF sound file"},
    {"FORM"sv, What::audio, "an AIFF file", 8, "AIFF"sv},
    {"FORM"sv, What::audio, "an AIFF file", 8, "AIFC"sv},
    {"#!AMR"sv, What::audio, "an AMR file"},
    {".snd\0\0"sv, What::audio, "an AU sound file"},
    {"riff\x2E\x91\xCF\x11\xA5\xD6\x28\xDB\x04\xC1\0\0"sv, What::audio, "a Wave64 sound file"},
    {"\xFF\xD8\xFF"sv, What::picture, "a JPEG picture"},
    {"\x89PNG\r\n\x1A\n"sv, What::picture, "a PNG picture"},
    {"GIF87a"sv, What::picture, "a GIF picture"},
    {"GIF89a"sv, What::picture, "a GIF picture"},
    {"BM"sv, What::picture, "a BMP picture", 6, "\0\0\0\0"sv},
    {"II*\0"sv, What::picture, "a TIFF picture"},
    {"MM\0*"sv, What::picture, "a TIFF picture"},
    {"\x1F\x8B\x08"sv, What::archive, "compressed with gzip"},
    {"BZh"sv, What::archive, "compressed with bzip2", 4, "1AY&SY"sv},
    {"\xFD\x37zXZ\0"sv, What::archive, "compressed with xz"},
    {"\x28\xB5\x2F\xFD"sv, What::archive, "compressed with zstd"},
    {"PK\x03\x04"sv, What::archive, "a zip archive"},
    {"PK\x05\x06"sv, What::archive, "a zip archive"},
    {"7z\xBC\xAF\x27\x1C"sv, What::archive, "a 7z archive"},
    {"Rar!\x1A\x07"sv, What::archive, "a rar archive"},
    {""sv, What::archive, "a tar archive", 257, "ustar"sv},
    {"%PDF-"sv, What::unknown, "a PDF document"},
};

bool standsAt(ByteView head, size_t offset, std::string_view bytes) {
  return head.size() >= offset && textOf(head).substr(offset).starts_with(bytes);
}

/// Five packets, each of which begins with the sync byte (ISO/IEC 13818-1 2.4.3.2). A packet of 192 bytes has a time
/// before it.
bool isTransportStream(ByteView head) {
  constexpr uint8_t syncByte = 0x47;
  constexpr size_t packets = 5;
  auto isStream = [&](size_t first, size_t packetSize) {
    for (size_t i = 0; i < packets; ++i) {
      const size_t place = first + i * packetSize;
      if (place >= head.size() || head[place] != syncByte) return false;
    }
    return true;
  };
  return isStream(0, 188) || isStream(4, 192);
}

std::optional<Kind> ebmlKind(ByteView head) {
  if (!standsAt(head, 0, "\x1A\x45\xDF\xA3")) return std::nullopt;
  constexpr size_t longestHeader = 128;  // of those that muxers write; the document's type stands in it
  const std::string_view header = textOf(head).substr(0, longestHeader);
  if (header.find("webm") != header.npos) return Kind{What::otherContainer, "a WebM file", ""};
  if (header.find("matroska") != header.npos) return Kind{What::otherContainer, "a Matroska file", ""};
  return std::nullopt;
}

/// Bytes of a frame of AC-3 or E-AC-3 (ETSI TS 102 366 4.4.1, E.1.3.1); 0 when it is none.
size_t ac3FrameSize(const uint8_t* frame) {
  constexpr std::array<size_t, 19> rates{32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                         192, 224, 256, 320, 384, 448, 512, 576, 640};
  const int version = frame[5] >> 3;
  if (version > 10 && version <= 16) return 2 * ((size_t(frame[2] & 7) << 8 | frame[3]) + 1);
  const size_t frequency = frame[4] >> 6, code = frame[4] & 0x3F;
  if (version > 10 || frequency == 3 || code / 2 >= rates.size()) return 0;
  const size_t rate = rates[code / 2];
  if (frequency == 1) return 2 * (rate * 96'000 / 44'100 + code % 2);
  return rate * (frequency == 0 ? 4 : 6);
}

/// Bytes of the frame that begins at `place`; 0 when none does. Of ADTS (ISO/IEC 14496-3 1.A.2.2), of AC-3, and of MPEG
/// audio (ISO/IEC 11172-3 2.4.1.3), layers II and III.
size_t soundFrameSize(ByteView head, size_t place) {
  if (place > head.size() || head.size() - place < 7) return 0;
  const uint8_t* frame = head.data() + place;
  if (frame[0] == 0x0B && frame[1] == 0x77) return ac3FrameSize(frame);
  if (frame[0] != 0xFF) return 0;
  if ((frame[1] & 0xF6) == 0xF0) return size_t(frame[3] & 3) << 11 | size_t(frame[4]) << 3 | size_t(frame[5]) >> 5;
  const int layer = 4 - (frame[1] >> 1 & 3);
  if ((frame[1] & 0xE0) != 0xE0 || (layer != 2 && layer != 3)) return 0;
  constexpr std::array<size_t, 15> rates1{0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
  constexpr std::array<size_t, 15> ratesOfLayer2{0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};
  constexpr std::array<size_t, 15> rates2{0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160};
  constexpr std::array<size_t, 3> frequencies{44'100, 48'000, 32'000};
  const size_t version = frame[1] >> 3 & 3;  // 3 is MPEG-1, 2 MPEG-2, 0 MPEG-2.5
  const size_t rate = frame[2] >> 4;
  const size_t frequency = frame[2] >> 2 & 3;
  if (version == 1 || rate == 0 || rate == 15 || frequency == 3) return 0;
  const size_t bits = (version != 3 ? rates2 : layer == 2 ? ratesOfLayer2 : rates1)[rate] * 1000;
  const size_t divisor = version == 3 ? 1 : version == 2 ? 2 : 4;
  const size_t bytesOfBits = version == 3 || layer == 2 ? 144 : 72;
  return bytesOfBits * bits * divisor / frequencies[frequency] + (frame[2] >> 1 & 1);
}

std::optional<Kind> soundStreamKind(ByteView head) {
  size_t place = 0;
  for (int frames = 0; frames < 3; ++frames) {
    const size_t size = soundFrameSize(head, place);
    if (size < 7) return std::nullopt;
    place += size;
  }
  const char* words = head[0] == 0x0B            ? "an AC-3 file"
                      : (head[1] & 0xF6) == 0xF0 ? "an AAC stream"
                      : (head[1] >> 1 & 3) == 2  ? "an MP2 file"
                                                 : "an MP3 file";
  return Kind{What::audio, words, ""};
}

std::string adviceFor(What what) {
  if (what == What::archive) return "unpack it first";
  if (what == What::picture || what == What::unknown) return Kind::adviseVideoItself;
  return "";
}

}  // namespace

std::optional<Kind> kindBySignature(ByteView head) {
  if (isTransportStream(head)) return Kind{What::otherContainer, "an MPEG transport stream", ""};
  for (const Signature& signature : signatures) {
    if (!standsAt(head, 0, signature.first)) continue;
    if (signature.secondOffset != 0 && !standsAt(head, signature.secondOffset, signature.second)) continue;
    return Kind{signature.what, signature.words, adviceFor(signature.what)};
  }
  if (auto kind = ebmlKind(head)) return kind;
  return soundStreamKind(head);
}

}  // namespace tarn
