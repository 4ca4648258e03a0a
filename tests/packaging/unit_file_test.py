"""The systemd unit, judged without running it."""

import re
import shutil
import unittest
from pathlib import Path

from support import main, run, unpacked_package

UNIT = "lib/systemd/system/corvalin_router.service"


class UnitFileTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = unpacked_package()
        cls.addClassCleanup(folder.cleanup)
        cls.root = folder.name
        with open(f"{cls.root}/{UNIT}", encoding="utf-8") as file:
            cls.text = file.read()

    def value(self, key):
        return re.findall(rf"(?m)^{key}=(.*)$", self.text)

    def test_exposure_is_at_most_1_2(self):
        result = run("systemd-analyze", "security", "--offline=yes", "--threshold=12", "--no-pager",
                     f"{self.root}/{UNIT}", check=False)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        exposure = re.search(r"Overall exposure level for corvalin_router.service: ([\d.]+)", result.stdout)
        self.assertLessEqual(float(exposure.group(1)), 1.2)

    def test_systemd_has_no_remark(self):
        # Executables are looked for below the root, so those that the unit names are there. Its targets are systemd's.
        for target in Path("/lib/systemd/system").glob("*.target"):
            shutil.copy(target, f"{self.root}/lib/systemd/system/{target.name}")
        result = run("systemd-analyze", "verify", "--man=no", f"--root={self.root}", UNIT.rsplit("/", 1)[1], check=False)
        remarks = [line for line in (result.stdout + result.stderr).splitlines() if "corvalin" in line]
        self.assertEqual(remarks, [])

    def test_runs_in_the_foreground_without_pid_file_and_reload(self):
        self.assertEqual(self.value("Type"), ["exec"])
        self.assertEqual(self.value("ExecStart"), ["/usr/sbin/corvalin_router"])
        self.assertEqual(self.value("PIDFile") + self.value("ExecReload"), [])

    def test_is_restarted_on_failure_and_given_up_in_the_end(self):
        self.assertEqual(self.value("Restart"), ["on-failure"])
        burst, interval = int(self.value("StartLimitBurst")[0]), int(self.value("StartLimitIntervalSec")[0])
        # A start that fails takes up to 20 seconds; the limit must be reached before the interval has passed.
        self.assertLess(burst * (20 + 1), interval)

    def test_limits_of_time_leave_room_for_a_broker_that_is_away(self):
        for key in ("TimeoutStartSec", "TimeoutStopSec"):
            self.assertGreaterEqual(int(self.value(key)[0].rstrip("s")), 40, key)


if __name__ == "__main__":
    main()
