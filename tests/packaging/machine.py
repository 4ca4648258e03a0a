"""A machine in namespaces: the systemd of this system over a copy-on-write view of its files.

Nothing of the real machine changes: what is written goes to a tmpfs that vanishes with the last process, and there is
a network of its own with nothing but loopback. Only sysinit.target is booted, so that no other service of the machine
starts a second time; a test starts what it needs. Needs root.

Nothing of it outlives the test either, however that ends: its processes are killed with the one that started them, and
folders are removed by a process that waits for that end.
"""

import os
import signal
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

from support import run

BOOT_LIMIT_S = 60
COMMAND_LIMIT_S = 90

# A cgroup of its own, so that systemd's slices do not appear among those of the real machine.
ENTER_CGROUP = r"""
set -e
mkdir "$1"
echo $$ > "$1/cgroup.procs"
shift
exec "$@"
"""

# Its input ends with the test, even if that is killed. A cgroup can be removed once its last process is gone.
SWEEP = r"""
read -r nothing
tries=0
until [ ! -e "$1" ] || find "$1" -depth -type d -delete 2>/dev/null; do
    tries=$((tries + 1))
    if [ "$tries" -gt 600 ]; then
        echo "processes stay in $1: $(cat "$1/cgroup.procs")"
        break
    fi
    sleep 0.1
done
rmdir "$2"
"""

# The folder itself is covered by the tmpfs, so the caller's view of it stays empty.
BOOT = r"""
set -e
work="$1"
mount -t tmpfs tmpfs "$work"
mkdir "$work/upper" "$work/work" "$work/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/work" "$work/root"
cd "$work/root"
mount -t proc proc proc
# Most kernel parameters are those of the real machine. This one belongs to the network namespace, and systemd sets it
# when it boots; with the kernel's 10 the journal drops most of what it forwards to rsyslog.
echo 512 > proc/sys/net/unix/max_dgram_qlen
mount --bind proc/sys proc/sys
mount -o remount,bind,ro proc/sys
mount -t sysfs -o ro sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs run
mount -t tmpfs -o mode=1777 tmpfs tmp
mount -t tmpfs -o mode=755 tmpfs dev
for device in null zero full random urandom tty; do
    touch "dev/$device"
    mount --bind "/dev/$device" "dev/$device"
done
mkdir dev/shm dev/pts
mount -t tmpfs -o mode=1777 tmpfs dev/shm
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts dev/pts
ln -s pts/ptmx dev/ptmx
ln -s /proc/self/fd dev/fd
mkdir run/overlay run/packages
mount --bind "$work/upper" run/overlay
ip link set lo up
# Neither may it load modules, nor follow a rule of this machine against starting services.
ln -sf /dev/null etc/systemd/system/systemd-modules-load.service
rm -f usr/sbin/policy-rc.d
mkdir -p run/old
pivot_root . run/old
mount --bind "/run/old$2" /run/packages
umount -l /run/old
exec env -i container=other PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    /lib/systemd/systemd --system --unit=sysinit.target --log-target=console --show-status=no
"""


class Machine:
    def __init__(self, packages):
        self.folder = tempfile.mkdtemp(prefix="corvalin_machine_")
        mounts = run("findmnt", "--first-only", "--noheadings", "--output", "TARGET", "--types", "cgroup2").stdout
        self.cgroup = Path(mounts.strip()) / Path(self.folder).name
        self.init = None
        self._output = tempfile.TemporaryFile()
        # Nobody's child, so that it also outlives whoever kills the test with all its children.
        self._sweeper = subprocess.Popen(
            ["setsid", "--fork", "sh", "-c", SWEEP, "sweep", self.cgroup, self.folder],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self._sweeper.wait()
        # "unshare" goes with this process, and the init of the namespaces, whose end is the end of all others, with it.
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "sh", "-c", ENTER_CGROUP, "enter", self.cgroup,
             "unshare", "--mount", "--pid", "--net", "--uts", "--ipc", "--cgroup", "--fork", "--kill-child",
             "--propagation", "private",
             "sh", "-c", BOOT, "boot", self.folder, str(packages)],
            stdin=subprocess.DEVNULL, stdout=self._output, stderr=subprocess.STDOUT)

    def boot(self):
        """True once systemd is up; what it said is in output()."""
        end = time.monotonic() + BOOT_LIMIT_S
        while time.monotonic() < end and self._process.poll() is None:
            try:
                self.init = self._find_init()
                if self.init and \
                        self.run("systemctl", "is-active", "sysinit.target", check=False).stdout == "active\n":
                    return True
            except FileNotFoundError:
                pass  # a process that was there has ended
            time.sleep(0.1)
        return False

    def _find_init(self):
        """Of the children that the shells have had, the one that counts is the first of the namespaces."""
        process = Path(f"/proc/{self._process.pid}")
        if (process / "comm").read_text().strip() != "unshare":
            return None
        children = (process / f"task/{self._process.pid}/children").read_text().split()
        if not children or Path(f"/proc/{children[0]}/comm").read_text().strip() != "systemd":
            return None
        return children[0]

    def output(self):
        self._output.seek(0)
        return self._output.read().decode(errors="replace")

    def _command(self, command):
        return ["nsenter", "--target", self.init, "--mount", "--pid", "--net", "--uts", "--ipc", "--cgroup", "--root",
                "--wdns=/", "env", "-i", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                "DEBIAN_FRONTEND=noninteractive", *[str(word) for word in command]]

    def run(self, *command, check=True, **options):
        result = subprocess.run(self._command(command), capture_output=True, text=True, check=False,
                                timeout=COMMAND_LIMIT_S, **options)
        if check and result.returncode != 0:
            raise AssertionError(f"{command} ended with {result.returncode}:\n{result.stdout}\n{result.stderr}")
        return result

    def start(self, *command, **options):
        return subprocess.Popen(self._command(command), text=True, **options)

    def read(self, path):
        return self.run("cat", path).stdout

    def write(self, path, text):
        self.run("sh", "-c", 'cat > "$0"', path, input=text)

    def exists(self, path):
        return self.run("test", "-e", path, check=False).returncode == 0

    def changed_paths(self):
        """All that differs from the real machine, without what was deleted."""
        found = self.run("find", "/run/overlay", "-mindepth", "1", "!", "-type", "c").stdout.splitlines()
        return {path.removeprefix("/run/overlay") for path in found}

    def wait_until(self, condition, what, limit_s=60):
        end = time.monotonic() + limit_s
        while not condition():
            if time.monotonic() > end:
                raise AssertionError(f"not within {limit_s} seconds: {what}")
            time.sleep(0.1)

    def stop(self):
        if self._process.poll() is None:
            os.kill(self._process.pid, signal.SIGKILL)  # --kill-child takes all others along
        self._process.wait()
        self._output.close()
        remarks, _ = self._sweeper.communicate()
        if remarks:
            raise AssertionError(remarks)


def cannot_boot(output):
    """Where this system cannot have a machine, tests of it are skipped, but not in CI."""
    message = f"systemd does not boot in namespaces here:\n{output}"
    if os.environ.get("CI") == "true":
        raise AssertionError(message)
    raise unittest.SkipTest(message)


def boot_machine(test_class, packages):
    """A machine for the class."""
    machine = Machine(packages)
    test_class.addClassCleanup(machine.stop)
    if not machine.boot():
        cannot_boot(machine.output())
    return machine
