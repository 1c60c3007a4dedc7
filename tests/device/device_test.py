"""Compares the sound at the speaker with the played samples, and recordings with the microphone's samples,
including while the sound server is stopped for some seconds.

Called inside a Wine session: device_test.py sound_tool.exe [unittest arguments]
"""

import array
import math
import os
import pathlib
import signal
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from sound import RATE, SoundTool, Speaker, codes, frames_of, sound_server, wait_until, without_silence

TOOL = str(pathlib.Path(sys.argv.pop(1)).resolve())
SECONDS = int(os.environ.get("TESSALY_DEVICE_SECONDS", "10"))
STALL = 8  # seconds that the server is stopped


def as_float(value):
    return array.array("f", [value])[0]


# What the speaker gets for a code, by width. The system converts 24 bits to 16.
PLAYED = {8: lambda code: (math.floor(as_float(code / 32767) * 127 + 128.5) - 128) / 128,
          16: lambda code: code / 32768,
          24: lambda code: (int(as_float(code / 32767) * 2**31) >> 16) / 32768,
          32: lambda code: code / 32767}


def equal_frames(one, other, frame_bytes):
    """The number of equal frames from the start."""
    pairs = zip(frames_of(one, frame_bytes), frames_of(other, frame_bytes))
    return next((at for at, (a, b) in enumerate(pairs) if a != b), min(len(one), len(other)) // frame_bytes)


class PlayTest(unittest.TestCase):
    def check(self, bits, channels, frames, pause=None):
        frame_bytes = 4 * channels
        with sound_server(pipes=True, channels=channels) as environment:
            speaker = Speaker(environment, pause)
            with SoundTool(TOOL, environment, "play", bits, channels, 1764, frames) as tool:
                tool.finish()
        got = without_silence(speaker.close(), frame_bytes)
        played = array.array("f", map(PLAYED[bits], codes(frames * channels))).tobytes()
        expected = without_silence(played, frame_bytes)
        if bits == 8:
            # The system plays some additional samples.
            heard = iter(frames_of(got, frame_bytes))
            missing = sum(frame not in heard for frame in frames_of(expected, frame_bytes))
            self.assertEqual(missing, 0, "frames missing or out of order")
            return
        if bits == 24:
            # The system's conversion holds back the last frame.
            expected = expected[:max(len(got), frame_bytes * (frames - 1))]
        same = frame_bytes * equal_frames(got, expected, frame_bytes)
        self.assertEqual((len(got), same), (len(expected), len(expected)), "bytes got, and equal ones")

    def test_every_width_and_channel_count_reaches_the_speaker_unchanged(self):
        # The system converts six channels of integers to stereo.
        for bits, channels in ((8, 1), (8, 2), (16, 1), (24, 1), (24, 2), (32, 1), (32, 2), (32, 6)):
            with self.subTest(bits=bits, channels=channels):
                self.check(bits, channels, RATE // 2)

    def test_a_long_playback_has_no_gap(self):
        self.check(16, 2, SECONDS * RATE)

    def test_a_playback_goes_on_without_loss_after_a_stall(self):
        self.check(16, 2, 4 * RATE, pause=(RATE // 4, STALL))


class RecordTest(unittest.TestCase):
    def check(self, bits, channels, frames):
        """The microphone stays at most 80 ms ahead of the reads, because the system's recording buffer holds 100 ms
        and drops the rest."""
        ahead = RATE * 80 // 1000
        fed_channels = min(channels, 2)
        frame_bytes = 4 * fed_channels
        # The silence at the end fills the last buffers of the device.
        source = [code / 32768 for code in codes(frames * fed_channels)]
        fed = array.array("f", source).tobytes() + bytes(2 * ahead * frame_bytes)
        with tempfile.TemporaryDirectory() as folder, \
                sound_server(pipes=True, channels=fed_channels) as environment:
            path = pathlib.Path(folder) / "recorded"
            with SoundTool(TOOL, environment, "record", bits, channels, 1001, frames, "Z:" + str(path)) as tool:
                sent = 0
                with open(environment["TESSALY_MICROPHONE"], "wb", buffering=0) as microphone:
                    for line in tool.process.stdout:
                        due = min((int(line) + ahead) * frame_bytes, len(fed))
                        while sent < due:
                            sent += microphone.write(fed[sent:min(due, sent + 4096)])
                tool.finish()
            got = path.read_bytes()
        scale = 32768 / 32767 if bits == 16 else 1
        if channels == 6:
            # The server spreads stereo to six channels.
            pairs = zip(source[0::2], source[1::2])
            source = [sample for left, right in pairs for sample in (left, right, (left + right) / 2, 0, left, right)]
        expected = array.array("f", [sample * scale for sample in source]).tobytes()
        same = equal_frames(got, expected, 4 * channels)
        self.assertEqual((len(got), same), (len(expected), frames), "bytes got, and equal frames")

    def test_every_width_and_channel_count_is_recorded_unchanged(self):
        # The system delivers nothing for six channels of 16 bits.
        for bits, channels in ((16, 1), (24, 1), (24, 2), (24, 6), (32, 1), (32, 2), (32, 6)):
            with self.subTest(bits=bits, channels=channels):
                self.check(bits, channels, RATE // 2)

    def test_a_long_recording_has_no_gap(self):
        self.check(16, 2, SECONDS // 2 * RATE)


class StallTest(unittest.TestCase):
    def test_scrubbing_goes_on_without_loss_after_a_stall(self):
        with sound_server(pipes=True) as environment:
            speaker = Speaker(environment, pause=(RATE // 2, STALL))
            with SoundTool(TOOL, environment, "scrub") as tool:
                wait_until(lambda: speaker.pause is None, "the stall")
                heard = lambda: len(without_silence(bytes(speaker.got)))
                after_stall = heard()
                # More than was queued before the stall.
                wait_until(lambda: heard() > after_stall + 3 * RATE * 8, "sound after the stall")
                tool.order()
                tool.finish()
        # The sound repeats after the first passes have faded in.
        period = RATE // 20
        got = without_silence(speaker.close())[3 * period * 8:]
        self.assertEqual(equal_frames(got, got[period * 8:], 8), len(got) // 8 - period)

    def test_calls_of_a_user_interface_return_while_the_server_is_stopped(self):
        with sound_server(pipes=False) as environment:
            server = int(environment["TESSALY_SOUND_SERVER_PID"])
            uses = [SoundTool(TOOL, environment, "use", use, "break", 440) for use in ("playback", "drain", "document")]
            for tool in uses:
                self.assertEqual(tool.ask("start"), {"started": 1})
            os.kill(server, signal.SIGSTOP)
            try:
                time.sleep(STALL)
                for word in ("ask", "end", "ask"):
                    answers = [tool.ask(word) for tool in uses[:1 if word == "end" else 3]]
                    self.assertEqual(answers[0], {"refused": 1} if word == "end" else {})
            finally:
                os.kill(server, signal.SIGCONT)
            for tool in uses:
                with tool:
                    tool.finish()


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[1:])
