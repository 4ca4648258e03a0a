"""The manual and the completion against the programs that they describe."""

import gzip
import re
import unittest

from support import SOURCE, TOOLS, main, run, unpacked_package

ROUTER_OPTIONS = {"-h", "--help", "-d", "--daemon", "-c", "--config", "--pid-file", "--pid-file-default", "--args"}
MANAGER = "corvalin_config_manager"


def options_of_help(text):
    """The options of a help text. Names in prose do not begin a line."""
    found = set()
    for line in text.splitlines():
        match = re.match(r"\s{2}(-[-\w,]+)(\s|$)", line)
        if match:
            found.update(match.group(1).split(","))
    return found


def subcommands(text):
    """The verbs of a help text; none where there is no such section."""
    match = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.MULTILINE)
    return re.findall(r"^  (\w+)", match.group(1), re.MULTILINE) if match else []


class ManualTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = unpacked_package()
        cls.addClassCleanup(folder.cleanup)
        cls.root = folder.name

    def page(self, name):
        """The page as a reader sees it."""
        section = name.rsplit(".", 1)[1]
        path = f"{self.root}/usr/share/man/man{section}/{name}.gz"
        with gzip.open(path) as file:
            source = file.read().decode()
        return re.sub(".\b", "", run("mandoc", "-T", "ascii", "-O", "width=200", input=source).stdout)

    def help_of(self, tool, *verb):
        return run(f"{self.root}/usr/bin/{tool}", *verb, "--help").stdout

    def documented_options(self, page):
        """Names at the head of a paragraph of options."""
        found = set()
        for line in page.splitlines():
            if re.match(r"\s{5,8}-", line):
                found.update(re.findall(r"(?:^\s*|, )(--?[\w-]+)", line))
        return found

    def test_every_page_passes_the_lint(self):
        pages = list((SOURCE / "docs/man").glob("*.scd"))
        self.assertGreaterEqual(len(pages), 10)
        for source in pages:
            name = source.stem
            section = name[-1]
            with gzip.open(f"{self.root}/usr/share/man/man{section}/{name}.gz") as file:
                text = file.read().decode()
            result = run("mandoc", "-T", "lint", input=text, check=False)
            self.assertEqual((result.returncode, result.stdout + result.stderr), (0, ""), name)

    def test_every_option_of_a_tool_has_its_paragraph_and_no_other(self):
        for tool in TOOLS:
            text = self.help_of(tool)
            expected = options_of_help(text)
            for verb in subcommands(text):
                expected |= options_of_help(self.help_of(tool, verb))
            self.assertEqual(self.documented_options(self.page(f"{tool}.1")), expected, tool)

    def test_every_option_of_the_router_has_its_paragraph_and_no_other(self):
        source = (SOURCE / "corvalin_lib/app_service.cpp").read_text()
        in_code = set(re.findall(r'"(--?[a-z][a-z-]*)"', source))
        self.assertEqual(in_code, ROUTER_OPTIONS)
        self.assertEqual(self.documented_options(self.page("corvalin_router.8")), ROUTER_OPTIONS)

    def test_every_option_of_the_files_is_documented_and_stands_in_the_shipped_files(self):
        page = self.page("corvalin_router.conf.5")
        sources = {"router.conf": "", "kafka.conf": ""}
        extensions = (SOURCE / "corvalin_lib/conf_extensions.h").read_text()
        names = re.findall(r'name == "(\w+)"', extensions + (SOURCE / "router/configuration.cpp").read_text())
        self.assertGreaterEqual(len(names), 12)
        for name in names:
            file = "kafka.conf" if name.startswith("kafka_") else "router.conf"
            sources[file] = sources[file] or open(f"{self.root}/etc/tolvaine/corvalin/{file}", encoding="utf-8").read()
            self.assertRegex(sources[file], rf"(?m)^#?{name}(=|$)", f"{name} in {file}")
            self.assertRegex(page, rf"(?m)^\s+{name}(=|$)", f"{name} in the manual")

    def test_every_counter_of_the_report_has_its_paragraph(self):
        source = (SOURCE / "router/statistic_service.cpp").read_text()
        labels = [label.rstrip(".") for label in re.findall(r'"((?:session|packet) [^":]*?)\.*: "', source)]
        self.assertEqual(len(labels), 22, labels)
        page = self.page("corvalin_router_counters.7")
        for label in labels:
            self.assertRegex(page, rf"(?m)^\s+{re.escape(label)}$", label)

    def complete(self, *words):
        """What bash offers for the last word."""
        script = (f"source {self.root}/usr/share/bash-completion/completions/{words[0]}; "
                  "COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _corvalin \"$1\" \"${!#}\" \"${@: -2:1}\"; "
                  "printf '%s\\n' \"${COMPREPLY[@]}\"")
        return {word for word in run("bash", "-c", script, "bash", *words).stdout.split("\n") if word}

    def test_completion_offers_the_options_of_each_program_and_no_other(self):
        self.assertEqual(self.complete("corvalin_router", "-"), ROUTER_OPTIONS)
        for tool in TOOLS:
            text = self.help_of(tool)
            self.assertEqual(self.complete(tool, "-"), options_of_help(text), tool)
            for verb in subcommands(text):
                self.assertIn(verb, self.complete(tool, ""), tool)
                self.assertEqual(self.complete(tool, verb, "-"), options_of_help(self.help_of(tool, verb)),
                                 f"{tool} {verb}")

    def test_completion_knows_what_follows_an_option(self):
        self.assertEqual(self.complete("corvalin_media_sender", "--flags", ""), {"writer", "media", "both", "none"})
        self.assertEqual(self.complete("corvalin_media_sender", "--order", "r"), {"round-robin", "random"})
        self.assertEqual(self.complete("corvalin_media_sender", "--rate", ""), set())
        self.assertEqual(self.complete(MANAGER, "publish", ""), {"media", "writer"})
        self.assertIn(f"{self.root}/etc", self.complete("corvalin_router", "--config", f"{self.root}/e"))


if __name__ == "__main__":
    main()
