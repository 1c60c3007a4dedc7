"""Checks MP3 files from the program and Mp3Encoder.dll with independent decoders and the engine's import."""

import array
import json
import math
import pathlib
import sys
import tempfile
import unittest
import wave

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "host"))
from program import keep_wine_alive, run, tool, WINE  # noqa: E402

SETTINGS = r"HKCU\Software\Brevant\Cutloom\EncoderSettings"
REFUSED = None
# Rate, channels, kbit/s; surplus frames in the output. Frames of 56 kbit/s have no room for the length.
FORMATS = [(44100, 2, 56, range(1, 2305)), (44100, 2, 64, [0]), (44100, 2, 128, [0]), (44100, 2, 320, [0]),
           (32000, 1, 128, [0]), (48000, 2, 128, [0]), (22050, 1, 64, [0]), (96000, 2, 128, REFUSED),
           (44100, 3, 128, REFUSED)]


class Mp3Files(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        keep_wine_alive(cls)
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.addClassCleanup(lambda: tool(WINE, "reg", "delete", SETTINGS, "/v", "MP3Bitrate", "/f"))

    def test_every_format_keeps_length_and_level_or_is_refused(self):
        source, written, back = (self.folder / name for name in ("tone.wav", "tone.mp3", "back.wav"))
        for rate, channels, kbit, more in FORMATS:
            with self.subTest(rate=rate, channels=channels, kbit=kbit):
                tool("sox", "-n", "-r", rate, "-c", channels, "-b", 16, source, "synth", 2, "sine", 997, "vol", 0.5)
                tool(WINE, "reg", "add", SETTINGS, "/v", "MP3Bitrate", "/t", "REG_DWORD", "/d", str(kbit), "/f")
                written.write_bytes(b"old")
                status, _, errors = run("convert", source, written)
                if more is REFUSED:
                    self.assertIn("Mp3Encoder.dll", errors)
                    self.assertEqual(written.read_bytes(), b"old")
                    continue
                self.assertEqual((status, errors), (0, ""))
                facts = json.loads(tool("ffprobe", "-v", "error", "-show_streams", "-of", "json", written))["streams"][0]
                self.assertEqual((facts["codec_name"], int(facts["sample_rate"]), facts["channels"],
                                  int(facts["bit_rate"])), ("mp3", rate, channels, kbit * 1000))
                self.assertEqual(run("convert", written, back)[0], 0)
                with wave.open(str(back)) as file:
                    frames = file.getnframes()
                    samples = array.array("h", file.readframes(frames))
                self.assertIn(frames - rate * 2, more)
                middle = samples[len(samples) // 4:-len(samples) // 4]
                level = math.sqrt(sum(value * value for value in middle) / len(middle)) / 32768
                self.assertAlmostEqual(20 * math.log10(level), -9.03, delta=0.1)


if __name__ == "__main__":
    unittest.main()
