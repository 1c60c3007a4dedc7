"""Uses the packages as a newcomer does: unzips one and follows its README, builds clients against it,
installs it, uses it, removes it. Each Wine session ends before the registry, in Wine's files, and the
disk are compared with what they were.

package_test.py FOLDER_OF_PACKAGES [unittest arguments]
"""

import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest
import wave
import zipfile

PACKAGES = pathlib.Path(sys.argv.pop(1)).resolve()
ROOT = pathlib.Path(__file__).resolve().parents[2]
PREFIX = pathlib.Path(os.environ["TESSALY_WINE_PREFIX"])
DRIVE = PREFIX / "drive_c"
ZIP, = PACKAGES.glob("tessaly-*-x64.zip")
SETUP, = PACKAGES.glob("tessaly-*-x64-setup.exe")
# With no sound server, whatever this machine has.
ENVIRONMENT = dict(os.environ, PULSE_SERVER="unix:/nowhere/native", LC_ALL="C.UTF-8")
OGG_CLASS = "2A54BF54-1E13-4AC8-A8FB-EA25D67E29C0"

# All of these are part of every Windows since 7.
SYSTEM_LIBRARIES = {"advapi32.dll", "comctl32.dll", "comdlg32.dll", "gdi32.dll", "kernel32.dll",
                    "msvcrt.dll", "ole32.dll", "oleaut32.dll", "shell32.dll", "user32.dll",
                    "version.dll", "winmm.dll"}

# The engine makes the keys that it looks for settings in and leaves them empty.
SETTINGS_KEYS = {
    f"{hive} [Software\\\\Brevant{rest}]" for hive, rests in
    {"user": ["", r"\\Cutloom", r"\\Cutloom\\Directories", r"\\Cutloom\\EncoderSettings"],
     "system": ["", r"\\Cutloom", r"\\Cutloom\\Import Filters"]}.items() for rest in rests}
# What Wine writes by itself when programs start and end.
WINES_OWN = re.compile(r"(user \[(Console|Software\\\\Wine|Volatile Environment|Control Panel)\b)|"
                       r"(system \[(System|Hardware|"
                       r"Software\\\\Microsoft\\\\Windows( NT)?\\\\CurrentVersion\\\\"
                       r"(NetworkCards|Print|MMDevices))\b)")


def session(script, folder, **options):
    """Runs lines of shell in a Wine session; `wine` starts a program. Returns status and output."""
    text = r"""
        wine() { "$TESSALY_WINE" "$@"; }
        # The uninstaller goes on after the program that began it, and so does what removes its copy.
        remove() {
          (cd / && wine "$1/uninstall.exe" /S) || return
          while [[ -e $1 || -n $(ls "$WINEPREFIX"/drive_c/users/*/Temp) ]]; do sleep 0.1; done
        }
    """ + script
    done = subprocess.run([ROOT / "scripts" / "wine-session", "bash", "-c", text], cwd=folder,
                          env=ENVIRONMENT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, **options)
    return done.returncode, done.stdout.decode().replace("\r", "")


def windows(path):
    return "Z:" + str(path).replace("/", "\\")


def registry():
    """Every key and value of Wine's registry as one line each."""
    lines = set()
    for hive in ("system", "user"):
        key, value = "", ""
        for line in (PREFIX / f"{hive}.reg").read_text(encoding="latin1").splitlines():
            if line.startswith("["):
                key = f"{hive} {line[:line.rindex(']') + 1]}"
                lines.add(key)
            elif line and key and not line.startswith("#"):
                value += line
                if line.endswith("\\"):  # goes on
                    continue
                lines.add(f"{key} {value}")
                value = ""
    return {line for line in lines if not WINES_OWN.match(line)}


def files(folder):
    """Every file and folder below; files with what changes when they are written."""
    found = {}
    for path in folder.rglob("*"):
        facts = path.lstat()
        found[str(path.relative_to(folder))] = (
            None if path.is_dir() else (facts.st_size, facts.st_mtime_ns))
    return found


def imports(file):
    output = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", str(file)], check=True,
                            stdout=subprocess.PIPE).stdout.decode("latin1")
    return {name.lower() for name in re.findall(r"DLL Name: (\S+)", output)}


class PackageTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.top = pathlib.Path(folder.name)
        with zipfile.ZipFile(ZIP) as packed:
            assert packed.testzip() is None
            packed.extractall(cls.top)
        cls.folder, = cls.top.iterdir()
        # What Wine writes at the first start of a program is there afterwards, and so are the keys that
        # all programs share.
        session("wine cmd /c ver; wine regsvr32 /s nothing.dll; wine cscript //nologo nothing.vbs; "
                r"wine reg add 'HKCU\Software\Microsoft\Windows\CurrentVersion\Uninstall' /f; "
                r"wine reg add 'HKCU\Software\Classes\AppID' /f", cls.folder)

    def setUp(self):
        for folder in DRIVE.glob("users/*/Temp/*"):  # of a run that was broken off
            shutil.rmtree(folder) if folder.is_dir() else folder.unlink()
        self.registry = registry()
        self.disk = files(DRIVE)

    def changes(self):
        now = registry()
        return now - self.registry, self.registry - now

    def assertNothingLeft(self):
        added, removed = self.changes()
        self.assertEqual(added, set())
        # Those that an earlier program left empty go as well.
        self.assertLessEqual(removed, SETTINGS_KEYS)
        self.assertEqual(registry() & SETTINGS_KEYS, set())
        self.assertEqual(files(DRIVE), self.disk)

    def test_programs_and_modules_need_the_systems_own_libraries_alone(self):
        found = [file for file in self.folder.rglob("*") if file.suffix in (".exe", ".dll")]
        self.assertEqual({file.name for file in found},
                         {"Tessaly.dll", "Converter.dll", "InterfacePicker.dll", "marlinda.exe"})
        version = re.search(r"-([0-9.]+)-x64", ZIP.name)[1]
        for file in found:
            self.assertLessEqual(imports(file), SYSTEM_LIBRARIES, file.name)
            self.assertIn("kernel32.dll", imports(file))
            shown = "ProductVersion".encode("utf-16-le") + rb"(?:\0\0)+" + re.escape(f"{version}\0".encode("utf-16-le"))
            self.assertTrue(re.search(shown, file.read_bytes()), file.name)

    def test_the_zip_holds_the_files_of_its_readme_and_every_licence(self):
        readme = (self.folder / "README.txt").read_bytes()
        self.assertEqual(readme.count(b"\n"), readme.count(b"\r\n"))
        listed = re.search(rb"What is here\r\n-+\r\n\r\n(.*?)\r\n\r\nTo remove", readme, re.DOTALL)[1]
        names = set(re.findall(r"^    (\S+)", listed.decode(), re.MULTILINE)) - {"type"}
        for name in names:
            self.assertTrue((self.folder / name.replace("\\", "/")).exists(), name)
        with zipfile.ZipFile(ZIP) as packed:
            top = {name.split("/")[1] for name in packed.namelist()}
        self.assertEqual(top - {"README.txt", "marlinda.exe.manifest"} -
                         {name.split("\\")[0] for name in names}, set())
        licences = {path.stem for path in (self.folder / "licences").iterdir()}
        libraries = {path.name.removeprefix(".built-")
                     for path in (ROOT / "build/deps/x64").glob(".built-*")} - {"benchmark"}
        self.assertLessEqual(libraries | {"libogg", "libvorbis", "third-party"}, licences)

    def test_a_newcomer_follows_the_readme_and_nothing_is_registered(self):
        readme = (self.folder / "README.txt").read_text()
        steps = [line.split("   ")[0] for line in re.findall(r"^    (marlinda .*)$", readme, re.MULTILINE)]
        self.assertEqual([step.split()[1] for step in steps], ["doctor", "info", "cut", "plot", "play"])
        script = "".join(f"wine ./{shlex.join(step.split()).replace('marlinda', 'marlinda.exe', 1)} "
                         f"2>messages{n}; echo \"status $?\"\n" for n, step in enumerate(steps))
        _, output = session(script, self.folder)
        doctor, info, cut, plot, play = re.split(r"status (?=\d+$)", output, flags=re.MULTILINE)[:5]
        statuses = [int(status) for status in re.findall(r"^status (\d+)$", output, re.MULTILINE)]
        # No sound device: that is said, and everything else works.
        self.assertEqual(statuses, [7, 0, 0, 0, 7], output)
        self.assertIn("no sound device for output", doctor)
        self.assertEqual(doctor.count("problem: "), 2)
        self.assertRegex(doctor, r"found by +manifest\n")
        self.assertRegex(doctor, r"converter +can be created\n")
        self.assertRegex(info, r"44100 Hz, 2 channels")
        self.assertRegex(cut, r"cut\.wav: 0:00:04\.500")
        self.assertIn("no sound device for output", (self.folder / "messages4").read_text())
        with wave.open(str(self.folder / "cut.wav")) as made:
            self.assertEqual(made.getnframes(), 4.5 * 44100)
        self.assertEqual((self.folder / "demo.png").read_bytes()[:8], b"\x89PNG\r\n\x1a\n")

        added, removed = self.changes()
        # Wine's file leaves out a key that has nothing but others below it.
        self.assertEqual((added - SETTINGS_KEYS, removed - SETTINGS_KEYS), (set(), set()))
        self.assertEqual(files(DRIVE), self.disk)

    def test_a_client_is_built_with_the_cmake_package_and_runs_unregistered(self):
        build = self.top / "client"
        for command in (["cmake", "-S", self.folder / "samples/cpp", "-B", build, "-G", "Ninja",
                         f"-DCMAKE_TOOLCHAIN_FILE={ROOT}/cmake/mingw-x64.cmake",
                         f"-DCMAKE_FIND_ROOT_PATH={self.folder}", "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror"],
                        ["cmake", "--build", build]):
            done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            self.assertEqual(done.returncode, 0, done.stdout.decode())
        self.cut_in_half(build)

    def test_a_client_is_built_by_the_command_line_of_the_samples_readme(self):
        copy = shutil.copytree(self.folder, self.top / "by hand")
        self.addCleanup(shutil.rmtree, copy)
        line, = re.findall(r"^    (\S*mingw32-g\+\+.*)$", (copy / "samples/README.md").read_text(), re.MULTILINE)
        done = subprocess.run(shlex.split(line), cwd=copy / "samples/cpp", stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
        self.assertEqual(done.returncode, 0, done.stdout.decode())
        # Beside the engine, with a manifest, nothing has to be registered.
        shutil.move(copy / "samples/cpp/first_steps.exe", copy)
        shutil.copy(copy / "marlinda.exe.manifest", copy / "first_steps.exe.manifest")
        self.cut_in_half(copy)

    def cut_in_half(self, place):
        """Runs first_steps.exe, which needs no library of the compiler."""
        self.assertLessEqual(imports(place / "first_steps.exe"), SYSTEM_LIBRARIES)
        music = self.folder / "samples/demo.ogg"
        status, output = session(f"wine ./first_steps.exe {shlex.quote(str(music))} half.wav", place)
        self.assertEqual(status, 0, output)
        self.assertRegex(output, r"\[[ .:=+*#%@-]{64}\]\n264600 of 529200 frames written\n")
        with wave.open(str(place / "half.wav")) as made:
            self.assertEqual((made.getnframes(), made.getnchannels()), (264600, 2))
        (place / "half.wav").unlink()
        self.assertEqual({line for line in self.changes()[0] if OGG_CLASS in line}, set())

    def installed(self, options, place, check):
        """Installs, checks, removes by the uninstaller's own command, all in one session."""
        target = DRIVE / place
        self.addCleanup(self.force_away, target)
        script = f"""
            wine {shlex.quote(str(SETUP))} /S {options} || exit 11
            cd {shlex.quote(str(target))} || exit 12
            {check}
            remove {shlex.quote(str(target))} || exit 13
        """
        status, output = session(script, self.folder)
        self.assertEqual(status, 0, output)
        return output

    def force_away(self, target):
        """A test that failed must not spoil the others."""
        if target.exists():
            session(f"remove {shlex.quote(str(target))}", self.folder)
            shutil.rmtree(target, ignore_errors=True)

    ENTRY = r"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Tessaly"

    def test_setup_for_the_machine_registers_lists_filters_and_leaves_nothing(self):
        output = self.installed("/AllUsers", "Program Files/Tessaly", rf"""
            cp marlinda.exe {shlex.quote(str(self.top))} && (cd {shlex.quote(str(self.top))} &&
              wine ./marlinda.exe doctor; wine ./marlinda.exe info {shlex.quote(str(self.folder))}/samples/demo.ogg)
            wine cscript //nologo samples/scripts/cut_in_half.vbs samples/demo.ogg half.wav && rm half.wav
            wine reg query HKLM\\{self.ENTRY}
            wine cmd /c 'dir /b /s'
        """)
        self.assertRegex(output, r"found by +machine\n")
        self.assertIn(r"registry, for the machine: C:\Program Files\Tessaly\Tessaly.dll", output)
        self.assertRegex(output, r"filters +.*COggImport")
        self.assertRegex(output, r"frames +529200")
        self.assertIn("264600 of 529200 frames written", output)
        for name, data in [("DisplayName", "Tessaly audio engine"), ("InstallLocation", r"C:\\Program Files"),
                           ("QuietUninstallString", r'"C:\\Program Files\\Tessaly\\uninstall.exe" /S')]:
            self.assertRegex(output, rf"{name} +REG_SZ +{data}")
        for path in self.folder.rglob("*"):
            if path.parent.name in ("docs", "include", "licences"):
                self.assertIn(path.name, output)
        self.assertNothingLeft()

    # Made by the engine in the registry of an installation for one user, too, by one who may.
    MADE = shlex.join([r"HKCU\Software\Brevant\Cutloom\EncoderSettings",
                       r"HKLM\Software\Brevant\Cutloom\Import Filters"])

    def test_setup_for_one_user_leaves_nothing(self):
        profile, = (path.parent for path in DRIVE.glob("users/*/Temp"))
        programs = profile / "AppData/Local/Programs"
        self.assertFalse(programs.exists())
        output = self.installed("/CurrentUser", programs.relative_to(DRIVE) / "Tessaly", rf"""
            wine ./marlinda.exe doctor
            wine ./marlinda.exe info samples/demo.ogg
            for key in {self.MADE}; do wine reg query "$key" || exit 14; done
            wine reg query HKCU\\{self.ENTRY} || exit 15
            wine reg query HKLM\\{self.ENTRY} && exit 16
        """)
        self.assertRegex(output, r"registry, for the user: C:\\.*\\AppData\\Local\\Programs\\Tessaly\\Tessaly.dll")
        self.assertNotIn("registry, for the machine", output)
        self.assertIn("filters       none listed", output)
        self.assertRegex(output, r"frames +529200")
        self.assertNothingLeft()

    def test_setup_for_one_user_into_a_chosen_folder_leaves_what_others_put_there(self):
        output = self.installed(r"/CurrentUser /S /D=C:\\Other Place\\Tessaly", "Other Place/Tessaly", rf"""
            for key in {self.MADE}; do wine reg add "$key" /v theirs /d kept /f || exit 14; done
        """)
        (DRIVE / "Other Place").rmdir()  # the uninstaller removes what is its own
        _, output = session(f"""
            for key in {self.MADE}; do wine reg query "$key" /v theirs; done
            for hive in HKCU HKLM; do wine reg delete $hive\\\\Software\\\\Brevant /f; done
        """, self.folder)
        self.assertEqual(len(re.findall(r"theirs +REG_SZ +kept", output)), 2, output)
        self.assertNothingLeft()

    def test_setup_refuses_switches_that_it_does_not_know_or_that_contradict_each_other(self):
        refused = ["/AllUsers /CurrentUser", "/AllUser", "/CurrentUser /AllUs /S ers", "Tessaly"]
        _, output = session("".join(f"wine {shlex.quote(str(SETUP))} /S {switches}; echo $?\n"
                                    for switches in refused), self.folder)
        self.assertEqual(output, "2\n" * len(refused))
        self.assertEqual((self.changes()[0], files(DRIVE)), (set(), self.disk))

    def test_an_installation_in_use_is_neither_replaced_nor_removed_and_stays_the_only_one(self):
        # A host in Windows' script language, until it is told to end; Wine's cannot sleep.
        host, told = self.top / "host.vbs", self.top / "told"
        host.write_text(f"""
            Set files = CreateObject("Scripting.FileSystemObject")
            Set silence = CreateObject("Marlinda.NullReader.1")
            silence.Create 44100, 44100, 2
            WScript.Echo "holds"
            Do Until files.FileExists("{windows(told)}")
            Loop
            silence.Create 44100, 44100, 2
            WScript.Echo "ends well"
        """)
        top = shlex.quote(str(self.top))
        output = self.installed(r"/D=C:\\Used", "Used", rf"""
            ls -lR --time-style=full-iso >{top}/before
            wine cscript //nologo {shlex.quote(windows(host))} >{top}/said 2>&1 &
            until grep -q holds {top}/said; do sleep 0.05; kill -0 $! || exit 20; done
            wine {shlex.quote(str(SETUP))} /S /D=C:\\Used; echo "setup $?"
            wine ./uninstall.exe /S _?=C:\\Used; echo "uninstall $?"
            wine reg query HKLM\\{self.ENTRY} >/dev/null && echo "still registered"
            ls -lR --time-style=full-iso >{top}/after; cmp {top}/before {top}/after && echo "still whole"
            touch {shlex.quote(str(told))}
            wait; tail -n 1 {top}/said
            wine {shlex.quote(str(SETUP))} /S /D=C:\\Elsewhere; echo "setup elsewhere $?"
            wine {shlex.quote(str(SETUP))} /S; echo "setup again $?"
        """)
        self.assertEqual(output, "setup 2\nuninstall 2\nstill registered\nstill whole\n"
                         "ends well\nsetup elsewhere 2\nsetup again 0\n")
        self.assertFalse((DRIVE / "Elsewhere").exists())
        self.assertNothingLeft()

    def test_a_setup_that_fails_half_way_takes_back_what_it_did(self):
        obstacle = DRIVE / "Full" / "docs"
        obstacle.parent.mkdir()
        obstacle.write_text("somebody else's")
        self.addCleanup(shutil.rmtree, obstacle.parent)
        status, output = session(f"wine {shlex.quote(str(SETUP))} /S /D=C:\\\\Full", self.folder)
        self.assertEqual(status, 2, output)
        self.assertEqual(list(obstacle.parent.iterdir()), [obstacle])
        self.assertEqual(obstacle.read_text(), "somebody else's")
        added, removed = self.changes()
        self.assertEqual((added, removed - SETTINGS_KEYS), (set(), set()))


if __name__ == "__main__":
    unittest.main(verbosity=2)
