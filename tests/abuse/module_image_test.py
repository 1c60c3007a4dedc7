#!/usr/bin/env python3
"""What the built module asks of the system before a line of it runs: only libraries of the system, none
that somebody could plant beside a host, and every protection that the loader and the compiler offer.
usage: module_image_test.py OBJDUMP NM MODULE"""
import re
import subprocess
import sys

# Each is found in the system's own folder first: known to the loader, or part of every Windows. What is
# added here has to be justified in SECURITY.md.
SYSTEM_LIBRARIES = {
    "advapi32.dll", "comctl32.dll", "comdlg32.dll", "gdi32.dll", "kernel32.dll", "msvcrt.dll",
    "ole32.dll", "oleaut32.dll", "quartz.dll", "shell32.dll", "shlwapi.dll", "strmiids.dll",
    "user32.dll", "winmm.dll",
}
PROTECTIONS = {"HIGH_ENTROPY_VA", "DYNAMIC_BASE", "NX_COMPAT"}


def main():
    objdump, nm, module = sys.argv[1:]
    headers = subprocess.run([objdump, "-p", module], capture_output=True, text=True, check=True).stdout
    imports = {name.lower() for name in re.findall(r"DLL Name: (\S+)", headers)}
    flags = set(re.findall(r"^\s+([A-Z_]+)$", headers, re.MULTILINE))
    symbols = subprocess.run([nm, module], capture_output=True, text=True, check=True).stdout
    faults = []
    if not imports:
        faults.append("no imports were found: this test reads the wrong thing")
    if imports - SYSTEM_LIBRARIES:
        faults.append(f"imports that somebody could plant: {sorted(imports - SYSTEM_LIBRARIES)}")
    if PROTECTIONS - flags:
        faults.append(f"protections that are missing: {sorted(PROTECTIONS - flags)}")
    if "__stack_chk_fail" not in symbols:
        faults.append("the stack is not protected")
    print("\n".join(faults) or f"{len(imports)} imports, all of the system")
    return 1 if faults else 0


sys.exit(main())
