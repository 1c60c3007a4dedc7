"""Runs marlinda.exe as its users do and lets foreign programs judge what it writes.

Called inside a Wine session of its own: host_test.py PATH/marlinda.exe [unittest arguments]
"""

import array
import json
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import unittest
import wave

from program import ENVIRONMENT, PROGRAM, WINE, Run, keep_wine_alive, run, tool, windows

ROOT = pathlib.Path(__file__).resolve().parents[2]
RATE = 44100
FRAMES = 3 * RATE
FILTER_KEY = r"HKLM\Software\Brevant\Cutloom\Import Filters"
OGG_CLASS = "{2A54BF54-1E13-4AC8-A8FB-EA25D67E29C0}"


def reg(*words):
    return subprocess.run([WINE, "reg", *words], env=ENVIRONMENT, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).returncode


class Picture:
    """A picture as ffmpeg reads it, in rows of three bytes a pixel."""

    def __init__(self, path):
        self.width, self.height = map(int, tool("ffprobe", "-v", "error", "-show_entries", "stream=width,height",
                                                "-of", "csv=p=0", path).decode().split(","))
        data = tool("ffmpeg", "-v", "error", "-i", path, "-f", "rawvideo", "-pix_fmt", "rgb24", "-")
        stride = 3 * self.width
        self.rows = [data[at:at + stride] for at in range(0, len(data), stride)]
        assert len(self.rows) == self.height

    def wave(self, column, top, bottom):
        """The rows of a lane that the waveform covers in one column."""
        return [y for y in range(top, bottom)
                if self.rows[y][3 * column:3 * column + 3] == b"\x26\x5c\x9e"]


class HostTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        keep_wine_alive(cls)
        shared = tempfile.TemporaryDirectory()
        cls.addClassCleanup(shared.cleanup)
        folder = pathlib.Path(shared.name)
        cls.ogg = folder / "in.ogg"
        # A gliding tone and noise, so that no two stretches of the audio are alike.
        tool("sox", "-R", "-n", "-r", RATE, "-c", 2, "-b", 16, folder / "in.wav", "synth", 3, "sine",
             "100:9000", "pinknoise", "vol", 0.5)
        tool("oggenc", "-Q", "-s", 1, "-t", "Glide", "-a", "Nobody", "-l", "Tests", "-d",
             "2009-05-01", "-G", "Noise", folder / "in.wav", "-o", cls.ogg)
        # The other results are compared with this one, bit for bit.
        assert run("convert", cls.ogg, folder / "all.wav")[0] == 0
        with wave.open(str(folder / "all.wav")) as file:
            cls.samples = file.readframes(file.getnframes())

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.out = self.folder / "out.wav"

    def succeed(self, *arguments, **options):
        status, output, messages = run(*arguments, **options)
        self.assertEqual((status, messages), (0, ""))
        return output

    def fail_with(self, status, *arguments, says="", **options):
        """The command fails with nothing on standard output; returns its messages."""
        got, output, messages = run(*arguments, **options)
        self.assertEqual((got, output), (status, ""), (arguments, messages))
        self.assertTrue(messages.startswith("marlinda: "), messages)
        self.assertIn(says, messages)
        return messages

    def piece(self, begin, end):
        return self.samples[begin * 4:end * 4]

    def frames_of(self, path):
        with wave.open(str(path)) as file:
            return file.readframes(file.getnframes())

    def test_wrong_usage_ends_with_2_and_writes_nothing(self):
        same = self.folder / "same.wav"
        shutil.copy(self.ogg, same)
        png = self.folder / "out.png"
        for arguments, says in [
            ([], "subcommand"),
            (["frob"], "frob: there is no such command"),
            (["convert", self.ogg], "OUT.wav"),
            (["convert", self.ogg, self.out, "--bits", "12"], "--bits"),
            (["convert", self.ogg, self.out, "--frob"], "--frob"),
            (["convert", self.ogg, self.out, "--progress", "--progress"], "--progress"),
            (["convert", self.ogg, self.folder / "out.mp3"], "out.mp3"),
            (["convert", self.ogg, self.folder / "out"], ".wav"),
            (["convert", same, self.folder / "." / "same.wav"], "input file itself"),
            (["cut", self.ogg, self.out], "--keep"),
            (["cut", self.ogg, self.out, "--keep", "1"], "--keep 1"),
            (["cut", self.ogg, self.out, "--keep", "0:3.1"], "132300 frames"),
            (["cut", self.ogg, self.out, "--keep", "0:1", "--plot", self.folder / "out.jpg"], "out.jpg"),
            (["scrub", self.ogg, "--hold", "1"], "--at"),
            (["info", self.ogg, "--json=false"], "json was given"),
            (["plot", self.ogg, png, "--width", "31"], "32 to 16384 pixels"),
            (["plot", self.ogg, png, "--width", "99999999999"], "--width"),
            (["plot", self.ogg, png, "--from", "soon"], '--from: "soon" is not a time'),
            (["plot", self.ogg, png, "--from", "0:02", "--to", "1"], "holds no frame"),
            (["plot", self.ogg, png, "--to", "9223372036854775807"], "too large"),
            (["plot", same, same], ".png"),
        ]:
            with self.subTest(arguments=arguments):
                self.fail_with(2, *arguments, says=says)
        self.assertEqual(list(self.folder.iterdir()), [same])
        self.assertEqual(same.read_bytes(), self.ogg.read_bytes())

    def test_an_input_that_cannot_be_read_ends_with_3_and_names_file_and_reason(self):
        empty = self.folder / "empty.ogg"
        empty.touch()
        text = self.folder / "text.ogg"
        text.write_text("This is no music.\n" * 100)
        for file, says in [
            (self.folder / "missing.ogg", "does not exist"),
            (self.folder / "nowhere" / "missing.ogg", "folder does not exist"),
            (self.folder, "this is a folder"),
            (empty, "no import filter"),
            (text, "no import filter"),
        ]:
            with self.subTest(file=file.name):
                messages = self.fail_with(3, "convert", file, self.out, says=says)
                self.assertIn(windows(file), messages)
                self.assertIn(says, self.fail_with(3, "info", file))
        self.assertFalse(self.out.exists())

    def test_an_output_that_cannot_be_written_ends_with_4(self):
        self.fail_with(4, "convert", self.ogg, self.folder / "nowhere" / "out.wav", says="folder")
        (self.folder / "folder.wav").mkdir()
        self.fail_with(4, "convert", self.ogg, self.folder / "folder.wav", says="folder.wav")
        self.fail_with(4, "cut", self.ogg, self.out, "--keep", ":", "--silence", "3:100000",
                       says="4 GiB")
        self.assertFalse(self.out.exists())

    def test_a_full_disk_ends_with_4_and_leaves_no_broken_file(self):
        # Room for the pool's 32-bit samples, but not for 20 s more in the output.
        self.fail_with(4, "cut", self.ogg, self.out, "--keep", ":", "--silence", "0:20",
                       most_bytes=2 * FRAMES * 4 + 100_000, says="could not be written whole")
        self.assertFalse(self.out.exists())
        self.fail_with(4, "convert", self.ogg, self.out, most_bytes=FRAMES * 4,
                       says="temporary folder: the disk is full")
        self.assertFalse(self.out.exists())

    def test_a_module_that_cannot_be_found_ends_with_6_and_the_remedy(self):
        alone = self.folder / PROGRAM.name
        shutil.copy(PROGRAM, alone)
        for arguments in [["filters"], ["install-filters"], ["info", self.ogg],
                          ["convert", self.ogg, self.out]]:
            with self.subTest(arguments=arguments):
                self.fail_with(6, *arguments, says="regsvr32", program=alone)
        self.assertFalse(self.out.exists())

    def test_info_tells_what_other_readers_find_in_the_file(self):
        report = json.loads(self.succeed("info", self.ogg, "--json"))
        self.assertEqual(report["file"], windows(self.ogg))
        self.assertEqual(report["filter"], {"class": "COggImport", "class_id": OGG_CLASS})
        self.assertEqual(
            [report["sample_rate"], report["channels"], report["frames"]],
            [int(tool("soxi", flag, self.ogg)) for flag in ("-r", "-c", "-s")])
        self.assertEqual(report["duration_seconds"], 3.0)
        self.assertEqual(report["bits_per_sample"], 16)
        self.assertEqual(report["tags"], {"title": "Glide", "artist": "Nobody", "album": "Tests",
                                          "year": "2009", "genre": "Noise"})
        self.assertEqual((report["labels"], report["markers"], report["acid"]), ([], [], None))

        text = self.succeed("info", self.ogg)
        for line in ("COggImport", "44100 Hz, 2 channels", "0:00:03.000", "132300", "Glide"):
            self.assertIn(line, text)

    def test_convert_keeps_every_sample_at_every_width(self):
        for bits in (8, 16, 24, 32):
            with self.subTest(bits=bits):
                text = self.succeed("convert", self.ogg, self.out, "--bits", str(bits))
                self.assertIn(f"132300 frames, 44100 Hz, 2 channels, {bits} bits", text)
                self.assertEqual([int(tool("soxi", flag, self.out)) for flag in "-s -b -r -c".split()],
                                 [FRAMES, bits, RATE, 2])
                # An engine's sample, scaled to the width. sox reads the highest 16 bits.
                step = 512 if bits == 8 else 1
                sixteen = array.array("h", tool("sox", "-D", self.out, "-b", 16, "-t", "s16", "-"))
                self.assertLessEqual(max(abs(a - b) for a, b in zip(sixteen, array.array("h", self.samples))), step)
        self.assertRegex(tool("sndfile-info", self.out).decode(), r"INAM : Glide\n")

    def test_full_scale_stays_full_scale_at_every_width_and_wide_sources_stay_wide(self):
        full = self.folder / "full.wav"
        for width, kept, highest in ((2, 2, 0x7fff), (3, 3, 0x7fffff), (4, 4, 0x7fffffff)):
            lowest = -highest - 1
            square = [highest] * 50 + [lowest] * 50
            with wave.open(str(full), "wb") as made:
                made.setparams((1, width, RATE, 0, "NONE", ""))
                made.writeframes(b"".join(code.to_bytes(width, "little", signed=True) for code in square * 9))
            for command, bits in ((["convert"], 24), (["convert"], 32), (["convert"], None),
                                  (["convert", "--rate", str(RATE)], 24), (["cut", "--keep", ":"], 32)):
                with self.subTest(width=width, command=command, bits=bits):
                    self.succeed(*command[:1], full, self.out, *command[1:],
                                 *(["--bits", str(bits)] if bits else []))
                    with wave.open(str(self.out)) as file:
                        got = file.getsampwidth()
                        data = file.readframes(file.getnframes())
                    self.assertEqual(got, bits // 8 if bits else kept)
                    codes = [int.from_bytes(data[at:at + got], "little", signed=True)
                             for at in range(0, len(data), got)]
                    # A float holds the highest 24 bits.
                    near = 1 << 8 * (got - min(width, 3)) if got > 2 else 1
                    for code, wanted in zip(codes, square * 9, strict=True):
                        self.assertAlmostEqual(code, wanted * 256 ** got // 256 ** width, delta=max(near, 256))

    def test_convert_to_another_format_keeps_length_and_pitch(self):
        tone = self.music("tone", "sine", 1000)
        for rate, channels in ((48000, 2), (22050, 1)):
            with self.subTest(rate=rate, channels=channels):
                report = json.loads(self.succeed("convert", tone, self.out, "--rate", str(rate),
                                                 "--channels", str(channels), "--json"))
                self.assertEqual((report["sample_rate"], report["channels"], report["frames"]),
                                 (rate, channels, rate))
                self.assertEqual([int(tool("soxi", flag, self.out)) for flag in "-s -r -c".split()],
                                 [rate, rate, channels])
                samples = array.array("h", self.frames_of(self.out))[::channels]
                swings = sum(a < 0 <= b for a, b in zip(samples, samples[1:]))
                self.assertAlmostEqual(swings, 1000, delta=1)

    def test_a_damaged_file_is_converted_up_to_where_it_ends(self):
        hole = self.folder / "hole.ogg"
        data = bytearray(self.ogg.read_bytes())
        data[len(data) // 2] ^= 0xff
        hole.write_bytes(data)
        whole, half = (json.loads(run("convert", hole, self.out, "--json", *options)[1])["frames"]
                       for options in ([], ["--rate", "22050"]))
        self.assertLess(whole, FRAMES)
        self.assertEqual(half, whole * 22050 // RATE)

    def test_convert_needs_the_converter_only_where_formats_differ(self):
        alone = self.folder / PROGRAM.name
        for file in (PROGRAM, PROGRAM.parent / "Tessaly.dll",
                     PROGRAM.parent / (PROGRAM.name + ".manifest")):
            shutil.copy(file, self.folder)
        self.fail_with(6, "convert", self.ogg, self.out, "--rate", "48000", program=alone,
                       says="Converter.dll")
        self.assertFalse(self.out.exists())
        self.succeed("convert", self.ogg, self.out, "--rate", str(RATE), program=alone)
        self.assertEqual(self.frames_of(self.out), self.samples)
        self.assertRegex(tool("sndfile-info", self.out).decode(), r"INAM : Glide\n")

    def test_join_keeps_pitch_length_and_labels_of_files_in_other_formats(self):
        self.succeed("cut", self.ogg, self.out, "--keep", ":1", "--label", "0.5:Half")
        other = self.music("other", "sine", 1000)
        mono = self.folder / "mono.wav"
        self.succeed("convert", other, mono, "--rate", "48000", "--channels", "1")
        whole = self.folder / "whole.wav"
        report = json.loads(self.succeed("join", self.out, mono, self.out, whole, "--json"))
        self.assertEqual((report["frames"], report["sample_rate"], report["channels"], len(report["inputs"])),
                         (3 * RATE, RATE, 2, 3))
        self.assertEqual([label["position"] for label in report["labels"]], [RATE // 2, 2 * RATE + RATE // 2])
        data = self.frames_of(whole)
        self.assertEqual(data[:4 * RATE], self.piece(0, RATE))
        self.assertEqual(data[8 * RATE:], self.piece(0, RATE))
        tone = array.array("h", data[4 * RATE:8 * RATE])[::2]
        self.assertAlmostEqual(sum(a < 0 <= b for a, b in zip(tone, tone[1:])), 1000, delta=1)
        self.succeed("cut", self.out, mono, whole, "--keep", "0.5:1.5")
        self.assertEqual(self.frames_of(whole)[:2 * RATE], self.piece(RATE // 2, RATE))

    def test_text_outside_the_code_page_is_refused_or_replaced(self):
        cut = ["cut", self.ogg, self.out, "--keep", ":1", "--label", "0:日本"]
        self.fail_with(2, *cut, says="日本")
        self.assertFalse(self.out.exists())
        report = json.loads(self.succeed(*cut, "--replace-text", "--json"))
        self.assertEqual(report["frames"], RATE)

    def test_messages_say_what_to_type(self):
        for status, arguments, says in (
                (2, ["convert", self.ogg], "See \"marlinda convert --help\""),
                (2, ["convert", "-x.wav", self.out], "Put \"--\" before file names"),
                (3, ["info", "com1"], "belongs to a device"),
                (4, ["convert", self.ogg, "CON.wav"], "belongs to a device")):
            self.fail_with(status, *arguments, says=says)
        self.assertEqual(self.succeed("help", "cut"), self.succeed("cut", "--help"))

    def test_cut_joins_the_pieces_to_the_frame(self):
        self.succeed("cut", self.ogg, self.out, "--keep", "2.5:", "1000f:2001f", "--keep", ":0.1")
        self.assertEqual(self.frames_of(self.out), self.piece(110250, FRAMES) +
                         self.piece(1000, 2001) + self.piece(0, 4410))

    def test_cut_places_silence_labels_and_markers_in_the_result(self):
        report = json.loads(self.succeed(
            "cut", self.ogg, self.out, "--keep", "0:1", "--keep", "2:3", "--silence", "1:0.5",
            "--silence", "0:1f", "--label", "44101f:Pause: long", "--label", "0:Start", "--marker",
            "0.5:1.25:Part", "--marker", "::All", "--json"))
        frames = 2 * RATE + 22051
        self.assertEqual(self.frames_of(self.out), bytes(4) + self.piece(0, RATE) +
                         bytes(4 * 22050) + self.piece(2 * RATE, 3 * RATE))
        labels = [(44101, "Pause: long"), (0, "Start")]
        markers = [(22050, 55125, "Part"), (0, frames, "All")]
        self.assertEqual(report["frames"], frames)
        for read in (report, json.loads(self.succeed("info", self.out, "--json"))):
            self.assertEqual([(l["position"], l["name"]) for l in read["labels"]], labels)
            self.assertEqual([(m["begin"], m["end"], m["name"]) for m in read["markers"]], markers)
        self.assertRegex(tool("sndfile-info", self.out).decode(), r"INAM : Glide\n")

    def test_wave_files_are_read_back_with_all_that_they_carry(self):
        self.succeed("cut", self.ogg, self.out, "--keep", ":", "--label", "1:Here", "--marker",
                     "0.5:1.5:There", "--bits", "24")
        wide = self.folder / "wide.wav"
        self.succeed("convert", self.out, wide, "--bits", "24")
        self.assertEqual(wide.read_bytes(), self.out.read_bytes())
        loop = struct.pack("<iIIihhf", 60, 0, 0, 8, 3, 4, 120.0)
        data = self.out.read_bytes()[8:] + b"acid" + struct.pack("<I", len(loop)) + loop
        wide.write_bytes(b"RIFF" + struct.pack("<I", len(data)) + data)
        report = json.loads(self.succeed("info", wide, "--json"))
        self.assertEqual(report["filter"]["class"], "CDShowImport")
        self.assertEqual((report["frames"], report["bits_per_sample"], report["bit_rate"]),
                         (FRAMES, 24, RATE * 48))
        self.assertEqual(report["labels"], [{"position": RATE, "name": "Here"}])
        self.assertEqual(report["markers"],
                         [{"begin": RATE // 2, "end": RATE * 3 // 2, "name": "There"}])
        self.assertEqual(report["tags"]["year"], "2009")
        self.assertEqual(report["acid"], {"root_note": 60, "meter_beats": 3, "meter_delimiter": 4,
                                          "beat_count": 8, "tempo": 120.0})
        text = self.succeed("info", wide)
        for line in ("Here", "0:00:00.500 to 0:00:01.500  There", "8 beats of 3/4"):
            self.assertIn(line, text)

    def test_a_file_cut_off_in_the_middle_gives_what_can_be_decoded(self):
        half = self.folder / "half.ogg"
        half.write_bytes(self.ogg.read_bytes()[:self.ogg.stat().st_size // 2])
        status, _, _ = run("convert", half, self.out)
        self.assertEqual(status, 0)
        frames = self.frames_of(self.out)
        self.assertGreater(len(frames), RATE)
        self.assertEqual(frames, self.samples[:len(frames)])

    def test_names_outside_the_code_page_work_for_input_and_output(self):
        for name in ("Stück", "音楽 Ω"):
            with self.subTest(name=name):
                folder = self.folder / name
                folder.mkdir()
                ogg = folder / (name + ".ogg")
                shutil.copy(self.ogg, ogg)
                out = folder / (name + ".wav")
                report = json.loads(self.succeed("convert", ogg, out, "--json"))
                self.assertEqual(report["output"], windows(out))
                self.assertEqual(self.frames_of(out), self.samples)
                self.assertEqual(sorted(folder.iterdir()), sorted([ogg, out]))
                self.assertIn(name, self.fail_with(3, "info", self.folder / (name + ".ogg")))

    def test_install_filters_lists_each_filter_once_and_removes_it_again(self):
        def listed():
            report = json.loads(self.succeed("filters", "--json"))
            self.assertTrue(report["dialog_filter"].startswith("All Known Audio File Types ("))
            for entry in report["filters"]:
                if entry["class"] == "COggImport":
                    self.assertEqual((entry["class_id"], entry["merit"], entry["patterns"]),
                                     (OGG_CLASS, 200, ["*.ogg"]))
            return [entry["listed_as"] for entry in report["filters"]
                    if entry["class"] == "COggImport"]

        def states(*arguments):
            report = json.loads(self.succeed("install-filters", "--json", *arguments))
            return {entry["class"]: entry["state"] for entry in report["filters"]}

        self.addCleanup(reg, "delete", FILTER_KEY, "/f")
        reg("delete", FILTER_KEY, "/f")
        self.assertEqual(listed(), [None])
        self.assertEqual(states("--remove")["COggImport"], "not listed")
        # A damaged entry under our own name is put right.
        self.assertEqual(reg("add", FILTER_KEY, "/v", "COggImport", "/d", "{broken}", "/f"), 0)
        self.assertEqual(states()["COggImport"], "listed")
        self.assertEqual(states()["COggImport"], "listed already")
        self.assertEqual(listed(), ["COggImport"])
        self.assertEqual(list(states()), ["CDShowImport", "COggImport"])
        self.assertEqual(set(states().values()), {"listed already"})
        self.succeed("convert", self.ogg, self.out)
        self.assertEqual(self.frames_of(self.out), self.samples)
        self.assertEqual(states("--remove")["COggImport"], "removed")
        self.assertEqual(listed(), [None])

        # An entry that somebody else made for the same class is respected and found.
        reg("add", FILTER_KEY, "/v", "Vorbis", "/d", OGG_CLASS.lower(), "/f")
        self.assertEqual(states()["COggImport"], "listed already")
        self.assertEqual(listed(), ["Vorbis"])
        self.assertIn('listed as "Vorbis", merit 200, *.ogg', self.succeed("filters"))

    def music(self, name, *effects, channels=1):
        """An Ogg file of one second made by sox."""
        made, ogg = self.folder / (name + ".wav"), self.folder / (name + ".ogg")
        tool("sox", "-D", "-n", "-r", RATE, "-c", channels, "-b", 16, made, "synth", 1, *effects)
        tool("oggenc", "-Q", "-s", 1, "-q", 9, made, "-o", ogg)
        return ogg

    def test_plot_draws_the_wave_as_high_as_it_sounds(self):
        png = self.folder / "out.png"
        # Below the lane is an axis of 20 pixels, and its last 4 separate it from the next one. The left
        # half of one channel sounds, and all of the other is silent.
        report = json.loads(self.succeed(
            "plot", self.music("sides", "sine", 1000, "vol", 0.5, "remix", 1, "1v0", "trim", 0, 0.5, "pad", 0, 0.5,
                               channels=2), png, "--width", "300", "--height", "120", "--json"))
        self.assertEqual((report["input"], report["picture"], report["frames"]),
                         (windows(self.folder / "sides.ogg"), windows(png), RATE))
        picture = Picture(png)
        self.assertEqual((picture.width, picture.height), (300, 120))
        self.assertEqual((report["width"], report["height"]), (300, 120))
        for column in range(10, 140):
            rows = picture.wave(column, 0, 50)
            self.assertEqual(rows, list(range(rows[0], rows[-1] + 1)))
            self.assertAlmostEqual(len(rows), 23, delta=3)
        self.assertLess(len(picture.wave(225, 0, 50)), 3)
        self.assertLess(len(picture.wave(75, 50, 100)), 3)

    def test_a_picture_that_cannot_be_written_ends_with_4_and_leaves_nothing(self):
        png = self.folder / "out.png"
        self.fail_with(4, "plot", self.ogg, self.folder / "nowhere" / "out.png", says="folder")
        (self.folder / "folder.png").mkdir()
        self.fail_with(4, "plot", self.ogg, self.folder / "folder.png", says="folder.png")
        # Room for the short file's samples in the pool, but not for so large a picture.
        self.fail_with(4, "plot", self.music("short", "sine", 50, "trim", 0, 0.1), png, "--width",
                       "2000", "--height", "2000", most_bytes=20_000, says="could not be written")
        self.assertFalse(png.exists())

    def test_cut_draws_its_result(self):
        png = self.folder / "out.png"
        report = json.loads(self.succeed("cut", self.ogg, self.out, "--keep", "0:1", "--silence",
                                         "1:1", "--plot", png, "--json"))
        self.assertEqual(report["picture"], windows(png))
        picture = Picture(png)
        self.assertEqual((picture.width, picture.height), (1200, 320))
        self.assertGreater(len(picture.wave(300, 0, 146)), 20)
        self.assertEqual(len(picture.wave(900, 0, 146)), 1)

    def test_cut_keeps_and_reports_the_audio_when_its_picture_cannot_be_written(self):
        png = self.folder / "out.png"
        png.symlink_to("nowhere/out.png")
        for json_option in ([], ["--json"]):
            status, output, messages = run("cut", self.ogg, self.out, "--keep", "1:2", "--plot", png,
                                           *json_option)
            self.assertEqual(status, 4)
            self.assertIn("out.png: it could not be written", messages)
            self.assertIn("out.wav", output)
            self.assertEqual(self.frames_of(self.out), self.piece(RATE, 2 * RATE))
        self.assertIsNone(json.loads(output)["picture"])

    def interrupt_writing(self, *arguments):
        command = Run(*arguments)
        while not (self.out.exists() and self.out.stat().st_size > 0):
            self.assertIsNone(command.process.poll())
            time.sleep(0.01)
        # A second and a third Ctrl+C change nothing.
        for _ in range(3):
            command.process.send_signal(signal.SIGINT)
        status, output, messages = command.result()
        self.assertEqual((status, output), (130, ""))
        self.assertIn("interrupted; the file is valid", messages)

    def test_an_interrupted_conversion_ends_with_130_and_leaves_a_valid_file(self):
        # Many minutes of work for the converter.
        ogg = self.folder / "long.ogg"
        long = self.folder / "long.wav"
        tool("sox", "-R", "-n", "-r", RATE, "-c", 1, "-b", 16, long, "synth", 600, "sine", 997)
        tool("oggenc", "-Q", long, "-o", ogg)
        self.interrupt_writing("convert", ogg, self.out, "--rate", "768000")
        frames = int(tool("soxi", "-s", self.out))
        self.assertLess(frames, 600 * 768000)
        with wave.open(str(self.out)) as file:
            self.assertEqual(len(file.readframes(frames)), 2 * frames)

    def test_an_interrupted_export_ends_with_130_and_leaves_a_valid_file(self):
        # Almost 4 GiB, of which little is written when the signal arrives.
        self.interrupt_writing("cut", self.ogg, self.out, "--keep", ":", "--silence", "3:12000", "--bits", "32")
        frames = int(tool("soxi", "-s", self.out))
        self.assertLess(frames, FRAMES + 12000 * RATE)
        with wave.open(str(self.out)) as file:
            self.assertEqual((file.getnframes(), len(file.readframes(FRAMES))), (frames, 8 * min(frames, FRAMES)))

    def test_progress_for_a_program_comes_as_lines_of_rising_percentages(self):
        for arguments in (["convert", self.ogg, self.out], ["plot", self.ogg, self.folder / "a.png"],
                          ["convert", self.ogg, self.out, "--rate", "48000"]):
            status, output, messages = run(*arguments, "--progress")
            self.assertEqual(status, 0, messages)
            self.assertNotIn("progress", output)
            lines = [re.fullmatch(r"progress (\d+) (Reading|Writing)", line).groups()
                     for line in messages.splitlines()]
            for step in {step for _, step in lines}:
                percents = [int(percent) for percent, which in lines if which == step]
                self.assertEqual(percents, sorted(set(percents)))
                self.assertEqual(percents[-1], 100)
            self.assertEqual(lines[0][1], "Reading")

    def test_reports_have_the_documented_keys_and_the_version_of_their_schema(self):
        def keys(report):
            if isinstance(report, list):
                return set().union(*map(keys, report))
            return set(report).union(*map(keys, report.values())) if isinstance(report, dict) else set()

        page = (ROOT / "docs/host.md").read_text()
        for command, arguments in {"doctor": [], "filters": [], "info": [self.ogg], "devices": [],
                                   "cut": [self.ogg, self.out, "--keep", ":", "--label", "1:x"],
                                   "plot": [self.ogg, self.folder / "a.png"]}.items():
            with self.subTest(command=command):
                report = json.loads(run(command, *arguments, "--json")[1])
                section = re.search(rf"^### `{command}`\n(.*?)(?=^###? )", page, re.M | re.S)[1]
                if command == "cut":  # described together with convert
                    self.assertIn("`convert`, `cut` and `join` report", section)
                block = section.split("JSON:\n")[1]
                self.assertEqual(list(report)[0], "schema_version")
                self.assertEqual(report.pop("schema_version"), 2)
                # One level of indentation below the brace.
                self.assertEqual(list(report), re.findall(r'^      "(\w+)":', block, re.M))
                self.assertLessEqual(keys(report), set(re.findall(r'"(\w+)":', block)))

    def test_help_and_version_are_data_on_standard_output(self):
        commands = re.findall(r"^  ([a-z-]+)  ", self.succeed("--help").split("Subcommands:")[1], re.MULTILINE)
        documented = re.findall(r"^### `(.*)`$", (ROOT / "docs/host.md").read_text(), re.MULTILINE)
        self.assertEqual(sorted(commands), sorted(documented))
        for command in commands:
            self.assertIn(f"Example: marlinda {command}", self.succeed(command, "--help"))
        self.assertRegex(self.succeed("--version"), r"^marlinda \d+\.\d+\.\d+\n$")


if __name__ == "__main__":
    unittest.main()
