"""Compares the documents with the engine: links, recipes, classes, and the clients in samples/ that
cannot run here.

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
IDL = (ROOT / "core/marlinda.idl").read_text()
INTERFACE = re.compile(r"uuid\(([-0-9A-F]+)\)[^\[\]]*\]\n(?:disp)?interface (\w+)[^\n]*\n\{\n(.*?)\n\};", re.S)
METHOD = re.compile(r"HRESULT (\w+)\((.*)\);")
# As C# has them.
CSHARP = {"__int64": "long", "long": "int", "ULONG": "uint", "short": "short", "float": "float",
          "VARIANT_BOOL": "bool", "BSTR": "string", "SAFEARRAY(float)": "float[]",
          "SAFEARRAY(short)": "float[]"}


def text(name):
    return (ROOT / name).read_text(encoding="utf-8")


def pages():
    names = subprocess.run(["git", "-C", str(ROOT), "ls-files", "-co", "--exclude-standard", "*.md"],
                           check=True, stdout=subprocess.PIPE).stdout.decode().split()
    return [name for name in names if (ROOT / name).exists()]


def anchors(page):
    """The anchors of a page's headings, as the usual readers of Markdown make them."""
    plain = re.sub(r"```.*?```", "", text(page), flags=re.S)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")
            for heading in re.findall(r"^#+ (.*)$", plain, re.M)}


def broken_links(page):
    plain = re.sub(r"```.*?```|`[^`\n]*`", "", text(page), flags=re.S)
    broken = []
    for target in re.findall(r"\]\(([^)\s]+)\)", plain):
        if re.match(r"[a-z]+:", target):
            continue
        file, _, anchor = target.partition("#")
        place = (ROOT / page).parent / file if file else ROOT / page
        if not place.exists() or (anchor and anchor not in anchors(place.resolve().relative_to(ROOT))):
            broken.append(f"{page}: {target}")
    return broken


def csharp_parameters(parameters):
    """What C# has for the parameters of a method in the IDL: (the types, the result)."""
    types, result = [], "void"
    for attributes, kind in re.findall(r"\[([^\]]*)\] (.*?)\w+(?:, (?=\[)|$)", parameters):
        kind = kind.strip()
        # A reader that is borrowed must not become an object, which would release it.
        base = CSHARP.get(kind.removesuffix("*"), kind.removesuffix("*").removesuffix("*"))
        if "retval" in attributes:
            result = base
        elif attributes == "out":
            types.append("out " + ("IntPtr" if kind == "IAudioReader**" else base))
        else:
            types.append("object" if base == "IUnknown" else base)
    return types, result


class DocsTest(unittest.TestCase):
    maxDiff = None

    def test_every_relative_link_leads_somewhere(self):
        found = pages()
        self.assertIn("README.md", found)
        self.assertEqual([link for page in found for link in broken_links(page)], [])

    def test_the_recipes_are_the_code_that_runs_word_for_word(self):
        source = re.findall(r"^// Recipe: ([^\n]*)\n(.*?)^// End$", text("samples/cpp/recipes.cpp"), re.M | re.S)
        written = re.findall(r"^```cpp\n(.*?)^```$", text("docs/recipes.md"), re.M | re.S)
        self.assertGreater(len(source), 8)
        self.assertEqual(written, [code for _, code in source])

    def test_the_recipes_do_what_they_promise(self):
        with tempfile.TemporaryDirectory() as folder:
            tone = pathlib.Path(folder) / "tone.wav"
            with wave.open(str(tone), "wb") as made:
                made.setparams((1, 2, 44100, 0, "NONE", ""))
                made.writeframes(b"\x00\x40\x00\xc0" * 22050)
            with open(pathlib.Path(folder) / "said", "w+b") as said:
                subprocess.run([os.environ["TESSALY_WINE"], str(RECIPES), *(
                    "Z:" + str(path).replace("/", "\\") for path in (tone, folder))], check=True,
                    stdin=subprocess.DEVNULL, stdout=said, stderr=subprocess.DEVNULL,
                    # With no sound server, whatever this machine has.
                    env=dict(os.environ, PULSE_SERVER="unix:/nowhere/native"))
                said.seek(0)
                lines = re.split(r"[\r\n]+", said.read().decode())
            self.assertEqual([line for line in lines if ":" in line], [
                "imported: 44100 frames", "with a pause: 66150 frames",
                "waveform: ########........########", "shortened: 65150 frames",
                "taken back: Shorten, 66150 frames", "loop: no device", "recording: no device"])
            with wave.open(str(pathlib.Path(folder) / "marked.wav")) as marked:
                self.assertEqual((marked.getnframes(), marked.getsampwidth()), (66150, 3))
            data = (pathlib.Path(folder) / "marked.wav").read_bytes()
            self.assertEqual([data.count(word) for word in (b"Before\0", b"After\0", b"Around\0", b"Artist\0")],
                             [1, 1, 2, 1])
            with wave.open(str(pathlib.Path(folder) / "converted.wav")) as converted:
                self.assertEqual(converted.getparams()[:4], (2, 2, 48000, 72000))

    def test_the_signatures_in_csharp_are_those_of_the_type_library(self):
        theirs = {name: (iid, METHOD.findall(body)) for iid, name, body in INTERFACE.findall(IDL)}
        sample = text("samples/csharp/CutInHalf.cs")
        declared = re.findall(r'Guid\("([-0-9A-F]+)"\)[^\n]*\]\ninterface (\w+)\n\{\n(.*?)^\}', sample, re.M | re.S)
        self.assertEqual(len(declared), 7)
        for iid, name, body in declared:
            body = re.sub(r"//.*|\[[^\]]+\]", "", body)
            methods = re.findall(r"(\w+) (\w+)\((.*?)\);", body, re.S)
            self.assertEqual(iid, theirs[name][0], name)
            for (result, method, parameters), (expected, idl) in zip(methods, theirs[name][1], strict=False):
                with self.subTest(method=f"{name}.{method}"):
                    self.assertEqual(method, expected)
                    types, wanted = csharp_parameters(idl)
                    given = [" ".join(each.split()[:-1]) for each in parameters.split(",") if each.strip()]
                    self.assertEqual(given, types)
                    # One that keeps its HRESULT returns that.
                    self.assertEqual(result, "int" if method == "QueryCanLoad" else wanted)

    def test_clients_that_cannot_run_here_compile(self):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["mcs", "-nologo", "-warnaserror", f"-out:{folder}/sample.exe",
                            str(ROOT / "samples/csharp/CutInHalf.cs")], check=True)
        compile(text("samples/python/cut_in_half.py"), "cut_in_half.py", "exec")

    def test_clients_that_cannot_compile_here_call_methods_that_there_are(self):
        known = {name for _, _, body in INTERFACE.findall(IDL) for name, _ in METHOD.findall(body)}
        others = {"QueryInterface", "Raise", "Error", "Print"}  # the languages' own
        for sample, call in (("cpp-import/cut_in_half.cpp", r"->(\w+)\("), ("vba/CutInHalf.bas", r"\w\.([A-Z]\w+)"),
                             ("python/cut_in_half.py", r"\.([A-Z]\w+)\(")):
            calls = set(re.findall(call, re.sub(r"(?m)^ *'.*$", "", text(f"samples/{sample}")))) - others
            self.assertGreater(len(calls), 5, sample)
            self.assertLessEqual(calls, known, sample)


if __name__ == "__main__":
    unittest.main(verbosity=2)
