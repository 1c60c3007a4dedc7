"""Memory must not grow with the length of the sound. Imports, cuts and exports 10 minutes and 10 hours with the
host and compares the peak memory of the runs. Takes about a minute.

long_files.py MARLINDA   inside a Wine session
"""

import os
import pathlib
import subprocess
import sys
import tempfile

RATE = 8000  # 10 hours are 288 million frames
AT_MOST_MORE = 4 * 1024  # KiB
WINE = os.environ["TESSALY_WINE"]
used = {}
for minutes in (10, 600):
    with tempfile.TemporaryDirectory() as folder:
        source, target = pathlib.Path(folder, "in.ogg"), pathlib.Path(folder, "out.wav")
        tone = f"sine=frequency=440:sample_rate={RATE}:duration={60 * minutes}"
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", tone, "-c:a", "libvorbis", source], check=True)
        words = [WINE, sys.argv[1], "cut", f"Z:{source}", f"Z:{target}", "--keep", "0:"]
        _, status, usage = os.wait4(os.spawnvp(os.P_NOWAIT, WINE, words), 0)
        assert status == 0 and target.stat().st_size >= 2 * 60 * minutes * RATE, (minutes, status)
        used[minutes] = usage.ru_maxrss
        print(f"{minutes} minutes: {used[minutes]} KiB", flush=True)
sys.exit(0 if used[600] - used[10] <= AT_MOST_MORE else "10 hours took too much more")
