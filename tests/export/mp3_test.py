"""MP3 files that the program writes through Mp3Encoder.dll, judged by other makers' decoders and by our own import."""

import array
import json
import math
import pathlib
import sys
import tempfile
import unittest
import wave

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "host"))
from program import keep_wine_alive, run, tool, windows, PROGRAM, WINE  # noqa: E402

SETTINGS = r"HKCU\Software\Brevant\Cutloom\EncoderSettings"
CATEGORY = r"HKCR\CLSID\{33D9A761-90C8-11D0-BD43-00A0C911CE86}\Instance\{9B0C5C5E-6F0A-4C9B-8B57-2B5E0C1D7A43}"


def wine(*words):
    return tool(WINE, *words).decode(errors="replace")


class Mp3Files(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        keep_wine_alive(cls)
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.addClassCleanup(lambda: wine("reg", "delete", SETTINGS, "/v", "MP3Bitrate", "/f"))

    def convert(self, *words):
        status, output, errors = run("convert", *words)
        self.assertEqual((status, errors), (0, ""))
        return output

    def test_every_bit_rate_and_format_keeps_length_and_level(self):
        cases = [(kbit, 44100, 2) for kbit in (56, 64, 96, 128, 192, 256, 320)]
        cases += [(128, rate, channels) for rate in (32000, 48000) for channels in (1, 2)] + [(64, 22050, 1)]
        for kbit, rate, channels in cases:
            with self.subTest(kbit=kbit, rate=rate, channels=channels):
                source, written, back = (self.folder / name for name in ("tone.wav", "tone.mp3", "back.wav"))
                tool("sox", "-n", "-r", rate, "-c", channels, "-b", 16, source, "synth", 2, "sine", 997, "vol", 0.5)
                wine("reg", "add", SETTINGS, "/v", "MP3Bitrate", "/t", "REG_DWORD", "/d", str(kbit), "/f")
                self.convert(source, written)
                facts = json.loads(tool("ffprobe", "-v", "error", "-show_streams", "-of", "json", written))["streams"][0]
                self.assertEqual((facts["codec_name"], int(facts["sample_rate"]), facts["channels"],
                                  int(facts["bit_rate"])), ("mp3", rate, channels, kbit * 1000))
                self.convert(written, back)
                with wave.open(str(back)) as file:
                    frames = file.getnframes()
                    samples = array.array("h", file.readframes(frames))
                # Frames of 56 kbit/s have no room for the length.
                self.assertIn(frames - rate * 2, range(1, 2305) if kbit == 56 else [0])
                middle = samples[len(samples) // 4:-len(samples) // 4]
                level = math.sqrt(sum(value * value for value in middle) / len(middle)) / 32768
                self.assertAlmostEqual(20 * math.log10(level), -9.03, delta=0.1)

    def test_texts_are_in_both_tags(self):
        source, written = self.folder / "texts.ogg", self.folder / "texts.mp3"
        tool("sox", "-n", "-r", 44100, "-c", 2, "--add-comment", "TITLE=One", "--add-comment", "ARTIST=Two", source,
             "synth", 0.5, "sine", 440)
        self.convert(source, written)
        tags = json.loads(tool("ffprobe", "-v", "error", "-show_format", "-of", "json", written))["format"]["tags"]
        self.assertEqual((tags["title"], tags["artist"]), ("One", "Two"))
        self.assertEqual(written.read_bytes()[-128:-95], b"TAGOne" + bytes(27))

    def test_what_the_format_does_not_have_is_refused_and_leaves_the_old_file(self):
        old = self.folder / "old.mp3"
        old.write_bytes(b"old")
        for rate, channels in ((96000, 2), (44100, 3)):
            source = self.folder / "refused.wav"
            tool("sox", "-n", "-r", rate, "-c", channels, source, "synth", 0.1, "sine", 440)
            status, _, errors = run("convert", source, old)
            self.assertNotEqual(status, 0)
            self.assertIn("Mp3Encoder.dll", errors)
            self.assertEqual(old.read_bytes(), b"old")

    def test_registered_it_is_one_of_the_systems_encoders(self):
        module = windows(PROGRAM.parent / "Mp3Encoder.dll")
        wine("regsvr32", "/s", module)
        self.assertIn("Tessaly MP3 encoder", wine("reg", "query", CATEGORY))
        wine("regsvr32", "/s", "/u", module)
        with self.assertRaises(Exception):
            wine("reg", "query", CATEGORY)


if __name__ == "__main__":
    unittest.main()
