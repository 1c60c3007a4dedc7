"""Compares what the speaker gets with what was played, and recordings with what went into the
microphone, bit for bit; and takes the sound server away from a program that uses it.

Called inside a Wine session: device_test.py device_tool.exe [unittest arguments]
"""

import array
import os
import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from sound import FRAME_BYTES, RATE, SILENCE, Speaker, kill_server, sound_server, without_silence

TOOL = str(pathlib.Path(sys.argv.pop(1)).resolve())
WINE = os.environ["TESSALY_WINE"]
SECONDS = int(os.environ.get("TESSALY_DEVICE_SECONDS", "10"))


def start(environment, *words):
    return subprocess.Popen([WINE, TOOL, *(str(word) for word in words)], env=environment,
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE)


def finish(tool, timeout, words=None):
    """What the tool still says; a tool that does not end is ended."""
    try:
        return tool.communicate(words, timeout=timeout)[0]
    except subprocess.TimeoutExpired:
        tool.kill()
        tool.communicate()
        raise


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def known_signal(frames, full_scale):
    """The signal that the tool plays; no frame of it is silent, and it repeats after 60001 samples."""
    period = array.array("f", ((n * 7919 % 60001 - 30000) / full_scale for n in range(60001)))
    size = frames * FRAME_BYTES
    return (period.tobytes() * (size // (4 * len(period)) + 1))[:size]


def equal_frames(one, other):
    """How many frames are the same from the start."""
    for at in range(0, min(len(one), len(other)), FRAME_BYTES):
        if one[at:at + FRAME_BYTES] != other[at:at + FRAME_BYTES]:
            return at // FRAME_BYTES
    return min(len(one), len(other)) // FRAME_BYTES


class PlayTest(unittest.TestCase):
    def play(self, bits, block, frames, *words, pause=None):
        with sound_server(pipes=True) as environment:
            speaker = Speaker(environment, pause)
            tool = start(environment, "play", bits, block, frames, *words)
            finish(tool, frames / RATE * 5 + 60)
            self.assertEqual(tool.returncode, 0)
        return without_silence(speaker.close())

    def check(self, bits, block, frames, full_scale):
        got = self.play(bits, block, frames)
        same = equal_frames(got, known_signal(frames, full_scale))
        self.assertEqual((len(got) // FRAME_BYTES, same), (frames, frames),
                         f"{bits} bits: frames got, and how many from the start are right")

    def test_a_wave_writer_records_what_reaches_the_speaker(self):
        frames = RATE
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "played.wav"
            got = self.play(32, 3001, frames, windows_path(path))
            recorded = path.read_bytes()
        # The tool plays one and a half seconds of silence before and after.
        silence = SILENCE * (RATE * 3 // 2)
        played = silence + known_signal(frames, 32767) + silence
        self.assertEqual(recorded[:44], b"RIFF" + struct.pack("<I", 36 + len(played)) + b"WAVEfmt " +
                         struct.pack("<IHHIIHH", 16, 3, 2, RATE, RATE * 8, 8, 32) + b"data" +
                         struct.pack("<I", len(played)))
        self.assertTrue(recorded[44:] == played, "samples in the file")
        self.assertTrue(got == known_signal(frames, 32767), "samples at the speaker")

    def test_floats_reach_the_speaker_bit_for_bit(self):
        # Blocks of an odd length, the last one shorter.
        self.check(32, 3001, 2 * RATE, full_scale=32767)

    def test_a_device_that_stands_still_for_a_while_is_not_taken_for_lost(self):
        # Every block is taken and the end is waited for. What the system itself drops in such a case
        # is not looked at.
        heard = self.play(16, 1764, 2 * RATE, pause=(RATE // 4, 2.5))
        self.assertGreater(len(heard) // FRAME_BYTES, RATE // 4)

    def test_sixteen_bits_reach_the_speaker_without_a_gap(self):
        # The module writes the codes; the speaker reads them as parts of 32768.
        self.check(16, 1764, SECONDS * RATE, full_scale=32768)


class RecordTest(unittest.TestCase):
    """Recorded into a pool and read back. The microphone gets no more than 80 ms ahead of what has been
    read, for the system's own recording buffer holds 100 ms and drops what is too much."""

    def record(self, bits, read_frames, fed):
        frames = len(fed) // FRAME_BYTES
        ahead = RATE * 80 // 1000
        with tempfile.TemporaryDirectory() as folder, sound_server(pipes=True) as environment:
            path = pathlib.Path(folder) / "recorded"
            tool = start(environment, "record", bits, read_frames, frames,
                         windows_path(path))
            # What the last buffers of the device are filled up with.
            fed += SILENCE * 2 * ahead
            sent = 0
            with open(environment["TESSALY_MICROPHONE"], "wb", buffering=0) as microphone:
                for line in tool.stdout:
                    due = (int(line) + ahead) * FRAME_BYTES
                    while sent < due and sent < len(fed):
                        sent += microphone.write(fed[sent:min(due, sent + 4096)])
            finish(tool, 60)
            self.assertEqual(tool.returncode, 0)
            return path.read_bytes()

    def check(self, bits, scale):
        frames = SECONDS // 2 * RATE
        got = self.record(bits, 1001, known_signal(frames, 32768))
        same = equal_frames(got, known_signal(frames, scale))
        self.assertEqual((len(got) // FRAME_BYTES, same), (frames, frames),
                         f"{bits} bits: frames got, and how many from the start are right")

    def test_sixteen_bits_are_recorded_as_they_are_across_device_buffers(self):
        self.check(16, 32767)

    def test_floats_are_recorded_as_they_are_across_device_buffers(self):
        self.check(32, 32768)


class LostServerTest(unittest.TestCase):
    MOST = 30000  # seconds until a device counts as lost, and what a busy machine takes

    def lose(self, how):
        with sound_server(pipes=False) as environment:
            tool = start(environment, "lose", how)
            self.assertEqual(tool.stdout.readline().split(), [b"ready"])
            kill_server(environment)
            output = finish(tool, 120, b"\n")
            self.assertEqual(tool.returncode, 0, how)
        told = dict(line.split() for line in output.decode().splitlines())
        for name, value in told.items():
            self.assertLess(int(value), self.MOST, (how, name))
        return told

    def test_a_writer_and_who_asks_whether_all_is_played_notice_a_lost_device_themselves(self):
        for how in ("write", "drain"):
            told = self.lose(how)
            # Not before a slow device could have gone on.
            self.assertGreater(int(told["noticed"]), 4000, how)
            self.assertEqual((told["refused"], told["idle"]), ("1", "1"), how)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[1:])
