"""Imports files of sox and ffmpeg in every container and width through CDShowImport and compares them with the
output of ffmpeg. The first argument is the import program.
"""

import array
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "host"))
from program import run, tool  # noqa: E402

RATE = 44100
FRAMES = 11025

# For each name: the sox arguments, and ffmpeg's name of the sample format.
PLAIN = {
    "u8.wav": ("-b 8 -e unsigned-integer", "u8"), "s16.wav": ("-b 16 -e signed-integer", "s16le"),
    "s24.wav": ("-b 24 -e signed-integer", "s24le"), "s32.wav": ("-b 32 -e signed-integer", "s32le"),
    "f32.wav": ("-b 32 -e floating-point", "f32le"), "f64.wav": ("-b 64 -e floating-point", "f64le"),
    "mono.wav": ("-c 1 -b 16", "s16le"), "surround.wav": ("-c 6 -b 16", "s16le"),
    "eight.wav": ("-c 8 -b 24", "s24le"), "wide.wav": ("-t wavpcm -b 24", "s24le"), "s8.aiff": ("-b 8", "u8"),
    "s16.aif": ("-t aiff -b 16", "s16le"), "s24.aiff": ("-b 24", "s24le"), "s32.aiff": ("-b 32", "s32le"),
    "f32.aiff": ("-t aifc -b 32 -e floating-point", "f32le"), "s8.au": ("-b 8 -e signed-integer", "u8"),
    "s16.au": ("-b 16 -e signed-integer", "s16le"), "s24.au": ("-b 24 -e signed-integer", "s24le"),
    "s32.au": ("-b 32 -e signed-integer", "s32le"), "f32.au": ("-b 32 -e floating-point", "f32le"),
    "mulaw.au": ("-e mu-law", "s16le"), "alaw.au": ("-e a-law", "s16le"), "mulaw.wav": ("-e mu-law", "s16le"),
    "alaw.wav": ("-e a-law", "s16le"), "ima.wav": ("-e ima-adpcm", "s16le"),
}
VIDEO = "-f lavfi -i testsrc=duration=0.25:size=64x48"
# For each name: the ffmpeg arguments, the tolerance of the length in frames, and the tolerance of a sample in 16-bit
# steps. Without a sample tolerance, the test only checks that the file contains sound.
CODED = {
    "tone.mp3": ("-b:a 192k", 0, 1.1), "variable.mp3": ("-q:a 4", 0, 1.1), "tone.mp2": ("-c:a mp2", 1152, 1.1),
    "tone.ogg": ("", 0, 1.1), "adpcm.wav": ("-c:a adpcm_ms", 200, 0), "ulaw.aifc": ("-c:a pcm_mulaw", 0, 0),
    "pcm.avi": ("-c:a pcm_s16le", 0, 0), "tone.wma": ("-b:a 192k", 5000, None),
    "film.avi": (VIDEO + " -map 0 -map 1 -c:v mpeg4 -c:a pcm_s16le", 0, 0),
    "film.wmv": (VIDEO + " -map 0 -map 1 -c:v wmv2 -c:a wmav2", 5000, None),
}
OTHER_KINDS = ["tone.flac", "tone.mka", "tone.m4a"]
REFUSED = OTHER_KINDS + ["silent.avi", "text.wav", "hollow.wav"]


def ffmpeg(*words):
    return tool("ffmpeg", "-v", "error", "-y", *words)


def engine_floats(codes, kind):
    """Returns the floats to which the engine converts the codes."""
    if kind == "u8":
        values = (code / 127.0 - 1.0 for code in codes)
    elif kind == "s24le":
        values = (int.from_bytes(codes[i:i + 3], "little", signed=True) / 2.0**23 for i in range(0, len(codes), 3))
    else:
        letter, scale = {"s16le": ("h", 32767.0), "s32le": ("i", 2.0**31), "f32le": ("f", 1), "f64le": ("d", 1)}[kind]
        values = (code / scale for code in array.array(letter, codes))
    return array.array("f", values)


class SoundFiles(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        source = cls.folder.with_suffix(".source.wav")
        cls.addClassCleanup(source.unlink)
        tool("sox", "-R", "-n", "-r", RATE, "-c", 2, "-b", 32, source, "synth",
             FRAMES / RATE, "sine", "300:3000", "pinknoise", "vol", 0.4)
        for name, (options, _) in PLAIN.items():
            tool("sox", "-R", "-D", source, *options.split(), cls.folder / name)
        for name, (options, *_) in {**CODED, **{name: ("",) for name in OTHER_KINDS}}.items():
            ffmpeg("-i", source, *options.split(), cls.folder / name)
        ffmpeg(*VIDEO.split(), "-c:v", "mpeg4", cls.folder / "silent.avi")
        (cls.folder / "text.wav").write_text("no sound at all\n" * 100)
        (cls.folder / "hollow.wav").write_bytes((cls.folder / "s16.wav").read_bytes()[:36])
        status, output, messages = run(cls.folder)
        assert status == 0, messages
        cls.reports = {words[0]: words[1:] for words in map(str.split, output.splitlines())}

    def imported(self, name):
        """Returns channels, frames and samples."""
        self.assertEqual(self.reports[name][0], "0", name)
        rate, channels, frames = map(int, self.reports[name][1:])
        samples = array.array("f", (self.folder / (name + ".raw")).read_bytes())
        self.assertEqual((rate, len(samples)), (RATE, frames * channels))
        return channels, frames, samples

    def test_uncompressed_samples_are_imported_exactly(self):
        for name, (options, kind) in PLAIN.items():
            with self.subTest(name=name):
                _, frames, got = self.imported(name)
                # Reads IMA ADPCM with sox, because ffmpeg rounds some samples differently. The slice removes padding.
                codes = (tool("sox", self.folder / name, "-t", "raw", "-")[:4 * FRAMES]
                         if "adpcm" in options else
                         ffmpeg("-i", self.folder / name, "-f", kind, "-"))
                self.assertEqual(got, engine_floats(codes, kind))
                self.assertEqual(frames, FRAMES)

    def test_the_sound_of_films_and_compressed_files_is_decoded(self):
        for name, (_, tolerance, steps) in CODED.items():
            with self.subTest(name=name):
                _, frames, got = self.imported(name)
                self.assertLessEqual(abs(frames - FRAMES), tolerance)
                if steps is None:
                    self.assertGreater(max(got), 0.2)
                    continue
                # For Ogg files, ffmpeg also outputs the padding at the end. The slice removes it.
                most = 4 * FRAMES if name.endswith(".ogg") else None
                expected = engine_floats(ffmpeg("-i", self.folder / name, "-f", "s16le", "-")[:most], "s16le")
                self.assertEqual(len(got), len(expected))
                self.assertLessEqual(max(abs(a - b) for a, b in zip(got, expected)), steps / 32767)

    def test_files_without_sound_are_refused(self):
        for name in REFUSED:
            self.assertEqual(self.reports[name], ["80004005"], name)


if __name__ == "__main__":
    unittest.main()
