"""The version stands in one place, CMakeLists.txt; everything that shows one shows that.

Called inside a Wine session: version_test.py BUILD_FOLDER [unittest arguments]
"""

import json
import os
import pathlib
import re
import struct
import subprocess
import sys
import unittest

BUILD = pathlib.Path(sys.argv.pop(1))
ROOT = pathlib.Path(__file__).resolve().parents[2]
VERSION = re.search(r"^project\(Tessaly VERSION ([0-9]+\.[0-9]+\.[0-9]+)\b",
                    (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)[1]


class VersionTest(unittest.TestCase):
    def test_the_properties_of_every_program_and_module_show_the_version(self):
        for file in (BUILD / name for name in ("Tessaly.dll", "marlinda.exe", "Converter.dll")):
            with self.subTest(file=file.name):
                data = file.read_bytes()
                # The fixed part begins with this signature, then come two 64-bit versions.
                place = data.index(struct.pack("<II", 0xFEEF04BD, 0x10000))
                high, low, high2, low2 = struct.unpack_from("<4I", data, place + 8)
                numbers = [high >> 16, high & 0xFFFF, low >> 16, low & 0xFFFF]
                self.assertEqual(numbers, [int(n) for n in VERSION.split(".")] + [0])
                self.assertEqual((high, low), (high2, low2))
                for name in ("FileVersion", "ProductVersion"):
                    pattern = name.encode("utf-16-le") + rb"(?:\0\0)+((?:[0-9.]\0)+)\0\0"
                    self.assertEqual(re.search(pattern, data)[1].decode("utf-16-le"), VERSION)

    def test_the_program_tells_the_version(self):
        output = subprocess.run([os.environ["TESSALY_WINE"], str(BUILD / "marlinda.exe"), "--version"],
                                check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL).stdout.decode()
        self.assertEqual(output.split(), ["marlinda", VERSION])

    def test_the_type_library_is_1_0_whatever_the_version(self):
        data = (BUILD / "contracts" / "marlinda.tlb").read_bytes()
        self.assertEqual(data[:4], b"MSFT")
        self.assertEqual(struct.unpack_from("<HH", data, 0x18), (1, 0))
        manifest = (BUILD / "marlinda.exe.manifest").read_text()
        self.assertRegex(manifest, r'<typelib tlbid="\{F70A5B7A-[-0-9A-F]+\}" version="1\.0"')

    def test_manifests_package_files_and_changelog_name_the_version(self):
        manifest = (BUILD / "marlinda.exe.manifest").read_text()
        self.assertIn(f'name="Tessaly.marlinda" version="{VERSION}.0"', manifest)
        config = (BUILD / "installer" / "TessalyConfigVersion.cmake").read_text()
        self.assertIn(f'set(PACKAGE_VERSION "{VERSION}")', config)
        self.assertEqual(json.loads((ROOT / "vcpkg.json").read_text())["version"], VERSION)
        newest = re.search(r"^#+ ([0-9]+\.[0-9]+\.[0-9]+)", (ROOT / "CHANGELOG.md").read_text(),
                           re.MULTILINE)
        self.assertEqual(newest[1], VERSION)

    def test_no_other_file_of_the_build_repeats_it(self):
        files = subprocess.run(["git", "-C", str(ROOT), "ls-files", "*.rc", "*.nsi", "*.in", "*.idl",
                                "*.sh", "*.cmake", "*CMakeLists.txt", "installer", "core", "host"],
                               check=True, stdout=subprocess.PIPE).stdout.decode().split()
        self.assertIn("installer/tessaly.nsi", files)
        repeated = re.compile(re.escape(VERSION) + "|" + VERSION.replace(".", ","))
        holders = [name for name in dict.fromkeys(files)
                   if repeated.search((ROOT / name).read_bytes().decode("latin1"))]
        self.assertEqual(holders, ["CMakeLists.txt"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
