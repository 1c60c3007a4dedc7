"""What a document plays is what the speaker gets, sample by sample.

Called inside a Wine session: play_capture_test.py edit_player.exe [unittest arguments]
"""

import array
import os
import pathlib
import struct
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from sound import Speaker, sound_server, wait_until, without_silence

PLAYER = sys.argv.pop(1)
WINE = os.environ["TESSALY_WINE"]


def sample(n):
    k = n * 7919 % 60000 - 30000
    return array.array("f", [(k if k < 0 else k + 1) / 32767])[0]


def frame(position, mask=3):
    return tuple(sample(2 * position + c) if mask >> c & 1 else 0.0 for c in (0, 1))


class Player:
    """The player, and the frames that the speaker is given meanwhile."""

    def __init__(self, how):
        self.how = how

    def __enter__(self):
        self.server = sound_server(pipes=True)
        environment = self.server.__enter__()
        self.speaker = Speaker(environment)
        self.program = subprocess.Popen([WINE, PLAYER, self.how], env=environment,
                                        stdin=subprocess.PIPE)
        return self

    def after(self, frames, first, last):
        """Gives the player a line once so many of the frames from first to last have been heard."""
        section = {struct.pack("2f", *frame(position)) for position in range(first, last)}
        def heard():
            got = bytes(self.speaker.got)
            return sum(got[at:at + 8] in section for at in range(0, len(got) - 7, 8))
        wait_until(lambda: heard() >= frames, f"{frames} frames")
        self.program.stdin.write(b"\n")
        self.program.stdin.flush()

    def __exit__(self, *failure):
        try:
            # In trouble, the end of its input ends the player.
            self.program.communicate(timeout=120)
        finally:
            self.program.kill()
            self.server.__exit__(*failure)
            floats = array.array("f", without_silence(self.speaker.close()))
        assert self.program.returncode == 0, self.how
        self.frames = list(zip(floats[0::2], floats[1::2]))


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
        with Player("mask") as player:
            pass
        frames = player.frames
        self.assertEqual(len(frames), 66000)
        for position, got in enumerate(frames):
            self.assertEqual(got, frame(position, mask=1), f"frame {position}")

    def test_another_section_follows_at_once_and_nothing_of_the_old_one_comes_again(self):
        with Player("modify") as player:
            player.after(20000, 2000, 7000)
            player.after(20000, 50, 777)
        frames = player.frames
        first = self.expect_loop(frames, 2000, 7000)
        self.assertGreater(first, 10000)
        second = frames[first:]
        self.assertGreater(len(second), 10000)
        self.assertEqual(self.expect_loop(second, 50, 777), len(second))


if __name__ == "__main__":
    unittest.main(verbosity=2)
