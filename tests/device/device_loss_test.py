"""Takes devices away from programs that play, record and scrub, and gives them back: sink and source are
unloaded, the sound server is killed, there is no device when it is to be used, or none when the program
begins. Each time the host's calls must come back soon, no thread or object may be left, and the next
start in the same process must really be heard and really record.

Called inside a Wine session: device_loss_test.py device_loss_tool.exe [unittest arguments]

TESSALY_LOSS_REPEATS names another number of repeats than one. TESSALY_STRICT_TIMES=1 grants the calls
what is promised and not a moment more, for a machine that has little else to do.
"""

import cmath
import collections
import contextlib
import math
import os
import pathlib
import queue
import subprocess
import sys
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from sound import RATE, ChangingServer, wait_until

TOOL = str(pathlib.Path(sys.argv.pop(1)).resolve())
WINE = os.environ["TESSALY_WINE"]
REPEATS = int(os.environ.get("TESSALY_LOSS_REPEATS", "1"))

PROMISED = 2000  # milliseconds, for what a host asks and each call that ends a use
MARGIN = 0 if os.environ.get("TESSALY_STRICT_TIMES") == "1" else 3000  # what a busy machine takes
MOST_START = 10000
LATE_HANDLES = 8  # the system makes some for its own locks whenever two threads first meet there
# Wine keeps its thread for the devices when opening one fails, until it opens one again.
WITHOUT_DEVICE = 1
PATIENCE = 120  # seconds, for an answer
CALLS = ("ask", "break", "close", "stop", "release", "join")

TONES = range(400, 2400, 220)
USES = [("playback", "break"), ("playback", "close"), ("playback", "release"), ("document", "stop"),
        ("document", "release"), ("scrubber", "stop"), ("scrubber", "release"), ("cursor", "stop"),
        ("cursor", "release"), ("recorder", "close"), ("recorder", "release")]

# From the loss to the end: while everything is under way still, and after the engine has noticed itself.
DELAYS = (0.3, 0, 1, 3, 7)


class Client:
    """A program that uses a device in one way."""

    def __init__(self, environment, use, end, hertz, messages=None):
        self.name, self.use, self.end, self.hertz = f"{use} {end}", use, end, hertz
        self.process = subprocess.Popen([WINE, TOOL, use, end, str(hertz)], env=environment,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=messages,
                                        text=True)
        self.lines = queue.Queue()
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            self.lines.put(line.split())
        self.lines.put(None)

    def order(self, word):
        self.process.stdin.write(word + "\n")
        self.process.stdin.flush()

    def answer(self):
        told = {}
        deadline = time.monotonic() + PATIENCE
        while True:
            try:
                line = self.lines.get(timeout=max(0, deadline - time.monotonic()))
            except queue.Empty:
                raise AssertionError(f"{self.name} hangs; it told {told}") from None
            if line == ["."]:
                return told
            assert line and line[1:] and line[1].isdigit(), f"{self.name} died; it told {told}, {line}"
            told[line[0]] = int(line[1])

    def leave(self):
        """The end of its input ends it, and nothing may hold it up."""
        self.process.stdin.close()
        status = self.process.wait(PATIENCE)
        assert status == 0, f"{self.name} ended with {status}"

    def close(self):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdout.close()
        self.process.stdin.close()


def ask(clients, word):
    """Of all at once; what each answers."""
    for client in clients:
        client.order(word)
    return [(client, client.answer()) for client in clients]


@contextlib.contextmanager
def clients_of(server):
    # Where no sound server is, the system's libraries complain at length.
    messages = None if server.process else subprocess.DEVNULL
    with contextlib.ExitStack() as ends:
        clients = []
        for number, (use, end) in enumerate(USES):
            hertz = 0 if use == "recorder" else TONES[number]
            clients.append(Client(server.environment, use, end, hertz, messages))
            ends.callback(clients[-1].close)
        yield clients
        for client in clients:
            client.leave()


