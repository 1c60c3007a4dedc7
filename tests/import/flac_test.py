"""Compares FLAC files imported through FlacImport.dll with the output of sox."""

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
        cls.file, cls.out = cls.folder / "in.flac", cls.folder / "out.wav"
        # The filter manager asks only registered filters.
        tool(WINE, "regsvr32", "/s", MODULE)
        cls.addClassCleanup(tool, WINE, "regsvr32", "/s", "/u", MODULE)

    def make(self, bits, channels):
        tool("sox", "-R", "-n", "-r", 44100, "-c", channels, "-b", bits, "--comment", "TITLE=Nachtst\u00fcck",
             self.file, "synth", SECONDS, "pinknoise")
        return self.samples(self.file, bits)

    def samples(self, file, bits):
        return tool("sox", "-D", file, "-t", "raw", "-e", "signed", "-b", bits, "-")

    def convert(self, bits=16):
        self.assertEqual(run("convert", self.file, self.out, "--bits", str(bits))[0], 0)
        return self.samples(self.out, bits)

    def test_samples_of_every_width_are_exact_and_the_title_is_read(self):
        for bits, channels in ((8, 1), (16, 2), (24, 2), (16, 6)):
            samples = self.make(bits, channels)
            self.assertEqual(self.convert(bits), samples)
            facts = json.loads(run("info", self.file, "--json")[1])
            self.assertEqual([facts[name] for name in ("frames", "sample_rate", "channels", "bits_per_sample")],
                             [SECONDS * 44100, 44100, channels, bits])
            self.assertEqual(facts["tags"]["title"], "Nachtst\u00fcck")

    def test_damaged_blocks_become_silence_and_the_length_is_unchanged(self):
        whole = self.make(16, 2)
        quarter = len(whole) // 4
        data = bytearray(self.file.read_bytes())
        middle = len(data) // 2
        data[middle:middle + 20] = bytes(20)
        self.file.write_bytes(data)
        read = self.convert()
        self.assertEqual((len(read), read[:quarter], read[-quarter:]), (len(whole), whole[:quarter], whole[-quarter:]))
        self.assertIn(bytes(4096), read)
        # The filter refuses a file without sound.
        self.file.write_bytes(data[:42])
        self.assertEqual(run("convert", self.file, self.out)[0], 3)


if __name__ == "__main__":
    unittest.main()
