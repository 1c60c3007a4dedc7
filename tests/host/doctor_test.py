"""Breaks what marlinda.exe needs, one thing at a time, and lets "marlinda doctor" find it.

Called inside a Wine session of its own: doctor_test.py PATH/marlinda.exe [unittest arguments]
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from program import PROGRAM, WINE, keep_wine_alive, run, windows

MODULE = PROGRAM.parent / "Tessaly.dll"
SOUND_SESSION = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "sound-session"
FILTERS = r"HKLM\Software\Brevant\Cutloom\Import Filters"
DIRECTORIES = r"HKCU\Software\Brevant\Cutloom\Directories"
LIBRARY = r"HKLM\Software\Classes\TypeLib\{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}"
NO_SERVER = {"PULSE_SERVER": "unix:/nowhere/native"}
VERSION = re.search(r"^project\(Tessaly VERSION ([0-9.]+)",
                    (pathlib.Path(__file__).resolve().parents[2] / "CMakeLists.txt").read_text(),
                    re.MULTILINE)[1]


def reg(*words):
    return subprocess.run([WINE, "reg", *words], stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode


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
        """The report, and its problems by subject. Without a sound server the status is 7 unless
        there is something worse, and the devices' problems are left out."""
        got, output, messages = run("doctor", "--json", program=program, environment=NO_SERVER)
        self.assertEqual(got, status, output + messages)
        report = json.loads(output)
        self.assertIn(f"{len(report['problems'])} problems", messages)
        problems = {}
        devices = []
        for problem in report["problems"]:
            self.assertTrue(problem["remedy"], problem)
            if problem["status"] == 7:
                devices.append(problem["cause"])
            else:
                problems[problem["subject"]] = problem
        self.assertEqual(devices, ["there is no sound device for " + kind
                                   for kind in ("output", "input")])
        return report, problems

    def one_problem(self, status, subject, cause, **options):
        report, problems = self.doctor(status, **options)
        (found, problem), = problems.items()
        self.assertIn(subject, found)
        self.assertIn(cause, problem["cause"])
        self.assertEqual(problem["status"], status)
        return report

    def test_a_whole_installation_has_no_problems_but_the_missing_sound_server(self):
        report, problems = self.doctor()
        self.assertEqual(problems, {})
        self.assertEqual(report["module"],
                         {"path": windows(MODULE), "version": VERSION, "bits": 64})
        self.assertEqual(report["program"],
                         {"path": windows(PROGRAM), "version": VERSION, "bits": 64})
        self.assertEqual(report["found_by"], "manifest")
        self.assertEqual([place["kind"] for place in report["registrations"]], ["manifest"])
        self.assertEqual(report["type_library"],
                         {"name": "Marlinda 1.0 Type Library", "path": windows(MODULE)})
        self.assertEqual(len(report["classes"]), 14)
        for state in report["classes"]:
            self.assertEqual(state["available"], state["offered"], state)
        self.assertGreater(report["temporary_folder"]["free_bytes"], 0)
        self.assertIn("import filters", [note["subject"] for note in report["notes"]])

    def test_with_a_sound_server_everything_is_well_and_the_status_is_0(self):
        done = subprocess.run([SOUND_SESSION, WINE, str(PROGRAM), "doctor"],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL)
        text = done.stdout.decode()
        self.assertEqual((done.returncode, text.splitlines()[-1]), (0, "no problems"), text)
        self.assertRegex(text, r"outputs +\S.*Null Output")

    def test_how_the_module_was_found_is_told(self):
        self.registered()
        report, problems = self.doctor(program=self.alone)
        self.assertEqual((report["found_by"], problems), ("machine", {}))
        self.assertEqual(report["registrations"], [{"kind": "machine", "module": windows(MODULE)}])
        self.assertEqual(report["module"]["path"], windows(MODULE))
        # The manifest comes first.
        report, _ = self.doctor()
        self.assertEqual([place["kind"] for place in report["registrations"]],
                         ["manifest", "machine"])
        self.assertEqual(report["found_by"], "manifest")

    def test_a_registration_for_the_user_is_told(self):
        # Wine creates nothing from it, so the module counts as missing here.
        self.registered(scope="user")
        report, problems = self.doctor(6, program=self.alone)
        self.assertEqual(report["registrations"], [{"kind": "user", "module": windows(MODULE)}])
        self.assertIsNone(report["module"])
        self.assertTrue(any("the engine's module (user" in subject for subject in problems))

    def test_a_module_that_is_not_registered_is_a_problem(self):
        report, problems = self.doctor(6, program=self.alone)
        self.assertIsNone(report["module"])
        self.assertEqual(sorted(problems), ["the engine's module", "type library"])
        for problem in problems.values():
            self.assertIn("not registered", problem["cause"])
            self.assertIn("regsvr32 Tessaly.dll", problem["remedy"])

    def test_a_registered_module_that_is_gone_broken_or_of_the_other_kind_is_a_problem(self):
        moved = self.folder / "moved" / MODULE.name
        moved.parent.mkdir()
        shutil.copy(MODULE, moved)
        register(module=moved)
        self.addCleanup(register, "/u", module=moved)
        self.addCleanup(shutil.copy, MODULE, moved)
        broken = bytearray(moved.read_bytes())
        place = int.from_bytes(broken[0x3c:0x40], "little") + 4
        broken[place:place + 2] = (0x014c).to_bytes(2, "little")
        for content, cause in [(bytes(broken), "a 32-bit module"), (b"MZ", "no module"),
                               (None, "does not exist")]:
            with self.subTest(cause=cause):
                if content is None:
                    moved.unlink()
                else:
                    moved.write_bytes(content)
                report, problems = self.doctor(6, program=self.alone)
                self.assertIsNone(report["module"])
                self.assertEqual(report["registrations"],
                                 [{"kind": "machine", "module": windows(moved)}])
                self.assertEqual(problems[f"the engine's module (machine: {windows(moved)})"]["cause"]
                                 .count(cause), 1)

    def test_a_type_library_that_is_missing_is_a_problem(self):
        self.registered()
        reg("delete", LIBRARY, "/f")
        report = self.one_problem(6, "type library", "not registered", program=self.alone)
        self.assertIsNone(report["type_library"])
        self.assertEqual(report["module"]["path"], windows(MODULE))

    def test_listed_filters_that_cannot_be_created_are_problems(self):
        reg("add", FILTERS, "/v", "Ghost", "/d", "{11111111-2222-3333-4444-555555555555}", "/f")
        report = self.one_problem(6, '"Ghost" in HKEY_LOCAL_MACHINE', "not registered")
        self.assertEqual([entry["available"] for entry in report["filters"]], [False])
        reg("add", FILTERS, "/v", "Ghost", "/d", "COggImport", "/f")
        self.one_problem(6, '"Ghost"', "not a class identifier")
        reg("delete", FILTERS, "/v", "Ghost", "/f")
        self.assertEqual(run("install-filters")[0], 0)
        report, problems = self.doctor()
        self.assertEqual(problems, {})
        self.assertTrue(report["filters"] and all(entry["available"] for entry in report["filters"]))
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
        choose(self.folder / "nowhere")
        self.one_problem(4, "nowhere", "does not exist")
        choose(self.alone)
        self.one_problem(4, self.alone.name, "not a folder")
        # Folders that nobody can write to, root included.
        choose(pathlib.Path("/proc/self"))
        self.one_problem(4, "self", "no file can be made there")

    def test_the_text_names_cause_and_remedy(self):
        status, text, messages = run("doctor", program=self.alone, environment=NO_SERVER)
        self.assertEqual(status, 6)
        # Before it may stand what the system's sound library says.
        self.assertTrue(messages.endswith("marlinda: there are 4 problems\n"), messages)
        self.assertIn("problem: the engine's module: the class is not registered\n  Register", text)
        self.assertRegex(text, r"(?m)^module +cannot be used$")
        self.assertRegex(text, r"(?m)^temporary +.*MiB free$")


if __name__ == "__main__":
    unittest.main(verbosity=2)
