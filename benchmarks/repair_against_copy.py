#!/usr/bin/env python3
"""Times a whole `tarn repair` side by side with a plain copy to a new name and with ffmpeg's own remux.

  repair_against_copy.py TARN DIRECTORY [ROUNDS [SOURCE]] [--at-most RATIO] [--written-at-most RATIO]

TARN is the command; DIRECTORY lies on a real disk with 4 GiB free. SOURCE is "pictures", 1 GiB of "hev1" whose
parameter sets stand in the bitstream, or "sound", 90 seconds and 500 MB with holes in the sound, all of which is encoded
anew. Prints medians in seconds, all with a flush of the result, and of tarn the bytes written (as /proc/PID/io counts
them) and the most that it took on the disk, both against the source's size. With a bound it fails when tarn takes longer
than so many times cp, or writes or holds more than so many times the source.
"""
import argparse
import os
import pathlib
import statistics
import subprocess
import sys
import threading
import time

FASTSTART = ["-c", "copy", "-movflags", "+faststart"]


def ffmpeg(*arguments):
    subprocess.run(["ffmpeg", "-v", "error", "-y", *arguments], check=True)


def make_pictures(directory, source):
    clip = directory / "clip.mp4"
    ffmpeg("-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=25,noise=alls=20:allf=t", "-t", "8", "-c:v", "libx265",
           "-preset", "ultrafast", "-x265-params", "repeat-headers=1:keyint=25:bitrate=12000:log-level=none",
           "-pix_fmt", "yuv420p", "-tag:v", "hev1", str(clip))
    loops = str((1 << 30) // clip.stat().st_size - 1)
    ffmpeg("-stream_loop", loops, "-i", str(clip), "-tag:v", "hev1", *FASTSTART, str(source))
    clip.unlink()
    empty_hvcc(source)


def empty_hvcc(source):
    """Renames the `hvcC`, so that the parameter sets stand in the bitstream alone."""
    with open(source, "r+b") as file:
        head = file.read(8 << 20)
        file.seek(head.index(b"hvcC"))
        file.write(b"free")


def make_sound(directory, source):
    clip = directory / "clip.mp4"
    ffmpeg("-f", "lavfi", "-i", "nullsrc=size=640x360:rate=30,geq=random(1)*255:128:128", "-f", "lavfi", "-i",
           "anoisesrc=sample_rate=48000:color=pink:amplitude=0.1", "-t", "10", "-c:v", "libx264", "-preset",
           "ultrafast", "-b:v", "43M", "-maxrate", "43M", "-minrate", "43M", "-bufsize", "43M", "-pix_fmt", "yuv420p",
           "-c:a", "aac", "-ac", "2", "-b:a", "128k", "-bsf:a", "noise=drop='between(n,100,146)'", str(clip))
    ffmpeg("-stream_loop", "8", "-i", str(clip), *FASTSTART, str(source))
    clip.unlink()


MAKERS = {"pictures": make_pictures, "sound": make_sound}


def flush(path):
    descriptor = os.open(path, os.O_RDONLY)
    os.fsync(descriptor)
    os.close(descriptor)


def timed(command, result):
    begin = time.monotonic()
    subprocess.run(command, check=True, capture_output=True)
    flush(result)
    return time.monotonic() - begin


def bytes_on_disk(directory):
    total = 0
    for place, _, names in os.walk(directory):
        for name in names:
            try:
                total += os.lstat(os.path.join(place, name)).st_blocks * 512
            except FileNotFoundError:
                pass
    return total


def repair(tarn, source, result, watches):
    """Seconds; and if it watches, bytes written and the most on the disk beside the source."""
    peak, is_done = 0, threading.Event()

    def watch():
        nonlocal peak
        while not is_done.wait(0.005):
            peak = max(peak, bytes_on_disk(result.parent))

    watcher = threading.Thread(target=watch)
    if watches:
        watcher.start()
    begin = time.monotonic()
    process = subprocess.Popen([tarn, "repair", str(source), "-o", str(result)], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOWAIT)
    flush(result)
    seconds = time.monotonic() - begin
    counts = dict(line.split(": ") for line in pathlib.Path(f"/proc/{process.pid}/io").read_text().splitlines())
    if process.wait() != 0:
        sys.exit("tarn repair failed")
    is_done.set()
    if watches:
        watcher.join()
    return seconds, int(counts["write_bytes"]), peak


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("tarn", type=os.path.abspath)
    parser.add_argument("directory", type=pathlib.Path)
    parser.add_argument("rounds", type=int, nargs="?", default=5)
    parser.add_argument("sources", nargs="*", default=list(MAKERS))
    parser.add_argument("--at-most", type=float, default=float("inf"))
    parser.add_argument("--written-at-most", type=float, default=float("inf"))
    options = parser.parse_args()
    tarn, directory, rounds, is_beyond = options.tarn, options.directory, options.rounds, False
    output = directory / "output"
    output.mkdir(parents=True, exist_ok=True)
    for name in options.sources:
        source, result, copy = directory / f"{name}.mp4", output / "result.mp4", directory / "copy.mp4"
        if not source.exists():
            MAKERS[name](directory, source)
        size = source.stat().st_size
        commands = {"cp --reflink=never": ["cp", "--reflink=never", str(source), str(copy)],
                    "ffmpeg -c copy +faststart": ["ffmpeg", "-v", "error", "-y", "-i", str(source), *FASTSTART,
                                                  str(copy)]}
        times = {"tarn repair": [], **{what: [] for what in commands}}
        for _ in range(rounds):
            for what, command in commands.items():
                copy.unlink(missing_ok=True)
                os.sync()  # what was written and deleted before is no part of it
                times[what].append(timed(command, copy))
            copy.unlink()
            result.unlink(missing_ok=True)
            os.sync()
            times["tarn repair"].append(repair(tarn, source, result, False)[0])
        result.unlink()
        _, written, peak = repair(tarn, source, result, True)
        result.unlink()
        print(f"{name}, {size >> 20} MiB, {rounds} rounds:")
        ours = statistics.median(times["tarn repair"])
        for what, values in times.items():
            median = statistics.median(values)
            print(f"  {what:26} {median:6.2f} s  (tarn {ours / median:.2f} x; {min(values):.2f} to {max(values):.2f})")
        print(f"  bytes written {written / size:.3f} x, peak on the disk {peak / size:.3f} x the source")
        copying = statistics.median(times["cp --reflink=never"])
        is_beyond |= ours > options.at_most * copying or max(written, peak) > options.written_at_most * size
    return is_beyond


sys.exit(main())
