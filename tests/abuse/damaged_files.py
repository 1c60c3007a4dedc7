"""Damages files of every supported kind and imports them, a hundred in a process. Findings are crashes, imports that
take more than 20 s, and processes that use more than 256 MiB or leak handles. The folder FINDINGS receives their files.

damaged_files.py BUILD FINDINGS [FILES] [SEED]   inside a Wine session
"""

import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import threading
import time

BUILD, FINDINGS = map(pathlib.Path, sys.argv[1:3])
FILES, SEED = [int(word) for word in sys.argv[3:]] + [20000, 1][len(sys.argv) - 3:]
WINE = os.environ["TESSALY_WINE"]
DATA = pathlib.Path(__file__).resolve().parents[1] / "data"
BATCH = 100
MOST_SECONDS, MOST_MIB, MOST_HANDLES = 20, 256, 16
# Each filter graph of Wine's decoders leaks at least this many handles, in any program. The test therefore counts only
# smaller increases.
GRAPH_HANDLES = 30
GIVE_UP_SECONDS = 1200  # time limit of a batch

SOX = {"s16.wav": "-b 16", "s24.wav": "-b 24", "f32.wav": "-b 32 -e floating-point", "mulaw.wav": "-e mu-law",
       "ima.wav": "-e ima-adpcm", "six.wav": "-c 6 -b 16", "s16.aiff": "-b 16", "f32.aifc": "-b 32 -e floating-point",
       "s16.au": "-b 16", "alaw.au": "-e a-law", "ogg": ""}
VIDEO = "-f lavfi -i testsrc=duration=0.25:size=64x48 -map 0 -map 1 "
FFMPEG = {"adpcm.wav": "-c:a adpcm_ms", "mp3": "-b:a 128k -metadata title=Tone", "vbr.mp3": "-q:a 4",
          "mp3.wav": "-c:a libmp3lame", "mp2": "", "wma": "", "rf64.wav": "-rf64 always",
          "avi": VIDEO + "-c:v mpeg4 -c:a pcm_s16le", "wmv": VIDEO + "-c:v wmv2 -c:a wmav2"}
QUIET = {"stdin": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}


def make_seeds(folder):
    source, labels = folder / "source.wav", folder / "x.labels.wav"
    for words in (["sox", "-R", "-n", "-r", "44100", "-c", "2", source, *"synth 0.25 sine 300:3000 vol 0.4".split()],
                  *(["sox", "-R", "-D", source, *SOX[name].split(), folder / f"x.{name}"] for name in SOX),
                  *(["ffmpeg", "-i", source, *FFMPEG[name].split(), folder / f"x.{name}"] for name in FFMPEG),
                  [WINE, BUILD / "marlinda.exe", "cut", f"Z:{source}", f"Z:{labels}", "--keep", "0:", "--label",
                   "0.1:Here", "--marker", "0.1:0.2:There"]):
        subprocess.run(words, check=True, stdout=subprocess.DEVNULL, **QUIET)
    seeds = {path.name[2:]: [path.read_bytes()] for path in folder.glob("x.*")}
    seeds["ogg"] += [path.read_bytes() for path in DATA.glob("*.ogg")]
    return seeds


def damage(data, chance):
    data = bytearray(data)
    for _ in range(chance.choice((1, 1, 2, 4, 16))):
        # Favours the header, except in Ogg files, where damage to the header mostly makes the import fail at once.
        reach = chance.choice((len(data), 512, len(data) if data.startswith(b"OggS") else 64))
        at = chance.randrange(max(1, min(len(data), reach)))
        size = chance.choice((1, 2, 4, 4, 64, 4096))
        extreme = chance.choice((b"\0", b"\1", b"\x7f", b"\x80", b"\xff", b"\xfe")) * min(size, 8)
        end, piece = chance.choice((
            (at + 1, chance.randbytes(1)), (at + size, chance.randbytes(size)), (at + len(extreme), extreme),
            (at + size, b""), (at, chance.randbytes(size)), (at, data[at // 2:at // 2 + size]), (len(data), b"")))
        data[at:end] = piece
    return bytes(data) + bytes(chance.choice((0,) * 30 + (1, 100000)))


def import_all(folder, find):
    """Imports the files in one process. After a crash, imports the remaining files in another process."""
    while remaining := sorted(folder.iterdir()):
        process = subprocess.Popen([WINE, BUILD / "tests/import_files.exe", f"Z:{folder}", "count"],
                                   stdout=subprocess.PIPE, **QUIET)
        watch = threading.Timer(GIVE_UP_SECONDS, process.kill)
        watch.start()
        handles, started = [], time.monotonic()
        for line in process.stdout:
            words = line.decode(errors="replace").split()
            path = folder / words[0] if words else None
            # Ignores other lines, which come from the libraries of Wine's decoders.
            if path not in remaining:
                continue
            seconds, started = time.monotonic() - started, time.monotonic()
            if seconds > MOST_SECONDS:
                find(path, f"{seconds:.0f} s")
            handles += [int(words[6])] if len(words) == 7 else []
            remaining.remove(path)
            path.unlink()
        _, status, usage = os.wait4(process.pid, 0)
        watch.cancel()
        more = sum(step for step in map(int.__sub__, handles[1:], handles) if 0 < step < GRAPH_HANDLES)
        if remaining:
            find(remaining[0], f"the process ended with {status:#x}, or hung")
            remaining[0].unlink()
        elif usage.ru_maxrss >> 10 > MOST_MIB or more > MOST_HANDLES:
            find(folder, f"{usage.ru_maxrss >> 10} MiB, {more} more handles after {BATCH} files")


findings = []


def find(path, what):
    findings.append(what)
    kept = FINDINGS / f"{len(findings):03}-{path.name}"
    if path.is_file():
        shutil.copy(path, kept)
    print(f"{kept.name}: {what}", flush=True)


shutil.rmtree(FINDINGS, ignore_errors=True)
FINDINGS.mkdir(parents=True)
chance = random.Random(SEED)
with tempfile.TemporaryDirectory() as seeds_folder, tempfile.TemporaryDirectory() as batch:
    seeds = make_seeds(pathlib.Path(seeds_folder))
    for kind in sorted(seeds):
        for number in range(FILES // len(seeds)):
            damaged = pathlib.Path(batch) / f"{kind.replace('.', '-')}-{number:05}.{kind.split('.')[-1]}"
            damaged.write_bytes(damage(chance.choice(seeds[kind]), chance))
            if (number + 1) % BATCH == 0:
                import_all(damaged.parent, find)
        import_all(pathlib.Path(batch), find)
        print(f"{kind}: {len(findings)} findings so far", flush=True)
print(f"seed {SEED}: {len(findings)} findings")
sys.exit(bool(findings))
