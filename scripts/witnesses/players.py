"""The witnesses: each plays or reads a file and returns what is wrong with it, a list of words."""

import json
import re
import subprocess
from pathlib import Path

import numpy

ROOT = Path(__file__).resolve().parents[2]
NAMES = {"avc": ("AVC", "avc1", "V_MPEG4/ISO/AVC"), "hevc": ("HEVC", "hvc1", "V_MPEGH/ISO/HEVC")}


class Fault(Exception):
    pass


def run(*command, limit=60, codes=(0,), **options):
    done = subprocess.run(list(map(str, command)), capture_output=True, timeout=limit, **options)
    text = done.stderr.decode(errors="replace").strip()
    if done.returncode not in codes:
        raise Fault(f"{command[0]}: exit {done.returncode}: {text[-200:]}")
    return done.stdout, text


def near(what, told, expected, tolerance):
    return [] if told is not None and abs(told - expected) <= tolerance else [f"{what}: {told} for {expected:.3f}"]


def beeps(heard, movie, tolerance, begin=0):
    expected = [beep for beep in movie.beeps if beep >= begin]
    if len(heard) != len(expected):
        return [f"{len(heard)} beeps for {len(expected)}"]
    wrong = [f"{a:.4f} for {b:.4f}" for a, b in zip(heard, expected) if abs(a - b) > tolerance]
    return [f"beeps: {', '.join(wrong[:3])}"] if wrong else []


def beeps_of_other_clock(heard, movie, tolerance, begin=0):
    """Only how far one is from the next is known."""
    shift = next(beep for beep in movie.beeps if beep >= begin) - heard[0] if heard else 0
    return beeps([beep + shift for beep in heard], movie, tolerance, begin)


def numbers_of(rows):
    """The numbers that rows of eight fields stand for."""
    return [int(number) for number in rows @ (1 << numpy.arange(8))]


def pictures(numbers, expected):
    if numbers == expected:
        return []
    pairs = zip(numbers, expected)
    first = next((i for i, (one, other) in enumerate(pairs) if one != other), min(len(numbers), len(expected)))
    return [f"{len(numbers)} pictures for {len(expected)}, others from {first} on"]


def begin_of_beeps(samples, rate):
    loud = numpy.flatnonzero(numpy.abs(samples) > 0.3)
    return [at / rate for at, gap in zip(loud, numpy.diff(loud, prepend=-rate)) if gap > rate / 10]


