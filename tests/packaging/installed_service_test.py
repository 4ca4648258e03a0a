"""The installed package on a machine with systemd, journald and rsyslog, none of which is a stand-in."""

import json
import re
import subprocess
import unittest

from machine import boot_machine
from support import PACKAGES, commands_of_page, main, package

PORT = 5000
OTHER_PORT = 5001
NODE_PORT = 6001
UNIT = "corvalin_router.service"
ETC = "/etc/tolvaine/corvalin"
LOGS = "/var/log/tolvaine/corvalin"
# So few that the receive buffer holds them all: a busy machine may let the router wait for as long as it likes.
SESSIONS = 10
PACKETS = 10
PACKETS_PER_SECOND = 500


class InstalledServiceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.machine = boot_machine(cls, PACKAGES)

    def setUp(self):
        # What the real machine's files say already is no result of this test.
        self.machine.run("sh", "-c", "rm -rf /var/log/* /etc/tolvaine && systemctl start rsyslog.service")
        self.machine.run("rm", "-f", "/var/lib/man-db/auto-update")  # the index of the manual is nobody's here
        self.machine.run("dpkg", "--install", f"/run/packages/{package().name}")

    def configure(self, *options):
        broker = self.machine.start(
            "corvalin_embedded_broker", "--topic", "corvalin_requests", "--topic", "corvalin_broadcast",
            "--topic", f"corvalin_router_127o0o0o1_{PORT}", "--topic", f"corvalin_router_127o0o0o1_{OTHER_PORT}",
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(broker.wait, timeout=10)
        self.addCleanup(broker.stdout.close)
        self.addCleanup(broker.stdin.close)  # at the end of its input it ends
        address = broker.stdout.readline().split()[1]
        self.machine.write(f"{ETC}/kafka.conf", f"kafka_broker={address}\nkafka_topic_request=corvalin_requests\n"
                                                "kafka_topic_broadcast=corvalin_broadcast\n")
        lines = [f"port={PORT}", f"writer_node=127.0.0.1:{NODE_PORT}", *options]
        self.machine.write(f"{ETC}/router.conf", "\n".join(lines) + "\n")

    def start(self):
        result = self.machine.run("systemctl", "start", UNIT, check=False)
        if result.returncode != 0:
            self.fail(self.machine.run("journalctl", "--no-pager").stdout)

    def shown(self, key):
        return self.machine.run("systemctl", "show", "--property", key, "--value", UNIT).stdout.strip()

    def log(self, name):
        path = f"{LOGS}/{name}"
        return self.machine.read(path).splitlines() if self.machine.exists(path) else []

    def send(self):
        """The summary of a node that has verified every byte."""
        node = self.machine.start("corvalin_media_node", "--port", NODE_PORT, "--idle-exit", "2000", "--verify-content",
                                  "--json", stdout=subprocess.PIPE)
        self.assertEqual(node.stdout.readline(), f"ports {NODE_PORT}\n")
        self.machine.run("corvalin_media_sender", "--sessions", SESSIONS, "--packets", PACKETS,
                         "--rate", PACKETS_PER_SECOND, "--flags", "writer", PORT)
        output, _ = node.communicate(timeout=30)
        self.assertEqual(node.returncode, 0, output)
        return json.loads(output)

    def test_hardened_service_forwards_every_packet(self):
        self.configure()
        self.start()
        # The start has waited for the port, so nothing is waited for here.
        self.assertIn(f"00000000:{PORT:04X}", self.machine.read("/proc/net/udp"))
        pid = self.shown("MainPID")
        self.assertNotEqual(pid, "0")
        self.send()
        status = dict(line.split(":\t", 1) for line in self.machine.read(f"/proc/{pid}/status").splitlines()
                      if ":\t" in line)
        self.assertEqual(status["Seccomp"].strip(), "2")
        self.assertEqual(status["NoNewPrivs"].strip(), "1")
        self.assertEqual(int(status["CapBnd"], 16), 0)
        self.assertNotEqual(status["Uid"].split()[0], "0")
        mounts = self.machine.read(f"/proc/{pid}/mountinfo").splitlines()
        root = [line.split() for line in mounts if line.split()[4] == "/"]
        self.assertTrue(all("ro" in fields[5].split(",") for fields in root), root)
        self.machine.run("systemctl", "stop", UNIT)
        self.assertEqual((self.shown("Result"), self.shown("ExecMainStatus")), ("success", "0"))

    def test_each_kind_of_line_lands_in_its_file_and_nowhere_twice(self):
        self.configure("log_level=TRACE")
        self.start()
        self.send()
        data_packets = SESSIONS * PACKETS
        self.machine.wait_until(
            lambda: int(self.machine.run("sh", "-c", f"wc -l < {LOGS}/media_trace.log").stdout) >= data_packets,
            "the last media trace")
        counted = re.compile(rf"packet 'data'  type number\.*: {data_packets} ")
        self.machine.wait_until(lambda: any(counted.search(line) for line in self.log("statistic.log")), "the report")
        self.machine.run("systemctl", "stop", UNIT)
        self.machine.wait_until(lambda: any("] stopped" in line and "main thread" in line
                                            for line in self.log("router.log")), "the last line of the service")

        media = self.log("media_trace.log")
        self.assertEqual(len(media), data_packets)
        self.assertEqual(len(set(line.partition("DATA  | ")[2] for line in media)), data_packets)
        trace = self.log("trace.log")
        self.assertEqual(sum(" START | " in line for line in trace), SESSIONS)
        self.assertEqual(sum(" TERM  | " in line for line in trace), SESSIONS)
        self.assertEqual(len(trace), 2 * SESSIONS)
        reports = self.log("statistic.log")
        self.assertGreaterEqual(len(reports), 1)
        for report in reports:
            # One record, with its line feeds written out. The frame has 32 lines: the banner, 9 of sessions, the header,
            # 16 of packets, 4 empty ones around them, and the last row of stars.
            self.assertIn(f"corvalinrouter:{PORT} statistic", report)
            self.assertEqual(len(re.findall(r"#012\*", report)), 32, report)
        service = self.log("router.log")
        for text in ("SERVICE: exec path: /usr/sbin/corvalin_router", "main thread ["):
            self.assertTrue(any(text in line for line in service), text)
        self.assertEqual(sum("SERVICE: exec path" in line for line in service), 1)
        # Assignments of sessions are lines of the service too.
        self.assertEqual(sum("assigned hosts: 127.0.0.1" in line for line in service), SESSIONS)
        for line in service:
            self.assertNotRegex(line, r"\| (START|TERM |DATA ) \||\*\*\*\*")
        self.check_that_nothing_is_anywhere_else()

    def check_that_nothing_is_anywhere_else(self):
        # A line of another program with the facility of the service goes where it went without the rules.
        self.machine.run("logger", "--priority", "user.notice", "--tag", "neighbour", "SERVICE of another")
        elsewhere = f"find /var/log -type f ! -path '{LOGS}/*' ! -path '/var/log/journal/*' -exec cat {{}} +"
        self.machine.wait_until(lambda: "SERVICE of another" in self.machine.run("sh", "-c", elsewhere).stdout,
                                "the line of another program")
        self.assertFalse(any("SERVICE of another" in line for line in self.log("router.log")))
        everywhere_else = self.machine.run("sh", "-c", elsewhere).stdout
        for text in ("START | ", "TERM  | ", "DATA  | ", "statistic ****", "SERVICE: ", "assigned hosts"):
            self.assertNotIn(text, everywhere_else)

    def test_lines_of_a_daemon_land_in_the_same_files(self):
        self.configure()
        pid_file = "/run/corvalin_router.pid"
        self.machine.run("/usr/sbin/corvalin_router", "--daemon", "--pid-file", pid_file)
        self.machine.wait_until(lambda: f"00000000:{PORT:04X}" in self.machine.read("/proc/net/udp"), "the port")
        pid = self.machine.read(pid_file)
        self.send()
        counted = re.compile(rf" corvalinrouter\[{pid}\]: .*'data'  type number\.*: {SESSIONS * PACKETS} ")
        self.machine.wait_until(lambda: any(counted.search(line) for line in self.log("statistic.log")), "the report")
        self.machine.run("kill", pid)
        self.machine.wait_until(lambda: not self.machine.exists(f"/proc/{pid}"), "the end of the daemon")
        self.machine.wait_until(lambda: any("] stopped" in line and "main thread" in line
                                            for line in self.log("router.log")), "the last line of the service")
        service = self.log("router.log")
        self.assertTrue(any(f" corvalinrouter[{pid}]: " in line and "assigned hosts" in line for line in service))
        self.assertEqual(sum("DAEMON: starting application in daemon mode" in line for line in service), 1)
        trace = self.log("trace.log")
        self.assertEqual(len(trace), 2 * SESSIONS)
        self.assertTrue(all(f" corvalinrouter[{pid}]: " in line for line in trace))
        self.check_that_nothing_is_anywhere_else()

    def test_router_that_is_killed_is_started_again(self):
        self.configure()
        self.start()
        pid = self.shown("MainPID")
        self.machine.run("kill", "-KILL", pid)
        self.machine.wait_until(lambda: self.shown("NRestarts") == "1" and self.shown("ActiveState") == "active",
                                "the second start", 60)
        self.assertNotEqual(self.shown("MainPID"), pid)

    def test_router_that_was_told_to_stop_stays_stopped(self):
        self.configure()
        self.start()
        pid = self.shown("MainPID")
        self.machine.run("kill", pid)
        self.machine.wait_until(lambda: not self.machine.exists(f"/proc/{pid}"), "the end of the router")
        states = []
        self.machine.wait_until(lambda: states.append(self.shown("ActiveState")) or
                                states[-1] not in ("active", "deactivating"), "the end of the unit")
        self.assertEqual(states[-1], "inactive")

    def test_router_that_cannot_start_is_given_up(self):
        self.configure("port=none")
        self.machine.run("systemctl", "start", UNIT, check=False)
        self.machine.wait_until(lambda: self.shown("ActiveState") == "failed", "the end of the attempts", 60)
        self.assertEqual(self.shown("NRestarts"), "5")
        self.assertEqual(self.shown("ExecMainStatus"), "1")

    def next_package(self):
        """The same package with a higher version, another router.conf, rule of logrotate and unit."""
        self.machine.run("sh", "-ec", f"""
            rm -rf /tmp/next && dpkg-deb --raw-extract /run/packages/{package().name} /tmp/next
            sed -i 's/^Version: .*/Version: 99.0/' /tmp/next/DEBIAN/control
            echo '# new in this version' >> /tmp/next{ETC}/router.conf
            echo '# new in this version' >> /tmp/next/etc/logrotate.d/corvalin_router
            sed -i 's/^Description=.*/Description=new in this version/' /tmp/next/lib/systemd/system/{UNIT}
            dpkg-deb -Znone --build /tmp/next /tmp/next.deb""")
        return "/tmp/next.deb"

    def test_upgrade_keeps_what_the_operator_wrote_and_the_running_router(self):
        self.configure("#mine")
        self.start()
        mine = self.machine.read(f"{ETC}/router.conf")
        pid = self.shown("MainPID")
        self.machine.run("dpkg", "--force-confdef", "--force-confold", "--install", self.next_package())
        self.assertEqual(self.machine.read(f"{ETC}/router.conf"), mine)
        self.assertIn("# new in this version", self.machine.read(f"{ETC}/router.conf.dpkg-dist"))
        self.assertIn("# new in this version", self.machine.read("/etc/logrotate.d/corvalin_router"))
        self.assertEqual(self.shown("Description"), "new in this version")
        self.assertEqual(self.shown("NeedDaemonReload"), "no")
        self.assertEqual(self.shown("MainPID"), pid)
        self.send()
        # And back again, by the command that the manual names.
        self.machine.run("dpkg", "--force-confold", "--install", f"/run/packages/{package().name}")
        self.machine.run("systemctl", "restart", UNIT)
        self.assertNotEqual(self.shown("MainPID"), pid)
        self.assertEqual(self.machine.read(f"{ETC}/router.conf"), mine)
        self.send()

    def shell(self, commands, **variables):
        settings = [f"{name}={value}" for name, value in variables.items()]
        return self.machine.run("env", *settings, "sh", "-ec", commands).stdout

    def kernel_drops(self, port):
        for line in self.machine.read("/proc/net/udp").splitlines():
            if f" 00000000:{port:04X} " in line:
                return int(line.split()[-1])
        raise AssertionError(f"port {port} is not open")

    def running_calls(self):
        """As the latest report has it; None without a report."""
        text = self.shell(f"cat {LOGS}/statistic.log 2>/dev/null | corvalin_watch json --port {PORT} | tail -n 1")
        return json.loads(text)["counters"]["sessions"] if text else None

    def test_drain_upgrade_restart_and_roll_back_by_the_commands_of_the_page(self):
        commands = commands_of_page("Drain, upgrade, roll back")
        self.assertEqual({heading: len(blocks) for heading, blocks in commands.items()},
                         {"Drain": 1, "Restart": 1, "Upgrade": 2, "Roll back": 1})
        drain, restart, roll_back = (commands[heading][0] for heading in ("Drain", "Restart", "Roll back"))
        upgrade, look = commands["Upgrade"]
        self.configure("#mine")
        self.start()
        mine = self.machine.read(f"{ETC}/router.conf")
        pid = self.shown("MainPID")
        version = self.shell(look).split()[1]

        node = self.machine.start("corvalin_media_node", "--port", NODE_PORT, "--json", stdout=subprocess.PIPE)
        self.addCleanup(node.wait)
        self.addCleanup(node.kill)
        self.assertEqual(node.stdout.readline(), f"ports {NODE_PORT}\n")
        send = ["corvalin_media_sender", "--rate", PACKETS_PER_SECOND, "--flags", "writer", "--sessions", SESSIONS]
        self.machine.run(*send, "--packets", PACKETS, "--no-terminate", PORT)
        self.machine.wait_until(lambda: self.running_calls() == SESSIONS, "the report of the running calls")

        # The new program is there, and the old one goes on with its calls.
        self.shell(upgrade, NEW=self.next_package())
        shown = self.shell(look).splitlines()
        self.assertEqual(shown[0].split()[1], "99.0")
        self.assertNotEqual(shown[1], "/usr/sbin/corvalin_router")
        self.assertEqual(self.shown("MainPID"), pid)
        self.assertEqual(self.machine.read(f"{ETC}/router.conf"), mine)
        self.assertIn("# new in this version", self.machine.read(f"{ETC}/router.conf.dpkg-dist"))

        # Another router, with a report in the same log, takes the new calls. Those that run are all forwarded.
        self.machine.run("systemd-run", "--unit", "other_router", "/usr/sbin/corvalin_router", "--args",
                         f"port={OTHER_PORT}")
        self.addCleanup(self.machine.run, "systemctl", "stop", "other_router")
        self.machine.wait_until(lambda: f"00000000:{OTHER_PORT:04X}" in self.machine.read("/proc/net/udp"), "its port")
        drained = self.machine.start("sh", "-ec", drain, stdout=subprocess.PIPE)
        self.addCleanup(drained.wait)
        self.addCleanup(drained.kill)
        self.assertEqual(drained.stdout.readline(), f'"sessions":{SESSIONS}\n')
        self.machine.run(*send, "--packets", PACKETS, "--id-base", 1000, "--no-terminate", OTHER_PORT)
        self.assertIsNone(drained.poll())
        self.machine.run(*send, "--packets", PACKETS, "--no-start", "--first-seq", PACKETS + 2, PORT)
        output, _ = drained.communicate(timeout=60)
        self.assertEqual(drained.returncode, 0)
        self.assertEqual(output.splitlines()[-1], '"sessions":0')
        # Running calls with their start, twice the data and their end, and new ones without an end. What a busy machine
        # has no room for in a receive buffer is none of the drain's; the node looks for gaps behind the router.
        forwarded = SESSIONS * (1 + 2 * PACKETS + 1) + SESSIONS * (1 + PACKETS)
        forwarded -= self.kernel_drops(PORT) + self.kernel_drops(OTHER_PORT)
        self.machine.run("sh", "-c", "kill $(pidof corvalin_media_node)")
        total = json.loads(node.communicate(timeout=30)[0])["total"]
        self.assertEqual(node.returncode, 0, total)
        self.assertEqual(total["datagrams"], forwarded, total)
        self.assertEqual(total["sessions"], 2 * SESSIONS)
        self.assertEqual(total["ended_sessions"], SESSIONS)

        self.assertEqual(self.shell(restart), "active\n")
        self.assertNotEqual(self.shown("MainPID"), pid)
        self.assertEqual(self.shell(look).splitlines()[1], "/usr/sbin/corvalin_router")
        self.send()

        pid = self.shown("MainPID")
        self.shell(roll_back, OLD=f"/run/packages/{package().name}")
        self.assertEqual(self.shown("MainPID"), pid)
        self.assertEqual(self.shell(look).split()[1], version)
        self.assertEqual(self.machine.read(f"{ETC}/router.conf"), mine)
        self.assertEqual(self.shell(restart), "active\n")
        self.assertNotEqual(self.shown("MainPID"), pid)
        self.send()

    def test_log_folder_is_for_the_group_that_reads_logs_unless_the_operator_says_otherwise(self):
        def owner_and_mode():
            return self.machine.run("stat", "--format", "%U:%G %a", LOGS).stdout.strip()

        self.assertEqual(owner_and_mode(), "root:adm 750")
        self.machine.run("dpkg-statoverride", "--update", "--add", "root", "root", "0700", LOGS)
        self.addCleanup(self.machine.run, "dpkg-statoverride", "--remove", LOGS)
        self.assertEqual(owner_and_mode(), "root:root 700")
        self.machine.run("dpkg", "--install", f"/run/packages/{package().name}")
        self.assertEqual(owner_and_mode(), "root:root 700")

    def left_over(self):
        """Files below the names of the package; the journal and dpkg's own log speak of it and stay."""
        return {path for path in self.machine.changed_paths() if "corvalin" in path}

    def test_removal_leaves_configuration_and_logs_and_purge_leaves_nothing(self):
        self.configure()
        self.start()
        self.send()
        node_lists = "/var/lib/tolvaine/corvalin/node_lists.json"
        self.machine.write(node_lists, "{}")
        pid = self.shown("MainPID")
        conffiles = set(self.machine.read("/var/lib/dpkg/info/corvalin-router.conffiles").split())
        self.assertEqual(len(conffiles), 5)
        self.machine.run("dpkg", "--remove", "corvalin-router")
        self.assertFalse(self.machine.exists(f"/proc/{pid}"))
        files = {path for path in self.left_over() if self.machine.run("test", "-d", path, check=False).returncode != 0}
        kept_by_dpkg = {path for path in files
                        if path.startswith(("/var/lib/dpkg/info/corvalin-router.", "/var/lib/systemd/deb-systemd-helper-"))}
        logs = {path for path in files if path.startswith(LOGS)}
        self.assertLessEqual({f"{LOGS}/router.log", f"{LOGS}/trace.log"}, logs)
        self.assertEqual(files - kept_by_dpkg - logs, conffiles | {node_lists})
        self.machine.run("dpkg", "--purge", "corvalin-router")
        self.assertEqual(self.left_over(), set())
        for folder in ("/etc", "/var/log", "/var/lib"):
            self.assertFalse(self.machine.exists(f"{folder}/tolvaine"), folder)

    def test_purge_leaves_what_another_service_of_the_family_has(self):
        theirs = [f"{folder}/tolvaine/another/file" for folder in ("/etc", "/var/log", "/var/lib")]
        self.addCleanup(self.machine.run, "rm", "-rf", "/etc/tolvaine", "/var/log/tolvaine", "/var/lib/tolvaine")
        for path in theirs:
            self.machine.run("install", "-D", "/dev/null", path)
        self.machine.run("systemctl", "enable", UNIT)
        self.assertIn("/etc/systemd/system/multi-user.target.wants/corvalin_router.service", self.left_over())
        self.machine.run("dpkg", "--purge", "corvalin-router")
        self.assertEqual([path for path in theirs if not self.machine.exists(path)], [])
        self.assertEqual(self.left_over(), set())

    def test_burst_of_lines_is_kept_whole(self):
        # journald takes 10000 lines in 30 seconds from a service that says nothing, or a multiple with much free space.
        wanted_lines = 60_000
        packets = 2000
        # The journal of a machine gives up its oldest file at a size of its own choice: here it keeps them all.
        limits = "/etc/systemd/journald.conf.d/60-keep.conf"
        self.machine.write(limits, "[Journal]\nRuntimeMaxUse=1G\nSystemMaxUse=1G\n")
        self.addCleanup(self.machine.run, "rm", limits)
        self.machine.run("systemctl", "restart", "systemd-journald.service")
        self.configure("log_level=TRACE")
        self.start()
        pid = self.shown("MainPID")

        # A line that the limit held back is not in the journal. What rsyslog's files have of it is no measure: journald
        # waits for nobody when it forwards, and what a busy machine's rsyslog has no room for it drops.
        def kept():
            # Where a session's first packet was lost, the next one has a second line.
            lines = re.findall(r"\| (?:START|TERM |DATA ) \| (?!.*\| unknown session).*\n", self.shell(
                f"journalctl --quiet --output cat _PID={pid} SYSLOG_FACILITY=17 SYSLOG_FACILITY=23"))
            self.assertEqual(len(set(lines)), len(lines), "doubled")
            return lines

        # Each datagram that the kernel has room for, flat out or on a busy machine not all of them, is a line.
        sent = arrived = 0
        while arrived < wanted_lines:
            self.assertLess(sent, 50 * wanted_lines)
            output = self.machine.run(
                "corvalin_media_sender", "--sessions", SESSIONS, "--packets", packets, "--id-base", 1 + sent,
                "--rate", "0" if sent == 0 else "10000", "--flags", "writer", "--json", PORT).stdout
            sent += json.loads(output)["total"]["datagrams"]
            arrived = sent - self.kernel_drops(PORT)
        # How long they take is the machine's business as well; that they keep coming is the service's.
        written = 0
        while written < arrived:
            before = written
            self.machine.wait_until(lambda: len(kept()) > before, f"more than {before} lines of {arrived} packets")
            written = len(kept())
        self.machine.run("systemctl", "stop", UNIT)
        self.assertEqual(len(kept()), arrived)


if __name__ == "__main__":
    main()
