"""Damages files of every kind that is read and imports them, a hundred in a process, and every tenth with
`marlinda convert` as well. A crash, more than 20 s, more than 256 MiB, a handle or a temporary file that is
left, or another status than 0 or 3 is a finding, and its file is kept. Prints figures for each kind, with the
lengths beside those of ffmpeg and sox.

damaged_files.py BUILD FINDINGS [FILES] [SEED]   inside a Wine session
"""

import collections
import os
import pathlib
import queue
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import threading
import time

BUILD, FINDINGS = map(pathlib.Path, sys.argv[1:3])
FILES, SEED = [int(word) for word in sys.argv[3:]] + [20000, 1][len(sys.argv) - 3:]
WINE = os.environ["TESSALY_WINE"]
ROOT = pathlib.Path(__file__).resolve().parents[2]
BATCH = 100
MOST_SECONDS, MOST_MIB, MOST_HANDLES = 20, 256, 16
# Each graph of Wine's decoders leaves more behind, with any client.
GRAPH_HANDLES = 30
GIVE_UP_SECONDS = 120
# Decoders differ in the delay and the padding of these.
LOSSY = {"mp3", "vbr.mp3", "mp3.wav", "mp2", "wma", "wmv", "ogg", "adpcm.wav", "ima.wav"}

SOX = {"s16.wav": "-b 16", "s24.wav": "-b 24", "f32.wav": "-b 32 -e floating-point", "mulaw.wav": "-e mu-law",
       "ima.wav": "-e ima-adpcm", "six.wav": "-c 6 -b 16", "s16.aiff": "-b 16", "f32.aifc": "-b 32 -e floating-point",
       "s16.au": "-b 16", "alaw.au": "-e a-law", "ogg": ""}
VIDEO = "-f lavfi -i testsrc=duration=0.25:size=64x48 -map 0 -map 1 "
FFMPEG = {"adpcm.wav": "-c:a adpcm_ms", "mp3": "-b:a 128k -metadata title=Tone", "vbr.mp3": "-q:a 4",
          "mp3.wav": "-c:a libmp3lame", "mp2": "", "wma": "", "rf64.wav": "-rf64 always",
          "avi": VIDEO + "-c:v mpeg4 -c:a pcm_s16le", "wmv": VIDEO + "-c:v wmv2 -c:a wmav2"}


def quietly(*words):
    subprocess.run([str(word) for word in words], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)


def make_seeds(folder):
    source = folder / "source.wav"
    quietly("sox", "-R", "-n", "-r", 44100, "-c", 2, "-b", 16, source, "synth", 0.25, "sine", "300:3000", "vol", 0.4)
    for name, options in SOX.items():
        quietly("sox", "-R", "-D", source, *options.split(), folder / ("x." + name))
    for name, options in FFMPEG.items():
        quietly("ffmpeg", "-v", "error", "-i", source, *options.split(), folder / ("x." + name))
    quietly(WINE, BUILD / "marlinda.exe", "cut", f"Z:{source}", f"Z:{folder / 'x.labels.wav'}", "--keep", "0:",
            "--label", "0.1:Here", "--marker", "0.1:0.2:There")
    source.unlink()
    seeds = {path.name[2:]: [path.read_bytes()] for path in folder.iterdir()}
    seeds["ogg"] += [path.read_bytes() for path in (ROOT / "tests/data").glob("*.ogg")]
    return seeds


def ogg_crc_table():
    for value in range(256):
        value <<= 24
        for _ in range(8):
            value = (value << 1 ^ (0x04C11DB7 if value >> 31 else 0)) & 0xFFFFFFFF
        yield value


CRC = list(ogg_crc_table())


