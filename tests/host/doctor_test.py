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
SOUND_SESSION = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "sound-session"
FILTERS = r"HKLM\Software\Brevant\Cutloom\Import Filters"
DIRECTORIES = r"HKCU\Software\Brevant\Cutloom\Directories"
LIBRARY = r"HKLM\Software\Classes\TypeLib\{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}"
NO_SERVER = {"PULSE_SERVER": "unix:/nowhere/native"}


def reg(*words):
    subprocess.run([WINE, "reg", *words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)


def register(*options, module=MODULE, scope="machine"):
    subprocess.run([WINE, "regsvr32", "/s", *options, windows(module)], check=True,
                   env=dict(os.environ, TESSALY_REGISTRATION=scope), stdin=subprocess.DEVNULL)


class DoctorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        keep_wine_alive(cls)

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.alone = self.folder / PROGRAM.name
        shutil.copy(PROGRAM, self.alone)
        for key in (FILTERS, DIRECTORIES):
            reg("delete", key, "/f")
            self.addCleanup(reg, "delete", key, "/f")

    def registered(self, **options):
        register(**options)
        self.addCleanup(register, "/u", **options)

    def doctor(self, status=7, program=PROGRAM):
        """The report and its causes by subject, without those of the missing sound server: status 7
        unless another problem is graver."""
        got, output, messages = run("doctor", "--json", program=program, environment=NO_SERVER)
        self.assertEqual(got, status, output + messages)
        report = json.loads(output)
        problems = {problem["subject"]: problem["cause"] for problem in report["problems"] if problem["status"] != 7}
        self.assertEqual(len(report["problems"]), len(problems) + 2)
        self.assertTrue(all(problem["remedy"] for problem in report["problems"]))
        return report, problems

    def one_problem(self, status, subject, cause, **options):
        report, problems = self.doctor(status, **options)
        (found, given), = problems.items()
        self.assertIn(subject, found)
        self.assertIn(cause, given)
        return report

    def test_a_whole_installation_has_no_problems(self):
        report, problems = self.doctor()
        self.assertEqual((problems, report["found_by"]), ({}, "manifest"))
        self.assertEqual(report["registrations"], [{"kind": "manifest", "module": windows(MODULE)}])
        for file, path in (("module", MODULE), ("program", PROGRAM)):
            self.assertEqual((report[file]["path"], report[file]["bits"]), (windows(path), BITS))
        self.assertEqual(report["type_library"],
                         {"name": "Marlinda 1.0 Type Library", "path": windows(MODULE)})
        self.assertEqual([state["available"] for state in report["classes"]], [True] * 14)
        self.assertGreater(report["temporary_folder"]["free_bytes"], 0)

        text = subprocess.run([SOUND_SESSION, WINE, str(PROGRAM), "doctor"], check=True, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout.decode()
        self.assertEqual(text.splitlines()[-1], "no problems", text)
        self.assertRegex(text, r"outputs +\S.*Null Output")

    def test_a_registered_module_is_named_with_its_scope_or_with_its_fault(self):
        report, problems = self.doctor(6, program=self.alone)
        self.assertEqual((report["module"], sorted(problems)), (None, ["the engine's module", "type library"]))
        moved = self.folder / "moved" / MODULE.name
        moved.parent.mkdir()
        shutil.copy(MODULE, moved)
        self.registered(module=moved)
        self.addCleanup(shutil.copy, MODULE, moved)
        report, problems = self.doctor(program=self.alone)
        self.assertEqual((report["found_by"], report["module"]["path"], problems), ("machine", windows(moved), {}))
        # The manifest comes first.
        report, _ = self.doctor()
        self.assertEqual([place["kind"] for place in report["registrations"]], ["manifest", "machine"])
        self.assertEqual(report["found_by"], "manifest")
        broken = bytearray(moved.read_bytes())
        place = int.from_bytes(broken[0x3c:0x40], "little") + 4
        broken[place:place + 2] = (0x8664 if BITS == 32 else 0x014c).to_bytes(2, "little")
        for content, cause in [(bytes(broken), f"a {96 - BITS}-bit module"), (b"MZ", "no module"), (None, "does not exist")]:
            with self.subTest(cause=cause):
                moved.write_bytes(content) if content else moved.unlink()
                report, problems = self.doctor(6, program=self.alone)
                self.assertIsNone(report["module"])
                self.assertIn(cause, problems[f"the engine's module (machine: {windows(moved)})"])

    def test_a_registration_for_the_user_is_named(self):
        # Wine creates nothing from it, so the module counts as missing here.
        self.registered(scope="user")
        report, _ = self.doctor(6, program=self.alone)
        self.assertEqual(report["registrations"], [{"kind": "user", "module": windows(MODULE)}])

    def test_a_missing_type_library_and_listed_filters_that_cannot_be_created_are_problems(self):
        self.registered()
        reg("delete", LIBRARY, "/f")
        report = self.one_problem(6, "type library", "not registered", program=self.alone)
        self.assertIsNone(report["type_library"])
        reg("add", FILTERS, "/v", "Ghost", "/d", "{11111111-2222-3333-4444-555555555555}", "/f")
        self.one_problem(6, '"Ghost" in HKEY_LOCAL_MACHINE', "not registered")
        reg("add", FILTERS, "/v", "Ghost", "/d", "COggImport", "/f")
        self.one_problem(6, '"Ghost"', "not a class identifier")
        reg("delete", FILTERS, "/v", "Ghost", "/f")
        self.assertEqual(run("install-filters")[0], 0)
        report, problems = self.doctor()
        self.assertEqual(([entry["available"] for entry in report["filters"]], problems), ([True, True], {}))
        # The manager reads no further than this.
        reg("add", FILTERS, "/v", "Long", "/d", "x" * 120, "/f")
        self.one_problem(6, "Import Filters", "too long")

    def test_a_temporary_folder_that_cannot_be_used_is_a_problem(self):
        def choose(path):
            reg("add", DIRECTORIES, "/v", "Temporary", "/d", windows(path), "/f")

        choose(self.folder)
        report, problems = self.doctor()
        self.assertEqual((report["temporary_folder"]["chosen"], problems), (True, {}))
        self.assertEqual(list(self.folder.iterdir()), [self.alone])
        for folder, cause in ((self.folder / "nowhere", "does not exist"), (self.alone, "not a folder"),
                              # Not even root can write here.
                              (pathlib.Path("/proc/self"), "no file can be made there")):
            choose(folder)
            self.one_problem(4, folder.name, cause)

    def test_the_text_names_cause_and_remedy(self):
        status, text, messages = run("doctor", program=self.alone, environment=NO_SERVER)
        self.assertEqual(status, 6)
        # The system's sound library may write messages before it.
        self.assertTrue(messages.endswith("marlinda: there are 4 problems\n"), messages)
        self.assertIn("problem: the engine's module: the class is not registered\n  Register", text)
        self.assertRegex(text, r"(?m)^module +cannot be used$")
        self.assertRegex(text, r"(?m)^temporary +.*MiB free$")


if __name__ == "__main__":
    unittest.main(verbosity=2)
