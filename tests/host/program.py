"""Runs the program, which is the first argument of the command line, and other tools for tests."""

import json
import os
import pathlib
import re
import resource
import signal
import subprocess
import sys
import tempfile
import unittest

PROGRAM = pathlib.Path(sys.argv.pop(1)).resolve()
WINE = os.environ["TESSALY_WINE"]
ENVIRONMENT = dict(os.environ, LC_ALL="C.UTF-8")
# Matches messages that are not the program's. Libraries that Wine's decoders use report a missing sound card and
# unknown files. Wine reports an error if a thread calls wineserver while another thread ends the process.
NOISE = re.compile(r"^\s*(ALSA lib |\(wine:\d+\): GStreamer|wine client error:).*\n(\r?\n)*", re.MULTILINE)


def windows(path):
    return "Z:" + str(path).replace("/", "\\")


class Run:
    """One run of the program. Its output goes to files, because helper processes of Wine outlive the program and would
    keep pipes open."""

    def __init__(self, *arguments, program=PROGRAM, most_bytes=None, environment=None):
        """Limits the size of each file of the program to `most_bytes`, to simulate a full disk."""
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (most_bytes, most_bytes))

        words = [windows(word) if isinstance(word, pathlib.Path) else word for word in arguments]
        self.files = [tempfile.TemporaryFile(), tempfile.TemporaryFile()]
        self.process = subprocess.Popen([WINE, program, *words], env=dict(ENVIRONMENT, **(environment or {})),
                                        stdin=subprocess.DEVNULL, stdout=self.files[0], stderr=self.files[1],
                                        preexec_fn=limit if most_bytes else None)

    def result(self):
        """Waits for the end. Returns exit status, standard output and standard error."""
        try:
            status = self.process.wait()
        finally:
            self.process.kill()
        texts = []
        for file in self.files:
            with file:
                file.seek(0)
                texts.append(NOISE.sub("", file.read().decode("utf-8")))
        return status, *texts


def run(*arguments, **options):
    return Run(*arguments, **options).result()


def tool(*words):
    return subprocess.run([str(word) for word in words], check=True, env=ENVIRONMENT,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE).stdout


def keep_wine_alive(test_class):
    """Keeps a program running, so that Wine's helper processes stay. Discards the messages of these processes."""
    keeper = subprocess.Popen([WINE, "cmd", "/k", "echo ready"], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    test_class.addClassCleanup(keeper.communicate)
    assert keeper.stdout.readline().startswith(b"ready")


class ProgramTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        keep_wine_alive(cls)
        cls.shared = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.out = self.folder / "Stück Ω.wav"

    def succeed(self, *arguments, **options):
        status, output, messages = run(*arguments, **options)
        self.assertEqual((status, messages), (0, ""))
        return output

    def report(self, *arguments):
        return json.loads(self.succeed(*arguments, "--json"))

    def ends(self, command, status, says):
        """Expects this exit status, no standard output, and `says` in the messages. Returns the messages."""
        got, output, messages = command.result()
        self.assertEqual((got, output), (status, ""), messages)
        self.assertIn(says, messages)
        return messages
