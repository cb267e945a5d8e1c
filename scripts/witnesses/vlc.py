"""Plays a file with VLC from a second on, and prints what VLC showed and played, as JSON.

The program of that name refuses to run as root; this loads its library, and gives itself up to the user `nobody` first.
"""

import ctypes
import json
import os
import sys
import time

WIDTH, HEIGHT, RATE = 320, 180, 48000
ENDED, ERROR = 6, 7

if os.getuid() == 0:
    os.setgroups([])
    os.setgid(65534)
    os.setuid(65534)
    os.environ["HOME"] = "/nonexistent"


class Stats(ctypes.Structure):
    _fields_ = [("read_bytes", ctypes.c_int), ("input_bitrate", ctypes.c_float), ("demux_read", ctypes.c_int),
                ("demux_bitrate", ctypes.c_float), ("corrupted", ctypes.c_int), ("discontinuity", ctypes.c_int),
                ("decoded_video", ctypes.c_int), ("others", ctypes.c_int * 8)]


vlc = ctypes.CDLL("libvlc.so.5")
for call in ("new", "media_new_path", "media_player_new_from_media"):
    getattr(vlc, "libvlc_" + call).restype = ctypes.c_void_p
vlc.libvlc_media_get_duration.restype = ctypes.c_int64

canvas = (ctypes.c_ubyte * (WIDTH * HEIGHT * 4))()
pictures, beeps, last_loud = [], [], [-1.0]


def callback(result, *arguments):
    return lambda function: ctypes.CFUNCTYPE(result, *arguments)(function)


@callback(ctypes.c_void_p, ctypes.c_void_p, ctypes.POINTER(ctypes.c_void_p))
def lock(_, planes):
    planes[0] = ctypes.addressof(canvas)


@callback(None, ctypes.c_void_p, ctypes.c_void_p)
def display(_, __):
    """The number that the picture carries along its upper edge."""
    pictures.append(sum((canvas[(10 * WIDTH + 20 + 40 * n) * 4] > 127) << n for n in range(8)))


@callback(None, ctypes.c_void_p, ctypes.POINTER(ctypes.c_int16), ctypes.c_uint, ctypes.c_int64)
def hear(_, samples, count, pts):
    for i, sample in enumerate(samples[:count]):
        if abs(sample) > 10000:
            at = pts / 1e6 + i / RATE
            if at - last_loud[0] > 0.1:
                beeps.append(at)
            last_loud[0] = at


options = [b"--no-skip-frames", b"--no-drop-late-frames", b"--no-video-title-show", b"-q"]
instance = ctypes.c_void_p(vlc.libvlc_new(len(options), (ctypes.c_char_p * len(options))(*options)))
media = ctypes.c_void_p(vlc.libvlc_media_new_path(instance, sys.argv[1].encode()))
if float(sys.argv[2]) > 0:
    vlc.libvlc_media_add_option(media, f":start-time={sys.argv[2]}".encode())
player = ctypes.c_void_p(vlc.libvlc_media_player_new_from_media(media))
vlc.libvlc_video_set_callbacks(player, lock, None, display, None)
vlc.libvlc_video_set_format(player, b"RV32", WIDTH, HEIGHT, WIDTH * 4)
vlc.libvlc_audio_set_callbacks(player, hear, None, None, None, None, None)
vlc.libvlc_audio_set_format(player, b"S16N", RATE, 1)
vlc.libvlc_media_player_play(player)
end = time.monotonic() + 60
while vlc.libvlc_media_player_get_state(player) not in (ENDED, ERROR) and time.monotonic() < end:
    time.sleep(0.05)
state = vlc.libvlc_media_player_get_state(player)
stats = Stats()
vlc.libvlc_media_get_stats(media, ctypes.byref(stats))
vlc.libvlc_media_player_stop(player)
print(json.dumps({
    "ended": state == ENDED, "pictures": pictures, "beeps": beeps,
    "duration": vlc.libvlc_media_get_duration(media) / 1000, "decoded": stats.decoded_video, "corrupted": stats.corrupted,
}))
