"""Plays, records and scrubs with marlinda.exe as its users do, on sound servers of the tests' own.

Called inside a Wine session: sound_test.py PATH/marlinda.exe [unittest arguments]
"""

import array
import contextlib
import json
import os
import pathlib
import re
import signal
import sys
import tempfile
import time
import unittest
import wave

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import program
from program import Run, run, tool
from sound import (FRAME_BYTES, RATE, Microphone, Speaker, kill_server, sound_server,
                   wait_for_stream, wait_until, without_silence)

NO_SERVER = {"PULSE_SERVER": "unix:/nowhere/native"}


@contextlib.contextmanager
def sound():
    """A sound server's environment, and its speaker; its microphone hears a tone."""
    with contextlib.ExitStack() as ends:
        server = ends.enter_context(contextlib.ExitStack())
        environment = server.enter_context(sound_server(pipes=True))
        speaker = Speaker(environment)
        ends.callback(speaker.close)
        ends.callback(Microphone(environment).close)
        ends.callback(server.close)
        yield environment, speaker


class Heard:
    """The frames, without silence, that a speaker has been given since."""

    def __init__(self, speaker):
        self.speaker = speaker
        self.begin = len(speaker.got)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        # What was played last is still under way.
        got = -1
        while got != len(self.speaker.got):
            got = len(self.speaker.got)
            time.sleep(0.5)

    def frames(self):
        floats = array.array("f", without_silence(bytes(self.speaker.got[self.begin:])))
        return list(zip(floats[0::2], floats[1::2]))

    def wait_for(self, frames):
        wait_until(lambda: len(self.frames()) >= frames, f"{frames} frames")


def wait_for_take():
    """Until the engine's pool holds half a second."""
    folders = pathlib.Path(os.environ["WINEPREFIX"], "drive_c", "users")
    wait_until(lambda: any(file.stat().st_size >= RATE // 2 * FRAME_BYTES
                           for file in folders.glob("*/Temp/*") if file.exists()), "a take")


class SoundTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        program.keep_wine_alive(cls)
        environment, cls.speaker = cls.enterClassContext(sound())
        program.ENVIRONMENT.update(environment)
        shared = tempfile.TemporaryDirectory()
        cls.addClassCleanup(shared.cleanup)
        cls.ogg = cls.music(pathlib.Path(shared.name), "two", 2)
        cls.long = cls.music(pathlib.Path(shared.name), "long", 60)

    @staticmethod
    def music(folder, name, seconds):
        made, ogg = folder / (name + ".wav"), folder / (name + ".ogg")
        tool("sox", "-D", "-n", "-r", RATE, "-c", 2, "-b", 16, made, "synth", seconds, "sine", 440,
             "vol", 0.5)
        tool("oggenc", "-Q", "-s", 1, made, "-o", ogg)
        return ogg

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.out = self.folder / "out.wav"

    def succeed(self, *arguments, **options):
        status, output, messages = run(*arguments, **options)
        self.assertEqual((status, messages), (0, ""))
        return output

    def fail_with(self, status, *arguments, says, **options):
        got, output, messages = run(*arguments, **options)
        self.assertEqual((got, output), (status, ""), (arguments, messages))
        self.assertIn(says, messages)

    def interrupt(self, command):
        """Sends Ctrl+C; the command must be running then."""
        self.assertIsNone(command.process.poll())
        command.process.send_signal(signal.SIGINT)
        return command.result()

    def test_devices_lists_the_speaker_and_the_microphone(self):
        report = json.loads(self.succeed("devices", "--json"))
        for kind, name in (("outputs", "speaker"), ("inputs", "microphone")):
            self.assertEqual([device["index"] for device in report[kind]],
                             list(range(len(report[kind]))))
            self.assertTrue(any(name in device["name"] for device in report[kind]), report)
            self.assertGreater(report[kind][0]["channels"], 0)
        text = self.succeed("devices")
        self.assertIn("0  " + report["outputs"][0]["name"], text)

    def test_play_takes_as_long_as_the_file_and_is_heard(self):
        with Heard(self.speaker) as heard:
            start = time.monotonic()
            report = json.loads(self.succeed("play", self.ogg, "--json"))
            took = time.monotonic() - start
        self.assertGreater(took, 1.9)
        self.assertEqual((report["begin"], report["end"], report["device"], report["channels"]),
                         (0, 2 * RATE, None, [0, 1]))
        frames = heard.frames()
        self.assertAlmostEqual(len(frames), 2 * RATE, delta=0.1 * RATE)
        for channel in zip(*frames):
            self.assertAlmostEqual(max(channel), 0.5, delta=0.05)

    def test_play_plays_the_section_and_the_channels_it_is_told(self):
        with Heard(self.speaker) as heard:
            status, text, messages = run("play", self.ogg, "--from", "0.5", "--to", "1",
                                         "--channels", "1", "--device", "0", "--progress")
        self.assertEqual(status, 0)
        self.assertTrue(messages.endswith("progress 100 Playing\n"), messages)
        self.assertRegex(text, r"^played .*two\.ogg: 0:00:00\.500 to 0:00:01\.000\n$")
        frames = heard.frames()
        self.assertAlmostEqual(len(frames), 0.5 * RATE, delta=0.1 * RATE)
        self.assertTrue(all(left == 0 for left, _ in frames))

    def test_play_loops_until_it_is_interrupted(self):
        with Heard(self.speaker) as heard:
            play = Run("play", self.ogg, "--to", "0.25", "--loop")
            heard.wait_for(RATE)
            status, output, messages = self.interrupt(play)
        self.assertEqual((status, output), (130, ""))
        self.assertIn("interrupted at 0:00:00.", messages)

    def test_wrong_usage_ends_with_2(self):
        for arguments, says in [
            (["play", self.ogg, "--channels", "0,2"], "there is no channel 2"),
            (["play", self.ogg, "--channels", "left"], "list of channels"),
            (["play", self.ogg, "--from", "1", "--to", "0.5"], "holds no frame"),
            (["play", self.ogg, "--to", "2.1"], "88200 frames"),
            (["play", self.ogg, "--device", "-1"], "--device"),
            (["scrub", self.ogg], "--at"),
            (["scrub", self.ogg, "--at", "0,,1"], "is not a time"),
            (["scrub", self.ogg, "--at", "2.1"], "88200 frames"),
            (["scrub", self.ogg, "--at", "1", "--hold", "long"], "is not a time"),
            (["record", self.out], "--seconds"),
            (["record", self.out, "--seconds", "0"], "no frame"),
            (["record", self.out, "--seconds", "999999"], "4 GiB"),
            (["record", self.out, "--seconds", "1", "--bits", "12"], "--bits"),
            (["record", self.out, "--seconds", "1", "--rate", "0"], "--rate"),
            (["record", self.out, "--seconds", "1", "--channels", "0"], "--channels"),
            (["record", self.folder / "out.mp3", "--seconds", "1"], ".wav"),
        ]:
            with self.subTest(arguments=arguments):
                self.fail_with(2, *arguments, says=says)
        self.assertEqual(list(self.folder.iterdir()), [])

    def test_a_device_that_is_not_there_ends_with_7(self):
        for arguments in (["play", self.ogg], ["scrub", self.ogg, "--at", "1"],
                          ["record", self.out, "--seconds", "1"]):
            with self.subTest(arguments=arguments):
                self.fail_with(7, *arguments, "--device", "99", says="marlinda devices")
        self.assertEqual(list(self.folder.iterdir()), [])

    def test_an_output_that_cannot_be_written_is_refused_before_the_take(self):
        self.fail_with(4, "record", self.folder / "nowhere" / "out.wav", "--seconds", "9999",
                       says="folder")
        (self.folder / "folder.wav").mkdir()
        self.fail_with(4, "record", self.folder / "folder.wav", "--seconds", "9999",
                       says="access is denied")

    def test_record_writes_exactly_the_frames_it_is_told_and_what_it_hears(self):
        for options, frames, (channels, width, rate) in [
            (["--seconds", "1"], RATE, (2, 2, RATE)),
            (["--seconds", "12345f", "--bits", "24", "--channels", "1", "--rate", "48000"],
             12345, (1, 3, 48000)),
        ]:
            with self.subTest(options=options):
                report = json.loads(self.succeed("record", self.out, *options, "--json"))
                self.assertEqual((report["frames"], report["bytes"]),
                                 (frames, self.out.stat().st_size))
                with wave.open(str(self.out)) as file:
                    self.assertEqual((file.getnchannels(), file.getsampwidth(),
                                      file.getframerate()), (channels, width, rate))
                    self.assertEqual(file.getnframes(), frames)
                # The tone all the way through. A busy machine may drop pieces, but puts nothing in.
                tool("sox", self.out, "-b", 16, self.folder / "s16.wav", "remix", 1)
                with wave.open(str(self.folder / "s16.wav")) as file:
                    samples = array.array("h", file.readframes(frames))
                for begin in range(0, frames - 1000, 1000):
                    self.assertAlmostEqual(max(samples[begin:begin + 1000]), 16384, delta=4000)
                swings = sum(a < 0 <= b for a, b in zip(samples, samples[1:]))
                expected = Microphone.HERTZ * frames / rate
                self.assertAlmostEqual(swings, expected, delta=2 + expected / 20)

    def test_a_take_whose_place_is_gone_is_saved_elsewhere(self):
        record = Run("record", self.out, "--seconds", "3")
        wait_for_take()
        self.out.mkdir()
        status, output, messages = record.result()
        self.assertEqual((status, output), (4, ""), messages)
        saved = re.search(r"the take was saved as C:(.*) instead", messages)[1]
        saved = pathlib.Path(os.environ["WINEPREFIX"] + "/drive_c" + saved.replace("\\", "/"))
        self.addCleanup(saved.unlink)
        with wave.open(str(saved)) as file:
            self.assertEqual(file.getnframes(), 3 * RATE)

    def test_a_disk_that_runs_full_ends_with_4_and_keeps_the_take(self):
        # The pool takes 8 bytes a frame, the file 4.
        room = RATE * 8
        status, output, messages = run("record", self.out, "--seconds", "600", most_bytes=room)
        self.assertEqual((status, output), (4, ""), messages)
        self.assertIn("the file is valid and holds the first", messages)
        with wave.open(str(self.out)) as file:
            frames = file.getnframes()
            samples = array.array("h", file.readframes(frames))
        # With the block that found no more room.
        self.assertGreaterEqual(frames, RATE)
        self.assertLessEqual(frames, RATE + RATE // 25)
        self.assertGreater(max(samples[2 * (RATE - RATE // 5):2 * RATE]), 16000)

    def test_an_interrupted_recording_keeps_its_take(self):
        record = Run("record", self.out, "--seconds", "600")
        wait_for_take()
        # An impatient hand loses nothing.
        record.process.send_signal(signal.SIGINT)
        time.sleep(0.02)
        status, output, messages = self.interrupt(record)
        self.assertEqual((status, output), (130, ""))
        self.assertIn("the file is valid and holds the first", messages)
        with wave.open(str(self.out)) as file:
            frames = file.getnframes()
            samples = array.array("h", file.readframes(frames))
        self.assertGreaterEqual(frames, RATE // 2)
        self.assertLess(frames, 600 * RATE)
        self.assertGreater(max(samples[-RATE // 5:]), 16000)

    def test_scrub_makes_its_positions_heard(self):
        with Heard(self.speaker) as heard:
            report = json.loads(self.succeed("scrub", self.ogg, "--at", "0.5,22050f,1.25", "--hold",
                                             "0.4", "--json"))
        self.assertEqual(report["positions"], [22050, 22050, 55125])
        frames = heard.frames()
        self.assertGreater(len(frames), RATE // 2)
        self.assertGreater(max(left for left, _ in frames), 0.4)

    def test_scrub_is_interrupted_cleanly(self):
        with Heard(self.speaker) as heard:
            scrub = Run("scrub", self.ogg, "--at", "1", "--hold", "600")
            heard.wait_for(RATE // 2)
            status, output, messages = self.interrupt(scrub)
        self.assertEqual((status, output), (130, ""))
        self.assertIn("interrupted at 0:00:01.000", messages)

    def test_a_device_that_is_lost_ends_with_7_and_keeps_the_take(self):
        with sound() as (one, speaker), sound() as (other, other_speaker):
            play = Run("play", self.long, environment=one)
            record = Run("record", self.out, "--seconds", "600", environment=one)
            scrub = Run("scrub", self.ogg, "--at", "1", "--hold", "600", environment=other)
            wait_for_stream(one, "source-outputs")
            wait_for_take()
            Heard(speaker).wait_for(RATE // 2)
            Heard(other_speaker).wait_for(RATE // 2)
            kill_server(one)
            kill_server(other)
            for command, says in (play, "it stopped playing at"), (record, "holds the first"), \
                    (scrub, "it stopped playing at 0:00:01.000"):
                status, _, messages = command.result()
                self.assertEqual(status, 7, messages)
                self.assertIn(says, messages)
            with wave.open(str(self.out)) as file:
                self.assertGreaterEqual(file.getnframes(), RATE // 2)

    def test_without_a_sound_server_there_is_no_device_and_nothing_hangs(self):
        # Messages may come from the system's own sound library.
        status, output, _ = run("devices", "--json", environment=NO_SERVER)
        self.assertEqual((status, json.loads(output)), (0, {"schema_version": 1, "outputs": [], "inputs": []}))
        status, output, _ = run("devices", environment=NO_SERVER)
        self.assertEqual((status, output), (0, "outputs: none\ninputs: none\n"))
        for arguments in (["play", self.ogg], ["scrub", self.ogg, "--at", "1"],
                          ["record", self.out, "--seconds", "1"]):
            with self.subTest(arguments=arguments):
                self.fail_with(7, *arguments, says="there is no sound device",
                               environment=NO_SERVER)
        self.assertFalse(self.out.exists())


if __name__ == "__main__":
    unittest.main()
