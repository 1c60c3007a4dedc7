"""Uses the packages as a newcomer does: follows the README, builds clients, installs, uses and removes the engine.
Each Wine session ends before registry and disk are compared with their earlier state. If scripts/x86-root works, Wine
runs programs of both bitnesses.

package_test.py FOLDER_OF_PACKAGES [unittest arguments]
"""

import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest
import zipfile

PACKAGES = pathlib.Path(sys.argv.pop(1)).resolve()
ROOT = pathlib.Path(__file__).resolve().parents[2]
BOTH = subprocess.run([ROOT / "scripts/x86-root"]).returncode == 0
PREFIX = pathlib.Path(os.environ["TESSALY_WINE_PREFIX"] + ("-both" if BOTH else ""))
DRIVE = PREFIX / "drive_c"
ZIP, = PACKAGES.glob("tessaly-*.zip")
SETUP, = PACKAGES.glob("tessaly-*-setup.exe")
# Hides the machine's sound server.
ENVIRONMENT = dict(os.environ, PULSE_SERVER="unix:/nowhere/native", LC_ALL="C.UTF-8", TESSALY_WINE_PREFIX=str(PREFIX),
                   TESSALY_WINE_BITS="both" if BOTH else "64")
FOLDERS = {"x64": 64, "x86": 32}
PROGRAMS = {"Tessaly.dll", "Converter.dll", "Mp3Encoder.dll", "FlacImport.dll", "InterfacePicker.dll", "marlinda.exe", "marlinda-editor.exe"}
# Every Windows since 7 has these libraries. The programs may import no others.
SYSTEM_LIBRARIES = {f"{name}.dll" for name in (
    "advapi32 comctl32 comdlg32 gdi32 kernel32 msvcrt ole32 oleaut32 shell32 shlwapi user32 version winmm").split()}
ENTRY = r"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Tessaly"
# The engine creates its settings keys when it reads them and leaves them empty.
SETTINGS_KEY = re.compile(r"(user|system) \[Software\\\\(Wow6432Node\\\\)?Brevant(\\\\Cutloom"
                          r"(\\\\Directories|\\\\EncoderSettings|\\\\Import Filters)?)?\]")
# The registry keys that Wine itself writes when programs start and end.
WINES_OWN = re.compile(
    r"(user \[(Console|Software\\\\(Wine|Microsoft\\\\ActiveMovie)|Volatile Environment|Control Panel)\b)|(system \[(System\\\\(?!.*Environment\])|"
    r"Hardware|Software\\\\(Wow6432Node\\\\)?Microsoft\\\\Windows( NT)?\\\\CurrentVersion\\\\(NetworkCards|Print|MMDevices))\b)")


