#!/usr/bin/env python3
"""Measures how well sound that a repair encodes anew sounds, against one run of ffmpeg's encoder at the same rate.

  sound_quality.py TARN DIRECTORY [SECONDS]

TARN is the command; needs ffmpeg, espeak-ng and numpy. Three recordings, of speech, music and tones, lose half a second
of their sound near the beginning and overlap a little later, so that `tarn repair` encodes all of it. From 5 s on both
results are compared with what the recording's own sound decodes to: segmental SNR (of packets of 1024 frames, each cut
to -10..60 dB) and log-spectral distance (0 to 16 kHz, above -60 dB of the loudest bin). Tarn encodes in segments of
2100 packets; a seam is the four packets that a new encoder begins with. Exits with 1 if the
seams' median SNR is more than 3 dB below the median packet's, or below what the one run makes of the same packets.
"""
import pathlib
import subprocess
import sys

import numpy

RATE, PACKET, SEGMENT, BIT_RATE = 48000, 1024, 2100, "128k"
ALLOWED = 3  # dB
TEXT = ("The recorder ran all night, and in the morning three hours of it were there. She had spoken of the harbour, "
        "of ships that come late, and of six small children who watched them from the wall. Nobody had stopped it. "
        "Which of these voices is the older one? Just before noon the wind changed, and zinc roofs began to rattle. ")


def ffmpeg(*arguments, **options):
    return subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", *map(str, arguments)], check=True, **options)


def decoded(file, *options):
    """Samples of two channels. Without the edit list they begin where the first packet does."""
    raw = ffmpeg(*options, "-i", file, "-map", "0:a", "-ac", "2", "-ar", RATE, "-f", "f32le", "-",
                 capture_output=True).stdout
    return numpy.frombuffer(raw, numpy.float32).reshape(-1, 2)


def speech(seconds, directory):
    """Two voices by turns, one on each side of the middle."""
    spoken, length = [], 0
    for turn in range(10 ** 6):
        voice = ["en-gb", "en-us+f3"][turn % 2]
        file = directory / "spoken.wav"
        subprocess.run(["espeak-ng", "-v", voice, "-s", str(140 + 7 * (turn % 5)), "-w", file, TEXT], check=True)
        said = decoded(file)[:, :1] * [[0.9, 0.5], [0.5, 0.9]][turn % 2]
        file.unlink()
        spoken.append(said)
        length += len(said)
        if length >= seconds * RATE:
            return numpy.concatenate(spoken)[:seconds * RATE]


