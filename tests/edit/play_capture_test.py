"""What a document plays is what the speaker gets, sample by sample.

Called inside a Wine session: play_capture_test.py sound_tool.exe [unittest arguments]
"""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from sound import FRAME_BYTES, SoundTool, Speaker, frames_of, signal, sound_server, wait_until, without_silence

TOOL = str(pathlib.Path(sys.argv.pop(1)).resolve())


class PlayedDocument(unittest.TestCase):
    def test_a_mask_lets_only_its_channels_through(self):
        with sound_server(pipes=True) as environment:
            speaker = Speaker(environment)
            with SoundTool(TOOL, environment, "mask") as tool:
                tool.finish()
        left = [frame[:4] + bytes(4) for frame in frames_of(signal(0, 66000))]
        self.assertTrue(frames_of(without_silence(speaker.close())) == left)

    def test_another_section_follows_at_once_and_nothing_of_the_old_one_comes_again(self):
        loops = [frames_of(signal(begin, end)) for begin, end in ((2000, 7000), (50, 777))]
        with sound_server(pipes=True) as environment:
            speaker = Speaker(environment)
            with SoundTool(TOOL, environment, "loop", 2000, 7000, 50, 777) as tool:
                for loop in map(set, loops):
                    heard = lambda: sum(frame in loop for frame in frames_of(bytes(speaker.got)))
                    wait_until(lambda: heard() > 20000, "20000 frames")
                    tool.order()
                tool.finish()
        frames = frames_of(without_silence(speaker.close()))
        for loop in loops:
            phase = loop.index(frames[0])
            same = 0
            while same < len(frames) and frames[same] == loop[(phase + same) % len(loop)]:
                same += 1
            self.assertGreater(same, 10000)
            frames = frames[same:]
        self.assertEqual(frames, [])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[1:])
