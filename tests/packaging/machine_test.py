"""What is left of the test machine when the test that started it is killed: nothing."""

import contextlib
import json
import os
import signal
import subprocess
import sys
import time
import unittest
from pathlib import Path

from machine import cannot_boot
from support import PACKAGES, main

LIMIT_S = 60

# A test that stands still, with a command at work in its machine.
TEST_AT_WORK = """
import json, sys, time
from machine import Machine
machine = Machine(sys.argv[1])
if not machine.boot():
    print(json.dumps({"output": machine.output()}), flush=True)
    machine.stop()
    sys.exit()
command = machine.start("sleep", "1000")
machine.wait_until(lambda: machine.run("pidof", "sleep", check=False).returncode == 0, "the command")
print(json.dumps({"init": machine.init, "cgroup": str(machine.cgroup), "folder": machine.folder}), flush=True)
time.sleep(1000)
"""


def processes_with(link, namespace):
    found = set()
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(process / link) == namespace:
                found.add(process.name)
        except OSError:  # it has ended meanwhile
            pass
    return found


def processes_that_name(text):
    found = set()
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if text.encode() in (process / "cmdline").read_bytes():
                found.add(process.name)
        except OSError:
            pass
    return found


def kill_all(namespace):
    for process in processes_with("ns/pid", namespace):
        with contextlib.suppress(ProcessLookupError):
            os.kill(int(process), signal.SIGKILL)


class MachineTest(unittest.TestCase):
    def test_nothing_stays_of_a_machine_whose_test_is_killed(self):
        test = subprocess.Popen([sys.executable, "-c", TEST_AT_WORK, str(PACKAGES)], cwd=Path(__file__).parent,
                                stdout=subprocess.PIPE, text=True)
        self.addCleanup(test.stdout.close)
        self.addCleanup(test.wait)
        self.addCleanup(test.kill)
        machine = json.loads(test.stdout.readline())
        if "output" in machine:
            cannot_boot(machine["output"])
        namespace = os.readlink(f"/proc/{machine['init']}/ns/pid")
        self.assertNotEqual(namespace, os.readlink("/proc/self/ns/pid"))
        self.addCleanup(kill_all, namespace)
        # systemd, what it has started, and the command.
        self.assertGreaterEqual(len(processes_with("ns/pid", namespace)), 3)
        self.assertTrue(Path(machine["cgroup"]).is_dir())
        self.assertTrue(Path(machine["folder"]).is_dir())

        test.send_signal(signal.SIGKILL)
        test.wait()

        left_over = {"processes": None}
        end = time.monotonic() + LIMIT_S
        while any(left_over.values()) or left_over["processes"] is None:
            self.assertLess(time.monotonic(), end, left_over)
            time.sleep(0.1)
            left_over = {
                "processes": processes_with("ns/pid", namespace) | processes_with("ns/pid_for_children", namespace),
                "helpers": processes_that_name(machine["folder"]),
                "folders": [path for path in (machine["cgroup"], machine["folder"]) if Path(path).exists()],
            }


if __name__ == "__main__":
    main()
