"""Compares the sound at the speaker with the played samples, and recordings with the microphone's samples,
including while the sound server is stopped for some seconds.

Called inside a Wine session: device_test.py sound_tool.exe [unittest arguments]
"""

import array
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from sound import RATE, SoundTool, Speaker, codes, frames_of, sound_server, wait_until, without_silence

TOOL = str(pathlib.Path(sys.argv.pop(1)).resolve())
SECONDS = int(os.environ.get("TESSALY_DEVICE_SECONDS", "4"))
STALL = 8  # seconds that the server is stopped


def equal_frames(one, other, frame_bytes):
    """Returns the number of equal frames at the start of both signals."""
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
        scale = 32768 if bits == 16 else 32767
        played = array.array("f", (code / scale for code in codes(frames * channels))).tobytes()
        expected = without_silence(played, frame_bytes)
        same = frame_bytes * equal_frames(got, expected, frame_bytes)
        self.assertEqual((len(got), same), (len(expected), len(expected)), "bytes got, and equal ones")

    def test_samples_of_every_channel_count_reach_the_speaker_unchanged(self):
        # Plays six channels as floats only, because the system converts six channels of integers to stereo.
        for bits, channels in ((16, 1), (32, 2), (32, 6)):
            with self.subTest(bits=bits, channels=channels):
                self.check(bits, channels, RATE // 2)

    def test_a_playback_goes_on_without_loss_after_a_stall(self):
        self.check(16, 2, SECONDS * RATE, pause=(RATE // 4, STALL))


class RecordTest(unittest.TestCase):
    def check(self, bits, channels, frames):
        """Keeps the microphone at most 80 ms ahead of the reads. The system's recording buffer holds 100 ms, and the
        system drops all further samples."""
        ahead = RATE * 80 // 1000
        frame_bytes = 4 * channels
        # Silence follows the source, because the device delivers only full buffers.
        source = [code / 32768 for code in codes(frames * channels)]
        fed = array.array("f", source).tobytes() + bytes(2 * ahead * frame_bytes)
        with tempfile.TemporaryDirectory() as folder, \
                sound_server(pipes=True, channels=channels) as environment:
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
        expected = array.array("f", [sample * scale for sample in source]).tobytes()
        same = equal_frames(got, expected, 4 * channels)
        self.assertEqual((len(got), same), (len(expected), frames), "bytes got, and equal frames")

    def test_samples_of_every_width_and_channel_count_are_recorded_unchanged(self):
        for bits, channels in ((16, 1), (24, 2), (32, 1)):
            with self.subTest(bits=bits, channels=channels):
                self.check(bits, channels, RATE // 2)

    def test_a_long_recording_has_no_gap(self):
        self.check(16, 2, SECONDS // 2 * RATE)


class StallTest(unittest.TestCase):
    def test_calls_of_a_user_interface_return_while_the_server_is_stopped(self):
        with sound_server(pipes=False) as environment:
            server = int(environment["TESSALY_SOUND_SERVER_PID"])
            uses = [SoundTool(TOOL, environment, "use", use, "break", 440) for use in ("playback", "drain", "document")]
            # Starts the document first and waits for its stream, because the document opens its device only after Play
            # has returned. With a stopped server, opening would take a minute.
            for tool in reversed(uses):
                self.assertEqual(tool.ask("start"), {"started": 1})
                wait_until(lambda: subprocess.check_output(["pactl", "list", "short", "sink-inputs"], env=environment),
                           "a stream")
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