def tones(samples):
    """The frequencies that are in a piece of whole periods of all of them."""
    left = samples[0::2]
    found = set()
    for hertz in TONES:
        turn = cmath.exp(-2j * math.pi * hertz / RATE)
        total, phase = 0, 1
        for sample in left:
            total += sample * phase
            phase *= turn
        if abs(total) * 2 / len(left) > 0.01:
            found.add(hertz)
    return found


def heard(server):
    return tones(server.listen(RATE // 5))


def complaints_about_end(told, lost):
    """What is wrong with how a use ended. With a device the caller may have had no reason to wait."""
    most = PROMISED + MARGIN
    wrong = [f"{call} took {told[call]} ms" for call in CALLS if told.get(call, 0) > most]
    if lost and told.get("refused") == 0:
        wrong.append("whoever waited was not refused")
    if told.get("idle") == 0:
        wrong.append("it plays still")
    return wrong


def settled_counts(clients):
    """What each holds once the last thread has really gone."""
    least = dict(ask(clients, "count"))
    for _ in range(5):
        time.sleep(0.1)
        for client, now in ask(clients, "count"):
            least[client] = {what: min(count, now[what]) for what, count in least[client].items()}
    return least


def complaints_about_rest(client, before, held, system_threads=0, seconds=10):
    """What is left after the end, which may take a moment to go. Objects that the client holds itself
    keep the module."""
    deadline = time.monotonic() + seconds
    while True:
        (_, now), = ask([client], "count")
        wrong = []
        if now["threads"] > before["threads"] + system_threads:
            wrong.append(f"{now['threads']} threads instead of {before['threads']}")
        if now["handles"] > before["handles"] + LATE_HANDLES:
            wrong.append(f"{now['handles']} handles instead of {before['handles']}")
        if now["held"] > held:
            wrong.append("the module is held")
        if not wrong or time.monotonic() > deadline:
            return wrong
        time.sleep(0.1)


class LossTest(unittest.TestCase):
    # The milliseconds of the longest call that ends a use, by loss and client.
    longest = collections.defaultdict(lambda: collections.defaultdict(int))
    most_left = collections.defaultdict(int)

    @classmethod
    def tearDownClass(cls):
        print(f"\nThe longest call in milliseconds, of {REPEATS} times:")
        names = [f"{use} {end}" for use, end in USES]
        for loss, longest in cls.longest.items():
            print(f"  {loss + ':':32}", ", ".join(f"{name} {longest[name]}" for name in names), flush=True)
        for what, more in cls.most_left.items():
            print(f"  {what} left in one process at most: {more}", flush=True)

    def note(self, loss, client, told):
        case = f"start {loss}" if "start" in told else loss
        slowest = max(told.get(call, 0) for call in ("start", *CALLS))
        self.longest[case][client.name] = max(self.longest[case][client.name], slowest)

    def start(self, server, clients, loss):
        """All are heard or record, and were not before."""
        self.assertEqual(heard(server), set(), loss)
        for client, told in ask(clients, "start"):
            self.note(loss, client, told)
            self.assertEqual(told["started"], 1, (loss, client.name))
            self.assertLess(told["start"], MOST_START, (loss, client.name))
        expected = {client.hertz for client in clients if client.hertz}
        wait_until(lambda: heard(server) >= expected, f"tones of {expected}, {loss}")
        for client, told in ask(clients, "works"):
            self.assertEqual(told["works"], 1, (loss, client.name))

    def start_in_vain(self, clients, loss):
        for client, told in ask(clients, "start"):
            self.note(loss, client, told)
            # A document and a scrubber do not tell; they just fall silent.
            clear = "failed" if client.use in ("playback", "recorder") else "started"
            self.assertEqual(told[clear], 1, (loss, client.name))
            self.assertLess(told["start"], MOST_START, (loss, client.name))
        for client, told in ask(clients, "idle"):
            self.assertEqual(told["idle"], 1, (loss, client.name))

    def end(self, clients, loss, lost=True):
        for client, told in ask(clients, "end"):
            self.note(loss, client, told)
            self.assertEqual(complaints_about_end(told, lost), [], (loss, client.name))

    def expect_nothing_left(self, clients, before, loss, dropped=False, system_threads=0):
        for client in clients:
            held = 0 if dropped or client.end == "release" else 1
            self.assertEqual(complaints_about_rest(client, before[client], held, system_threads), [],
                             (loss, client.name))

    @contextlib.contextmanager
    def clients_that_end_well(self, loss):
        """A server, and clients that have used its devices once. Afterwards they use them once more, and
        nothing may be left of all they did."""
        with ChangingServer() as server:
            server.start()
            server.load()
            with clients_of(server) as clients:
                self.start(server, clients, "with a device")
                self.end(clients, "with a device", lost=False)
                before = settled_counts(clients)
                yield server, clients, before
                self.start(server, clients, f"after {loss}")
                self.end(clients, f"after {loss}", lost=False)
                ask(clients, "drop")
                self.expect_nothing_left(clients, before, loss, dropped=True)
                for client, after in ask(clients, "count"):
                    for what in ("threads", "handles"):
                        more = after[what] - before[client][what]
                        self.most_left[what] = max(self.most_left[what], more)

    def lose_in_use(self, loss, lose, give_back):
        with self.clients_that_end_well(loss) as (server, clients, before):
            for repeat in range(REPEATS):
                self.start(server, clients, f"after {loss}" if repeat else "with a device")
                lose(server)
                time.sleep(DELAYS[repeat % len(DELAYS)])
                self.end(clients, loss)
                self.expect_nothing_left(clients, before, loss)
                give_back(server)

    def test_sink_and_source_are_unloaded(self):
        self.lose_in_use("device unloaded", ChangingServer.unload, ChangingServer.load)

    def test_the_server_is_killed(self):
        self.lose_in_use("server killed", ChangingServer.kill, ChangingServer.start_with_devices)

    def test_there_is_no_device_when_it_is_to_be_used(self):
        loss = "no device"
        with self.clients_that_end_well(loss) as (server, clients, before):
            for _ in range(REPEATS):
                for lose, give_back in ((ChangingServer.unload, ChangingServer.load),
                                        (ChangingServer.kill, ChangingServer.start_with_devices)):
                    lose(server)
                    for _ in range(2):
                        self.start_in_vain(clients, loss)
                        self.end(clients, loss)
                    self.expect_nothing_left(clients, before, loss, system_threads=WITHOUT_DEVICE)
                    give_back(server)
                    self.start(server, clients, f"after {loss}")
                    self.end(clients, f"after {loss}", lost=False)

    def test_the_device_appears_after_the_program_has_begun(self):
        loss = "device comes later"
        for _ in range(REPEATS):
            for runs in (True, False):
                self.appear_later(loss, server_runs=runs)

    def appear_later(self, loss, server_runs):
        with ChangingServer() as server:
            if server_runs:
                server.start()
            with clients_of(server) as clients:
                self.start_in_vain(clients, loss)
                self.end(clients, loss)
                before = settled_counts(clients)
                if not server_runs:
                    server.start()
                server.load()
                # Wine looks only once in a process whether there is a server.
                opened = [count for _, told in ask(clients, "system") for count in told.values()]
                shown = any(opened)
                self.assertEqual(all(opened), shown, opened)
                if server_runs:
                    self.assertTrue(shown)
                if shown:
                    self.start(server, clients, f"after {loss}")
                else:
                    self.start_in_vain(clients, loss)
                self.end(clients, f"after {loss}", lost=not shown)
                ask(clients, "drop")
                self.expect_nothing_left(clients, before, loss, dropped=True, system_threads=WITHOUT_DEVICE)
            if not shown:
                with clients_of(server) as clients:
                    self.start(server, clients, f"after {loss}")
                    self.end(clients, f"after {loss}", lost=False)

    def test_a_culprit_is_seen(self):
        with contextlib.closing(Client(dict(os.environ), "culprit", "close", PROMISED + MARGIN + 200)) as culprit:
            (_, before), = ask([culprit], "count")
            ask([culprit], "start")
            (_, told), = ask([culprit], "end")
            self.assertEqual(len(complaints_about_end(told, True)), 3, told)
            ask([culprit], "drop")
            self.assertEqual(len(complaints_about_rest(culprit, before, 0, seconds=0)), 3)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[1:])
