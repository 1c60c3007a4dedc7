"""Removes the devices of programs that play, record and scrub, and restores them. To remove them, it unloads sink
and source or kills the sound server. Every call that ends a use must return, every waiting call must fail, nothing
may leak, and the next start in the same process must work.

Called inside a Wine session: device_loss_test.py sound_tool.exe [unittest arguments]

TESSALY_LOSS_REPEATS sets the number of repeats, by default one.
"""

import cmath
import os
import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from sound import RATE, ChangingServer, SoundTool, wait_until

TOOL = str(pathlib.Path(sys.argv.pop(1)).resolve())
LOSSES = ((ChangingServer.unload, ChangingServer.load), (ChangingServer.kill, ChangingServer.start))
LOSSES *= int(os.environ.get("TESSALY_LOSS_REPEATS", "1"))

# With "watch", sound_tool calls no method to end the use, because the engine detects the loss itself.
USES = (("playback", "watch"), ("playback", "break"), ("playback", "close"), ("playback", "release"),
        ("drain", "watch"), ("document", "watch"), ("document", "stop"), ("document", "release"),
        ("cursor", "stop"), ("cursor", "release"), ("recorder", "close"))
TONES = range(400, 2600, 200)
# A drain ends by itself, and a recorder plays no tone.
STEADY = {hertz for (use, _), hertz in zip(USES, TONES) if use not in ("drain", "recorder")}


def ask(tools, word):
    """Sends the command to all tools at once. Returns the answers by tool."""
    for tool in tools:
        tool.order(word)
    return {tool: tool.answer() for tool in tools}


def heard(server):
    """Returns the tones that the speaker plays. A fifth of a second holds whole periods of each tone."""
    left = server.listen(RATE // 5)[0::2]
    power = lambda hertz: abs(sum(sample * cmath.exp(-2j * cmath.pi * hertz * n / RATE)
                                  for n, sample in enumerate(left)))
    return {hertz for hertz in TONES if power(hertz) * 2 / len(left) > 0.01}


class LossTest(unittest.TestCase):
    def start(self, server, tools):
        for tool, answer in ask(tools, "start").items():
            self.assertEqual(answer["started"], 1, tool.name)
        wait_until(lambda: heard(server) >= STEADY, f"tones of {STEADY}")
        ask(tools, "works")

    def end(self, tools):
        ask(tools, "ask")
        ask([tool for tool in tools if tool.words[2] == "watch"], "idle")
        for tool, answer in ask(tools, "end").items():
            if tool.words[2] != "release":
                self.assertEqual(answer.get("refused", 1), 1, tool.name)
        ask(tools, "idle")

    def test_playing_recording_and_scrubbing_end_when_the_device_is_lost_and_work_again_once_it_is_back(self):
        server = self.enterContext(ChangingServer())
        tools = [self.enterContext(SoundTool(TOOL, server.environment, "use", *use, hertz))
                 for use, hertz in zip(USES, TONES)]
        for lose, give_back in LOSSES:
            self.start(server, tools)
            lose(server)
            self.end(tools)
            for tool, answer in ask(tools, "start").items():
                # A document or cursor begins even if its device cannot be opened.
                opens = tool.words[1] not in ("playback", "drain", "recorder")
                self.assertEqual(answer["started"], int(opens), tool.name)
            self.end(tools)
            give_back(server)
            self.assertEqual(heard(server), set())
        self.start(server, tools)
        for tool in tools:
            tool.ask("break" if tool.words[2] == "watch" else "end")
            tool.finish()


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[1:])
