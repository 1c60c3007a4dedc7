"""Uses the engine from Python for Windows with comtypes ("pip install comtypes"):

    python cut_in_half.py IN.ogg OUT.wav

Needs the registered engine in Python's bitness. The tests do not run this file. They check only the syntax and the
names of the calls. The file draws no overview, because ReadWaveplot declares its array of floats as short, and
comtypes follows the declaration.
"""
import sys
import time

from comtypes.client import CreateObject, GetModule

# Generates comtypes.gen.MarlindaLib from "Marlinda 1.0 Type Library".
GetModule(("{F70A5B7A-7291-4204-93E6-E75FDAEF39FC}", 1, 0))
from comtypes.gen import MarlindaLib as marlinda  # noqa: E402


def run_task(task_of):
    task = task_of.QueryInterface(marlinda.ICoreTask)
    task.Start()
    while task.QueryIsTaskRunning():
        time.sleep(0.01)


def cut_in_half(source, target):
    pool = CreateObject("Marlinda.AudioPool", interface=marlinda.IAudioPool)
    importer = CreateObject("Marlinda.OggImport", interface=marlinda.IImportFilter)
    importer.Initialize(source, pool.QueryInterface(marlinda.IAudioWriter))
    run_task(importer)
    take = pool.CreateLastReader()
    if not take:
        sys.exit(f"{source}: nothing could be decoded")
    frames = take.GetSampleCount()

    document = CreateObject("Marlinda.EditedAudio", interface=marlinda.IEditedAudio)
    document.AppendSegment(take, 0, frames)
    document.Delete(frames // 2, frames)

    exporter = CreateObject("Marlinda.WavExportFilter", interface=marlinda.IExportFilter)
    exporter.Initialize(target, document.QueryInterface(marlinda.IAudioReader))
    run_task(exporter)
    print(f"{frames // 2} of {frames} frames written")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    cut_in_half(*sys.argv[1:])
