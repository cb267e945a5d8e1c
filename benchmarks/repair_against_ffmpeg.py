#!/usr/bin/env python3
"""Times a whole `tarn repair` that encodes the sound anew side by side with ffmpeg doing that to the same recording.

  repair_against_ffmpeg.py TARN DIRECTORY [ROUNDS [MINUTES]] [--at-most RATIO] [--memory-at-most MIB]

TARN is the command; DIRECTORY lies on a real disk with 2 GiB free. The recording has video of 2 Mbit/s and 48 kHz
stereo sound, tones in pink noise, with a second of it missing in each minute. Prints the times of each round in
seconds, both with a flush of the result, and tarn's peak of memory. With a bound it fails when the median ratio or the
memory is above it.
"""
import argparse
import os
import pathlib
import statistics
import subprocess
import sys
import time

TONES = "0.15*(sin(2*PI*t*220)+sin(2*PI*t*330*(1+floor(mod(t,4))/12))+sin(2*PI*t*1319)*exp(-4*mod(t,0.5)))"


def ffmpeg(*arguments):
    subprocess.run(["ffmpeg", "-v", "error", "-y", *arguments], check=True)


def make_source(directory, minutes):
    source = directory / f"recording-with-holes-{minutes}.mp4"
    if source.exists():
        return source
    clip = directory / "clip.mp4"
    ffmpeg("-f", "lavfi", "-i", "testsrc2=size=640x360:rate=30,noise=alls=30:allf=t", "-f", "lavfi", "-i",
           "anoisesrc=sample_rate=48000:color=pink:amplitude=0.1", "-f", "lavfi", "-i",
           f"aevalsrc='{TONES}|{TONES}':s=48000", "-filter_complex", "[1][2]amix=inputs=2:normalize=0[sound]", "-map",
           "0:v", "-map", "[sound]", "-t", "60", "-c:v", "libx264", "-preset", "ultrafast", "-b:v", "2M", "-maxrate",
           "2M", "-bufsize", "2M", "-c:a", "aac", "-ac", "2", "-b:a", "128k", "-bsf:a",
           "noise=drop='between(n,1000,1046)'", str(clip))
    ffmpeg("-stream_loop", str(minutes - 1), "-i", str(clip), "-c", "copy", str(source))
    clip.unlink()
    return source


def encode_by_ffmpeg(source, result):
    begin = time.monotonic()
    ffmpeg("-i", str(source), "-c:v", "copy", "-c:a", "aac", "-b:a", "128k", "-ar", "48000", str(result))
    os.sync()
    return time.monotonic() - begin


def repair(tarn, source, result):
    """The seconds it took, and the peak of memory in MiB."""
    begin = time.monotonic()
    process = subprocess.Popen([tarn, "repair", str(source), "-o", str(result)], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit("tarn repair failed")
    os.sync()
    return time.monotonic() - begin, usage.ru_maxrss / 1024


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("tarn", type=os.path.abspath)
    parser.add_argument("directory", type=pathlib.Path)
    parser.add_argument("rounds", type=int, nargs="?", default=3)
    parser.add_argument("minutes", type=int, nargs="?", default=30)
    parser.add_argument("--at-most", type=float, default=float("inf"))
    parser.add_argument("--memory-at-most", type=float, default=float("inf"))
    options = parser.parse_args()
    tarn, directory, rounds, minutes = options.tarn, options.directory, options.rounds, options.minutes
    directory.mkdir(parents=True, exist_ok=True)
    source = make_source(directory, minutes)
    result = directory / "result.mp4"
    print(f"{minutes} minutes, {source.stat().st_size >> 20} MiB, {rounds} rounds:")
    ratios, peak = [], 0.0
    for _ in range(rounds):
        result.unlink(missing_ok=True)
        os.sync()  # what was written and deleted before is no part of it
        theirs = encode_by_ffmpeg(source, result)
        result.unlink()
        os.sync()
        ours, memory = repair(tarn, source, result)
        peak = max(peak, memory)
        ratios.append(ours / theirs)
        print(f"  ffmpeg {theirs:6.2f} s   tarn {ours:6.2f} s   {ours / theirs:.2f} x")
    median = statistics.median(ratios)
    print(f"  median {median:.2f} x ffmpeg, peak memory {peak:.1f} MiB")
    return median > options.at_most or peak > options.memory_at_most


sys.exit(main())
