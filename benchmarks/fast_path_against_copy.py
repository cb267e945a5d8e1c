#!/usr/bin/env python3
"""Times the fast path of the audio repair side by side with a plain copy and with ffmpeg encoding the sound anew.

  fast_path_against_copy.py WORKER DIRECTORY [ROUNDS [MINUTES]]

WORKER is the program fast_path_worker; DIRECTORY lies on a real disk with 3 GiB free. The recording has video of
2 Mbit/s and 48 kHz stereo sound, packet by packet between the pictures. Prints medians in seconds, all with a flush of
the result, and the worker's peak of memory.
"""
import os
import pathlib
import statistics
import subprocess
import sys
import time


def ffmpeg(*arguments):
    subprocess.run(["ffmpeg", "-v", "error", "-y", *arguments], check=True)


def make_source(directory, minutes):
    source = directory / f"recording-{minutes}.mp4"
    if source.exists():
        return source
    clip = directory / "clip.mp4"
    ffmpeg("-f", "lavfi", "-i", "testsrc2=size=640x360:rate=30,noise=alls=30:allf=t", "-f", "lavfi", "-i",
           "anoisesrc=sample_rate=48000:amplitude=0.3", "-t", "60", "-c:v", "libx264", "-preset", "ultrafast", "-b:v",
           "2M", "-maxrate", "2M", "-bufsize", "2M", "-c:a", "aac", "-ac", "2", "-b:a", "128k", str(clip))
    ffmpeg("-stream_loop", str(minutes - 1), "-i", str(clip), "-c", "copy", "-movflags", "+faststart", str(source))
    clip.unlink()
    return source


def timed(command, result):
    os.sync()  # what was written and deleted before is no part of it
    begin = time.monotonic()
    output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    descriptor = os.open(result, os.O_RDONLY)
    os.fsync(descriptor)
    os.close(descriptor)
    return time.monotonic() - begin, output


def main():
    worker, directory = os.path.abspath(sys.argv[1]), pathlib.Path(sys.argv[2])
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    minutes = int(sys.argv[4]) if len(sys.argv) > 4 else 30
    directory.mkdir(parents=True, exist_ok=True)
    source = make_source(directory, minutes)
    work, copy = directory / "work.mp4", directory / "copy.mp4"
    times = {"cp --reflink=never": [], "fast path": [], "fast path, the call alone": [],
             "ffmpeg -c:v copy -c:a aac": []}
    peak = 0.0
    for turn in range(rounds):
        copy.unlink(missing_ok=True)
        times["cp --reflink=never"].append(timed(["cp", "--reflink=never", str(source), str(copy)], copy)[0])
        copy.unlink()
        timed(["cp", "--reflink=never", str(source), str(work)], work)
        seconds, output = timed([worker, str(work), "48000"], work)
        times["fast path"].append(seconds)
        times["fast path, the call alone"].append(float(output.split()[0]))
        peak = max(peak, float(output.split()[1]))
        if turn == 0:
            times["ffmpeg -c:v copy -c:a aac"].append(
                timed(["ffmpeg", "-v", "error", "-y", "-i", str(source), "-c:v", "copy", "-c:a", "aac", "-b:a", "128k",
                       str(copy)], copy)[0])
    print(f"{minutes} minutes, {source.stat().st_size >> 20} MiB, {rounds} rounds:")
    base = statistics.median(times["cp --reflink=never"])
    for what, values in times.items():
        median = statistics.median(values)
        print(f"  {what:28} {median:6.2f} s  ({median / base:.2f} x cp; {min(values):.2f} to {max(values):.2f})")
    print(f"  peak memory of the fast path {peak:.1f} MiB")


main()