def music(seconds, _):
    """Chords of plucked strings, a bass, and a drum and a cymbal on the beats."""
    random = numpy.random.default_rng(1)
    out = numpy.zeros((seconds * RATE, 2))
    beat = RATE // 2
    time = numpy.arange(2 * RATE) / RATE
    for n in range(seconds * RATE // beat):
        root = 110 * 2 ** ([0, 5, 7, 3][n // 8 % 4] / 12)
        notes = [(root / 2, 0.2, 0.5)] * (n % 2 == 0) + [(root * 2 ** (step / 12), 0.09, side) for step, side in
                                                         ((12, 0.2), (16, 0.5), (19, 0.8), (24 + n * 5 % 12, 0.6))]
        sound = numpy.zeros((len(time), 2))
        for frequency, level, side in notes:
            turn = 2 * numpy.pi * frequency * time
            tone = sum(numpy.sin(k * turn) * numpy.exp(-time * (2 + k)) / k for k in range(1, 12))
            sound += level * tone[:, None] * [1 - side, side]
        drum = numpy.sin(2 * numpy.pi * (60 + 40 * numpy.exp(-30 * time)) * time) * numpy.exp(-12 * time) * (n % 2 == 0)
        cymbal = random.normal(0, 1, len(time)) * numpy.exp(-40 * time)
        sound += (0.3 * drum + 0.06 * cymbal)[:, None]
        end = min(len(out), n * beat + len(time))
        out[n * beat:end] += sound[:end - n * beat]
    return 0.8 * out / numpy.abs(out).max()


def tones(seconds, _):
    """Steady tones, one that glides, and a little noise."""
    time = numpy.arange(seconds * RATE) / RATE
    glide = 0.2 * numpy.sin(2 * numpy.pi * (800 * time - 400 / 0.6 * numpy.cos(0.6 * time)))
    steady = sum(0.1 * numpy.sin(2 * numpy.pi * f * time) for f in (220, 997, 4500, 11000))
    noise = numpy.random.default_rng(2).normal(0, 0.001, (len(time), 2))
    return numpy.stack([steady + glide, steady - glide], 1) + noise


def recording(directory, name, samples):
    """Whole, and with damaged sound."""
    whole, damaged, raw = (directory / f"{name}.{ending}" for ending in ("whole.mp4", "damaged.mp4", "raw"))
    raw.write_bytes(samples.astype(numpy.float32).tobytes())
    ffmpeg("-f", "f32le", "-ar", RATE, "-ac", 2, "-i", raw, "-f", "lavfi", "-i", "testsrc2=s=64x36:r=5", "-shortest",
           "-c:v", "libx264", "-c:a", "aac", "-b:a", "320k", whole)
    raw.unlink()
    damage = "noise=drop='between(n,60,83)',setts=ts='if(gt(N,130),TS-4096,TS)'"
    ffmpeg("-i", whole, "-c", "copy", "-bsf:a", damage, damaged)
    return whole, damaged


def aligned(reference, samples):
    """The part of the reference that lies beside the samples, and from which packet on it does."""
    begin, length = 5 * RATE // PACKET * PACKET, 1 << 17
    piece = samples[begin:begin + length, 0]
    near = reference[begin - RATE:begin + length + RATE, 0]
    size = 1 << 19
    likeness = numpy.fft.irfft(numpy.fft.rfft(near, size) * numpy.conj(numpy.fft.rfft(piece, size)), size)
    shift = int(numpy.argmax(likeness[:2 * RATE])) - RATE
    count = (min(len(samples), len(reference) - shift) - begin) // PACKET - 50  # without the end
    beside = slice(begin + shift, begin + shift + count * PACKET)
    return reference[beside], samples[begin:begin + count * PACKET], begin // PACKET, shift


def snr_of_packets(reference, samples):
    signal = (reference.reshape(-1, 2 * PACKET) ** 2).sum(1)
    noise = ((reference - samples).reshape(-1, 2 * PACKET) ** 2).sum(1)
    snr = numpy.clip(10 * numpy.log10((signal + 1e-12) / (noise + 1e-12)), -10, 60)
    return numpy.where(signal / (2 * PACKET) > 1e-6, snr, numpy.nan)  # silence has none


def spectral_distance(reference, samples):
    window = numpy.hanning(2 * PACKET)
    bins = 2 * PACKET * 16000 // RATE

    def spectrum(sound, at):
        return numpy.abs(numpy.fft.rfft(sound[at:at + 2 * PACKET].mean(1) * window))[:bins]

    distances = []
    for at in range(0, len(reference) - 2 * PACKET, 4 * PACKET):
        one, other = spectrum(reference, at), spectrum(samples, at)
        floor = one.max() / 1000
        if floor > 1e-3:
            levels = 20 * numpy.log10(numpy.maximum(other, floor) / numpy.maximum(one, floor))
            distances.append(numpy.sqrt((levels ** 2).mean()))
    return numpy.mean(distances)


def measured(source, file):
    reference, samples, first, shift = aligned(source, decoded(file, "-ignore_editlist", "1"))
    return snr_of_packets(reference, samples), spectral_distance(reference, samples), first, shift


def compare(tarn, directory, name, samples):
    whole, damaged = recording(directory, name, samples)
    repaired, encoded, plain = (directory / f"{name}.{ending}" for ending in ("repaired.mp4", "encoded.m4a", "wav"))
    subprocess.run([tarn, "--home", directory / "home", "repair", "--quiet", damaged, "-o", repaired], check=True,
                   stdout=subprocess.DEVNULL)
    ffmpeg("-i", whole, "-map", "0:a", "-c:a", "pcm_f32le", plain)
    ffmpeg("-i", plain, "-c:a", "aac", "-b:a", BIT_RATE, encoded)
    source = decoded(plain)
    ours, our_distance, first, shift = measured(source, repaired)
    theirs, their_distance, their_first, their_shift = measured(source, encoded)
    seams = [n + k - first for n in range(SEGMENT, first + len(ours), SEGMENT) for k in range(4)]
    seams = [n for n in seams if 0 <= n < len(ours) and not numpy.isnan(ours[n])]
    # The one run's packets that hold the same sound; their borders lie elsewhere.
    beside = [round(n + first - their_first + (shift - their_shift) / PACKET) for n in seams]
    pairs = [(ours[n], theirs[m]) for n, m in zip(seams, beside) if m < len(theirs) and not numpy.isnan(theirs[m])]
    at_seams, beside_them = numpy.median(pairs, axis=0)
    median = numpy.nanmedian(ours)
    low = [100 * numpy.mean(some < median - ALLOWED) for some in (ours[~numpy.isnan(ours)], numpy.array(pairs)[:, 0])]
    print(f"| {name} | {rate(repaired)} / {rate(encoded)} | {numpy.nanmean(ours):.1f} / {numpy.nanmean(theirs):.1f} | "
          f"{our_distance:.2f} / {their_distance:.2f} | {median:.1f} / {numpy.nanmedian(theirs):.1f} | "
          f"{at_seams:.1f} / {beside_them:.1f} | {low[0]:.0f} % / {low[1]:.0f} % of {len(pairs)} |", flush=True)
    return at_seams >= median - ALLOWED and at_seams >= beside_them - ALLOWED


def rate(file):
    """In kbit/s."""
    told = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "a", "-show_entries", "stream=bit_rate", "-of",
                           "default=nk=1:nw=1", file], capture_output=True, check=True).stdout
    return int(told) // 1000


def main():
    tarn, directory = map(pathlib.Path, sys.argv[1:3])
    seconds = int(sys.argv[3]) if len(sys.argv) > 3 else 600
    print("Of each pair the first is tarn's, the second that of one run; in the last column all packets, and seams.\n\n"
          "| sound | kbit/s | segmental SNR, dB | log-spectral distance, dB | median packet, dB | at seams, dB | "
          "packets 3 dB below the median |\n|---|---|---|---|---|---|---|")
    good = [compare(tarn.resolve(), directory, make.__name__, make(seconds, directory))
            for make in (speech, music, tones)]
    return 0 if all(good) else 1


sys.exit(main())
