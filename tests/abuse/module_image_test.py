#!/usr/bin/env python3
"""The built modules import only libraries of the system, which nobody can plant beside a host, and have
every protection that the loader and the compiler offer.
usage: module_image_test.py OBJDUMP NM MODULE..."""
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
PROTECTIONS = {"DYNAMIC_BASE", "NX_COMPAT"}


def faults_of(objdump, nm, module):
    headers = subprocess.run([objdump, "-p", module], capture_output=True, text=True, check=True).stdout
    imports = {name.lower() for name in re.findall(r"DLL Name: (\S+)", headers)}
    flags = set(re.findall(r"^\s+([A-Z_]+)$", headers, re.MULTILINE))
    symbols = subprocess.run([nm, module], capture_output=True, text=True, check=True).stdout
    if not imports:
        yield "no imports found"
    if imports - SYSTEM_LIBRARIES:
        yield f"imports that somebody could plant: {sorted(imports - SYSTEM_LIBRARIES)}"
    protections = PROTECTIONS | ({"HIGH_ENTROPY_VA"} if "pei-x86-64" in headers else set())
    if protections - flags:
        yield f"missing protections: {sorted(protections - flags)}"
    if "__stack_chk_fail" not in symbols:
        yield "the stack is not protected"


objdump, nm, *modules = sys.argv[1:]
faults = [f"{module}: {fault}" for module in modules for fault in faults_of(objdump, nm, module)]
sys.exit("\n".join(faults) or None)
