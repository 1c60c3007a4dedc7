"""Runs marlinda.exe as users do and checks its files with independent programs.

Called inside a Wine session of its own: host_test.py PATH/marlinda.exe [unittest arguments]
"""

import array
import json
import math
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import time
import unittest
import wave

from program import ENVIRONMENT, PROGRAM, WINE, ProgramTest, Run, run, tool, windows

ROOT = pathlib.Path(__file__).resolve().parents[2]
RATE = 44100
FRAMES = 3 * RATE
MODULE = PROGRAM.parent / "Tessaly.dll"
CLASSES = r"HKLM\Software\Classes"
DIRECTORIES = r"HKCU\Software\Brevant\Cutloom\Directories"
NO_SERVER = {"PULSE_SERVER": "unix:/nowhere/native"}
FILTER_KEY = r"HKLM\Software\Brevant\Cutloom\Import Filters"
OGG_CLASS = "{2A54BF54-1E13-4AC8-A8FB-EA25D67E29C0}"


def wine(*words):
    return subprocess.run([WINE, *words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          env=dict(ENVIRONMENT, TESSALY_REGISTRATION="machine")).returncode


def foreign_image():
    """Returns the module with the machine type of 32-bit programs in its header."""
    data = bytearray(MODULE.read_bytes())
    place = int.from_bytes(data[0x3c:0x40], "little") + 4
    data[place:place + 2] = (0x014c).to_bytes(2, "little")
    return bytes(data)


def frames_of(path):
    with wave.open(str(path)) as file:
        return file.readframes(file.getnframes())


def facts_of(path):
    """Returns frames, rate, channels and bits, as sox reads them."""
    return [int(tool("soxi", flag, path)) for flag in ("-s", "-r", "-c", "-b")]


def hertz(samples):
    return sum(a < 0 <= b for a, b in zip(samples, samples[1:])) * RATE / len(samples)


class Picture:
    """A picture as ffmpeg reads it, in rows of three bytes per pixel."""

    def __init__(self, path):
        size = tool("ffprobe", "-v", "error", "-show_entries", "stream=width,height", "-of", "csv=p=0", path)
        self.size = tuple(map(int, size.decode().split(",")))
        data = tool("ffmpeg", "-v", "error", "-i", path, "-f", "rawvideo", "-pix_fmt", "rgb24", "-")
        stride = 3 * self.size[0]
        self.rows = [data[at:at + stride] for at in range(0, len(data), stride)]

    def wave(self, column, top, bottom):
        """Returns the rows of a lane that the waveform covers in one column."""
        return [y for y in range(top, bottom)
                if self.rows[y][3 * column] < 142]


class HostTest(ProgramTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.ogg, cls.tone = cls.shared / "音楽 Ω.ogg", cls.shared / "tone.ogg"
        wav = cls.shared / "in.wav"
        # A sweep and noise, so that no two parts of the audio are alike.
        tool("sox", "-R", "-n", "-r", RATE, "-c", 2, "-b", 16, wav, "synth", 3, "sine", "100:9000", "pinknoise",
             "vol", 0.5)
        tool("oggenc", "-Q", "-s", 1, "-t", "Glide", "-a", "Nobody", "-l", "Tests", "-d", "2009-05-01", "-G", "Noise",
             wav, "-o", cls.ogg)
        tool("sox", "-D", "-n", "-r", RATE, "-c", 1, "-b", 16, wav, "synth", 1, "sine", 1000)
        tool("oggenc", "-Q", "-s", 1, "-q", 9, wav, "-o", cls.tone)
        # The tests compare other results with this file bit by bit.
        assert run("convert", cls.ogg, wav)[0] == 0
        cls.samples = frames_of(wav)

    def setUp(self):
        super().setUp()
        self.png = self.folder / "out.png"

    def fail_with(self, status, *arguments, says="", **options):
        with self.subTest(arguments=arguments):
            self.assertTrue(self.ends(Run(*arguments, **options), status, says).startswith("marlinda: "))

    def piece(self, begin, end):
        return self.samples[begin * 4:end * 4]

    def test_a_command_that_cannot_be_done_ends_with_its_status_and_its_reason_and_writes_nothing(self):
        same, empty, text = (self.folder / name for name in ("same.wav", "empty.ogg", "text.ogg"))
        shutil.copy(self.ogg, same)
        empty.touch()
        text.write_text("This is no music.\n" * 100)
        for name in ("folder.wav", "folder.png"):
            (self.folder / name).mkdir()
        before = sorted(self.folder.iterdir())
        nowhere = self.folder / "nowhere"
        convert, cut, plot = (["convert", self.ogg], ["cut", self.ogg, self.out], ["plot", self.ogg, self.png])
        for status, arguments, says in [
            (2, ["frob"], "frob: there is no such command"),
            (2, convert, "See \"marlinda convert --help\""),
            (2, [*convert, self.out, "--bits", "12"], "--bits"),
            (2, [*convert, self.out, "--bits"], "--bits: its value is missing"),
            (2, [*convert, self.folder / "out.mp3", "--bits", "24"], "only WAV files"),
            (2, [*convert, self.folder / "out.flac"], "out.flac"),
            (2, ["convert", same, self.folder / "." / "same.wav"], "input file itself"),
            (2, ["convert", "-x.wav", self.out], "Put \"--\" before file names"),
            (2, [*cut, "--keep", "0:3.1"], "132300 frames"),
            (2, [*cut, "--keep", "0:1", "--plot", self.folder / "out.jpg"], "out.jpg"),
            (2, [*plot, "--width", "31"], "32 to 16384"),
            (2, [*plot, "--from", "soon"], '--from: "soon" is not a time'),
            (2, [*plot, "--from", "0:02", "--to", "1"], "--from 0:02 --to 1 holds no frame"),
            (3, ["info", "com1"], "belongs to a device"),
            *((3, ["convert", file, self.out], says) for file, says in (
                (nowhere / "missing.ogg", "folder does not exist"), (self.folder, "this is a folder"),
                (empty, "no import filter"), (text, "no import filter"))),
            (4, ["convert", self.ogg, "CON.wav"], "belongs to a device"),
            (4, [*convert, self.folder / "folder.wav"], "folder.wav"),
            (4, [*cut, "--keep", ":", "--silence", "3:100000"], "4 GiB"),
            (4, ["plot", self.ogg, self.folder / "folder.png"], "folder.png"),
        ]:
            self.fail_with(status, *arguments, says=says)
        # The pool's file fits the first limit, but an output 20 s longer does not. The pool's file exceeds the second
        # limit.
        self.fail_with(4, *cut, "--keep", ":", "--silence", "0:20", most_bytes=2 * FRAMES * 4 + 100_000,
                       says="could not be written whole")
        self.fail_with(4, *cut, "--keep", ":", most_bytes=FRAMES * 4, says="temporary folder: the disk is full")
        self.fail_with(4, *convert, self.out, most_bytes=FRAMES * 2, says="could not be written whole")
        self.fail_with(4, "plot", self.tone, self.png, "--width", "6000", "--height", "6000", most_bytes=200_000,
                       says="could not be written")
        self.assertEqual(sorted(self.folder.iterdir()), before)
        self.assertEqual(same.read_bytes(), self.ogg.read_bytes())

    def test_a_missing_module_ends_a_command_with_status_6_and_names_the_remedy(self):
        alone = self.folder / PROGRAM.name
        shutil.copy(PROGRAM, alone)
        for arguments in (["filters"], ["install-filters"], ["info", self.ogg], ["convert", self.ogg, self.out]):
            self.fail_with(6, *arguments, says="regsvr32", program=alone)
        for file in ("Tessaly.dll", PROGRAM.name + ".manifest"):
            shutil.copy(PROGRAM.parent / file, self.folder)
        self.fail_with(6, "convert", self.ogg, self.out, "--rate", "48000", program=alone, says="Converter.dll")

    def test_files_keep_full_scale_and_by_default_the_width_of_their_source(self):
        source = self.folder / "square.wav"
        for width, command, options, bits in (
                (8, "convert", [], 16), (16, "convert", ["--bits", "24"], 24), (24, "convert", [], 24),
                (32, "convert", [], 32), (16, "cut", ["--keep", ":", "--bits", "32"], 32)):
            tool("sox", "-D", "-n", "-r", RATE, "-c", 2, "-b", width, source, "synth", 0.1, "square", 441)
            self.succeed(command, source, self.out, *options)
            self.assertEqual(facts_of(self.out), [RATE // 10, RATE, 2, bits])
            before, after = (array.array("i", tool("sox", file, "-t", "s32", "-")) for file in (source, self.out))
            # Samples may differ by two steps of the source's width, or of 24 bits if the source is wider.
            most = 2 << 32 - min(width, 24)
            self.assertLessEqual(max(abs(a - b) for a, b in zip(before, after)), most)
        # NaN becomes silence, and infinity becomes full scale.
        source.write_bytes(struct.pack("<4sI8sIHHIIHH4sI2f", b"RIFF", 44, b"WAVEfmt ", 16, 3, 1, RATE, 4 * RATE, 4, 32,
                                       b"data", 8, math.nan, math.inf))
        self.succeed("convert", source, self.out, "--bits", "16")
        self.assertEqual(frames_of(self.out), struct.pack("<2h", 0, 32767))
        report = self.report("stats", source)
        self.assertEqual([report[key] for key in ("peak_dbfs", "clipped_samples", "silent_frames_at_start")], [0, 1, 1])

    def test_paths_may_have_more_than_260_characters(self):
        far = self.folder.joinpath(*["d" * 50] * 6)
        far.mkdir(parents=True)
        self.succeed("convert", self.ogg, far / "in.wav")
        self.succeed("cut", far / "in.wav", far / "out.wav", "--keep", ":1")
        self.assertEqual(frames_of(far / "out.wav"), self.piece(0, RATE))

    def test_a_damaged_file_is_converted_up_to_the_damage(self):
        hole = self.folder / "hole.ogg"
        data = bytearray(self.ogg.read_bytes())
        data[len(data) // 2] ^= 0xff
        hole.write_bytes(data)
        whole, slower = (json.loads(run("convert", hole, self.out, "--json", *options)[1])["frames"]
                         for options in ([], ["--rate", "22050"]))
        self.assertLess(whole, FRAMES)
        self.assertEqual(slower, whole * 22050 // RATE)
        # The damaged file is shorter than it announces, so the cut part also ends early.
        status, _, messages = run("cut", hole, self.out, "--keep", "0.5:")
        self.assertEqual((status, frames_of(self.out)), (0, self.piece(RATE // 2, whole)))
        self.assertIn(f"only {whole} of {FRAMES} frames", messages)
        run("cut", hole, self.ogg, self.out, "--keep", f"0.5:{whole + RATE}f")
        self.assertEqual(frames_of(self.out), self.piece(RATE // 2, whole) + self.piece(0, RATE))

    def test_join_keeps_pitch_length_and_labels_of_files_in_other_formats(self):
        self.succeed("cut", self.ogg, self.out, "--keep", ":1", "--label", "0.5:Half")
        mono, whole = self.folder / "mono.wav", self.folder / "whole.wav"
        self.succeed("convert", self.tone, mono, "--rate", "48000", "--channels", "1")
        report = self.report("join", self.out, mono, self.out, whole)
        self.assertEqual([report[key] for key in ("frames", "sample_rate", "channels")], [3 * RATE, RATE, 2])
        self.assertEqual([label["position"] for label in report["labels"]], [RATE // 2, 2 * RATE + RATE // 2])
        data = frames_of(whole)
        self.assertEqual((data[:4 * RATE], data[8 * RATE:]), (self.piece(0, RATE), self.piece(0, RATE)))
        self.assertAlmostEqual(hertz(array.array("h", data[4 * RATE:8 * RATE])[::2]), 1000, delta=1)

    def test_cut_joins_ranges_exactly_and_inserts_silence_labels_and_markers(self):
        self.succeed("cut", self.ogg, self.out, "--keep", "2.5:", "--keep", "1000f:2001f", "--keep", ":0.1")
        self.assertEqual(frames_of(self.out), self.piece(110250, FRAMES) + self.piece(1000, 2001) + self.piece(0, 4410))
        report = self.report(
            "cut", self.ogg, self.out, "--keep", "0:1", "--keep", "2:3", "--silence", "1:0.5", "--silence", "0:1f",
            "--label", "44101f:Pause: 日本", "--label", "0:Start", "--marker", "0.5:1.25:Part", "--marker", "::All",
            "--replace-text", "--plot", self.png)
        frames = 2 * RATE + 22051
        self.assertEqual(frames_of(self.out), bytes(4) + self.piece(0, RATE) + bytes(4 * 22050) +
                         self.piece(2 * RATE, 3 * RATE))
        labels = [(44101, "Pause: ??"), (0, "Start")]
        markers = [(22050, 55125, "Part"), (0, frames, "All")]
        self.assertEqual((report["frames"], report["picture"]), (frames, windows(self.png)))
        for read in (report, self.report("info", self.out)):
            self.assertEqual([(each["position"], each["name"]) for each in read["labels"]], labels)
            self.assertEqual([(each["begin"], each["end"], each["name"]) for each in read["markers"]], markers)
        self.assertRegex(tool("sndfile-info", self.out).decode(), r"INAM : Glide\n")
        picture = Picture(self.png)
        self.assertEqual(picture.size, (1200, 320))
        self.assertGreater(len(picture.wave(200, 30, 146)), 20)
        self.assertEqual(len(picture.wave(600, 30, 146)), 1)

    def test_files_are_read_back_with_all_their_metadata(self):
        def facts(report):
            return [report["filter"]["class"], *(report[key] for key in (
                "file", "frames", "sample_rate", "channels", "bits_per_sample", "tags", "labels", "markers", "acid"))]

        tags = {"title": "Glide", "artist": "Nobody", "album": "Tests", "year": "2009", "genre": "Noise"}
        self.assertEqual(facts(self.report("info", self.ogg)),
                         ["COggImport", windows(self.ogg), FRAMES, RATE, 2, 16, tags, [], [], None])
        self.succeed("cut", self.ogg, self.out, "--keep", ":", "--label", "1:Here", "--marker", "0.5:1.5:There",
                     "--bits", "24")
        wide = self.folder / "wide.wav"
        self.succeed("convert", self.out, wide, "--bits", "24")
        self.assertEqual(wide.read_bytes(), self.out.read_bytes())
        loop = b"acid" + struct.pack("<IiIIihhf", 24, 60, 0, 0, 8, 3, 4, 120.0)
        data = self.out.read_bytes()[8:] + loop
        wide.write_bytes(b"RIFF" + struct.pack("<I", len(data)) + data)
        self.assertEqual(facts(self.report("info", wide)), [
            "CDShowImport", windows(wide), FRAMES, RATE, 2, 24, tags, [{"position": RATE, "name": "Here"}],
            [{"begin": RATE // 2, "end": RATE * 3 // 2, "name": "There"}],
            {"root_note": 60, "meter_beats": 3, "meter_delimiter": 4, "beat_count": 8, "tempo": 120.0}])
        text = self.succeed("info", wide)
        for line in ("44100 Hz, 2 channels", "0:00:03.000", "Glide", "0:00:00.500 to 0:00:01.500  There",
                     "8 beats of 3/4"):
            self.assertIn(line, text)

    def test_install_filters_lists_each_filter_once_and_removes_it_again(self):
        def listed():
            report = self.report("filters")
            self.assertTrue(report["dialog_filter"].startswith("All Known Audio File Types ("))
            entry, = (each for each in report["filters"] if each["class"] == "COggImport")
            self.assertEqual((entry["class_id"], entry["merit"], entry["patterns"]), (OGG_CLASS, 200, ["*.ogg"]))
            return entry["listed_as"]

        def states(*arguments):
            return [entry["state"] for entry in self.report("install-filters", *arguments)["filters"]]

        self.addCleanup(wine, "reg", "delete", FILTER_KEY, "/f")
        wine("reg", "delete", FILTER_KEY, "/f")
        self.assertEqual((listed(), states("--remove")), (None, ["not listed"] * 2))
        # The command repairs a damaged entry under the engine's own name.
        self.assertEqual(wine("reg", "add", FILTER_KEY, "/v", "COggImport", "/d", "{broken}", "/f"), 0)
        self.assertEqual((states(), states(), listed()), (["listed"] * 2, ["listed already"] * 2, "COggImport"))
        self.assertEqual((states("--remove"), listed()), (["removed"] * 2, None))
        # The command finds and keeps another program's entry for the same class.
        wine("reg", "add", FILTER_KEY, "/v", "Vorbis", "/d", OGG_CLASS.lower(), "/f")
        self.assertEqual((sorted(states()), listed()), (["listed", "listed already"], "Vorbis"))

    def test_plot_draws_the_chosen_size_format_and_style(self):
        report = self.report("plot", self.tone, self.png, "--width", "300", "--height", "120")
        self.assertEqual([report[key] for key in ("input", "picture", "frames", "width", "height")],
                         [windows(self.tone), windows(self.png), RATE, 300, 120])
        self.assertEqual(Picture(self.png).size, (300, 120))
        drawn = self.folder / "out.svg"
        self.succeed("plot", self.tone, drawn, "--scale", "db", "--theme", "dark", "--colour", "#26ab9c", "--rms")
        self.assertRegex(drawn.read_text(), r'<svg [^>]*width="1200" height="320">(.|\n)*fill="#26ab9c" d="M')

    def test_peaks_writes_the_lowest_and_highest_code_of_each_group_of_frames(self):
        source, pairs = self.folder / "all.wav", []
        self.succeed("convert", self.ogg, source)
        codes = struct.unpack(f"<{2 * FRAMES}h", self.piece(0, FRAMES))
        for first in range(0, FRAMES, 1000):
            for channel in range(2):
                group = codes[2 * first + channel:2 * (first + 1000):2]
                pairs += [min(group), max(group)]
        length = len(pairs) // 4
        header = {"version": 2, "channels": 2, "sample_rate": RATE, "samples_per_pixel": 1000, "bits": 16, "length": length}
        peaks = ["peaks", source, "-", "--samples-per-pixel", "1000"]
        self.assertEqual(json.loads(self.succeed(*peaks)), header | {"data": pairs})
        self.assertEqual(json.loads(self.succeed(*peaks, "--bits", "8"))["data"], [int(each / 256) for each in pairs])
        data = self.folder / "out.dat"
        self.succeed("peaks", source, data, "--samples-per-pixel", "1000")
        self.assertEqual(data.read_bytes(), struct.pack(f"<6i{len(pairs)}h", 2, 0, RATE, 1000, length, 2, *pairs))

    def test_stats_agree_with_other_meters(self):
        padded = self.folder / "padded.wav"
        tool("sox", "-D", "-r", RATE, "-n", "-c", 2, "-b", 16, padded, "synth", 4, "sine", 997, "sine", 500, "gain", 3,
             "pad", "441s", "882s")
        report = self.report("stats", padded)
        meter = subprocess.run(["ffmpeg", "-hide_banner", "-nostats", "-i", padded, "-af", "ebur128", "-f", "null", "-"],
                               capture_output=True, text=True).stderr
        loudness = float(meter.split("Summary:")[1].split("I:")[1].split()[0])
        self.assertAlmostEqual(report["integrated_loudness_lufs"], loudness, delta=0.1)
        codes = struct.unpack(f"<{2 * (4 * RATE + 1323)}h", frames_of(padded))
        for channel, levels in enumerate(report["channel_levels"]):
            samples = [each / 32767 for each in codes[channel::2]]
            power = sum(each * each for each in samples) / len(samples)
            self.assertAlmostEqual(levels["rms_dbfs"], 10 * math.log10(power), places=6)
            self.assertEqual(levels["clipped_samples"], sum(abs(each) >= 1 for each in samples))
        self.assertGreater(report["clipped_samples"], 100)
        self.assertGreater(report["true_peak_dbtp"], report["peak_dbfs"])
        self.assertAlmostEqual(report["silent_frames_at_start"], 441, delta=1)
        self.assertAlmostEqual(report["silent_frames_at_end"], 882, delta=1)

    def test_a_picture_of_a_section_is_the_same_with_and_without_a_pool(self):
        wav, chain = self.folder / "all.wav", self.folder / "chain.ogg"
        self.succeed("convert", self.ogg, wav)
        # The chain's second link is mono. A file that changes its format is drawn from a pool, because no section of it
        # can be imported.
        chain.write_bytes(self.ogg.read_bytes() + (ROOT / "tests/data/mono.ogg").read_bytes())
        # The other two files are drawn without a pool.
        for width, sources in ("400", (self.ogg, chain)), ("100", (wav, self.ogg)):
            pictures = []
            for source in sources:
                self.assertEqual(run("plot", source, self.png, "--width", width, "--from", "42084f", "--to", "2.2")[0], 0)
                pictures.append(self.png.read_bytes())
            self.assertEqual(*pictures, sources)

    def test_one_second_of_a_long_file_needs_the_disk_space_of_one_second(self):
        long = self.folder / "long.wav"
        size = 3 * 3600 * RATE * 4
        with open(long, "wb") as file:
            file.write(struct.pack("<4sI8sIHHIIHH4sI", b"RIFF", size + 36, b"WAVEfmt ", 16, 1, 2, RATE, 4 * RATE, 4, 16,
                                   b"data", size))
            file.seek(44 + size - 2 * RATE * 4)
            file.write(self.piece(0, 2 * RATE))
        options = {"most_bytes": 2_000_000}
        self.succeed("cut", long, self.out, "--keep", "2:59:58.5:2:59:59.5", "--keep", "1f:10f", **options)
        self.assertEqual(frames_of(self.out), self.piece(RATE // 2, RATE * 3 // 2) + bytes(36))
        self.succeed("cut", self.ogg, long, self.out, "--keep", "2.5:3", "--keep", "3:00:01.5:3:00:02.5", **options)
        self.assertEqual(frames_of(self.out), self.piece(RATE * 5 // 2, FRAMES) + self.piece(RATE // 2, RATE * 3 // 2))
        self.succeed("plot", long, self.png, "--from", "2:59:59", **options)
        # The program refuses these commands before any import.
        for command in (["convert", long], ["join", long, long]):
            self.fail_with(4, *command, self.out, "--bits", "32", "--channels", "4", says="4 GiB", **options)

    def test_cut_keeps_and_reports_the_audio_when_its_picture_cannot_be_written(self):
        self.png.symlink_to("nowhere/out.png")
        status, output, messages = run("cut", self.ogg, self.out, "--keep", "1:2", "--plot", self.png, "--json")
        self.assertEqual(status, 4)
        self.assertIn("out.png: it could not be written", messages)
        self.assertEqual(frames_of(self.out), self.piece(RATE, 2 * RATE))
        self.assertEqual((json.loads(output)["output"], json.loads(output)["picture"]), (windows(self.out), None))

    def test_an_interrupted_conversion_or_export_ends_with_status_130_and_leaves_a_valid_file(self):
        # Uninterrupted, the conversion would take many minutes, and the export would write 2 GiB.
        long = self.folder / "long.ogg"
        tool("sox", "-R", "-n", "-r", RATE, "-c", 1, "-C", 3, long, "synth", 600, "sine", 997)
        for arguments, most in ((["convert", long, self.out, "--rate", "768000"], 600 * 768000),
                                (["cut", self.ogg, self.out, "--keep", ":", "--silence", "3:12000"], 12000 * RATE)):
            self.out.unlink(missing_ok=True)
            command = Run(*arguments)
            while not (self.out.exists() and self.out.stat().st_size > 0):
                self.assertIsNone(command.process.poll())
                time.sleep(0.01)
            # While the program completes its file, it ignores further Ctrl+C.
            for _ in range(3):
                command.process.send_signal(signal.SIGINT)
            status, output, messages = command.result()
            self.assertEqual((status, output), (130, ""))
            self.assertIn("interrupted; the file is valid", messages)
            frames, _, channels, bits = facts_of(self.out)
            self.assertLess(frames, most)
            self.assertGreaterEqual(self.out.stat().st_size, 44 + frames * channels * bits // 8)

    def test_help_version_and_reports_are_as_documented(self):
        def keys(report):
            if isinstance(report, list):
                return set().union(*map(keys, report))
            return set(report).union(*map(keys, report.values())) if isinstance(report, dict) else set()

        page = (ROOT / "docs/host.md").read_text()
        for command, arguments in {"doctor": [], "filters": [], "info": [self.ogg], "devices": [],
                                   "cut": [self.ogg, self.out, "--keep", ":", "--label", "1:x"],
                                   "plot": [self.ogg, self.png]}.items():
            with self.subTest(command=command):
                report = json.loads(run(command, *arguments, "--json")[1])
                section = re.search(rf"^### `{command}`\n(.*?)(?=^###? )", page, re.M | re.S)[1]
                block = section.split("JSON:\n")[1]
                self.assertEqual((list(report)[0], report.pop("schema_version")), ("schema_version", 2))
                # The page indents the keys of the outermost object by one level.
                self.assertEqual(list(report), re.findall(r'^      "(\w+)":', block, re.M))
                self.assertLessEqual(keys(report), set(re.findall(r'"(\w+)":', block)))
        commands = re.findall(r"^  ([a-z-]+)  ", self.succeed("--help").split("Subcommands:")[1], re.M)
        self.assertEqual(sorted(commands), sorted(re.findall(r"^### `(.*)`$", page, re.M)))
        for command in commands:
            self.assertIn(f"Example: marlinda {command}", self.succeed("help", command))
        self.assertRegex(self.succeed("--version"), r"^marlinda \d+\.\d+\.\d+\n$")


class DoctorTest(ProgramTest):
    """Breaks one requirement of the program at a time. "marlinda doctor" must report it."""

    def setUp(self):
        super().setUp()
        self.alone = self.folder / "x64" / PROGRAM.name
        self.alone.parent.mkdir()
        shutil.copy(PROGRAM, self.alone)
        for key in (FILTER_KEY, DIRECTORIES):
            wine("reg", "delete", key, "/f")
            self.addCleanup(wine, "reg", "delete", key, "/f")

    def register(self, module):
        self.assertEqual(wine("regsvr32", "/s", windows(module)), 0)
        self.addCleanup(wine, "regsvr32", "/s", "/u", windows(module))

    def doctor(self, status=7, program=PROGRAM, subject=None, cause=None):
        """Returns the report. Besides the missing sound server, the report must hold one problem with this subject and
        cause. Without a subject, `status` decides whether the report holds other problems."""
        got, output, messages = run("doctor", "--json", program=program, environment=NO_SERVER)
        self.assertEqual(got, status, output + messages)
        report = json.loads(output)
        self.assertTrue(all(problem["remedy"] for problem in report["problems"]))
        found = [problem for problem in report["problems"] if problem["status"] != 7]
        self.assertEqual(len(report["problems"]), len(found) + 2)
        self.assertEqual(not found, status == 7)
        if subject:
            # If the module is missing, the type library may be missing, too.
            self.assertTrue(len(found) == 1 or not report["module"], found)
            self.assertIn(subject, found[0]["subject"])
            self.assertIn(cause, found[0]["cause"])
        return report

    def test_a_whole_installation_has_no_problems(self):
        report = self.doctor()
        self.assertEqual((report["found_by"], report["registrations"]),
                         ("manifest", [{"kind": "manifest", "module": windows(MODULE)}]))
        for file, path in (("module", MODULE), ("program", PROGRAM)):
            self.assertEqual((report[file]["path"], report[file]["bits"]), (windows(path), 64))
        self.assertEqual([state["available"] for state in report["classes"]], [True] * 14)
        failures = {each["kind"]: each["failure"] for each in report["decoding"]}
        self.assertEqual({failures[kind] for kind in ("AIFF", "AU", "MP3", "OGG", "WAV")}, {None})
        # The filter for FLAC is not registered.
        self.assertEqual(failures["FLAC"], "no working decoder")
        text = subprocess.check_output([ROOT / "scripts/sound-session", WINE, PROGRAM, "doctor"],
                                       stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL).decode()
        self.assertEqual(text.splitlines()[-1], "no problems", text)
        self.assertRegex(text, r"outputs +\S.*Null Output")

    def test_a_missing_or_broken_module_is_reported_with_its_fault(self):
        status, text, _ = run("doctor", program=self.alone, environment=NO_SERVER)
        self.assertEqual(status, 6)
        self.assertIn("problem: the engine's module: the class is not registered\n  Register", text)
        moved = self.folder / MODULE.name
        shutil.copy(MODULE, moved)
        self.register(moved)
        self.addCleanup(shutil.copy, MODULE, moved)
        report = self.doctor(program=self.alone)
        self.assertEqual((report["found_by"], report["registrations"]),
                         ("machine", [{"kind": "machine", "module": windows(moved)}]))
        for content, cause in (foreign_image(), "a 32-bit module"), (b"MZ", "no module"), (None, "does not exist"):
            moved.write_bytes(content) if content else moved.unlink()
            report = self.doctor(6, self.alone, f"the engine's module (machine: {windows(moved)})", cause)
            self.assertIsNone(report["module"])

    def test_doctor_reports_missing_type_libraries_broken_filters_and_unusable_temporary_folders(self):
        self.register(MODULE)
        wine("reg", "delete", CLASSES + r"\TypeLib\{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}", "/f")
        self.assertIsNone(self.doctor(6, self.alone, "type library", "not registered")["type_library"])
        # The filter manager stops reading the list at the last of these values.
        for value, subject, cause in (
                ("{11111111-2222-3333-4444-555555555555}", '"Ghost" in HKEY_LOCAL_MACHINE', "not registered"),
                ("COggImport", '"Ghost"', "not a class identifier"), ("x" * 120, "Import Filters", "too long")):
            wine("reg", "add", FILTER_KEY, "/v", "Ghost", "/d", value, "/f")
            self.doctor(6, PROGRAM, subject, cause)
        wine("reg", "delete", FILTER_KEY, "/v", "Ghost", "/f")
        # Even root cannot create a file in the last folder.
        for folder, cause in ((self.folder, None), (self.folder / "nowhere", "does not exist"),
                              (self.alone, "not a folder"), (pathlib.Path("/proc/self"), "no file can be made there")):
            wine("reg", "add", DIRECTORIES, "/v", "Temporary", "/d", windows(folder), "/f")
            report = self.doctor(4 if cause else 7, PROGRAM, cause and folder.name, cause)
            self.assertTrue(report["temporary_folder"]["chosen"])
        self.assertEqual(list(self.folder.iterdir()), [self.alone.parent])


if __name__ == "__main__":
    unittest.main()
