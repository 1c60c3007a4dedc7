"""Compares the documents with the engine: links, recipes, classes, and the clients in samples/ that cannot run
here.

Called inside a Wine session: docs_test.py RECIPES.EXE [unittest arguments]
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import wave

RECIPES = pathlib.Path(sys.argv.pop(1)).resolve()
ROOT = pathlib.Path(__file__).resolve().parents[2]


def text(name):
    return (ROOT / name).read_text(encoding="utf-8")


def plain(page):
    return re.sub(r"```.*?```", "", text(page), flags=re.S)


def broken_links(page):
    for target in re.findall(r"\]\((?![a-z]+:)([^)\s]+)\)", re.sub(r"`[^`\n]*`", "", plain(page))):
        file, _, anchor = target.partition("#")
        place = (ROOT / page).parent / file if file else ROOT / page
        # The anchors of headings, as common Markdown renderers make them.
        if not place.exists() or (anchor and anchor not in [
                re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")
                for heading in re.findall(r"^#+ (.*)$", plain(place), re.M)]):
            yield f"{page}: {target}"


class DocsTest(unittest.TestCase):
    maxDiff = None

    def test_every_relative_link_has_a_target(self):
        pages = subprocess.run(["git", "-C", ROOT, "ls-files", "-co", "--exclude-standard", "*.md"], check=True,
                               stdout=subprocess.PIPE).stdout.decode().split()
        self.assertIn("README.md", pages)
        self.assertEqual([link for page in pages if (ROOT / page).exists() for link in broken_links(page)], [])

    def recipes(self, *words):
        """Exit status and output without progress, run without a sound server."""
        with tempfile.TemporaryFile() as said:
            status = subprocess.run([os.environ["TESSALY_WINE"], RECIPES, *("Z:" + word.replace("/", "\\") for word in words)],
                                    stdin=subprocess.DEVNULL, stdout=said, stderr=said, env=dict(
                                        os.environ, PULSE_SERVER="unix:/nowhere/native")).returncode
            said.seek(0)
            return status, [line for line in re.split(r"[\r\n]+", said.read().decode()) if re.match("[a-z ]+:|finding", line)]

    def test_the_recipes_equal_the_sample_code_and_work(self):
        source = re.findall(r"^// Recipe: [^\n]*\n(.*?)^// End$", text("samples/cpp/recipes.cpp"), re.M | re.S)
        self.assertEqual(re.findall(r"^```cpp\n(.*?)^```$", text("docs/recipes.md"), re.M | re.S), source)
        folder = self.enterContext(tempfile.TemporaryDirectory())
        with wave.open(f"{folder}/tone.wav", "wb") as made:
            made.setparams((1, 2, 44100, 0, "NONE", ""))
            made.writeframes(b"\x00\x40\x00\xc0" * 22050)
        self.assertEqual(self.recipes(f"{folder}/tone.wav", folder), (0, [
            "imported: 44100 frames", "with a pause: 66150 frames", "waveform: ########........########",
            "shortened: 65150 frames", "taken back: Shorten, 66150 frames", "drawn again: 2 times", "loop: no device",
            "recording: no device"]))
        for file, params in ("marked", (1, 3, 44100, 66150)), ("converted", (2, 2, 48000, 72000)):
            with wave.open(f"{folder}/{file}.wav") as made:
                self.assertEqual(made.getparams()[:4], params)
        data = pathlib.Path(folder, "marked.wav").read_bytes()
        self.assertEqual([data.count(word) for word in (b"Before\0", b"After\0", b"Around\0", b"Artist\0")], [1, 1, 2, 1])
        status, lines = self.recipes(f"{folder}/gone.wav", folder)
        self.assertEqual((status, len(lines)), (1, 1))
        self.assertRegex(lines[0], r"^finding the file Z:\\.*\\gone\.wav failed with 0x80070002: \w+")

    def test_clients_that_no_test_runs_compile_and_call_existing_methods(self):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["mcs", "-nologo", "-warnaserror", f"-out:{folder}/sample.exe",
                            ROOT / "samples/csharp/CutInHalf.cs"], check=True)
        identifiers = re.findall(r'Guid\("([-0-9A-F]+)"\)', text("samples/csharp/CutInHalf.cs"))
        self.assertGreater(len(identifiers), 5)
        self.assertLessEqual(set(identifiers), set(re.findall(r"uuid\(([-0-9A-F]+)\)", text("core/marlinda.idl"))))
        compile(text("samples/python/cut_in_half.py"), "cut_in_half.py", "exec")
        names = set(re.findall(r"HRESULT (\w+)\(", text("core/marlinda.idl"))) | {
            "QueryInterface", "Raise", "Error", "Print"}  # built into the languages
        for sample, call in (("cpp-import/cut_in_half.cpp", r"->(\w+)\("), ("vba/CutInHalf.bas", r"\w\.([A-Z]\w+)"),
                             ("python/cut_in_half.py", r"\.([A-Z]\w+)\(")):
            calls = set(re.findall(call, re.sub(r"(?m)^ *'.*$", "", text(f"samples/{sample}"))))
            self.assertGreater(len(calls), 5, sample)
            self.assertLessEqual(calls, names, sample)


if __name__ == "__main__":
    unittest.main(verbosity=2)
