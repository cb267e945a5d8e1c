"""Movies with one damage each, one for every kind of repair, and what a player must show of them afterwards.

Each picture carries its number as a row of eight black or white fields along its upper edge. A beep of 40 ms begins at
each k + 0.2 s.
"""

import json
import subprocess
from dataclasses import dataclass, field
from pathlib import Path

import boxes

RATE = 25
SECONDS = 6
BEEPS = [k + 0.2 for k in range(SECONDS)]
# What an edit list hides: the first picture waits for two that are decoded ahead of it, and an AAC encoder puts a
# packet ahead of the sound.
LATE = 2 / RATE
PRIMED = [beep + 1024 / 48000 for beep in BEEPS]


@dataclass
class Movie:
    name: str
    codec: str  # "avc" or "hevc"
    file: Path
    pictures: list = None  # their numbers as they must be shown
    rate: float = RATE
    start: float = 0  # when the first is shown
    duration: float = SECONDS
    beeps: list = field(default_factory=BEEPS.copy)
    sizes: tuple = ((320, 180),)
    change: int = 0  # the first picture of another sample entry
    tolerance: float = 0.002  # of beeps, in seconds
    like: Path = None  # a healthy movie of the same recorder
    code: int = 0  # what `tarn repair` exits with
    window: float = 0  # from where a player in real time begins


def ffmpeg(*arguments):
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", *map(str, arguments)], check=True)


def source(seconds=SECONDS, size="320x180", first=0, rate=RATE, hue=0):
    """Moving pictures, and upon them a strip of eight fields that say the number."""
    width, height = map(int, size.split("x"))
    number = f"16+219*mod(floor((N+{first})/pow(2,X)),2)"
    return (f"testsrc2=s={size}:r={rate}:d={seconds},hue=h={hue}[moving];color=s=8x2:r={rate}:d={seconds},format=gray,"
            f"geq=lum='{number}',scale={width}:{height // 16 * 2}:flags=neighbor,format=yuv420p[strip];"
            "[moving][strip]overlay,format=yuv420p")


def sound(seconds=SECONDS):
    second = "0.05*sin(2*PI*440*t)+0.8*sin(2*PI*1000*t)*between(t,0.2,0.24)"
    return f"aevalsrc='{second}|{second}':s=48000:d=1,aloop=-1:48000,atrim=end={seconds}"