def session(script, folder="/"):
    """Runs lines of shell in a Wine session; `wine` starts a program. Returns status and output."""
    text = r"""
        wine() { "$TESSALY_WINE" "$@"; }
        # uninstall.exe starts a copy of itself in Temp and ends. The copy does the work and is then removed.
        remove() {
          (cd / && wine "$1/uninstall.exe" /S) || return
          while [[ -e $1 || -n $(ls "$WINEPREFIX"/drive_c/users/*/Temp) ]]; do sleep 0.1; done
        }
    """ + script
    done = subprocess.run([ROOT / "scripts/wine-session", "bash", "-c", text], cwd=folder, env=ENVIRONMENT,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return done.returncode, done.stdout.decode().replace("\r", "")


def state():
    """Returns every key and value of Wine's registry, and every file of drive C with its size and time."""
    found = {path: None if path.is_dir() else (path.lstat().st_size, path.lstat().st_mtime_ns) for path in DRIVE.rglob("*")}
    for hive in ("system", "user"):
        text = (PREFIX / f"{hive}.reg").read_text(encoding="latin1").replace("\\\n", "")
        for key, values in re.findall(r"^(\[.*\]) \d+\n((?:.+\n)*)", text, re.MULTILINE):
            if not WINES_OWN.match(f"{hive} {key}"):
                found[f"{hive} {key}"] = {value for value in values.splitlines() if not value.startswith("#")}
    return found


def image(file):
    """Returns the headers that objdump reads, and the names of the imported libraries."""
    text = subprocess.check_output(["x86_64-w64-mingw32-objdump", "-p", file]).decode("latin1")
    return text, {name.lower() for name in re.findall(r"DLL Name: (\S+)", text)}


class PackageTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        if not BOTH:
            print("Programs of 32 bits in the package were NOT TESTED. scripts/x86-root gives the reason.")
        cls.top = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        with zipfile.ZipFile(ZIP) as packed:
            packed.extractall(cls.top)
        cls.folder, = cls.top.iterdir()
        # Makes Wine write the files and registry entries of its first start. Adds registry keys that programs share.
        # The tests then do not report any of these as new.
        session(r"""
            wine cmd /c ver; wine regsvr32 /s nothing.dll; wine cscript //nologo nothing.vbs
            wine 'C:\windows\syswow64\cscript.exe' //nologo nothing.vbs
            for key in HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall HKCU\\Software\\Classes\\AppID \
              HKLM\\Software\\Wow6432Node\\Classes HKLM\\Software\\Classes\\Wow6432Node\\AppID; do wine reg add $key /f; done
        """)

    def setUp(self):
        for folder in DRIVE.glob("users/*/Temp/*"):  # left by an interrupted run
            shutil.rmtree(folder) if folder.is_dir() else folder.unlink()
        self.state = state()

    def assertNothingLeft(self, settings=False):
        """Expects no new or changed entries and files. If `settings` is true, empty settings keys may be new."""
        now = state()
        changed = [each for each in now.keys() | self.state.keys()
                   if now.get(each, "absent") != self.state.get(each, "absent")]
        self.assertEqual([each for each in changed if not (
            SETTINGS_KEY.fullmatch(str(each)) and (settings or each not in now) and not now.get(each))], [])

    def test_the_zip_holds_what_its_readme_lists_for_both_bitnesses_with_every_licence(self):
        for folder, bits in FOLDERS.items():
            found = [file for file in (self.folder / folder).iterdir() if file.suffix in (".exe", ".dll")]
            self.assertLessEqual(PROGRAMS, {file.name for file in found})
            for file in found:
                headers, imports = image(file)
                self.assertIn("kernel32.dll", imports)
                self.assertLessEqual(imports, SYSTEM_LIBRARIES, file.name)
                self.assertIn("file format pei-x86-64" if bits == 64 else "file format pei-i386", headers, file.name)
                for protection in ["DYNAMIC_BASE", "NX_COMPAT", *["HIGH_ENTROPY_VA"] * (bits == 64)]:
                    self.assertIn(f"\t{protection}\n", headers, file.name)
                self.assertIn(b"stack smashing detected", file.read_bytes(), file.name)
        readme = (self.folder / "README.txt").read_bytes()
        self.assertEqual(readme.count(b"\n"), readme.count(b"\r\n"))
        listed = re.search(r"What is here\r\n-+\r\n\r\n(.*?)\r\n\r\nTo remove", readme.decode(), re.DOTALL)[1]
        names = {name.rstrip("\\,").split("\\")[0] for name in re.findall(r"^ {4}([\w.]\S*)", listed, re.MULTILINE)}
        self.assertEqual(names | {"x86", "README.txt"}, {path.name for path in self.folder.iterdir()})
        self.assertLessEqual(PROGRAMS, set(re.findall(r"^ {8}(\S+)", listed, re.MULTILINE)))
        libraries = {path.name.removeprefix(".built-") for path in (ROOT / "build/deps/x64").glob(".built-*")}
        self.assertLessEqual((libraries - {"benchmark"}) | {"libogg", "libvorbis", "third-party"},
                             {path.stem for path in (self.folder / "licences").iterdir()})

    def test_a_newcomer_follows_the_readme_and_nothing_is_registered(self):
        steps = re.findall(r"^    (marlinda .*?)(?:   .*)?$", (self.folder / "README.txt").read_text(), re.MULTILINE)
        commands = self.top / "commands"
        commands.write_text("".join(f"{step}\r\necho ended with %ERRORLEVEL%\r\n" for step in steps))
        _, output = session(f"wine cmd /c console.cmd <{commands} 2>&1", self.folder)
        # The first and the last command report the missing sound device. The other commands succeed.
        self.assertEqual(re.findall(r"ended with (\d+)\n", output), ["7", "0", "0", "0", "7"], output)
        self.assertEqual(output.count("problem: "), 2)
        for pattern in (r"found by +manifest\n", r"32 bits +\S.*x86\\Tessaly.dll; not registered\n",
                        r"converter +can be created\n", "44100 Hz, 2 channels", r"cut\.wav: 0:00:04\.500", "no sound device for output"):
            self.assertRegex(output, pattern)
        for made in ("cut.wav", "demo.png"):
            next(DRIVE.glob(f"users/*/{made}")).unlink()
        self.assertNothingLeft(settings=True)

    def test_the_sample_is_built_from_the_package_and_runs_unregistered(self):
        for bits in FOLDERS:
            build = self.top / bits
            for words in (["cmake", "-S", self.folder / "samples/cpp", "-B", build, "-G", "Ninja",
                           f"-DCMAKE_TOOLCHAIN_FILE={ROOT}/cmake/mingw-{bits}.cmake", "-DCMAKE_CXX_FLAGS=-Wall -Werror",
                           f"-DCMAKE_FIND_ROOT_PATH={self.folder}"], ["cmake", "--build", build]):
                subprocess.run(words, check=True, stdout=subprocess.DEVNULL)
            if bits == "x86" and not BOTH:
                continue
            self.assertLessEqual(image(build / "first_steps.exe")[1], SYSTEM_LIBRARIES)
            status, output = session(f"wine ./first_steps.exe {self.folder}/samples/demo.ogg half.wav", build)
            self.assertEqual(status, 0, output)
            self.assertRegex(output, r"\[[ .:=+*#%@-]{64}\]\n264600 of 529200 frames written\n")
        self.assertNothingLeft(settings=True)

    def installed(self, options, place, check):
        """Installs the engine, runs the lines of `check` and uninstalls the engine, all in one session."""
        target = shlex.quote(str(DRIVE / place))
        self.addCleanup(shutil.rmtree, DRIVE / place, ignore_errors=True)
        self.addCleanup(session, f"[[ ! -e {target} ]] || remove {target}")
        status, output = session(f"""
            wine {SETUP} /S {options} || exit 11
            cd {target} || exit 12
            {check}
            remove {target} || exit 13
        """)
        self.assertEqual(status, 0, output)
        return output

    def test_setup_for_all_users_registers_both_bitnesses_and_uninstalls_completely(self):
        programs = ["x64", "x86"][:1 + BOTH]
        output = self.installed("/AllUsers /Path", "Program Files/Tessaly", rf"""
            for bits in {' '.join(programs)}; do
              # Copies the program without its manifest, so that it uses the registered module.
              (cp $bits/marlinda.exe {self.top} && cd {self.top} && wine ./marlinda.exe doctor --json)
              echo "--"
              system=system32; [[ $bits == x64 ]] || system=syswow64
              wine "C:\\windows\\$system\\cscript.exe" //nologo samples/scripts/cut_in_half.vbs samples/demo.ogg half.wav
              echo "--"
            done
            rm half.wav
            (cd {self.top} && wine cmd /c marlinda info {self.folder}/samples/demo.ogg)
            wine reg query HKLM\\{ENTRY}
            find "$WINEPREFIX/drive_c/ProgramData/Microsoft/Windows/Start Menu" .
        """).split("--\n")
        for number, bits in enumerate(programs):
            report = json.loads(output[2 * number])
            self.assertEqual((report["found_by"], report["program"]["bits"]), ("machine", FOLDERS[bits]))
            for engine, each in zip(report["engines"], FOLDERS, strict=True):
                self.assertEqual([entry["module"] for entry in engine["registrations"]],
                                 [rf"C:\Program Files\Tessaly\{each}\Tessaly.dll"][:each in programs])
            self.assertIn("COggImport", [entry["listed_as"] for entry in report["filters"]])
            self.assertIn("264600 of 529200 frames written", output[2 * number + 1])
        for pattern in (r"frames +529200", "DisplayName +REG_SZ +Tessaly audio engine", "Programs/Tessaly/Tessaly console.lnk\n",
                        r'QuietUninstallString +REG_SZ +"C:\\Program Files\\Tessaly\\uninstall.exe" /S'):
            self.assertRegex(output[-1], pattern)
        self.assertEqual("Tessaly editor.lnk" in output[-1], (self.folder / "x64/marlinda-editor.exe").exists())
        for path in self.folder.rglob("*"):
            self.assertIn(f"./{path.relative_to(self.folder)}\n", output[-1])
        self.assertNothingLeft()

    def test_setup_for_one_user_into_a_chosen_folder_keeps_foreign_entries(self):
        keys = shlex.join([r"HKCU\Software\Brevant\Cutloom\EncoderSettings", r"HKLM\Software\Brevant\Cutloom\Import Filters"])
        # This path is longer than a string of the set-up program can be.
        path = "%SystemRoot%;" + "C:\\somewhere;" * 200 + "end;"
        session(f"wine reg add HKCU\\\\Environment /v Path /f /t REG_EXPAND_SZ /d '{path[:-1]}'")
        self.addCleanup(session, r"wine reg delete HKCU\\Environment /v Path /f")
        self.state = state()
        output = self.installed(r"/CurrentUser /Path /D=C:\\Other Place\\Tessaly", "Other Place/Tessaly", rf"""
            wine x64/marlinda.exe doctor
            wine x64/marlinda.exe info samples/demo.ogg
            for key in {keys}; do wine reg add "$key" /v theirs /d kept /f || exit 14; done
            wine reg query HKCU\\{ENTRY} || exit 15
            wine reg query HKLM\\{ENTRY} && exit 16
            find "$WINEPREFIX"/drive_c/users/*/AppData/Roaming/Microsoft/Windows/"Start Menu"
            wine reg query HKCU\\Environment /v Path
        """)
        self.assertIn(r"64 bits       C:\Other Place\Tessaly\x64\Tessaly.dll; registry, for the user: C:", output)
        self.assertNotIn("for the machine", output)
        for pattern in ("filters       none listed", r"frames +529200", "Programs/Tessaly/Tessaly documents.lnk\n"):
            self.assertRegex(output, pattern)
        self.assertIn(f"REG_EXPAND_SZ    {path}C:\\Other Place\\Tessaly\\x64\n", output)
        (DRIVE / "Other Place").rmdir()  # the uninstaller removes only the folder that set-up made
        _, output = session(f"""
            for key in {keys}; do wine reg query "$key" /v theirs; done
            for hive in HKCU HKLM; do wine reg delete $hive\\\\Software\\\\Brevant /f; done
        """)
        self.assertEqual(len(re.findall(r"theirs +REG_SZ +kept", output)), 2, output)
        self.assertNothingLeft()

    def test_an_installation_in_use_is_neither_replaced_nor_removed_and_stays_the_only_one(self):
        # A host that runs until the file `told` exists. It polls, because Wine's scripts cannot sleep.
        host, told = self.top / "host.vbs", self.top / "told"
        host.write_text(f"""
            Set files = CreateObject("Scripting.FileSystemObject")
            Set silence = CreateObject("Marlinda.NullReader.1")
            WScript.Echo "holds"
            Do Until files.FileExists("Z:{told}")
            Loop
            silence.Create 44100, 44100, 2
            WScript.Echo "ends well"
        """)
        output = self.installed(r"/D=C:\\Used", "Used", rf"""
            wine cscript //nologo 'Z:{host}' >{self.top}/said 2>&1 &
            until grep -q holds {self.top}/said; do sleep 0.05; kill -0 $! || exit 20; done
            wine {SETUP} /S /D=C:\\Used; echo "setup $?"
            wine ./uninstall.exe /S _?=C:\\Used; echo "uninstall $?"
            wine reg query HKLM\\{ENTRY} >/dev/null && echo "still registered"
            [[ -e x64/Tessaly.dll ]] && echo "still whole"
            touch {told}
            wait; tail -n 1 {self.top}/said
            wine {SETUP} /S /D=C:\\Elsewhere; echo "setup elsewhere $?"
        """)
        self.assertEqual(output, "setup 2\nuninstall 2\nstill registered\nstill whole\nends well\nsetup elsewhere 2\n")
        self.assertNothingLeft()

    def test_setup_refuses_wrong_switches_and_undoes_its_changes_if_it_fails(self):
        (DRIVE / "Full").mkdir()
        self.addCleanup(shutil.rmtree, DRIVE / "Full")
        (DRIVE / "Full/docs").touch()  # set-up needs a folder here
        self.state = state()
        wrong = ["/AllUsers /CurrentUser", "/AllUser", "/CurrentUser /AllUs /S ers", "Tessaly", "/Paths", r"/D=C:\\Full"]
        _, output = session("".join(f"wine {SETUP} /S {switches}; echo $?\n" for switches in wrong))
        self.assertEqual(output, "2\n" * len(wrong))
        self.assertNothingLeft()


if __name__ == "__main__":
    unittest.main(verbosity=2)
