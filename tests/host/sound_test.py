"""Plays, records and scrubs with marlinda.exe as its users do, on sound servers of the tests' own.

Called inside a Wine session: sound_test.py PATH/marlinda.exe [unittest arguments]
"""

import array
import contextlib
import fcntl
import json
import os
import pathlib
import re
import signal
import struct
import sys
import tempfile
import termios
import time
import unittest
import wave

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import program
from program import Run, run, tool
from sound import FRAME_BYTES, RATE, Microphone, Speaker, kill_server, sound_server, wait_until, without_silence

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
    """The frames, without silence, that a speaker has received since."""

    def __init__(self, speaker):
        self.speaker = speaker
        self.begin = len(speaker.got)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        def unread():
            return struct.unpack("i", fcntl.ioctl(self.speaker.pipe, termios.FIONREAD, bytes(4)))[0]

        wait_until(lambda: not tool("pactl", "list", "short", "sink-inputs"), "the end of all streams")
        wait_until(lambda: unread() == 0, "an empty pipe")

    def frames(self):
        floats = array.array("f", without_silence(bytes(self.speaker.got[self.begin:])))
        return list(zip(floats[0::2], floats[1::2]))

    def wait_for(self, frames):
        wait_until(lambda: len(self.frames()) >= frames, f"{frames} frames")


def temporary_files():
    folders = pathlib.Path(os.environ["WINEPREFIX"], "drive_c", "users")
    return {file: file.stat().st_size for file in folders.glob("*/Temp/*") if file.exists()}


def record(*arguments, **options):
    """A recording whose pool holds half a second."""
    known = temporary_files()
    command = Run("record", *arguments, **options)
    wait_until(lambda: any(size >= RATE // 2 * FRAME_BYTES and file not in known
                           for file, size in temporary_files().items()), "a take")
    return command


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
        self.assertIn("0  " + report["outputs"][0]["name"], self.succeed("devices"))

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

    def test_wrong_usage_ends_with_2_and_a_missing_device_with_7(self):
        for arguments, says in [
            (["play", self.ogg, "--channels", "0,2"], "there is no channel 2"),
            (["play", self.ogg, "--to", "2.1"], "88200 frames"),
            (["play", self.ogg, "--device", "-1"], "--device"),
            (["scrub", self.ogg], "--at"),
            (["scrub", self.ogg, "--at", "0,,1"], "is not a time"),
            (["scrub", self.ogg, "--at", "2.1"], "88200 frames"),
            (["scrub", self.ogg, "--at", "1", "--hold", "long"], "is not a time"),
            (["record", self.out, "--seconds", "0"], "no frame"),
            (["record", self.out, "--seconds", "999999"], "4 GiB"),
            (["record", self.out, "--seconds", "1", "--channels", "0"], "--channels"),
            (["record", self.folder / "out.mp3", "--seconds", "1"], ".wav"),
        ]:
            with self.subTest(arguments=arguments):
                self.fail_with(2, *arguments, says=says)
        for arguments in (["play", self.ogg], ["scrub", self.ogg, "--at", "1"],
                          ["record", self.out, "--seconds", "1"]):
            self.fail_with(7, *arguments, "--device", "99", says="marlinda devices")
            # Messages of the system's own sound library may come before.
            self.fail_with(7, *arguments, says="there is no sound device", environment=NO_SERVER)
        self.assertEqual(list(self.folder.iterdir()), [])

    def test_an_output_that_cannot_be_written_is_refused_before_the_take(self):
        (self.folder / "folder.wav").mkdir()
        self.fail_with(4, "record", self.folder / "folder.wav", "--seconds", "9999",
                       says="this is a folder")

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
        command = record(self.out, "--seconds", "3")
        self.out.mkdir()
        status, output, messages = command.result()
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
        command = record(self.out, "--seconds", "600")
        # A second Ctrl+C changes nothing.
        command.process.send_signal(signal.SIGINT)
        status, output, messages = self.interrupt(command)
        self.assertEqual((status, output), (130, ""))
        self.assertIn("the file is valid and holds the first", messages)
        with wave.open(str(self.out)) as file:
            frames = file.getnframes()
            samples = array.array("h", file.readframes(frames))
        self.assertGreaterEqual(frames, RATE // 2)
        self.assertLess(frames, 600 * RATE)
        self.assertGreater(max(samples[-RATE // 5:]), 16000)

    def test_a_recording_outlasts_a_sound_server_that_stands_still(self):
        with sound() as (environment, _):
            command = record(self.out, "--seconds", "3", environment=environment)
            server = int(environment["TESSALY_SOUND_SERVER_PID"])
            os.kill(server, signal.SIGSTOP)
            time.sleep(8)  # longer than record waits before it tries the device again
            os.kill(server, signal.SIGCONT)
            status, _, messages = command.result()
        self.assertEqual(status, 0, messages)
        with wave.open(str(self.out)) as file:
            self.assertEqual(file.getnframes(), 3 * RATE)

    def test_scrub_makes_its_positions_heard_until_it_is_interrupted(self):
        with Heard(self.speaker) as heard:
            report = json.loads(self.succeed("scrub", self.ogg, "--at", "0.5,22050f,1.25", "--hold",
                                             "0.4", "--json"))
        self.assertEqual(report["positions"], [22050, 22050, 55125])
        self.assertGreater(len(heard.frames()), RATE // 2)
        self.assertGreater(max(left for left, _ in heard.frames()), 0.4)
        with Heard(self.speaker) as heard:
            scrub = Run("scrub", self.ogg, "--at", "1", "--hold", "600")
            heard.wait_for(RATE // 2)
            status, output, messages = self.interrupt(scrub)
        self.assertEqual((status, output), (130, ""))
        self.assertIn("interrupted at 0:00:01.000", messages)

    def test_a_device_that_is_lost_ends_with_7_and_keeps_the_take(self):
        with sound() as (one, speaker), sound() as (other, other_speaker):
            play = Run("play", self.long, environment=one)
            scrub = Run("scrub", self.ogg, "--at", "1", "--hold", "600", environment=other)
            take = record(self.out, "--seconds", "600", environment=one)
            Heard(speaker).wait_for(RATE // 2)
            Heard(other_speaker).wait_for(RATE // 2)
            kill_server(one)
            kill_server(other)
            for command, says in (play, "playing ended at"), (take, "holds the first"), \
                    (scrub, "it stopped playing at 0:00:01.000"):
                status, _, messages = command.result()
                self.assertEqual(status, 7, messages)
                self.assertIn(says, messages)
            with wave.open(str(self.out)) as file:
                self.assertGreaterEqual(file.getnframes(), RATE // 2)


if __name__ == "__main__":
    unittest.main()