class Maker:
    """Makes the movies of one codec in a folder."""

    def __init__(self, folder, codec):
        self.folder, self.codec, self.is_hevc = folder / codec, codec, codec == "hevc"
        self.folder.mkdir()
        self.bad_tag, self.good_tag = ("hev1", "hvc1") if self.is_hevc else ("avc3", "avc1")
        self.movies = []
        self.clip = self.encode("clip", source())
        self.plain = self.encode("plain", source(), in_band=False)

    def encode(self, name, pictures, in_band=True, more="", seconds=SECONDS):
        out = self.folder / f"{name}.source.mp4"
        encoder, words = ("libx265", "-x265-params") if self.is_hevc else ("libx264", "-x264-params")
        settings = f"keyint=25:bframes=2:repeat-headers={int(in_band)}{more}" + ":log-level=none" * self.is_hevc
        ffmpeg("-f", "lavfi", "-i", pictures, "-f", "lavfi", "-i", sound(seconds), "-c:v", encoder, "-preset",
               "veryfast", words, settings, "-tag:v", self.good_tag, "-c:a", "aac", "-aac_coder", "fast", out)
        return out

    def mux(self, name, *arguments, clip=None, tag=None, edit=None, **expected):
        """A movie that ffmpeg copies out of a clip, with an edit of its `moov`."""
        out = self.folder / f"{name}.mp4"
        ffmpeg("-i", clip or self.clip, "-map", "0", "-c", "copy", "-tag:v", tag or self.good_tag, *arguments, out)
        if edit:
            boxes.edited(out, edit)
        return self.add(name, out, **expected)

    def add(self, name, out, **expected):
        movie = Movie(name, self.codec, out, **expected)
        if movie.pictures is None:
            movie.pictures = list(range(round(SECONDS * movie.rate)))
        self.movies.append(movie)
        return movie

    # ---- the kinds

    def sets(self):
        some = [32] if self.is_hevc else [7]
        bad = self.bad_tag
        self.mux("tag", clip=self.plain, tag=bad)
        self.mux("no sets", tag=bad, edit=lambda moov: (boxes.tagged(bad)(moov), boxes.keeping([])(moov)))
        self.mux("no configuration", tag=bad, edit=boxes.without_configuration)
        self.mux("a kind of set lacks", edit=boxes.keeping(some))
        self.mux("overrunning child", tag=bad,
                 edit=lambda moov: (boxes.keeping([])(moov), boxes.overrunning_child(moov)))

    def changes(self):
        other = ":sao=0:strong-intra-smoothing=0" if self.is_hevc else ":cabac=0"
        for name, size, more in (("size changes", "480x270", ""), ("sets change", "320x180", other)):
            halves = [self.encode(f"{name} 1", source(3), seconds=3),
                      self.encode(f"{name} 2", source(3, size, 3 * RATE), more=more, seconds=3)]
            joined, listed = self.folder / f"{name}.joined.mp4", self.folder / "list.txt"
            listed.write_text("".join(f"file '{half}'\n" for half in halves))
            ffmpeg("-f", "concat", "-safe", "0", "-i", listed, "-map", "0:v", "-c", "copy", joined)
            out = self.folder / f"{name}.mp4"
            ffmpeg("-i", joined, "-i", self.clip, "-map", "0:v", "-map", "1:a", "-c", "copy", "-tag:v", self.bad_tag,
                   out)
            width, height = map(int, size.split("x"))
            self.add(name, out, sizes=tuple(dict.fromkeys([(320, 180), (width, height)])),
                     change=3 * RATE)

    def lists(self):
        self.mux("list of pictures", edit=boxes.listed("vide", 9999999), start=LATE)
        self.mux("list of sound", edit=boxes.listed("soun", 9999999), beeps=PRIMED)
        self.mux("list of -2", edit=boxes.listed("soun", -2), beeps=PRIMED)
        self.mux("no lists", "-use_editlist", "0", start=LATE, beeps=PRIMED)

    def sounds(self):
        def packets(seconds):
            return round(seconds * 48000 / 1024)
        lost = f"noise=drop='between(n,{packets(2.5)},{packets(2.9)})'"
        self.mux("gap", "-bsf:a", lost)
        self.mux("moved", "-bsf:a", "setts=ts='if(gt(N,120),TS+24000,TS)'", duration=6.5,
                 beeps=[beep + 0.5 * (beep > 2.5) for beep in BEEPS])
        self.mux("overlap", "-bsf:a", "setts=ts='if(gt(N,125),TS-14336,TS)'",
                 beeps=[beep - 14336 / 48000 * (beep > 2.5) for beep in BEEPS])
        self.mux("drift", "-bsf:a", "setts=ts='round(TS*1.02)'", duration=SECONDS * 1.02, tolerance=0.0035,
                 beeps=[beep * 1.02 for beep in BEEPS])
        self.mux("AC-3", "-c:a", "ac3")
        self.mux("MP3", "-c:a", "libmp3lame")
        self.short_gap()

    def short_gap(self):
        """A gap that silent packets fill: they may be 10 ms in a minute."""
        seconds = 600
        clip = self.encode("long", source(seconds, "160x90", rate=1), seconds=seconds)
        near = 595 * 48000 // 1024
        self.mux("short gap", "-bsf:a", f"noise=drop='between(n,{near},{near + 3})'", clip=clip, rate=1,
                 duration=seconds, pictures=[n % 256 for n in range(seconds)],
                 beeps=[k + 0.2 for k in range(seconds)], sizes=((160, 90),), window=seconds - 8)

    def fragments(self):
        movie = self.mux("fragments", "-movflags", "frag_keyframe+empty_moov+default_base_moof", start=LATE,
                         beeps=PRIMED)
        self.cut(movie, "fragments, cut")

    def ends(self):
        ahead = self.folder / "ahead.mp4"
        ffmpeg("-i", self.clip, "-c", "copy", "-tag:v", self.good_tag, "-movflags", "faststart", ahead)
        whole = Movie("", self.codec, ahead)
        self.cut(whole, "cut")
        data = bytearray(ahead.read_bytes())
        begin = next(begin for kind, begin, _ in boxes.places(data) if kind == "mdat")
        data[begin:begin + 4] = (len(data) - begin + 5000).to_bytes(4, "big")
        out = self.folder / "mdat too long.mp4"
        out.write_bytes(data)
        self.add("mdat too long", out)

    def cut(self, whole, name):
        """The first two thirds of a movie. Pictures are kept as long as they are shown without a gap."""
        data = whole.file.read_bytes()
        size = len(data) * 2 // 3
        out = self.folder / f"{name}.mp4"
        out.write_bytes(data[:size])
        text = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                               "packet=pts_time,pos,size", "-of", "json", whole.file], capture_output=True, text=True,
                              check=True).stdout
        rows = json.loads(text)["packets"]
        begin = min(float(row["pts_time"]) for row in rows)
        there = {round((float(row["pts_time"]) - begin) * RATE)
                 for row in rows if int(row["pos"]) + int(row["size"]) <= size}
        count = next(n for n in range(len(rows) + 1) if n not in there)
        self.add(name, out, code=5, pictures=list(range(count)), start=whole.start, beeps=whole.beeps)

    def lost_moov(self):
        """The recorder died before it wrote the `moov`; another recording of it is there."""
        data = bytearray(self.plain.read_bytes())
        where = {kind: begin for kind, begin, _ in boxes.places(data)}
        data[where["mdat"]:where["mdat"] + 4] = bytes(4)
        out = self.folder / "moov lost.mp4"
        out.write_bytes(data[:where["moov"]])
        self.add("moov lost", out, like=self.encode("healthy", source(hue=120), in_band=False))

    def all(self):
        for make in (self.sets, self.changes, self.lists, self.sounds, self.fragments, self.ends, self.lost_moov):
            make()
        return self.movies
