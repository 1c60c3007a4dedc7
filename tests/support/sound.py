"""Sound servers of the tests' own, and what a speaker that is a pipe is given.

The pipe loses nothing on however busy a machine: a sound server that is read late waits. When the
*player* is late the server fills in silence; signals have no silent frame, so that it can be told apart.
"""

import array
import contextlib
import json
import math
import os
import pathlib
import signal
import subprocess
import sys
import threading
import time

SESSION = str(pathlib.Path(__file__).resolve().parents[2] / "scripts" / "sound-session")
RATE = 44100
FRAME_BYTES = 8  # two floats
SILENCE = bytes(FRAME_BYTES)
PATIENCE = 120  # seconds; for what takes a moment on an idle machine


@contextlib.contextmanager
def sound_server(pipes):
    """The environment of a sound server, whose speaker and microphone are pipes or a null sink."""
    environment = dict(os.environ, TESSALY_SOUND_PIPES="1" if pipes else "")
    program = ("import json, os, sys; print(json.dumps(dict(os.environ)), flush=True); "
               "sys.stdin.read()")
    server = subprocess.Popen([SESSION, sys.executable, "-c", program], env=environment,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        yield json.loads(server.stdout.readline())
    finally:
        server.communicate(timeout=60)


def kill_server(environment):
    os.kill(int(environment["TESSALY_SOUND_SERVER_PID"]), signal.SIGKILL)


def wait_until(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < deadline, f"waited in vain: {what}"
        time.sleep(0.1)


def wait_for_stream(environment, kind):
    """Until a program plays ("sink-inputs") or records ("source-outputs")."""
    wait_until(lambda: subprocess.run(["pactl", "list", "short", kind], env=environment, check=True,
                                      stdin=subprocess.DEVNULL, stdout=subprocess.PIPE).stdout, kind)


def without_silence(samples):
    """The frames that are not silent."""
    sound = bytearray()
    for begin in range(0, len(samples), 4096):
        piece = samples[begin:begin + 4096]
        if SILENCE in piece:
            piece = b"".join(piece[at:at + FRAME_BYTES] for at in range(0, len(piece), FRAME_BYTES)
                             if piece[at:at + FRAME_BYTES] != SILENCE)
        sound += piece
    return bytes(sound)


class Speaker:
    """Reads the speaker's pipe at the pace of real time, or later, while its server lives. Nothing comes
    while nobody plays. A pause is (frame, seconds): so long the server stands still once as many frames
    that are not silent have come."""

    def __init__(self, environment, pause=None):
        self.pipe = os.open(environment["TESSALY_SPEAKER"], os.O_RDONLY | os.O_NONBLOCK)
        os.set_blocking(self.pipe, True)
        self.got = bytearray()
        self.server = int(environment["TESSALY_SOUND_SERVER_PID"])
        self.pause = pause
        self.thread = threading.Thread(target=self.read)
        self.thread.start()

    def read(self):
        begun = time.monotonic()
        heard = total = 0
        while True:
            due = int((time.monotonic() - begun) * RATE) * FRAME_BYTES - total
            if due < 4096:
                time.sleep(0.01)
                continue
            asked = time.monotonic()
            piece = os.read(self.pipe, due)
            if not piece:
                return
            idle = time.monotonic() - asked
            if idle > 1:
                begun += idle  # nobody played
            total += len(piece)
            self.got += piece
            if self.pause:
                heard += len(without_silence(piece)) // FRAME_BYTES
                if heard > self.pause[0]:
                    os.kill(self.server, signal.SIGSTOP)
                    time.sleep(self.pause[1])
                    os.kill(self.server, signal.SIGCONT)
                    self.pause = None

    def close(self):
        """To be called when the sound server is gone. Gives what it got."""
        self.thread.join()
        os.close(self.pipe)
        return bytes(self.got)


class Microphone:
    """A tone of half the full scale goes into the microphone's pipe at the pace of real time, or in
    larger pieces, while its server lives."""

    HERTZ = 440

    def __init__(self, environment):
        second = (0.5 * math.sin(2 * math.pi * self.HERTZ * (n // 2) / RATE) for n in range(2 * RATE))
        self.second = array.array("f", second).tobytes()
        self.pipe = open(environment["TESSALY_MICROPHONE"], "wb", buffering=0)
        self.thread = threading.Thread(target=self.write)
        self.thread.start()

    def write(self):
        begun = time.monotonic()
        sent = 0
        with contextlib.suppress(BrokenPipeError):
            while True:
                due = int((time.monotonic() - begun) * RATE) * FRAME_BYTES
                while sent < due:
                    at = sent % len(self.second)
                    asked = time.monotonic()
                    sent += self.pipe.write(self.second[at:at + min(due - sent, 4096)])
                    idle = time.monotonic() - asked
                    if idle > 0.1:
                        begun += idle  # nobody recorded
                        break
                time.sleep(0.01)

    def close(self):
        """To be called when the sound server is gone."""
        self.thread.join()
        self.pipe.close()
