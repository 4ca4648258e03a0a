"""Installing without a package: cmake --install into a folder."""

import os
import tempfile
import unittest
from pathlib import Path

from support import BUILD, main, run, unpacked_package

UNIT = "lib/systemd/system/corvalin_router.service"


class InstallTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="corvalin_install_")
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)

    def install(self, prefix):
        run("cmake", "--install", BUILD, "--prefix", prefix, env={**os.environ, "DESTDIR": str(self.root)})

    def files(self, root):
        """Below the root; what the package adds or compresses is left out."""
        paths = {path.relative_to(root).as_posix().removesuffix(".gz") for path in root.rglob("*") if not path.is_dir()}
        return {path for path in paths if not path.endswith(("/changelog", "/copyright"))}

    def test_what_is_installed_is_what_the_package_holds(self):
        self.install("/usr")
        package = unpacked_package()
        self.addCleanup(package.cleanup)
        moved = {path.replace("usr/lib/systemd", "lib/systemd") for path in self.files(self.root)}
        self.assertIn("usr/sbin/corvalin_router", moved)
        self.assertEqual(moved, self.files(Path(package.name)))

    def test_second_installation_keeps_edited_files_and_renews_the_others(self):
        self.install("/usr/local")
        edited = [self.root / "etc" / path for path in (
            "tolvaine/corvalin/router.conf", "tolvaine/corvalin/kafka.conf", "rsyslog.d/20-corvalin_router.conf",
            "systemd/journald.conf.d/50-corvalin_router.conf", "logrotate.d/corvalin_router")]
        manual = self.root / "usr/local/share/man/man8/corvalin_router.8"
        text = manual.read_text(encoding="utf-8")
        for path in [*edited, manual]:
            path.write_text("mine\n", encoding="utf-8")
        self.install("/usr/local")
        self.assertEqual([path for path in edited if path.read_text(encoding="utf-8") != "mine\n"], [])
        self.assertEqual(manual.read_text(encoding="utf-8"), text)

    def test_unit_names_the_programs_where_they_are(self):
        self.install("/usr/local")
        unit = (self.root / "usr/local" / UNIT).read_text(encoding="utf-8")
        for program in ("sbin/corvalin_router", "libexec/corvalin_router/wait_for_port"):
            self.assertTrue(os.access(self.root / "usr/local" / program, os.X_OK), program)
            self.assertIn(f"/usr/local/{program}", unit)
        self.assertNotIn("/usr/sbin", unit)


if __name__ == "__main__":
    main()
