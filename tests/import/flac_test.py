"""FLAC files through FlacImport.dll, compared with what sox decodes."""

import json
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "host"))
from program import keep_wine_alive, run, tool, windows, PROGRAM, WINE  # noqa: E402

MODULE = windows(PROGRAM.parent / "FlacImport.dll")
SECONDS = 2


class FlacFiles(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        keep_wine_alive(cls)
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        # The manager asks registered filters alone.
        tool(WINE, "regsvr32", "/s", MODULE)
        cls.addClassCleanup(tool, WINE, "regsvr32", "/s", "/u", MODULE)

    def make(self, bits, channels):
        file = self.folder / "in.flac"
        tool("sox", "-R", "-n", "-r", 44100, "-c", channels, "-b", bits, "--comment", "TITLE=Nachtst\u00fcck",
             "--add-comment", "DATE=2003-05-01", file, "synth", SECONDS, "pinknoise")
        return file

    def samples(self, file, bits):
        return tool("sox", "-D", file, "-t", "raw", "-e", "signed", "-b", bits, "-")

    def convert(self, file, bits, expected_status=0):
        out = self.folder / "out.wav"
        status, _, errors = run("convert", file, out, "--bits", str(bits))
        self.assertEqual(status, expected_status, errors)
        return self.samples(out, bits) if status == 0 else None

    def test_samples_of_every_width_are_exact_and_the_texts_are_there(self):
        for bits, channels in ((8, 1), (16, 2), (24, 2), (16, 6)):
            with self.subTest(bits=bits, channels=channels):
                file = self.make(bits, channels)
                self.assertEqual(self.convert(file, bits), self.samples(file, bits))
                facts = json.loads(run("info", file, "--json")[1])
                self.assertEqual(
                    [facts[name] for name in ("frames", "sample_rate", "channels", "bits_per_sample")],
                    [SECONDS * 44100, 44100, channels, bits])
                self.assertEqual((facts["tags"]["title"], facts["tags"]["year"]), ("Nachtst\u00fcck", "2003"))

    def test_damage_is_silent_and_the_rest_keeps_its_place(self):
        file = self.make(16, 2)
        whole = self.samples(file, 16)
        quarter = len(whole) // 4
        data = bytearray(file.read_bytes())
        middle = len(data) // 2
        data[middle:middle + 20] = bytes(20)
        file.write_bytes(data)
        read = self.convert(file, 16)
        self.assertEqual((len(read), read[:quarter], read[-quarter:]), (len(whole), whole[:quarter], whole[-quarter:]))
        self.assertIn(bytes(4096), read)
        # What is cut off is left out; a file that has no sound is refused.
        file.write_bytes(data[:middle])
        self.assertEqual(self.convert(file, 16)[:quarter], whole[:quarter])
        for broken in (b"fLaC", bytes(data[:42]), b"fLaC" + bytes(4000)):
            file.write_bytes(broken)
            self.convert(file, 16, expected_status=3)


if __name__ == "__main__":
    unittest.main()