def by_ffmpeg(movie, file):
    """Decodes all; looks at each picture's number, time and size, and at each beep."""
    strict = ["ffmpeg", "-v", "error", "-nostdin", "-xerror", "-err_detect", "explode", "-i", file]
    look = "crop=iw:ih/16:0:0,scale=8:1:flags=area,format=gray"
    row, told = run(*strict, "-map", "0:v:0", "-fps_mode", "passthrough", "-vf", look, "-f", "rawvideo", "-")
    faults = pictures(numbers_of(numpy.frombuffer(row, numpy.uint8).reshape(-1, 8) > 127), movie.pictures)
    text, told_too = run("ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                         "frame=pts_time,width,height", "-of", "json", file)
    frames = json.loads(text)["frames"]
    faults += near("first picture", float(frames[0]["pts_time"]), movie.start, 0.002)
    last = movie.start + (len(movie.pictures) - 1) / movie.rate
    faults += near("last picture", float(frames[-1]["pts_time"]), last, 0.002)
    sizes = tuple(dict.fromkeys((frame["width"], frame["height"]) for frame in frames))
    if sizes != movie.sizes:
        faults.append(f"sizes {sizes}")
    heard, told_last = run(*strict, "-map", "0:a:0", "-af", "aresample=async=1:first_pts=0", "-ac", "1", "-ar", "48000",
                           "-f", "f32le", "-")
    faults += beeps(begin_of_beeps(numpy.frombuffer(heard, numpy.float32), 48000), movie, movie.tolerance)
    return faults + [text for text in (told, told_too, told_last) if text]


def by_chromium(movie, file):
    """A video element, drawn on a canvas and heard by WebAudio."""
    line, _ = run("node", "e2e/play.mjs", file, movie.window, limit=300, cwd=ROOT / "web")
    seen = json.loads(line)
    if "error" in seen:
        return [seen["error"]]
    faults = near("duration", seen["duration"], movie.duration, 0.1)
    for time, number in seen["pictures"]:
        at = min(max(int((time - movie.start) * movie.rate + 1e-6), 0), len(movie.pictures) - 1)
        if number != movie.pictures[at]:
            faults.append(f"picture {number} for {movie.pictures[at]} at {time:.3f} s")
    if seen["corrupted"]:
        faults.append(f"{seen['corrupted']} corrupted pictures")
    return faults + beeps(seen["beeps"], movie, 0.05, movie.window)


def by_gstreamer(movie, file):
    """Another demuxer; for HEVC another decoder too, libde265."""
    parser, decoder = {"avc": ("h264parse", "avdec_h264"),
                       "hevc": ("h265parse ! video/x-h265,stream-format=byte-stream", "libde265dec")}[movie.codec]
    looks = (f"d.video_0 ! queue ! {parser} ! {decoder} ! videoconvert ! videoscale ! "
             "video/x-raw,format=GRAY8,width=320,height=180")
    hears = "d.audio_0 ! queue ! decodebin ! audioconvert ! audio/x-raw,format=F32LE,rate=48000,channels=1"
    (shown, told), (heard, told_too) = [
        run("gst-launch-1.0", "-q", "filesrc", f"location={file}", "!", "qtdemux", "name=d", *branch.split(),
            "!", "fdsink", "sync=false") for branch in (looks, hears)]
    rows = numpy.frombuffer(shown, numpy.uint8).reshape(-1, 180, 320)[:, 10, 20::40] > 127
    faults = pictures(numbers_of(rows), movie.pictures)
    heard = begin_of_beeps(numpy.frombuffer(heard, numpy.float32), 48000)
    faults += beeps_of_other_clock(heard, movie, movie.tolerance + 0.001)
    return faults + [text for text in (told, told_too) if text]


def by_vlc(movie, file):
    seen = json.loads(run("/usr/bin/python3", Path(__file__).with_name("vlc.py"), file, movie.window, limit=300)[0])
    faults = [] if seen["ended"] else ["it does not end"]
    faults += near("duration", seen["duration"], movie.duration, 0.1)
    expected = movie.pictures[round(movie.window * movie.rate):]
    shown = [n for n, before in zip(seen["pictures"], [None, *seen["pictures"]]) if n != before]
    if movie.window:
        shown = shown[shown.index(expected[0]):]  # it begins at a sync sample
    elif not 2 * len(expected) <= seen["decoded"] <= 2 * len(expected) + 2:  # it counts each one twice
        faults.append(f"{seen['decoded'] // 2} pictures decoded of {len(expected)}")
    if [n for n in expected if n in shown] != shown or len(shown) < len(expected) / 2:
        faults += pictures(shown, expected)  # on a busy machine it leaves some out
    if seen["corrupted"]:
        faults.append("corrupted")
    return faults + beeps_of_other_clock(seen["beeps"], movie, 0.03, movie.window)


def by_mediainfo(movie, file):
    tracks = json.loads(run("mediainfo", "--Output=JSON", file)[0])["media"]["track"]
    kinds = {track["@type"]: track for track in tracks}
    if [track["@type"] for track in tracks] != ["General", "Video", "Audio"]:
        return [f"tracks {[track['@type'] for track in tracks]}"]
    faults = near("duration", float(kinds["General"].get("Duration", 0)), movie.duration, 0.1)
    count = round(len(movie.pictures) + movie.start * movie.rate)  # it counts what fills the duration
    expected = {"Video": dict(Format=NAMES[movie.codec][0], CodecID=NAMES[movie.codec][1], FrameCount=str(count),
                              Width=str(movie.sizes[0][0])),
                "Audio": dict(Format="AAC", Format_AdditionalFeatures="LC", SamplingRate="48000", Channels="2")}
    for kind, fields in expected.items():
        faults += [f"{name}: {kinds[kind].get(name)} for {value}" for name, value in fields.items()
                   if kinds[kind].get(name) != value]
    return faults + [f"{track['@type']}: {key}" for track in tracks for key in [*track, *track.get("extra", {})]
                     if re.search("Truncated|Conformance|Error", key)]


def by_mkvmerge(movie, file):
    """Reads all samples, and writes them into a file of its own."""
    out = file.with_suffix(".mkv")
    try:
        text, _ = run("mkvmerge", "-o", out, file, codes=(0, 1))  # 1: with warnings
        tags, _ = run("mkvextract", out, "tags", "-")
        told = json.loads(run("mkvmerge", "-J", out)[0])
    except Fault as fault:
        return [str(fault)]
    finally:
        out.unlink(missing_ok=True)
    faults = re.findall(r"(?:Warning|Error): [^\n]*", text.decode())
    if movie.change:  # Matroska has room for one configuration
        faults = [fault for fault in faults if "more than one FourCC" not in fault]
    counts = [int(n) for n in re.findall(r"NUMBER_OF_FRAMES</Name>\s*<String>(\d+)", tags.decode())]
    if [track["type"] for track in told["tracks"]] != ["video", "audio"]:
        return [*faults, "other tracks"]
    codecs = [track["properties"]["codec_id"] for track in told["tracks"]]
    if codecs != [NAMES[movie.codec][2], "A_AAC"]:
        faults.append(f"codecs {codecs}")
    if counts[:1] != [len(movie.pictures)]:
        faults.append(f"{counts[:1]} pictures for {len(movie.pictures)}")
    return faults + near("duration", told["container"]["properties"]["duration"] / 1e9, movie.duration, 0.15)


READERS = {"ffmpeg": by_ffmpeg, "GStreamer": by_gstreamer, "MediaInfo": by_mediainfo, "mkvmerge": by_mkvmerge}
# They play in real time: on a busy machine a fault counts that comes three times.
PLAYERS = {"VLC": by_vlc, "Chromium": by_chromium}
WITNESSES = {**READERS, **PLAYERS}


def judged(name, movie, file):
    """What it finds wrong; a witness that fails, or that finds another structure than a movie's, finds a fault."""
    for _ in range(3 if name in PLAYERS else 1):
        try:
            faults = WITNESSES[name](movie, file)
        except (Fault, subprocess.TimeoutExpired, LookupError, ValueError) as fault:
            faults = [f"{type(fault).__name__}: {fault}"]
        if not faults:
            break
    return faults
