"""Plays, records and scrubs with marlinda.exe as its users do, on a sound server of the tests' own.

Called inside a sound session and a Wine session: sound_test.py PATH/marlinda.exe [unittest arguments]
"""

import array
import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import wave

import program
from program import Run, run, tool, windows

RATE = 44100
SOUND_SESSION = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "sound-session"
NO_SERVER = {"PULSE_SERVER": "unix:/nowhere/native"}


class Capture:
    """What the speaker is given meanwhile, as 16-bit stereo samples."""

    def __init__(self, file):
        self.file = file

    def __enter__(self):
        self.output = open(self.file, "wb")
        self.process = subprocess.Popen(
            ["parec", "--device=speaker.monitor", "--format=s16le", f"--rate={RATE}", "--channels=2",
             "--raw", "--latency-msec=50"], stdin=subprocess.DEVNULL, stdout=self.output)
        deadline = time.monotonic() + 60
        while self.output.tell() == 0 and pathlib.Path(self.file).stat().st_size == 0:
            assert self.process.poll() is None and time.monotonic() < deadline
            time.sleep(0.01)
        return self

    def __exit__(self, *_):
        # What was played last is still under way.
        time.sleep(0.5)
        self.process.terminate()
        self.process.wait(timeout=60)
        self.output.close()
        data = pathlib.Path(self.file).read_bytes()
        self.samples = array.array("h", data[:len(data) // 4 * 4])

    def channel(self, number):
        return self.samples[number::2]


def loud(samples):
    """The stretch of samples from the first loud one to the last."""
    places = [i for i, sample in enumerate(samples) if abs(sample) > 1000]
    return (places[0], places[-1] + 1) if places else (0, 0)


class SoundTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        program.keep_wine_alive(cls)
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
        self.heard = self.folder / "heard.raw"

    def succeed(self, *arguments, **options):
        status, output, messages = run(*arguments, **options)
        self.assertEqual((status, messages), (0, ""))
        return output

    def fail_with(self, status, *arguments, says, **options):
        got, output, messages = run(*arguments, **options)
        self.assertEqual((got, output), (status, ""), (arguments, messages))
        self.assertIn(says, messages)

    @contextlib.contextmanager
    def tone(self):
        """The speaker plays a tone by another program than ours."""
        file = self.folder / "tone.wav"
        tool("sox", "-D", "-n", "-r", RATE, "-c", 2, "-b", 16, file, "synth", 120, "sine", 440, "vol",
             0.5)
        player = subprocess.Popen(["paplay", "--device=speaker", str(file)],
                                  stdin=subprocess.DEVNULL)
        try:
            with Capture(self.heard):
                pass
            yield
        finally:
            player.terminate()
            player.wait(timeout=60)

    def interrupt(self, command, after):
        """Sends Ctrl+C once `after` seconds have passed; the command must be running then."""
        time.sleep(after)
        self.assertIsNone(command.process.poll())
        command.process.send_signal(signal.SIGINT)
        return command.result()

    def test_devices_lists_the_speaker_and_its_monitor(self):
        report = json.loads(self.succeed("devices", "--json"))
        for kind in ("outputs", "inputs"):
            self.assertEqual([device["index"] for device in report[kind]],
                             list(range(len(report[kind]))))
            self.assertTrue(any("speaker" in device["name"].lower() or
                                "null" in device["name"].lower() for device in report[kind]), report)
            self.assertGreater(report[kind][0]["channels"], 0)
        text = self.succeed("devices")
        self.assertIn("0  " + report["outputs"][0]["name"], text)

    def test_play_takes_as_long_as_the_file_and_is_heard(self):
        with Capture(self.heard) as capture:
            start = time.monotonic()
            report = json.loads(self.succeed("play", self.ogg, "--json"))
            took = time.monotonic() - start
        self.assertGreater(took, 1.9)
        self.assertEqual((report["begin"], report["end"], report["device"], report["channels"]),
                         (0, 2 * RATE, None, [0, 1]))
        for channel in (0, 1):
            begin, end = loud(capture.channel(channel))
            self.assertAlmostEqual(end - begin, 2 * RATE, delta=0.1 * RATE)

    def test_play_plays_the_section_and_the_channels_it_is_told(self):
        with Capture(self.heard) as capture:
            text = self.succeed("play", self.ogg, "--from", "0.5", "--to", "1", "--channels", "1",
                                "--device", "0")
        self.assertRegex(text, r"^played .*two\.ogg: 0:00:00\.500 to 0:00:01\.000\n$")
        self.assertEqual(loud(capture.channel(0)), (0, 0))
        begin, end = loud(capture.channel(1))
        self.assertAlmostEqual(end - begin, 0.5 * RATE, delta=0.1 * RATE)

    def test_play_loops_until_it_is_interrupted(self):
        with Capture(self.heard) as capture:
            play = Run("play", self.ogg, "--to", "0.25", "--loop")
            status, output, messages = self.interrupt(play, 5)
        self.assertEqual((status, output), (130, ""))
        self.assertIn("interrupted at 0:00:00.", messages)
        begin, end = loud(capture.channel(0))
        self.assertGreater(end - begin, RATE)

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
        with self.tone():
            for options, frames, expected in [
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
                                          file.getframerate()), expected)
                        self.assertEqual(file.getnframes(), frames)
                    # The tone all the way through: its amplitude, and as many swings as it has.
                    tool("sox", self.out, "-b", 16, self.folder / "s16.wav", "remix", 1)
                    with wave.open(str(self.folder / "s16.wav")) as file:
                        samples = array.array("h", file.readframes(frames))
                    self.assertAlmostEqual(max(samples), 16384, delta=300)
                    swings = sum(a < 0 <= b for a, b in zip(samples, samples[1:]))
                    self.assertAlmostEqual(swings, 440 * frames / expected[2], delta=2)

    def test_a_take_whose_place_is_gone_is_saved_elsewhere(self):
        record = Run("record", self.out, "--seconds", "6")
        time.sleep(4)
        self.out.mkdir()
        status, output, messages = record.result()
        self.assertEqual((status, output), (4, ""), messages)
        saved = re.search(r"the take was saved as C:(.*) instead", messages)[1]
        saved = pathlib.Path(os.environ["WINEPREFIX"] + "/drive_c" + saved.replace("\\", "/"))
        self.addCleanup(saved.unlink)
        with wave.open(str(saved)) as file:
            self.assertEqual(file.getnframes(), 6 * RATE)

    def test_an_interrupted_recording_keeps_its_take(self):
        with self.tone():
            record = Run("record", self.out, "--seconds", "600")
            status, output, messages = self.interrupt(record, 6)
        self.assertEqual((status, output), (130, ""))
        self.assertIn("the file is valid and holds the first", messages)
        with wave.open(str(self.out)) as file:
            frames = file.getnframes()
            samples = array.array("h", file.readframes(frames))
        self.assertGreater(frames, RATE // 2)
        self.assertLess(frames, 600 * RATE)
        self.assertGreater(max(samples[-RATE // 5:]), 16000)

    def test_scrub_makes_its_positions_heard(self):
        with Capture(self.heard) as capture:
            report = json.loads(self.succeed("scrub", self.ogg, "--at", "0.5,22050f,1.25", "--hold",
                                             "0.4", "--json"))
        self.assertEqual(report["positions"], [22050, 22050, 55125])
        begin, end = loud(capture.channel(0))
        self.assertGreater(end - begin, RATE)

    def test_scrub_is_interrupted_cleanly(self):
        status, output, messages = self.interrupt(Run("scrub", self.ogg, "--at", "1", "--hold", "600"),
                                                  5)
        self.assertEqual((status, output), (130, ""))
        self.assertIn("interrupted at 0:00:01.000", messages)

    def test_a_device_that_is_lost_ends_with_7_and_keeps_the_take(self):
        session = subprocess.Popen(
            [SOUND_SESSION, "bash", "-c", 'echo "$PULSE_SERVER $TESSALY_SOUND_SERVER_PID"; read -r'],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        try:
            address, server = session.stdout.readline().decode().split()
            own = {"PULSE_SERVER": address}
            play = Run("play", self.long, environment=own)
            record = Run("record", self.out, "--seconds", "600", environment=own)
            time.sleep(6)
            self.assertEqual((play.process.poll(), record.process.poll()), (None, None))
            os.kill(int(server), signal.SIGKILL)
            status, _, messages = play.result()
            self.assertEqual(status, 7, messages)
            self.assertIn("it stopped playing at", messages)
            status, _, messages = record.result()
            self.assertEqual(status, 7, messages)
            self.assertIn("holds the first", messages)
            with wave.open(str(self.out)) as file:
                self.assertGreater(file.getnframes(), RATE // 2)
        finally:
            session.stdin.close()
            session.wait(timeout=60)
            session.stdout.close()

    def test_without_a_sound_server_there_is_no_device_and_nothing_hangs(self):
        # Messages may come from the system's own sound library.
        status, output, _ = run("devices", "--json", environment=NO_SERVER)
        self.assertEqual((status, json.loads(output)), (0, {"outputs": [], "inputs": []}))
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
