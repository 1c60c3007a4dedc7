"""Plays, records and scrubs with marlinda.exe as users do, on private sound servers.

Called inside a Wine session: sound_test.py PATH/marlinda.exe [unittest arguments]
"""

import array
import contextlib
import fcntl
import os
import pathlib
import re
import signal
import struct
import sys
import termios
import unittest
import wave

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import program
from program import ProgramTest, Run, run, tool
from sound import FRAME_BYTES, RATE, Microphone, Speaker, kill_server, sound_server, wait_until, without_silence

NO_SERVER = {"PULSE_SERVER": "unix:/nowhere/native"}
LONG = ("--seconds", "600")


@contextlib.contextmanager
def sound():
    """Starts a sound server whose microphone gets a tone. Yields its environment and its speaker."""
    with contextlib.ExitStack() as ends:
        server = ends.enter_context(contextlib.ExitStack())
        environment = server.enter_context(sound_server(pipes=True))
        speaker = Speaker(environment)
        ends.callback(speaker.close)
        ends.callback(Microphone(environment).close)
        ends.callback(server.close)
        yield environment, speaker


class Heard:
    """The frames, without silence, that a speaker receives from now on."""

    def __init__(self, speaker):
        self.speaker = speaker
        self.begin = len(speaker.got)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        unread = lambda: struct.unpack("i", fcntl.ioctl(self.speaker.pipe, termios.FIONREAD, bytes(4)))[0]
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
    """Starts a recording and waits until its pool holds half a second."""
    known = temporary_files()
    command = Run("record", *arguments, **options)
    wait_until(lambda: any(size >= RATE // 2 * FRAME_BYTES and file not in known
                           for file, size in temporary_files().items()), "a take")
    return command


