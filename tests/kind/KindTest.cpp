#include "kind/Kind.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/BoxBuilder.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"

using namespace tarn;
using namespace tarn::test;
using What = Kind::What;
using namespace std::string_literals;

namespace {

// A second of each.
constexpr const char* pictures = "-f lavfi -i testsrc=size=64x48:rate=25:duration=1 ";
constexpr const char* sound = "-f lavfi -i sine=duration=1 ";

class KindTest : public FileTest {
 protected:
  Kind kindOfBytes(ByteView content) {
    InMemoryFileManager files;
    writeFileAtomically(files, "/clip.mp4", content);
    return kindOf(files, "/clip.mp4");
  }
  Kind kindOfText(const std::string& content) { return kindOfBytes(bytesOf(content)); }
};

/// A `moov` of one track of this handler with so many samples.
Bytes moovOf(const std::string& handler, uint32_t samples, const Bytes& more = {}) {
  return box("moov", {trackBox(handler, {fullBox("stsz", {10, samples})}), more});
}

// What ffmpeg writes is known for what it is; nothing that plays is refused.
TEST_F(KindTest, MediaOfFFmpeg) {
  const std::tuple<std::string, std::string, What> recipes[] = {
      {pictures + "-c:v libx264"s, ".mp4", What::plainMovie},
      {pictures + "-c:v libx264"s, ".mov", What::plainMovie},
      {pictures + "-c:v libx264 -movflags frag_keyframe"s, ".mp4", What::fragmentedMovie},
      {pictures + "-c:v libx264 -movflags frag_keyframe+empty_moov"s, ".mp4", What::fragmentedMovie},
      {sound + "-c:a aac"s, ".m4a", What::audio},
      {sound + "-c:a aac -movflags frag_keyframe+empty_moov"s, ".mp4", What::audio},
      {pictures + "-c:v libvpx"s, ".webm", What::otherContainer},
      {pictures + "-c:v libx264"s, ".mkv", What::otherContainer},
      {pictures + "-c:v mpeg4"s, ".avi", What::otherContainer},
      {pictures + "-c:v libx264"s, ".ts", What::otherContainer},
      {pictures + "-c:v libx264"s, ".m2ts", What::otherContainer},
      {pictures + "-c:v mpeg2video"s, ".mpg", What::otherContainer},
      {pictures + "-c:v flv1"s, ".flv", What::otherContainer},
      {pictures + "-c:v wmv2"s, ".wmv", What::otherContainer},
      {pictures + "-c:v dvvideo -s 720x576 -pix_fmt yuv420p"s, ".dv", What::otherContainer},
      {pictures + "-c:v dvvideo -s 720x480 -r 30000/1001 -pix_fmt yuv411p"s, ".dv", What::otherContainer},
      {pictures + "-c:v libx264"s, ".h264", What::otherContainer},
      {pictures + "-c:v libx264 -x264-params aud=1"s, ".h264", What::otherContainer},
      {pictures + "-c:v libx265"s, ".hevc", What::otherContainer},
      {pictures + "-c:v libx265 -x265-params aud=1"s, ".hevc", What::otherContainer},
      {sound + "-c:a libvorbis"s, ".ogg", What::otherContainer},
      {sound + "-c:a flac"s, ".flac", What::audio},
      {sound + "-c:a libmp3lame"s, ".mp3", What::audio},
      {sound + "-c:a libmp3lame -id3v2_version 0 -write_xing 0"s, ".mp3", What::audio},
      {sound + "-c:a libmp3lame -ar 22050 -id3v2_version 0 -write_xing 0"s, ".mp3", What::audio},
      {sound + "-c:a aac"s, ".aac", What::audio},
      {sound, ".wav", What::audio},
      {sound, ".aiff", What::audio},
      {sound + "-c:a mp2"s, ".mp2", What::audio},
      {sound + "-c:a ac3"s, ".ac3", What::audio},
      {sound + "-c:a eac3"s, ".eac3", What::audio},
      {pictures + "-frames:v 1"s, ".jpg", What::picture},
      {pictures + "-frames:v 1"s, ".png", What::picture},
      {pictures + "-frames:v 1"s, ".webp", What::picture},
      {pictures + "-frames:v 1"s, ".bmp", What::picture},
      {pictures + "-frames:v 1"s, ".tiff", What::picture},
      {pictures + "-frames:v 2"s, ".gif", What::picture},
  };
  for (const auto& [options, ending, what] : recipes) {
    const Path file = madeByFFmpeg(words(options), ending);
    const Kind kind = kindOf(files_, file);
    EXPECT_EQ(kind.what, what) << ending << ": " << kind.words;
    EXPECT_EQ(whyNoPlayerShows(files_, file, "a").has_value(), what == What::picture) << ending;
  }
}

// A movie is known by its boxes, wherever the file is cut.
TEST_F(KindTest, Movies) {
  const Bytes media = box("mdat", {Bytes(100)});
  const Bytes type = box("ftyp", {bytesFrom("'isom' 00000200")});
  const Bytes heic = box("ftyp", {bytesFrom("'heic' 00000000")});
  const Bytes cutMedia = boxClaiming(5000, "mdat", {Bytes(100)});
  const Bytes wholeTrack = moovOf("vide", 3), cutInTrack(wholeTrack.begin(), wholeTrack.end() - 4);
  Bytes cutBehindTrack = wholeTrack;
  cutBehindTrack[3] = static_cast<uint8_t>(cutBehindTrack[3] + 40);
  const std::tuple<const char*, Bytes, What> cases[] = {
      {"QuickTime, no ftyp", joined({box("wide"), media, moovOf("vide", 3)}), What::plainMovie},
      {"odd boxes first", joined({box("oddx", {Bytes(9)}), type, media, moovOf("vide", 3)}), What::plainMovie},
      {"moov first, mdat cut", joined({type, moovOf("vide", 3), cutMedia}), What::plainMovie},
      {"moov cut behind a track", joined({type, media, cutBehindTrack}), What::plainMovie},
      {"moov cut in its track", joined({type, media, cutInTrack}), What::lacksMoov},
      {"no moov", joined({type, media}), What::lacksMoov},
      {"mdat cut, no moov", joined({type, cutMedia}), What::lacksMoov},
      {"the type alone", type, What::lacksMoov},
      {"a segment of a stream", joined({box("styp"), box("moof"), media}), What::lacksMoov},
      {"no sample", joined({type, moovOf("vide", 0), media}), What::lacksSamples},
      {"no track", joined({type, box("moov"), media}), What::lacksSamples},
      {"the head of a stream", joined({type, moovOf("vide", 0, box("mvex"))}), What::lacksSamples},
      {"the head and a fragment", joined({type, moovOf("vide", 0, box("mvex")), box("moof")}), What::fragmentedMovie},
      {"sound in fragments", joined({type, moovOf("soun", 0, box("mvex")), box("moof")}), What::audio},
      {"sound and text",
       joined({type, box("moov", {trackBox("soun", {fullBox("stsz", {10, 3})}),
                                  trackBox("text", {fullBox("stsz", {10, 3})})})}),
       What::audio},
      {"compact sizes", joined({type, box("moov", {trackBox("vide", {fullBox("stz2", {8, 3})})})}), What::plainMovie},
      {"a HEIC picture", joined({heic, box("meta"), media}), What::picture},
      {"a HEIC sequence with a track", joined({heic, moovOf("pict", 3), media}), What::plainMovie},
  };
  for (const auto& [name, content, what] : cases) {
    const Kind kind = kindOfBytes(content);
    EXPECT_EQ(kind.what, what) << name << ": " << kind.words;
  }
  // The long size of an mdat is what a recorder writes last.
  const Bytes unfinished = joined({type, values({1}), bytesFrom("'mdat'"), values({0, 0}), Bytes(100)});
  EXPECT_EQ(kindOfBytes(unfinished).words, "a movie without its end");
}

// Every start of a movie has a kind, and is media only from where its whole `moov` is there.
TEST_F(KindTest, CutMovies) {
  for (const char* flags : {"", " -movflags faststart"}) {
    const Bytes whole = readFile(files_, madeByFFmpeg(words(pictures + "-c:v libx264"s + flags)));
    const size_t moov = textOf(whole).find("moov") - 4;
    const size_t moovSize = size_t{whole[moov + 2]} << 8 | whole[moov + 3];
    for (size_t size = 0; size < whole.size(); size += 7) {
      const Kind kind = kindOfBytes(ByteView(whole).first(size));
      ASSERT_EQ(size == 0, kind.what == What::empty) << size;
      const bool hasMoov = size >= moov + moovSize;
      if (hasMoov || size < moov) {
        ASSERT_EQ(kind.isMedia(), hasMoov) << flags << " " << size;
      }
    }
  }
}

TEST_F(KindTest, SentencesForPeople) {
  const std::string page = "<!DOCTYPE html>\n<html><head><title>", theVideo = ": give the address of the video itself";
  const std::pair<std::string, std::string> cases[] = {
      {page + "Cats &amp; &#x64;ogs</title>", "a web page (\"Cats & dogs\")" + theVideo},
      {"<html><body><form><input type=\"password\"></form>", "a web page: the address needs a login"},
      {"\xEF\xBB\xBF<!-- c --> <HTML><BODY>", "a web page" + theVideo},
      {page + "a\n\x1B[31m \xE2\x80\xAE"
              "b&#8238;\xFF\xC2\x9B"
              "c</title>",
       "a web page (\"a [31m bc\")" + theVideo},
      {page + std::string(58, 'x') + "\xC3\xA4\xC3\xA4</title>",
       "a web page (\"" + std::string(58, 'x') + "\xC3\xA4...\")" + theVideo},
      {"<?xml version=\"1.0\"?><Error><Code>AccessDenied</Code></Error>", "an XML document" + theVideo},
      {"#EXTM3U\n#EXTINF:6,\n0.ts\n", "a playlist" + theVideo},
      {"<?xml version=\"1.0\"?>\n<MPD><Period/></MPD>", "a playlist (of a stream)" + theVideo},
      {"{\"error\": \"no such clip\"}", "JSON text" + theVideo},
      {"%PDF-1.4\n1 0 obj", "a PDF document" + theVideo},
      {"PK\x03\x04\x14\0"s, "a zip archive: unpack it first"},
      {"\x1F\x8B\x08\0"s, "compressed with gzip: unpack it first"},
      {std::string(257, 'a') + "ustar", "a tar archive: unpack it first"},
      {std::string(2000, '\0'), "nothing but zeros where it begins: download it again"},
      {"Not found, sorry.", "no video (ASCII text, with no line terminators)" + theVideo},
  };
  for (const auto& [content, sentence] : cases) {
    writeFileAtomically(files_, file_, bytesOf(content));
    EXPECT_EQ(whyNoPlayerShows(files_, file_, "clip.mp4").value_or("it is media"), "clip.mp4 is " + sentence);
  }
}

// What only looks like media at first sight is none.
TEST_F(KindTest, LookAlikes) {
  EXPECT_FALSE(kindOfText("GGGGGGGG").isMedia());
  std::string fourPackets(5 * 188, 'x');
  for (size_t i = 0; i < 4; ++i) fourPackets[i * 188] = 'G';
  EXPECT_FALSE(kindOfText(fourPackets).isMedia());
  EXPECT_EQ(kindOfText("the free lunch").what, What::unknown);
  EXPECT_FALSE(kindOfText("RIFFxxxxNOPE").isMedia());
  EXPECT_FALSE(kindOfText("\xFF\xFB\x90\x64 and then words").isMedia());
  EXPECT_THROW(kindOf(files_, directory_ / "missing"), PosixError);
}

}  // namespace
