#!/usr/bin/env python3
"""The built modules import only libraries of the system, which nobody can plant beside a host, and have
every protection that the loader and the compiler offer.
usage: module_image_test.py OBJDUMP NM MODULE..."""
import re
import subprocess
import sys

# Each is found in the system's own folder first: known to the loader, or part of every Windows. What is
# added here has to be justified in SECURITY.md.
SYSTEM_LIBRARIES = {f"{name}.dll" for name in (
    "advapi32 comctl32 comdlg32 gdi32 kernel32 msvcrt ole32 oleaut32 quartz shell32 shlwapi strmiids user32 winmm"
).split()}


def faults_of(objdump, nm, module):
    headers = subprocess.run([objdump, "-p", module], capture_output=True, text=True, check=True).stdout
    symbols = subprocess.run([nm, module], capture_output=True, text=True, check=True).stdout
    imports = {name.lower() for name in re.findall(r"DLL Name: (\S+)", headers)}
    if not imports or imports - SYSTEM_LIBRARIES:
        yield f"imports that somebody could plant, or none: {sorted(imports - SYSTEM_LIBRARIES)}"
    wanted = {"DYNAMIC_BASE", "NX_COMPAT"} | ({"HIGH_ENTROPY_VA"} if "pei-x86-64" in headers else set())
    if missing := wanted - set(re.findall(r"^\s+([A-Z_]+)$", headers, re.MULTILINE)):
        yield f"missing protections: {sorted(missing)}"
    if "__stack_chk_fail" not in symbols:
        yield "the stack is not protected"


objdump, nm, *modules = sys.argv[1:]
sys.exit("\n".join(f"{module}: {fault}" for module in modules for fault in faults_of(objdump, nm, module)) or None)
