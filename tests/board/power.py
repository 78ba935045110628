"""Power cuts at random moments while a client changes a setting, each from the same snapshot of a board
that serves."""
import collections
import http.client
import os
import random
import re
import subprocess
import threading
import time

from client import Client, service
from errors import Failure, must
from machine import until
from scenario import properties

snapshot = "serving"
limits = (30, 86400)
# So many seconds after the first answer the power goes.
window = (0.1, 3)


class Changes(threading.Thread):
    """Sets the timeout to one value after another until the connection ends."""

    def __init__(self, port, session, first):
        super().__init__()
        self.port = port
        self.session = session
        self.value = first
        self.sent = None
        self.answered = None
        self.refusal = None

    def run(self):
        try:
            with Client(self.port) as client:
                while True:
                    self.value = self.value + 1 if self.value < limits[1] else limits[0]
                    self.sent = str(self.value)
                    status, _, content = client.ask("PATCH", service, self.session,
                                                    {"SessionTimeout": self.value})
                    if status != 200:
                        self.refusal = f"{status}: {content}"
                        return
                    self.answered = self.sent
        except (OSError, http.client.HTTPException):
            pass


def read_after_cut(machine):
    """The property file's content after the file system has been checked, as a disk's would be at the
    next start. None when there is no such file."""
    raw = machine.folder / "after.img"
    environment = dict(os.environ, PATH=os.environ["PATH"] + ":/usr/sbin:/sbin")
    subprocess.run(["qemu-img", "convert", "-O", "raw", machine.image, raw], check=True)
    try:
        checked = subprocess.run(["e2fsck", "-f", "-y", raw], env=environment, check=False,
                                 capture_output=True, text=True)
        if checked.returncode > 1:
            raise Failure(f"The file system is damaged:\n{checked.stdout}")
        shown = subprocess.run(["debugfs", "-R", f"cat {properties}", raw], env=environment,
                               check=True, capture_output=True)
        return None if b"File not found" in shown.stderr else shown.stdout
    finally:
        raw.unlink()


def judge(content, whole, changes):
    """In a word, what is left. WHOLE is the file's content with {} for the value."""
    if content is None:
        return "missing"
    if not content.strip(b"\0\n "):
        return "empty"
    before, after = whole.encode().split(b"{}")
    if not (content.startswith(before) and content.endswith(after)):
        return "torn"
    value = content[len(before):len(content) - len(after)]
    if not re.fullmatch(rb"[0-9]+", value):
        return "torn"
    if value.decode() == changes.answered:
        return "answered"
    return "under way" if value.decode() == changes.sent else "older"


def cut(machine, scenario, moment, first, whole):
    """One cut. What is left, in a word, and how many changes had been answered."""
    machine.start(snapshot)
    changes = Changes(machine.https_port, scenario.session, first)
    changes.start()
    until("A change is answered", 120, lambda: changes.answered or changes.refusal)
    time.sleep(moment)
    machine.cut_power()
    changes.join()
    if changes.refusal:
        raise Failure(f"A change was refused: {changes.refusal}")
    return judge(read_after_cut(machine), whole, changes), int(changes.answered) - first


def cut_often(machine, scenario, count, seed, mends):
    """COUNT cuts; says what was left of the property file. MENDS tells whether an empty file may be
    left, which the next start has to mend; otherwise only a value that was answered or under way."""
    chance = random.Random(seed)
    before = scenario.run(f"cat {properties}")
    whole = re.sub("^SessionTimeout=.*$", "SessionTimeout={}", before, flags=re.MULTILINE)
    machine.save(snapshot)
    machine.cut_power()
    seen = collections.Counter()
    allowed = {"answered", "under way"} | ({"empty"} if mends else set())
    for number in range(count):
        moment = chance.uniform(*window)
        left, answered = cut(machine, scenario, moment, 1000, whole)
        seen[left] += 1
        print(f"    cut {number + 1}, {moment:.2f} s, {answered} changes answered: {left}",
              file=scenario.details)
        if left not in allowed:
            raise Failure(f"Cut {number + 1} with the seed {seed}, {moment:.2f} s after the first "
                          f"answer and after {answered} answers: the property file is {left}.")
    scenario.report.append(f"  {machine.mount_options}, {count} cuts, seed {seed}: " +
                           ", ".join(f"{times} {left}" for left, times in sorted(seen.items())))
    # The board starts with what the last cut has left.
    machine.start()
    scenario.session = scenario.login()
    scenario.expect(200, "PATCH", service, scenario.session, {"SessionTimeout": 4321})
    must(scenario.property() == "4321", "Changes are no longer kept.")
