"""Starts private sound servers and reads their speaker through a pipe.

The pipe loses nothing, because the sound server waits for a late reader. If the player is late, the server inserts
silence. The test signals contain no silent frame, so the tests can remove inserted silence.
"""

import array
import contextlib
import json
import math
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import threading
import time

SESSION = str(pathlib.Path(__file__).resolve().parents[2] / "scripts" / "sound-session")
RATE = 44100
FRAME_BYTES = 8  # two floats


@contextlib.contextmanager
def sound_server(pipes, channels=2):
    """Yields the environment of a sound server. Speaker and microphone are pipes, or a null sink and its monitor."""
    environment = dict(os.environ, TESSALY_SOUND_PIPES="1" if pipes else "", TESSALY_SOUND_CHANNELS=str(channels))
    program = "import json, os, sys; print(json.dumps(dict(os.environ)), flush=True); sys.stdin.read()"
    server = subprocess.Popen([SESSION, sys.executable, "-c", program], env=environment, stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE)
    try:
        yield json.loads(server.stdout.readline())
    finally:
        server.communicate()


def kill_server(environment):
    os.kill(int(environment["TESSALY_SOUND_SERVER_PID"]), signal.SIGKILL)


def wait_until(condition, what):
    """Waits without a limit. CTest ends a test that hangs. The last line of the output then names the missing event."""
    print("waiting for", what, file=sys.stderr, flush=True)
    while not condition():
        time.sleep(0.1)


def codes(samples):
    """The signal that sound_tool plays, in units of 1/32767 of full scale."""
    period = [k if k < 0 else k + 1 for k in (n * 7919 % 60000 - 30000 for n in range(60000))]
    return (period * (samples // 60000 + 1))[:samples]


def frames_of(samples, frame_bytes=FRAME_BYTES):
    return [samples[at:at + frame_bytes] for at in range(0, len(samples), frame_bytes)]


def without_silence(samples, frame_bytes=FRAME_BYTES):
    silence = bytes(frame_bytes)
    pieces = (samples[at:at + 512 * frame_bytes] for at in range(0, len(samples), 512 * frame_bytes))
    return b"".join(piece if silence not in piece else b"".join(
        frame for frame in frames_of(piece, frame_bytes) if frame != silence) for piece in pieces)


class Speaker:
    """Reads the speaker's pipe at the sample rate or more slowly while the server runs. Nothing arrives while no
    program plays. A `pause` of (frames, seconds) stops the server for `seconds` after `frames` non-silent frames."""

    def __init__(self, environment, pause=None):
        self.frame_bytes = 4 * int(environment["TESSALY_SOUND_CHANNELS"])
        self.pipe = os.open(environment["TESSALY_SPEAKER"], os.O_RDONLY | os.O_NONBLOCK)
        os.set_blocking(self.pipe, True)
        self.got = bytearray()
        self.server = int(environment["TESSALY_SOUND_SERVER_PID"])
        self.pause = pause
        self.thread = threading.Thread(target=self.read)
        self.thread.start()

    def read(self):
        begun = time.monotonic()
        heard = 0
        while True:
            due = int((time.monotonic() - begun) * RATE) * self.frame_bytes - len(self.got)
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
            self.got += piece
            heard += len(without_silence(piece, self.frame_bytes)) // self.frame_bytes if self.pause else 0
            if self.pause and heard > self.pause[0]:
                os.kill(self.server, signal.SIGSTOP)
                time.sleep(self.pause[1])
                os.kill(self.server, signal.SIGCONT)
                self.pause = None

    def close(self):
        """Call this after the sound server has ended. Returns all received sound."""
        self.thread.join()
        os.close(self.pipe)
        return bytes(self.got)


class Microphone:
    """Writes a tone at half of full scale into the microphone's pipe, on average in real time, until the server
    ends."""

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
        """Call this after the sound server has ended."""
        self.thread.join()
        self.pipe.close()


class SoundTool:
    """Runs sound_tool.exe, whose path is `program`, with `words` as arguments."""

    def __init__(self, program, environment, *words):
        self.words = [str(word) for word in words]
        self.name = " ".join(self.words)
        self.process = subprocess.Popen([os.environ["TESSALY_WINE"], program, *self.words], env=environment,
                                        text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def order(self, word=""):
        self.process.stdin.write(word + "\n")
        self.process.stdin.flush()

    def answer(self):
        line = self.process.stdout.readline()
        assert line, f"{self.name} has died"
        return {name: int(value) for name, value in (word.split("=") for word in line.split())}

    def ask(self, word):
        self.order(word)
        return self.answer()

    def finish(self):
        """Closes the input and waits for the program, which fails if objects or threads are left."""
        self.process.communicate()
        assert self.process.returncode == 0, f"{self.name} ended with {self.process.returncode}"


class ChangingServer:
    """A sound server that can be killed and restarted at the same socket, with removable devices: a speaker whose
    sound can be read and a microphone that gets a tone."""

    # The monitor of a null sink is the microphone.
    NULL_SINK = ("module-null-sink", "norewinds=1", "format=float32le", f"rate={RATE}", "channels=2")
    DEVICES = ((*NULL_SINK, "sink_name=speaker"), (*NULL_SINK, "sink_name=room"),
               ("module-sine", "sink=room", "frequency=440"))

    def __enter__(self):
        # The path of a socket has at most 107 characters, which TMPDIR may exceed.
        self.folder = subprocess.check_output(["env", "-u", "TMPDIR", "mktemp", "-d"], text=True).strip()
        self.socket = self.folder + "/native"
        # Keeps the tested programs from using a real sound card instead of these devices.
        self.environment = dict(os.environ, PULSE_SERVER="unix:" + self.socket, ALSA_CONFIG_PATH="/dev/null",
                                **dict.fromkeys(("HOME", "XDG_RUNTIME_DIR", "PULSE_RUNTIME_PATH",
                                                 "PULSE_STATE_PATH"), self.folder))
        self.start()
        return self

    def __exit__(self, *_):
        self.kill()
        shutil.rmtree(self.folder)

    def control(self, *words, check=True):
        return subprocess.run(["pactl", *words], env=self.environment, check=check, text=True,
                              stdin=subprocess.DEVNULL, capture_output=True)

    def start(self):
        socket = f"module-native-protocol-unix socket={self.socket}"
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1",
             "--use-pid-file=no", "--disable-shm=yes", "-L", socket],
            env=self.environment, stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(lambda: self.control("info", check=False).returncode == 0, "the sound server")
        self.load()

    def kill(self):
        self.process.kill()
        self.process.wait()

    def load(self):
        self.modules = [self.control("load-module", *device).stdout.strip() for device in self.DEVICES]
        self.control("set-default-sink", "speaker")
        self.control("set-default-source", "room.monitor")

    def unload(self):
        for module in reversed(self.modules):
            self.control("unload-module", module)

    def listen(self, frames):
        """Returns the next `frames` frames of sound at the speaker, as interleaved floats of two channels."""
        words = ["parec", "--raw", "--device=speaker.monitor", "--format=float32le", f"--rate={RATE}", "--channels=2",
                 "--latency-msec=50"]
        with subprocess.Popen(words, env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE) as recorder:
            samples = array.array("f", recorder.stdout.read(frames * FRAME_BYTES))
            recorder.kill()
        return samples
