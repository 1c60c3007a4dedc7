"""Checks the links of the documents and runs their recipes. Called inside a Wine session: docs_test.py RECIPES.EXE"""

import pathlib
import re
import sys
import tempfile
import unittest
import wave

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "host"))
from program import run, tool  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]


def text(name):
    return (ROOT / name).read_text(encoding="utf-8")


def plain(page):
    return re.sub(r"```.*?```", "", text(page), flags=re.S)


def broken_links(page):
    for target in re.findall(r"\]\((?![a-z]+:)([^)\s]+)\)", re.sub(r"`[^`\n]*`", "", plain(page))):
        file, _, anchor = target.partition("#")
        place = (ROOT / page).parent / file if file else ROOT / page
        # Forms the anchors of headings as common Markdown renderers do.
        if not place.exists() or (anchor and anchor not in [
                re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")
                for heading in re.findall(r"^#+ (.*)$", plain(place), re.M)]):
            yield f"{page}: {target}"


class DocsTest(unittest.TestCase):
    def test_every_relative_link_has_a_target(self):
        pages = tool("git", "-C", ROOT, "ls-files", "-co", "--exclude-standard", "*.md").decode().split()
        self.assertEqual([link for page in pages if (ROOT / page).exists() for link in broken_links(page)], [])

    def recipes(self, *paths):
        """Runs the program without a sound server. Returns its exit status and its output without progress."""
        status, *texts = run(*paths, environment={"PULSE_SERVER": "unix:/nowhere/native"})
        return status, [line for line in re.split(r"[\r\n]+", "".join(texts)) if re.match("[a-z ]+:|finding", line)]

    def test_the_recipes_equal_the_sample_code_and_work(self):
        source = re.findall(r"^// Recipe: [^\n]*\n(.*?)^// End$", text("samples/cpp/recipes.cpp"), re.M | re.S)
        self.assertEqual(re.findall(r"^```cpp\n(.*?)^```$", text("docs/recipes.md"), re.M | re.S), source)
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        with wave.open(f"{folder}/tone.wav", "wb") as made:
            made.setparams((1, 2, 44100, 0, "NONE", ""))
            made.writeframes(b"\x00\x40\x00\xc0" * 22050)
        self.assertEqual(self.recipes(folder / "tone.wav", folder), (0, [
            "imported: 44100 frames", "with a pause: 66150 frames", "waveform: ########........########",
            "shortened: 65150 frames", "taken back: Shorten, 66150 frames", "drawn again: 2 times", "loop: no device",
            "recording: no device"]))
        for file, params in ("marked", (1, 3, 44100, 66150)), ("converted", (2, 2, 48000, 72000)):
            with wave.open(f"{folder}/{file}.wav") as made:
                self.assertEqual(made.getparams()[:4], params)
        data = (folder / "marked.wav").read_bytes()
        self.assertEqual([data.count(word) for word in (b"Before\0", b"After\0", b"Around\0", b"Artist\0")], [1, 1, 2, 1])
        status, lines = self.recipes(folder / "gone.wav", folder)
        self.assertEqual((status, len(lines)), (1, 1))
        self.assertRegex(lines[0], r"^finding the file Z:\\.*\\gone\.wav failed with 0x80070002: \w+")


if __name__ == "__main__":
    unittest.main(verbosity=2)
