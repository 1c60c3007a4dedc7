"""What a document plays is what the speaker gets, sample by sample, and a device that is lost in the
middle holds nobody up.

    sound-session python3 play_capture_test.py WINE_RUN EDIT_PLAYER

Runs in a sound session whose sink keeps 32-bit floats. A starved sound server inserts silence, which is
passed over: the signal has no sample that is 0. Lost, doubled or changed samples are failures.
"""

import array
import os
import signal
import subprocess
import sys
import threading
import time
import unittest

WINE_RUN, PLAYER = sys.argv[1:3]


def sample(n):
    k = n * 7919 % 60000 - 30000
    return array.array("f", [(k if k < 0 else k + 1) / 32767])[0]


def frame(position, mask=3):
    return tuple(sample(2 * position + c) if mask >> c & 1 else 0.0 for c in (0, 1))


class Capture:
    """Records the sink's monitor while the player runs."""

    def __enter__(self):
        self.recorder = subprocess.Popen(
            ["parec", "--device=speaker.monitor", "--format=float32le", "--rate=44100", "--channels=2",
             "--raw", "--latency-msec=50"], stdout=subprocess.PIPE)
        self.data = bytearray(self.recorder.stdout.read(8))
        self.reader = threading.Thread(target=self.read)
        self.reader.start()
        return self

    def read(self):
        while chunk := self.recorder.stdout.read(65536):
            self.data += chunk

    def __exit__(self, *_):
        time.sleep(1)
        self.recorder.terminate()
        self.reader.join()
        self.recorder.stdout.close()
        self.recorder.wait()

    def sounding(self):
        """The frames that are not silent."""
        floats = array.array("f")
        floats.frombytes(bytes(self.data[:len(self.data) // 8 * 8]))
        frames = zip(floats[0::2], floats[1::2])
        return [f for f in frames if f != (0.0, 0.0)]


def played(how):
    with Capture() as capture:
        subprocess.run([WINE_RUN, PLAYER, how], check=True, timeout=120)
    return capture.sounding()


class PlayedDocument(unittest.TestCase):
    def expect_loop(self, frames, begin, end):
        """Compares the frames with a loop that starts anywhere in it; how many belong to it."""
        loop = [frame(position) for position in range(begin, end)]
        self.assertIn(frames[0], loop)
        phase = loop.index(frames[0])
        for i, got in enumerate(frames):
            if got != loop[(phase + i) % len(loop)]:
                return i
        return len(frames)

    def test_a_mask_lets_only_its_channels_through(self):
        frames = played("mask")
        self.assertEqual(len(frames), 66000)
        for position, got in enumerate(frames):
            self.assertEqual(got, frame(position, mask=1), f"frame {position}")

    def test_a_section_shorter_than_a_block_loops_without_a_gap(self):
        frames = played("loop")
        self.assertGreater(len(frames), 10000)
        self.assertEqual(self.expect_loop(frames, 100, 110), len(frames))

    def test_another_section_follows_at_once_and_nothing_of_the_old_one_comes_again(self):
        frames = played("modify")
        first = self.expect_loop(frames, 2000, 7000)
        self.assertGreater(first, 10000)
        second = frames[first:]
        self.assertGreater(len(second), 10000)
        self.assertEqual(self.expect_loop(second, 50, 777), len(second))

    # The last one: the sound server does not come back.
    def test_z_stopping_does_not_wait_for_a_device_that_is_lost(self):
        with subprocess.Popen([WINE_RUN, PLAYER, "lost"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              text=True) as player:
            self.assertEqual(player.stdout.readline().strip(), "playing")
            os.kill(int(os.environ["TESSALY_SOUND_SERVER_PID"]), signal.SIGKILL)
            time.sleep(2)
            rest, _ = player.communicate("\n", timeout=120)
        self.assertEqual(rest.split(), ["stopped", "ended"])
        self.assertEqual(player.returncode, 0)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
