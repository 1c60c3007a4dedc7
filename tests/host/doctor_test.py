"""Breaks what marlinda.exe needs, one thing at a time, and lets "marlinda doctor" find it.

Called inside a Wine session of its own: doctor_test.py PATH/marlinda.exe [unittest arguments]
"""

import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

from program import PROGRAM, WINE, keep_wine_alive, run, windows

MODULE = PROGRAM.parent / "Tessaly.dll"
BITS = int(os.environ.get("TESSALY_WINE_BITS", "64"))
SOUND_SESSION = pathlib.Path(__file__).resolve().parents[2] / "scripts/sound-session"
CLASSES = r"HKLM\Software\Classes"
FILTERS = r"HKLM\Software\Brevant\Cutloom\Import Filters"
DIRECTORIES = r"HKCU\Software\Brevant\Cutloom\Directories"
NO_SERVER = {"PULSE_SERVER": "unix:/nowhere/native"}


def wine(*words, scope="machine"):
    return subprocess.run([WINE, *words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          env=dict(os.environ, TESSALY_REGISTRATION=scope)).returncode


def image(bits):
    """The module, with a header that names that bitness."""
    data = bytearray(MODULE.read_bytes())
    place = int.from_bytes(data[0x3c:0x40], "little") + 4
    data[place:place + 2] = (0x8664 if bits == 64 else 0x014c).to_bytes(2, "little")
    return bytes(data)


class DoctorTest(unittest.TestCase):
    setUpClass = classmethod(keep_wine_alive)

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.alone = self.folder / "x64" / PROGRAM.name
        self.alone.parent.mkdir()
        shutil.copy(PROGRAM, self.alone)
        for key in (FILTERS, DIRECTORIES):
            wine("reg", "delete", key, "/f")
            self.addCleanup(wine, "reg", "delete", key, "/f")

    def register(self, module, scope="machine"):
        self.assertEqual(wine("regsvr32", "/s", windows(module), scope=scope), 0)
        self.addCleanup(wine, "regsvr32", "/s", "/u", windows(module), scope=scope)

    def doctor(self, status=7, program=PROGRAM, subject=None, cause=None):
        """The report. Besides the missing sound server it has one problem, with this subject and cause, or,
        without these, none unless the status names some."""
        got, output, messages = run("doctor", "--json", program=program, environment=NO_SERVER)
        self.assertEqual(got, status, output + messages)
        report = json.loads(output)
        self.assertTrue(all(problem["remedy"] for problem in report["problems"]))
        found = [problem for problem in report["problems"] if problem["status"] != 7]
        self.assertEqual(len(report["problems"]), len(found) + 2)
        self.assertEqual(not found, status == 7)
        if subject:
            # Without a module there may be no type library either.
            self.assertTrue(len(found) == 1 or not report["module"], found)
            self.assertIn(subject, found[0]["subject"])
            self.assertIn(cause, found[0]["cause"])
        return report

    def test_a_whole_installation_has_no_problems(self):
        report = self.doctor()
        self.assertEqual((report["found_by"], report["registrations"]),
                         ("manifest", [{"kind": "manifest", "module": windows(MODULE)}]))
        for file, path in (("module", MODULE), ("program", PROGRAM)):
            self.assertEqual((report[file]["path"], report[file]["bits"]), (windows(path), BITS))
        self.assertEqual(report["type_library"], {"name": "Marlinda 1.0 Type Library", "path": windows(MODULE)})
        self.assertEqual([state["available"] for state in report["classes"]], [True] * 14)
        text = subprocess.check_output([SOUND_SESSION, WINE, PROGRAM, "doctor"], stdin=subprocess.DEVNULL).decode()
        self.assertEqual(text.splitlines()[-1], "no problems", text)
        self.assertRegex(text, r"outputs +\S.*Null Output")

    def test_a_module_that_is_missing_or_broken_is_told_by_its_fault(self):
        status, text, messages = run("doctor", program=self.alone, environment=NO_SERVER)
        # The system's sound library may write messages before it.
        self.assertEqual((status, messages[-len("there are 4 problems\n"):]), (6, "there are 4 problems\n"))
        self.assertIn("problem: the engine's module: the class is not registered\n  Register", text)
        moved = self.folder / MODULE.name
        shutil.copy(MODULE, moved)
        self.register(moved)
        self.addCleanup(shutil.copy, MODULE, moved)
        # Wine creates nothing from the registration of a user. A manifest comes first.
        self.register(MODULE, scope="user")
        report = self.doctor(program=self.alone)
        self.assertEqual((report["found_by"], report["registrations"]), ("machine", [
            {"kind": "user", "module": windows(MODULE)}, {"kind": "machine", "module": windows(moved)}]))
        wine("regsvr32", "/s", "/u", windows(MODULE), scope="user")
        for content, cause in (image(96 - BITS), f"a {96 - BITS}-bit module"), (b"MZ", "no module"), (None, "does not exist"):
            moved.write_bytes(content) if content else moved.unlink()
            report = self.doctor(6, self.alone, f"the engine's module (machine: {windows(moved)})", cause)
            self.assertIsNone(report["module"])

    @unittest.skipIf(BITS == 32, "runs programs of 32 bits alone")
    def test_the_module_of_the_other_bitness_is_shown_and_a_registration_that_leads_nowhere_is_a_problem(self):
        other = self.folder / "x86" / MODULE.name
        other.parent.mkdir()
        other.write_bytes(image(32))
        key = CLASSES + r"\CLSID\{F9866FF8-ED3C-43D9-B7B9-F459EEAC472B}\InprocServer32"
        self.addCleanup(wine, "reg", "delete", key, "/f", "/reg:32")
        for file in (MODULE, f"{PROGRAM}.manifest"):
            shutil.copy(file, self.alone.parent)
        for module, cause in (other, None), (MODULE, "a 64-bit module"):
            wine("reg", "add", key, "/d", windows(module), "/f", "/reg:32")
            report = self.doctor(6 if cause else 7, self.alone, cause and "the 32-bit engine (machine: ", cause)
            self.assertEqual(report["engines"], [
                {"bits": 64, "file": windows(self.alone.parent / MODULE.name), "registrations": []},
                {"bits": 32, "file": windows(other), "registrations": [{"kind": "machine", "module": windows(module)}]}])

    def test_missing_type_libraries_filters_that_cannot_be_created_and_unusable_temporary_folders_are_problems(self):
        self.register(MODULE)
        wine("reg", "delete", CLASSES + r"\TypeLib\{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}", "/f")
        self.assertIsNone(self.doctor(6, self.alone, "type library", "not registered")["type_library"])
        # The manager reads no further than the last one.
        for value, subject, cause in (
                ("{11111111-2222-3333-4444-555555555555}", '"Ghost" in HKEY_LOCAL_MACHINE', "not registered"),
                ("COggImport", '"Ghost"', "not a class identifier"), ("x" * 120, "Import Filters", "too long")):
            wine("reg", "add", FILTERS, "/v", "Ghost", "/d", value, "/f")
            self.doctor(6, PROGRAM, subject, cause)
        wine("reg", "delete", FILTERS, "/v", "Ghost", "/f")
        # Not even root can write in the last one.
        for folder, cause in ((self.folder, None), (self.folder / "nowhere", "does not exist"),
                              (self.alone, "not a folder"), (pathlib.Path("/proc/self"), "no file can be made there")):
            wine("reg", "add", DIRECTORIES, "/v", "Temporary", "/d", windows(folder), "/f")
            self.assertTrue(self.doctor(4 if cause else 7, PROGRAM, cause and folder.name, cause)["temporary_folder"]["chosen"])
        self.assertEqual(list(self.folder.iterdir()), [self.alone.parent])


if __name__ == "__main__":
    unittest.main(verbosity=2)
