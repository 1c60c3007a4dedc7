"""Memory must not grow with the length of the sound: imports, cuts and exports 10 minutes and 10 hours with
the host and compares the most that each run had in memory. Takes about a minute.

long_files.py MARLINDA   inside a Wine session
"""

import os
import pathlib
import subprocess
import sys
import tempfile

RATE = 8000  # memory counts frames, and 10 hours of these are 288 million
AT_MOST_MORE = 4 * 1024  # KiB


def memory_of(minutes, folder):
    source, target = folder / "in.ogg", folder / "out.wav"
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    f"sine=frequency=440:sample_rate={RATE}:duration={60 * minutes}",
                    "-c:a", "libvorbis", "-q:a", "2", str(source)], check=True)
    pid = os.spawnvp(os.P_NOWAIT, os.environ["TESSALY_WINE"],
                     [os.environ["TESSALY_WINE"], sys.argv[1], "cut", f"Z:{source}", f"Z:{target}", "--keep", "0:"])
    _, status, usage = os.wait4(pid, 0)
    frames = (target.stat().st_size - 44) // 2 if status == 0 else 0
    # The header may hold more than the smallest one does.
    assert status == 0 and frames >= 60 * minutes * RATE, (minutes, status, frames)
    print(f"{minutes} minutes: {usage.ru_maxrss} KiB", flush=True)
    return usage.ru_maxrss


with tempfile.TemporaryDirectory() as name:
    short, long = (memory_of(minutes, pathlib.Path(name)) for minutes in (10, 600))
sys.exit(0 if long - short <= AT_MOST_MORE else "10 hours took too much more")
