#!/usr/bin/env python3
"""Saves a large file without sound from a loopback server, side by side with `curl -o` and `sync` of the file.

    benchmarks/save_against_curl.py [--tarn build/release/tarn] [--mib 1024] [--runs 5] [--directory DIR] [--repaired]
                                    [--at-most RATIO] [--memory-at-most MIB]

The file is "avc1" and needs nothing, or, with --repaired, "avc3" whose parameter sets stand in the bitstream alone.
Works in DIR, which should lie on a real disk, and prints each pair's wall times, the medians, their ratio, and the
largest memory that a save took. With a bound it fails when the median ratio or the memory is above it.
"""

import argparse
import functools
import http.server
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time


class Server(http.server.SimpleHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *arguments):
        pass

    def copyfile(self, source, outputfile):
        offset, size = 0, os.fstat(source.fileno()).st_size
        while offset < size:
            offset += os.sendfile(self.connection.fileno(), source.fileno(), offset, size - offset)


def make_recording(path, mib, is_repaired):
    """A few seconds of noise, repeated without encoding until the file has its size."""
    seed = path + ".seed.mp4"
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                    "nullsrc=size=640x360:rate=30:duration=4,geq=random(1)*255:128:128", "-c:v", "libx264",
                    "-preset", "ultrafast", "-qp", "10", "-x264-params", f"repeat-headers={int(is_repaired)}",
                    "-pix_fmt", "yuv420p", seed], check=True)
    loops = mib * 1024 * 1024 // os.path.getsize(seed)
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-stream_loop", str(loops), "-i", seed,
                    "-c", "copy", *(["-tag:v", "avc3"] if is_repaired else []), "-movflags", "+faststart", path],
                   check=True)
    os.remove(seed)
    if is_repaired:
        with open(path, "r+b") as file:
            file.seek(file.read(8 << 20).index(b"avcC"))
            file.write(b"free")


def timed(command):
    """Wall time in seconds and peak memory in MiB of a command and what it starts."""
    start = time.monotonic()
    child = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    seconds = time.monotonic() - start
    if status != 0:
        raise RuntimeError(f"{command[0]} failed with {status}")
    return seconds, usage.ru_maxrss / 1024


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tarn", default="build/release/tarn")
    parser.add_argument("--mib", type=int, default=1024)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--directory", default=".")
    parser.add_argument("--repaired", action="store_true")
    parser.add_argument("--at-most", type=float, default=float("inf"))
    parser.add_argument("--memory-at-most", type=float, default=float("inf"))
    options = parser.parse_args()
    place = tempfile.mkdtemp(prefix="tarn-benchmark-", dir=options.directory)
    try:
        served = os.path.join(place, "served")
        os.mkdir(served)
        make_recording(os.path.join(served, "clip.mp4"), options.mib, options.repaired)
        handler = functools.partial(Server, directory=served)
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        url = f"http://127.0.0.1:{server.server_port}/clip.mp4"
        curls, saves, memory = [], [], 0
        for run in range(options.runs):
            copy, home = os.path.join(place, "copy"), os.path.join(place, "home")
            seconds, _ = timed(["sh", "-c", f"curl -s -o {copy} {url} && sync {copy}"])
            curls.append(seconds)
            seconds, peak = timed([options.tarn, "--home", home, "save", url, "--album", "Benchmark"])
            saves.append(seconds)
            memory = max(memory, peak)
            print(f"run {run + 1}: curl and sync {curls[-1]:.2f} s, tarn save {saves[-1]:.2f} s")
            os.remove(copy)
            shutil.rmtree(home)
        size = os.path.getsize(os.path.join(served, "clip.mp4")) / 1024 / 1024
        curl, save = statistics.median(curls), statistics.median(saves)
        print(f"{size:.0f} MiB: curl and sync {curl:.2f} s, tarn save {save:.2f} s, ratio {save / curl:.2f}; "
              f"peak memory {memory:.0f} MiB")
        return save / curl > options.at_most or memory > options.memory_at_most
    finally:
        shutil.rmtree(place)


if __name__ == "__main__":
    sys.exit(main())
