"""Operates the editor with mouse and keyboard, and checks its sound and its files.

Called inside a Wine session: editor_test.py marlinda.exe marlinda-editor.exe editor_driver.exe [unittest arguments]
TESSALY_EDITOR_PICTURES sets a folder for screenshots of the window.
"""

import array
import math
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import wave

sys.path[:0] = [str(pathlib.Path(__file__).resolve().parents[1] / folder) for folder in ("host", "support")]
EDITOR, DRIVER = (sys.argv.pop(2) for _ in range(2))
import program
from program import WINE, run, windows
from sound import RATE, kill_server, sound_server, wait_until
from sound_test import Heard, sound

SHIFT, CTRL, SPACE, END, HOME, PLUS = 16, 17, 32, 35, 36, 107
MOVE, LEFT_DOWN, LEFT_UP, MIDDLE_DOWN, MIDDLE_UP = 0x200, 0x201, 0x202, 0x207, 0x208
OK, CANCEL, NO = 1, 2, 7
FILE_NAME, TEXT = 1148, 211  # edit fields of the file dialog and of the editor's dialogs
LANE = 200  # a y coordinate inside the lane of the first channel


def signal(frames):
    """16-bit stereo in which no frame is silent and every frame differs from its neighbours."""
    samples = array.array("h")
    for n in range(frames):
        loudness = 2000 + 6000 * abs(math.sin(n / 30000))
        left = round(loudness * math.sin(n / (20 + n / 20000)))
        samples.extend((left or 1, n % 4999 - 2500 or 1))
    return samples


class Editor:
    """A running editor and its driver."""

    def __init__(self, *files, environment=program.ENVIRONMENT):
        self.process = subprocess.Popen([WINE, EDITOR, *map(windows, files)], env=environment, stdin=subprocess.DEVNULL)
        self.driver = subprocess.Popen([WINE, DRIVER], env=environment, text=True, stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE)
        wait_until(lambda: self.ask("find") == "ok" or self.process.poll() is not None, "the window")
        assert self.process.poll() is None, f"the editor ended with {self.process.returncode}"
        self.ask("size", 1200, 640)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in (self.driver, self.process):
            process.kill()
            process.communicate()

    def ask(self, *words):
        self.driver.stdin.write(" ".join(str(word) for word in words) + "\n")
        self.driver.stdin.flush()
        answer = self.driver.stdout.readline().strip()
        assert answer and answer != "unknown order", words
        return answer

    def press(self, *keys, until=None):
        self.ask("key", *(ord(key) if isinstance(key, str) else key for key in keys))
        if until:
            self.ask("await", until)

    def answer(self, title, button, field=None, text=None):
        """Answers a dialog and returns its text."""
        said = self.ask("dialog", title)
        if text is not None:
            self.ask("enter", field, text)
        self.ask("click", button)
        return said

    def mouse(self, message, x):
        self.ask("mouse", message, x, LANE)

    def select(self, begin, end):
        """Selects the range from one pixel to another. Returns the range in frames, as the status line shows it."""
        before = self.ask("status").split("Selected")[1:]
        for message, x in ((LEFT_DOWN, begin), (MOVE, end), (LEFT_UP, end)):
            self.mouse(message, x)
        wait_until(lambda: self.ask("status").split("Selected")[1:] not in ([], before), "another selection")
        found = re.search(r"Selected (\d+) to (\d+) \((\d+)\)", self.ask("status"))
        first, last, length = map(int, found.groups())
        assert last - first == length > 0
        return first, last

    def frames(self):
        return int(re.search(r"channels?, (\d+)$", self.ask("status")).group(1))

    def export(self, file):
        self.press(CTRL, "S")
        self.answer("Export", OK, FILE_NAME, windows(file))
        self.answer("Wave Encoder Settings", OK)
        self.ask("await", "Wrote " + file.name)

    def picture(self, name):
        folder = os.environ.get("TESSALY_EDITOR_PICTURES")
        if folder:
            subprocess.run(["ffmpeg", "-loglevel", "error", "-y", "-f", "x11grab", "-video_size", "1200x640",
                            "-i", os.environ["DISPLAY"], "-frames:v", "1", f"{folder}/{name}.png"],
                           check=True, stdin=subprocess.DEVNULL)


class EditorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        program.keep_wine_alive(cls)
        environment, cls.speaker = cls.enterClassContext(sound())
        program.ENVIRONMENT.update(environment)

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.source = self.folder / "in.wav"
        self.samples = signal(4 * RATE)
        with wave.open(str(self.source), "wb") as file:
            file.setparams((2, 2, RATE, 0, "NONE", ""))
            file.writeframes(self.samples.tobytes())

    def start(self, *files):
        editor = self.enterContext(Editor(*files))
        editor.press("F", until=f"channels, {4 * RATE * len(files)}" if files else "No audio")
        return editor

    def test_edits_are_heard_and_written_as_the_command_line_writes_them(self):
        editor = self.start(self.source)
        editor.ask("await_title", "in.wav - Marlinda Editor")
        begin, end = editor.select(300, 500)
        editor.press(CTRL, "X", until="Cut")
        self.assertEqual(editor.frames(), 4 * RATE - (end - begin))
        editor.press(CTRL, "Z", until="Undone: Cut")
        self.assertEqual(editor.frames(), 4 * RATE)
        editor.press(CTRL, "Y", until="Redone: Cut")
        editor.ask("await_title", "in.wav* - Marlinda Editor")

        label, last = editor.select(600, 700)
        for letter, title, text in (("L", "Add label", "Verse one"), ("M", "Add section", "Loop")):
            editor.press(letter)
            editor.answer(title, OK, TEXT, text)
            editor.ask("await", title)
        editor.picture("selection-with-labels")

        with Heard(self.speaker) as heard:
            editor.press(SPACE, until="Playing")
            editor.ask("await", "Ready")
        cut = array.array("h", self.samples[:2 * begin] + self.samples[2 * end:])
        played = [tuple(round(value * 32767) for value in frame) for frame in heard.frames()]
        chosen = list(zip(cut[2 * label:2 * last:2], cut[2 * label + 1:2 * last:2]))
        # When a stream closes, the sound server drops the samples that it still holds.
        self.assertGreater(len(played), len(chosen) - RATE // 10)
        self.assertEqual(played, chosen[:len(played)])

        written = self.folder / "out.wav"
        editor.export(written)
        editor.ask("await_title", "out.wav - Marlinda Editor")
        wanted = self.folder / "wanted.wav"
        self.assertEqual(run("cut", self.source, wanted, "--keep", f":{begin}f", "--keep", f"{end}f:",
                             "--label", f"{label}f:Verse one", "--marker", f"{label}f:{last}f:Loop")[0], 0)
        self.assertEqual(written.read_bytes(), wanted.read_bytes())

        editor.press(CTRL, "S")
        editor.ask("dialog", "Export")
        editor.ask("enter", FILE_NAME, windows(written))
        editor.ask("click", OK, "unfinished")
        self.assertIn("exist", editor.ask("question"))
        editor.ask("click", NO)
        editor.answer("Export", CANCEL)
        self.assertEqual(written.read_bytes(), wanted.read_bytes())

    def test_scrubbing_is_audible_and_a_recording_is_inserted_at_the_cursor(self):
        editor = self.start()
        editor.picture("empty")
        editor.press(CTRL, "O")
        editor.answer("Open", OK, FILE_NAME, windows(self.source))
        editor.ask("await", "Read in.wav")
        with Heard(self.speaker) as heard:
            editor.mouse(MIDDLE_DOWN, 400)
            editor.ask("await", "Scrubbing")
            heard.wait_for(RATE // 10)
            editor.mouse(MOVE, 800)
            heard.wait_for(RATE // 2)
            editor.mouse(MIDDLE_UP, 800)
            editor.ask("await", "Ready")

        editor.press(END)
        editor.press("R", until="Recording")
        wait_until(lambda: int(editor.ask("status").split("|")[1]) > RATE, "a second of recording")
        editor.picture("recording")
        editor.press("R", until="Recorded")
        recorded = editor.frames() - 4 * RATE
        written = self.folder / "tone.wav"
        editor.export(written)
        with wave.open(str(written)) as file:
            samples = array.array("h", file.readframes(file.getnframes()))
        self.assertEqual(samples[:8 * RATE], self.samples)
        # The microphone gets 440 Hz at half of full scale.
        tone = samples[2 * (4 * RATE + recorded // 4):2 * (4 * RATE + 3 * recorded // 4):2]
        crossings = sum(1 for a, b in zip(tone, tone[1:]) if a < 0 <= b)
        self.assertAlmostEqual(crossings * RATE / len(tone), 440, delta=5)
        self.assertAlmostEqual(max(tone) / 32767, 0.5, delta=0.01)

    def test_inserted_files_equal_a_command_line_join_and_failures_are_explained(self):
        editor = self.start(self.source, self.source)
        editor.picture("whole-file")
        other = self.folder / "other.wav"
        program.tool("sox", "-D", "-n", "-r", 48000, "-c", 1, "-b", 16, other, "synth", 2, "sine", 440)
        editor.press(END)
        editor.press(CTRL, "I")
        editor.answer("Insert files", OK, FILE_NAME, windows(other))
        editor.ask("await", f"channels, {10 * RATE}")
        joined, written = self.folder / "~out.wav", self.folder / "out.wav"
        self.assertEqual(run("join", self.source, self.source, other, joined)[0], 0)
        editor.export(written)  # the export must not overwrite ~out.wav with a temporary file
        self.assertEqual(written.read_bytes(), joined.read_bytes())
        editor.press(CTRL, "Z")
        broken = self.folder / "broken.wav"
        broken.write_bytes(b"RIFF, but no more")
        editor.press(CTRL, "I")
        editor.answer("Insert files", OK, FILE_NAME, windows(broken))
        said = editor.answer("Marlinda Editor", OK)
        self.assertRegex(said, "broken.wav.*no import filter")
        self.assertEqual(editor.frames(), 8 * RATE)
        editor.press(HOME)
        for _ in range(14):
            editor.press(PLUS)
        editor.picture("zoomed-to-samples")
        editor.ask("close")
        self.assertIn("in no file yet", editor.answer("Marlinda Editor", NO))
        self.assertEqual(editor.process.wait(), 0)

    def test_a_loop_follows_the_selection_and_a_lost_device_is_explained(self):
        with sound_server(pipes=False) as environment, Editor(self.source, environment=environment) as editor:
            editor.press("F", until=f"channels, {4 * RATE}")
            editor.select(300, 500)
            editor.press(SHIFT, SPACE, until="Looping")
            first, last = editor.select(600, 900)
            wait_until(lambda: first < int(editor.ask("status").split("|")[1]) < last, "the other section")
            editor.picture("playing-with-meters")
            kill_server(environment)
            said = editor.answer("Marlinda Editor", OK)
            self.assertRegex(said, "playing ended.*choose another device")
            self.assertEqual(editor.frames(), 4 * RATE)


if __name__ == "__main__":
    unittest.main()
