#!/usr/bin/env python3
"""Times the remux of a big "hev1" file side by side with a plain copy and with ffmpeg's own remux.

  remux_against_copy.py WORKER DIRECTORY [ROUNDS [SOURCE]]

WORKER is the program remux_worker; DIRECTORY lies on a real disk with 6 GiB free. Prints medians in seconds, all with a
flush of the result, and the worker's peak of memory. SOURCE is "moov ahead", "moov behind" or "changing": 300,000
samples in 50 runs of two picture sizes, which get 50 sample entries.
"""
import os
import pathlib
import statistics
import subprocess
import sys
import time

# A `moov` is looked for in the first 200 MiB only, so one behind the media wants a smaller file.
SIZES = {"moov ahead": 1 << 30, "moov behind": 190 << 20}


def ffmpeg(*arguments):
    subprocess.run(["ffmpeg", "-v", "error", "-y", *arguments], check=True)


def make_source(directory, name):
    if name == "changing":
        return make_changing_source(directory)
    source = directory / f"{name.replace(' ', '-')}.mp4"
    if source.exists():
        return source
    clip = directory / "clip.mp4"
    if not clip.exists():
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=25,noise=alls=20:allf=t", "-t", "8", "-c:v", "libx265",
               "-preset", "ultrafast", "-x265-params", "repeat-headers=1:keyint=25:bitrate=12000:log-level=none",
               "-pix_fmt", "yuv420p", "-tag:v", "hev1", str(clip))
    loops = str(SIZES[name] // clip.stat().st_size - 1)
    options = ["-movflags", "+faststart"] if name == "moov ahead" else []
    ffmpeg("-stream_loop", loops, "-i", str(clip), "-c", "copy", "-tag:v", "hev1", *options, str(source))
    return source


def make_changing_source(directory):
    changing = directory / "changing.mp4"
    if changing.exists():
        return changing
    clips = []
    for size in "480x270", "640x360":
        clips.append(directory / f"{size}.mp4")
        ffmpeg("-f", "lavfi", "-i", f"testsrc2=size={size}:rate=25", "-t", "240", "-c:v", "libx265", "-preset",
               "ultrafast", "-x265-params", "repeat-headers=1:keyint=50:log-level=none", "-pix_fmt", "yuv420p",
               "-tag:v", "hev1", str(clips[-1]))
    parts = directory / "parts.txt"
    parts.write_text("".join(f"file '{clip.absolute()}'\n" for clip in clips) * 25)
    ffmpeg("-f", "concat", "-safe", "0", "-i", str(parts), "-c", "copy", "-tag:v", "hev1", "-movflags", "+faststart",
           str(changing))
    return changing


def moov_size(path):
    with open(path, "rb") as file:
        while header := file.read(16):
            size = int.from_bytes(header[:4], "big")
            if header[4:8] == b"moov":
                return size
            file.seek((size if size > 1 else int.from_bytes(header[8:], "big")) - 16, os.SEEK_CUR)
    raise ValueError(f"no moov in {path}")


def flush(path):
    descriptor = os.open(path, os.O_RDONLY)
    os.fsync(descriptor)
    os.close(descriptor)


def timed(command, result):
    begin = time.monotonic()
    output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    flush(result)
    return time.monotonic() - begin, output


def main():
    worker, directory = os.path.abspath(sys.argv[1]), pathlib.Path(sys.argv[2])
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    names = sys.argv[4:] or [*SIZES, "changing"]
    directory.mkdir(parents=True, exist_ok=True)
    work, copy = directory / "work.mp4", directory / "copy.mp4"
    for name in names:
        source = make_source(directory, name)
        # A file that takes the place of another frees the other's blocks, which costs where the disk is told of it.
        times = {"cp --reflink=never": [], "cp, then mv over the file": [], "remux": [],
                 "remux, the call alone": [], "ffmpeg -c copy +faststart": []}
        peak = 0.0
        for _ in range(rounds):
            copy.unlink(missing_ok=True)
            times["cp --reflink=never"].append(timed(["cp", "--reflink=never", str(source), str(copy)], copy)[0])
            work.unlink(missing_ok=True)
            timed(["cp", str(source), str(work)], work)
            copy.unlink()
            copying, _ = timed(["cp", "--reflink=never", str(source), str(copy)], copy)
            moving = time.monotonic()
            os.replace(copy, work)
            flush(directory)
            times["cp, then mv over the file"].append(copying + time.monotonic() - moving)
            seconds, output = timed([worker, str(work)], work)
            times["remux"].append(seconds)
            times["remux, the call alone"].append(float(output.split()[0]))
            peak = max(peak, float(output.split()[2]))
            times["ffmpeg -c copy +faststart"].append(
                timed(["ffmpeg", "-v", "error", "-y", "-i", str(source), "-c", "copy", "-tag:v", "hvc1", "-movflags",
                       "+faststart", str(copy)], copy)[0])
        print(f"{name}, {source.stat().st_size >> 20} MiB, {rounds} rounds:")
        base = statistics.median(times["cp --reflink=never"])
        for what, values in times.items():
            median = statistics.median(values)
            print(f"  {what:28} {median:6.2f} s  ({median / base:.2f} x cp; {min(values):.2f} to {max(values):.2f})")
        print(f"  peak memory of the remux     {peak:.1f} MiB, moov {moov_size(source) / 2**20:.1f} MiB, then "
              f"{moov_size(work) / 2**20:.1f} MiB")


main()
