"""The wait of the unit for the router's port, on a /proc of the test's own."""

import os
import shutil
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

from support import SOURCE, main

SCRIPT = SOURCE / "packaging/systemd/wait_for_port"
PID = "4711"
INODE = "815"
LIMIT_S = 30
HEADER = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"


class WaitForPortTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="corvalin_proc_")
        self.addCleanup(folder.cleanup)
        self.process = Path(folder.name) / PID
        (self.process / "fd").mkdir(parents=True)
        (self.process / "net").mkdir()
        (self.process / "fd/3").symlink_to(f"socket:[{INODE}]")
        self.config = Path(folder.name) / "router.conf"
        self.config.write_text("")
        self.open_ports()

    def open_ports(self, *ports, inode=INODE):
        rows = [f" 1: 00000000:{port:04X} 00000000:0000 07 00000000:00000000 00:00000000 00000000 0 0 {inode} 2 0 0\n"
                for port in ports]
        new = self.process / "net/new"
        new.write_text(HEADER + "".join(rows))
        new.rename(self.process / "net/udp")

    def start(self, *arguments):
        words = ["/usr/sbin/corvalin_router", "--config", str(self.config), *arguments]
        (self.process / "cmdline").write_text("".join(f"{word}\0" for word in words))
        waiting = subprocess.Popen([SCRIPT, PID], env={**os.environ, "CORVALIN_PROC": str(self.process.parent)})
        self.addCleanup(waiting.wait)
        self.addCleanup(waiting.kill)
        return waiting

    def wait_for_a_round(self, waiting):
        """Until it sleeps between two looks."""
        end = time.monotonic() + LIMIT_S
        children = Path(f"/proc/{waiting.pid}/task/{waiting.pid}/children")
        while True:
            names = []
            for child in children.read_text().split():
                try:
                    names.append(Path(f"/proc/{child}/comm").read_text())
                except OSError:  # it has ended meanwhile
                    pass
            if "sleep\n" in names:
                return
            self.assertIsNone(waiting.poll())
            self.assertLess(time.monotonic(), end)
            time.sleep(0.01)

    def test_returns_once_the_wanted_port_is_open(self):
        for description, file, arguments, port in (
                ("of the file", "log_level=INFO\nport=5001\n", [], 5001),
                ("blanks", " port = 5001 \n", [], 5001),
                ("comments do not count", "port=5001\n#port=1\n", [], 5001),
                ("the last one of the file", "port=1\nport=5001\n", [], 5001),
                ("arguments win", "port=1\n", ["--args", "log_level=INFO,port=5001"], 5001),
                ("behind another option with a value", "", ["--pid-file", "--args", "--args", "port=5001"], 5001),
                ("the highest port", "port=65535\n", [], 65535)):
            with self.subTest(description):
                self.config.write_text(file)
                self.open_ports(1, port)
                self.assertEqual(self.start(*arguments).wait(LIMIT_S), 0)
                # And it is this port that it waits for.
                self.open_ports(1, port - 1)
                waiting = self.start(*arguments)
                self.wait_for_a_round(waiting)
                self.open_ports(1, port)
                self.assertEqual(waiting.wait(LIMIT_S), 0)

    def test_port_of_the_kernels_choice_is_not_waited_for(self):
        for file in ("", "port=0\n"):
            self.config.write_text(file)
            self.assertEqual(self.start().wait(LIMIT_S), 0)

    def test_port_of_another_process_does_not_count_and_the_end_of_the_router_is_a_failure(self):
        self.config.write_text("port=5001\n")
        self.open_ports(5001, inode=INODE + "1")
        waiting = self.start()
        self.wait_for_a_round(waiting)
        shutil.rmtree(self.process)
        self.assertEqual(waiting.wait(LIMIT_S), 1)

    def test_process_that_is_not_there_is_a_failure(self):
        waiting = self.start()
        waiting.wait(LIMIT_S)
        shutil.rmtree(self.process)
        result = subprocess.run([SCRIPT, PID], env={**os.environ, "CORVALIN_PROC": str(self.process.parent)},
                                stderr=subprocess.DEVNULL, check=False, timeout=LIMIT_S)
        self.assertEqual(result.returncode, 1)


if __name__ == "__main__":
    main()
