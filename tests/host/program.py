"""How the tests of the host run the program and other tools. Reads the program's path from the command
line, as the first argument.
"""

import os
import pathlib
import re
import resource
import signal
import subprocess
import sys
import tempfile

PROGRAM = pathlib.Path(sys.argv.pop(1)).resolve()
WINE = os.environ["TESSALY_WINE"]
ENVIRONMENT = dict(os.environ, LC_ALL="C.UTF-8")


def windows(path):
    return "Z:" + str(path).replace("/", "\\")


def without_noise(text):
    """Without what the libraries below Wine's decoders say on a machine without a sound card, and about
    files that they do not know; and without what Wine says of a process of which one thread talked to
    the server while another ended it."""
    text = re.sub(r"^wine client error:.*\n", "", text, flags=re.MULTILINE)
    noise = re.compile(r"^(ALSA lib .*|\(wine:\d+\): GStreamer.*)?\r?\n", re.MULTILINE)
    return noise.sub("", text) if "ALSA lib" in text or "GStreamer" in text else text


class Run:
    """One run of the program. It writes into files: Wine's helper processes, which it may start, live
    on for a while and would keep pipes open."""

    def __init__(self, *arguments, program=PROGRAM, most_bytes=None, environment=None):
        """No file of the program can grow beyond `most_bytes`, as on a full disk."""
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (most_bytes, most_bytes))

        words = [windows(word) if isinstance(word, pathlib.Path) else word for word in arguments]
        self.files = [tempfile.TemporaryFile(), tempfile.TemporaryFile()]
        self.process = subprocess.Popen([WINE, str(program), *words],
                                        env=dict(ENVIRONMENT, **(environment or {})),
                                        stdin=subprocess.DEVNULL, stdout=self.files[0],
                                        stderr=self.files[1],
                                        preexec_fn=limit if most_bytes else None)

    def result(self):
        """(exit status, standard output, standard error)"""
        try:
            status = self.process.wait()
        finally:
            self.process.kill()
        texts = []
        for file in self.files:
            file.seek(0)
            texts.append(without_noise(file.read().decode("utf-8")))
            file.close()
        return status, *texts


def run(*arguments, **options):
    return Run(*arguments, **options).result()


def tool(*words):
    return subprocess.run([str(word) for word in words], check=True, env=ENVIRONMENT,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE).stdout


def keep_wine_alive(test_class):
    """While one program runs, Wine's helper processes stay, and what they say goes nowhere."""
    keeper = subprocess.Popen([WINE, "cmd", "/k", "echo ready"], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

    def end():
        keeper.stdin.close()
        keeper.wait()
        keeper.stdout.close()

    test_class.addClassCleanup(end)
    assert keeper.stdout.readline().startswith(b"ready")