class SoundTest(ProgramTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        environment, cls.speaker = cls.enterClassContext(sound())
        program.ENVIRONMENT.update(environment)
        cls.ogg = cls.shared / "two.ogg"
        tool("sox", "-R", "-n", "-r", RATE, "-c", 2, cls.ogg, "synth", 2, "sine", 440, "vol", 0.5)

    def interrupt(self, command, says):
        """Sends Ctrl+C to the command, which must be running."""
        self.assertIsNone(command.process.poll())
        command.process.send_signal(signal.SIGINT)
        self.ends(command, 130, says)

    def take(self):
        with wave.open(str(self.out)) as file:
            return file.getnframes(), array.array("h", file.readframes(file.getnframes()))

    def test_play_plays_a_file_or_a_section_and_the_chosen_channels(self):
        with Heard(self.speaker) as heard:
            report = self.report("play", self.ogg)
        self.assertEqual([report[key] for key in ("begin", "end", "device", "channels")], [0, 2 * RATE, None, [0, 1]])
        frames = heard.frames()
        self.assertAlmostEqual(len(frames), 2 * RATE, delta=0.1 * RATE)
        for channel in zip(*frames):
            self.assertAlmostEqual(max(channel), 0.5, delta=0.05)
        with Heard(self.speaker) as heard:
            status, text, messages = run("play", self.ogg, "--from", "0.5", "--to", "1", "--channels", "1",
                                         "--device", "0", "--progress")
        # The program reports no import progress, because it plays before the import ends.
        self.assertEqual((status, re.sub(r"progress \d+ Playing\n", "", messages)), (0, ""))
        self.assertTrue(messages.endswith("progress 100 Playing\n"), messages)
        self.assertRegex(text, r"^played .*two\.ogg: 0:00:00\.500 to 0:00:01\.000\n$")
        frames = heard.frames()
        self.assertAlmostEqual(len(frames), 0.5 * RATE, delta=0.1 * RATE)
        self.assertTrue(all(left == 0 for left, _ in frames))

    def test_play_and_scrub_go_on_until_they_are_interrupted(self):
        with Heard(self.speaker) as heard:
            play = Run("play", self.ogg, "--to", "0.25", "--loop")
            heard.wait_for(RATE)
            self.interrupt(play, "interrupted at 0:00:00.")
        with Heard(self.speaker) as heard:
            report = self.report("scrub", self.ogg, "--at", "0.5,22050f,1.25", "--hold", "0.4")
        self.assertEqual(report["positions"], [22050, 22050, 55125])
        self.assertGreater(len(heard.frames()), RATE // 2)
        self.assertGreater(max(left for left, _ in heard.frames()), 0.4)
        with Heard(self.speaker) as heard:
            scrub = Run("scrub", self.ogg, "--at", "1", "--hold", "600")
            heard.wait_for(RATE // 2)
            self.interrupt(scrub, "interrupted at 0:00:01.000")

    def test_a_command_that_cannot_be_done_ends_with_its_status_and_writes_nothing(self):
        folder = self.folder / "folder.wav"
        folder.mkdir()
        play, scrub, take = ["play", self.ogg], ["scrub", self.ogg, "--at"], ["record", self.out, "--seconds"]
        for status, arguments, says in [
            (2, [*play, "--channels", "0,2"], "there is no channel 2"),
            (2, [*scrub, "2.1"], "88200 frames"),
            (2, [*take, "0"], "less than one frame"),
            (4, [*take, "999999"], "4 GiB"),
            # The program reports this before it records.
            (4, ["record", folder, "--seconds", "9999"], "this is a folder"),
            *((7, [*words, "--device", "99"], "marlinda devices") for words in (play, [*scrub, "1"], [*take, "1"])),
        ]:
            with self.subTest(arguments=arguments):
                self.ends(Run(*arguments), status, says)
        for arguments in (play, [*scrub, "1"], [*take, "1"]):
            # The system's sound library may print messages first.
            self.ends(Run(*arguments, environment=NO_SERVER), 7, "there is no sound device")
        self.assertEqual(list(self.folder.iterdir()), [folder])

    def test_record_writes_exactly_the_requested_frames_of_the_microphone(self):
        frames, rate = 12345, 48000
        report = self.report("record", self.out, "--seconds", f"{frames}f", "--bits", "24", "--channels", "1",
                             "--rate", str(rate))
        self.assertEqual((report["frames"], report["bytes"]), (frames, self.out.stat().st_size))
        with wave.open(str(self.out)) as file:
            self.assertEqual(file.getparams()[:4], (1, 3, rate, frames))
        # The recording contains only the tone. A busy machine may lose pieces but adds nothing.
        samples = array.array("h", tool("sox", self.out, "-b", 16, "-t", "s16", "-"))
        for begin in range(0, frames - 1000, 1000):
            self.assertAlmostEqual(max(samples[begin:begin + 1000]), 16384, delta=4000)

    def test_a_take_whose_file_cannot_be_written_is_saved_elsewhere(self):
        command = record(self.out, "--seconds", "3")
        self.out.mkdir()
        messages = self.ends(command, 4, "the take was saved as C:")
        saved = re.search(r"the take was saved as C:(.*) instead", messages)[1]
        saved = pathlib.Path(os.environ["WINEPREFIX"] + "/drive_c" + saved.replace("\\", "/"))
        self.assertEqual(int(tool("soxi", "-s", saved)), 3 * RATE)
        saved.unlink()

    def test_a_recording_that_a_full_disk_or_an_interrupt_ends_keeps_its_take(self):
        # A frame has 8 bytes in the pool and 4 in the file.
        self.ends(Run("record", self.out, *LONG, most_bytes=RATE * 8), 4, "the file is valid and holds the first")
        frames, samples = self.take()
        # The take includes the last block, although its write to the pool failed.
        self.assertAlmostEqual(frames, RATE * 1.02, delta=RATE * 0.02)
        self.assertGreater(max(samples[2 * (RATE - RATE // 5):2 * RATE]), 16000)
        command = record(self.out, *LONG)
        # While the program completes its take, it ignores further Ctrl+C.
        command.process.send_signal(signal.SIGINT)
        self.interrupt(command, "the file is valid and holds the first")
        frames, samples = self.take()
        self.assertIn(frames, range(RATE // 2, 600 * RATE))
        self.assertGreater(max(samples[-RATE // 5:]), 16000)

    def test_a_lost_device_ends_each_command_with_status_7_and_keeps_the_take(self):
        with sound() as (one, speaker), sound() as (other, other_speaker):
            # The recording starts first, because record() would mistake another command's pool for the recording's.
            take = record(self.out, *LONG, environment=one)
            play = Run("play", self.ogg, "--loop", environment=one)
            scrub = Run("scrub", self.ogg, "--at", "1", "--hold", "600", environment=other)
            Heard(speaker).wait_for(RATE // 2)
            Heard(other_speaker).wait_for(RATE // 2)
            kill_server(one)
            kill_server(other)
            for command, says in (play, "playing ended at"), (take, "holds the first"), \
                    (scrub, "it stopped playing at 0:00:01.000"):
                self.ends(command, 7, says)
            self.assertGreaterEqual(self.take()[0], RATE // 2)


if __name__ == "__main__":
    unittest.main()