def with_valid_pages(data):
    """With the checksum of each page that is whole, so that the damage reaches the decoder."""
    data, at = bytearray(data), data.find(b"OggS")
    while 0 <= at <= len(data) - 27:
        header = 27 + data[at + 26]
        end = at + header + sum(data[at + 27:at + header])
        data[at + 22:at + 26] = bytes(4)
        value = 0
        for byte in data[at:end]:
            value = value << 8 & 0xFFFFFFFF ^ CRC[value >> 24 ^ byte]
        data[at + 22:at + 26] = struct.pack("<I", value)
        at = data.find(b"OggS", max(end, at + 4))
    return bytes(data)


def damage(data, chance):
    data = bytearray(data)
    for _ in range(chance.choice((1, 1, 2, 4, 16))):
        if not data:
            break
        # Mostly in the header, but after most damage there an Ogg file is refused at once.
        reach = chance.choice((len(data), 512, len(data) if data.startswith(b"OggS") else 64))
        at = chance.randrange(min(len(data), reach))
        size = chance.choice((1, 2, 4, 4, 64, 4096))
        match chance.randrange(9):
            case 0 | 1:
                data[at] ^= 1 << chance.randrange(8)
            case 2:
                data[at:at + size] = chance.randbytes(min(size, len(data) - at))
            case 3 | 4:
                extreme = chance.choice((b"\0", b"\1", b"\x7f", b"\x80", b"\xff", b"\xfe"))
                data[at:at + min(size, 8)] = (extreme * 8)[:min(size, 8, len(data) - at)]
            case 5:
                del data[at:at + size]
            case 6:
                data[at:at] = chance.randbytes(size)
            case 7:
                data[at:at] = data[at // 2:at // 2 + size]
            case 8:
                del data[chance.randrange(len(data)):]
    if chance.randrange(16) == 0:
        data += bytes(chance.choice((1, 100000)))
    if data.startswith(b"OggS") and chance.randrange(2):
        return with_valid_pages(data)
    return bytes(data)


def frames_of(words, channels):
    """The frames that another program decodes; None where it refuses the file."""
    with subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as peer:
        timer = threading.Timer(MOST_SECONDS, peer.kill)
        timer.start()
        count = 0
        while block := peer.stdout.read(1 << 20):
            count += len(block)
        timer.cancel()
    return count // (4 * channels) if count and peer.returncode == 0 else None


class Soak:
    def __init__(self):
        self.figures = collections.defaultdict(collections.Counter)
        self.findings = 0

    def find(self, kind, path, what):
        self.figures[kind]["findings"] += 1
        self.findings += 1
        kept = FINDINGS / f"{self.findings:03}-{path.name}"
        shutil.copy(path, kept)
        print(f"{kept.name}: {what}", flush=True)

    def import_all(self, kind, folder):
        """In one process, and what is left in another one after a crash."""
        while any(folder.iterdir()):
            lines = queue.Queue()
            command = [WINE, str(BUILD / "tests/import_files.exe"), f"Z:{folder}", "count"]
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                       stderr=subprocess.DEVNULL)
            threading.Thread(target=lambda out=process.stdout: [*map(lines.put, out), lines.put(b"")],
                             daemon=True).start()
            remaining, handles = sorted(folder.iterdir()), []
            while remaining:
                started = time.monotonic()
                try:
                    line = lines.get(timeout=GIVE_UP_SECONDS)
                except queue.Empty:
                    process.kill()
                    line = b""
                if not line:
                    break
                seconds = time.monotonic() - started
                words = line.decode(errors="replace").split()
                path = folder / words[0] if words else None
                # The libraries below the decoders print as well.
                if path not in remaining:
                    continue
                if seconds > MOST_SECONDS:
                    self.find(kind, path, f"{seconds:.0f} s")
                handles += [int(words[6])] if len(words) == 7 else []
                self.compare(kind, path, words[1:])
                remaining.remove(path)
                path.unlink()
            _, status, usage = os.wait4(process.pid, 0)
            if remaining:
                self.find(kind, remaining[0], f"the process ended with {status:#x}, or hung")
                remaining[0].unlink()
            mib = usage.ru_maxrss >> 10
            self.figures[kind]["MiB"] = max(self.figures[kind]["MiB"], mib)
            more = sum(step for step in map(int.__sub__, handles[1:], handles) if 0 < step < GRAPH_HANDLES)
            if not remaining and (mib > MOST_MIB or more > MOST_HANDLES):
                print(f"{kind}: {mib} MiB, {more} more handles after {BATCH} files")
                self.figures[kind]["findings"] += 1
                self.findings += 1

    def compare(self, kind, path, words):
        figure = self.figures[kind]
        figure["files"] += 1
        if len(words) < 6:
            figure["refused"] += 1
            return
        figure["read"] += 1
        channels, frames = int(words[2]), int(words[4]) // int(words[2])
        peers = {"ffmpeg": ["ffmpeg", "-v", "quiet", "-i", path, "-map", "0:a:0", "-f", "f32le", "-"],
                 "sox": ["sox", "-V0", path, "-t", "f32", "-"]}
        lengths = []
        for name, command in peers.items():
            length = frames_of(command, channels)
            if length is not None:
                lengths.append(length)
                figure[name] += 1
                figure["as " + name] += abs(length - frames) <= (2400 if kind in LOSSY else 0)
        if len(lengths) == 2 and lengths[0] == lengths[1] != frames and kind not in LOSSY:
            figure["other"] += 1
            shutil.copy(path, FINDINGS / ("other-" + path.name))
            print(f"other-{path.name}: {frames} frames, others {lengths[0]}", flush=True)

    def convert(self, kind, path, folder):
        target = folder / "out.wav"
        started = time.monotonic()
        # Wine's own process can crash at its end when a decoder hangs; the status is known inside.
        process = subprocess.Popen([WINE, "cmd", "/c", f"Z:{BUILD / 'marlinda.exe'}".replace("/", "\\"), "convert",
                                    f"Z:{path}", f"Z:{target}"], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            status = process.wait(GIVE_UP_SECONDS)
        except subprocess.TimeoutExpired:
            process.kill()
            status = process.wait()
        seconds = time.monotonic() - started
        self.figures[kind]["converted"] += 1
        if status not in (0, 3) or seconds > MOST_SECONDS or target.exists() != (status == 0):
            self.find(kind, path, f"convert: status {status}, {seconds:.0f} s, output {target.exists()}")
        target.unlink(missing_ok=True)


def temporary_files():
    prefix = pathlib.Path(os.environ["WINEPREFIX"]) / "drive_c"
    return {*prefix.glob("users/*/AppData/Local/Temp/*"), *prefix.glob("users/*/Temp/*"),
            *prefix.glob("windows/temp/*")}


def main():
    shutil.rmtree(FINDINGS, ignore_errors=True)
    FINDINGS.mkdir(parents=True)
    chance, soak, before = random.Random(SEED), Soak(), temporary_files()
    with tempfile.TemporaryDirectory() as name:
        work = pathlib.Path(name)
        for part in ("seeds", "batch", "out"):
            (work / part).mkdir()
        seeds = make_seeds(work / "seeds")
        for kind in sorted(seeds):
            for first in range(0, FILES // len(seeds), BATCH):
                for number in range(first, min(first + BATCH, FILES // len(seeds))):
                    path = work / "batch" / f"{kind.replace('.', '-')}-{number:05}.{kind.split('.')[-1]}"
                    path.write_bytes(damage(chance.choice(seeds[kind]), chance))
                    if number % 10 == 0:
                        soak.convert(kind, path, work / "out")
                soak.import_all(kind, work / "batch")
            print(kind, dict(soak.figures[kind]), flush=True)
    left = temporary_files() - before
    print(f"seed {SEED}: {sum(each['files'] for each in soak.figures.values())} files, {soak.findings} findings, "
          f"temporary files left: {len(left)}")
    return 1 if soak.findings or left else 0


sys.exit(main())
