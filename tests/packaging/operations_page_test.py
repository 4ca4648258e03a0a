"""docs/operations.md against the sources: what an operator may set, read and meet is told there, and nothing else.

The texts of log lines are taken from the C++ sources, by reading the expressions that build them. A shape that is not
understood here is a failure and not a text less.
"""

import itertools
import re
import unittest

from support import SOURCE, main

PAGE = SOURCE / "docs/operations.md"
FOLDERS = ("corvalin_lib", "router")
DECLARATIONS = {"log.h"}  # where the kinds of message are made

ANYTHING = object()  # a value of the moment

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/) |
    R"\((?P<raw>.*?)\)" |
    "(?P<string>(?:[^"\\\n]|\\.)*)" |
    '(?:[^'\\\n]|\\.)+' |
    (?P<word>[A-Za-z_]\w*) |
    \d[\d'a-zA-Z.]* |
    <<|::|->|[^\s]
    """, re.VERBOSE | re.DOTALL)
ESCAPES = {'\\"': '"', "\\\\": "\\", "\\n": "\n"}


class Literal(str):
    """A text in quotes; other tokens are plain strings."""


def tokens_of(source):
    found = []
    for match in TOKEN.finditer(source):
        if match.group("comment"):
            continue
        if match.group("raw") is not None:
            found.append(Literal(match.group("raw")))
        elif match.group("string") is not None:
            found.append(Literal(re.sub(r"\\.", lambda escape: ESCAPES.get(escape.group(), escape.group()), match.group("string"))))
        else:
            found.append(match.group())
    return found


def is_code(token, text):
    return token == text and not isinstance(token, Literal)


def joined(tokens):
    return " ".join('"' if isinstance(token, Literal) else token for token in tokens)


def split(tokens, separators, ends=(";",)):
    """The parts between separators outside of brackets, up to an end or to a bracket that closes what is around them."""
    parts, depth = [[]], 0
    for token in tokens:
        is_literal = isinstance(token, Literal)
        if not is_literal and token in "([{":
            depth += 1
        elif not is_literal and token in ")]}":
            depth -= 1
            if depth < 0:
                break
        elif not is_literal and depth == 0 and token in ends:
            break
        elif not is_literal and depth == 0 and token in separators:
            parts.append([])
            continue
        parts[-1].append(token)
    return parts


class SourceFile:
    """One file, and the texts of the warnings and errors in it. A text is a tuple of literals and ANYTHING."""

    def __init__(self, path):
        self.name = path.name
        self.tokens = tokens_of(path.read_text())

    def find(self, *pattern):
        """Positions behind each occurrence of these tokens."""
        size = len(pattern)
        return [at + size for at in range(len(self.tokens) - size + 1)
                if all(is_code(token, text) for token, text in zip(self.tokens[at:at + size], pattern))]

    def body(self, header):
        """The range of a function's body, or an empty one. `header` is its declaration as tokens."""
        for at in self.find(*header, "{"):
            return range(at, at + sum(len(part) for part in split(self.tokens[at:], (), ())))
        return range(0)

    def texts(self):
        found = []
        carrier = self.body(("void", "log_error", "(", "int", "line", ",", "const", "std", "::", "string", "&", "text", ")"))
        for kind in ("WarningMessage", "ErrorMessage"):
            complete = self.find(kind, "(", ")")
            assert len(complete) == len(self.find(kind)), f"{self.name}: a {kind} in a shape that is not read here"
            for at in complete:
                operands = split(self.tokens[at:], ("<<",))
                assert operands.pop(0) == [], f"{self.name}: text behind {kind}()"
                if at not in carrier:
                    found += self.expand(operands, at)
                    continue
                assert operands.pop() == ["text"], f"{self.name}: log_error no longer ends with its text"
                calls = [call for call in self.find("log_error", "(", "__LINE__", ",") if call not in carrier]
                assert calls, f"{self.name}: log_error is not called"
                for call in calls:
                    found += self.expand(operands + split(self.tokens[call:], ("+",)), call)
        return found

    def expand(self, operands, at, wording=None):
        """All texts that the operands can make: where one has several forms, each of them."""
        if wording is None and any(joined(operand).startswith("wording .") for operand in operands):
            return [text for wording in self.wordings() for text in self.expand(operands, at, wording)]
        forms = [self.forms(operand, at, wording) for operand in operands]
        return [tuple(itertools.chain.from_iterable(choice)) for choice in itertools.product(*forms)]

    def forms(self, operand, at, wording):
        """The pieces of one operand, once for each of its forms."""
        if all(isinstance(token, Literal) for token in operand):
            return [("".join(operand),)]
        code = joined(operand)
        if re.fullmatch(r"std :: string \( .* \)", code):
            return self.expand(split(operand[4:-1], ("+",)), at)
        if re.fullmatch(r'\( .* \? " : " \)', code):
            return [(operand[-4],), (operand[-2],)]
        if code.startswith("wording ."):
            call, values = wording
            return self.expand(split(values[operand[-1]], ("+",)), call)
        if re.fullmatch(r"\w+", code):
            definitions = [begin for begin in self.find("const", "std", "::", "string", code, "=") if begin < at]
            if definitions:
                return self.expand(split(self.tokens[definitions[-1]:], ("+",)), definitions[-1])
        return [(ANYTHING,)]

    def wordings(self):
        """What act_on_status is told to call an option: at each of its calls, the expressions by field."""
        begin = self.find("struct", "Wording", "{")[0]
        fields = [declaration[-1] for declaration in split(self.tokens[begin:], (";",), ()) if declaration]
        calls = self.find("act_on_status", "(", "status", ",", "{")
        assert len(calls) == 2, f"{self.name}: flags and options were the two calls"
        found = [(call, split(self.tokens[call:], (",",))) for call in calls]
        assert all(len(values) == len(fields) for _, values in found), f"{self.name}: Wording has other fields"
        return [(call, dict(zip(fields, values))) for call, values in found]


def pattern_of(text):
    """The page has a word in capitals for each value."""
    return re.compile("".join("[A-Z]+" if piece is ANYTHING else re.escape(piece) for piece in text))


def shown(text):
    return "".join("VALUE" if piece is ANYTHING else piece for piece in text)


def log_texts():
    found = set()
    for folder in FOLDERS:
        for path in sorted((SOURCE / folder).iterdir()):
            if path.suffix in (".h", ".cpp") and path.name not in DECLARATIONS:
                found.update(SourceFile(path).texts())
    return found


class OperationsPageTest(unittest.TestCase):
    def rows(self, heading):
        """The tables below a heading, those of its lower headings included, as lists of cells."""
        sections = PAGE.read_text().split(f"\n{heading}\n")
        self.assertEqual(len(sections), 2, heading)
        section = re.split(rf"\n#{{1,{heading.count('#')}}} ", sections[1])[0]
        found = []
        for line in section.splitlines():
            cells = [cell.strip().replace(r"\|", "|") for cell in re.split(r"(?<!\\)\|", line)[1:-1]]
            if cells and cells[0].startswith("`"):
                self.assertTrue(all(cells), f"an empty cell: {line}")
                found.append(cells)
        self.assertTrue(found, heading)
        return found

    def names(self, heading):
        """What the first column speaks of. A name that stands there twice has two meanings."""
        found = [name for cells in self.rows(heading) for name in re.findall("`([^`]+)`", cells[0])]
        self.assertEqual(len(found), len(set(found)), f"twice below {heading}")
        return set(found)

    def test_every_option_has_its_row_and_no_other(self):
        self.assertEqual(self.names("### The command line"),
                         set(re.findall(r'"(--?[a-z][a-z-]*)"', (SOURCE / "corvalin_lib/app_service.cpp").read_text())))
        sources = [(SOURCE / name).read_text() for name in ("corvalin_lib/conf_extensions.h", "router/configuration.cpp")]
        options = set(re.findall(r'name == "(\w+)"', "".join(sources)))
        self.assertGreaterEqual(len(options), 12)
        of_kafka = {name for name in options if name.startswith("kafka_")}
        self.assertEqual(self.names("### router.conf"), options - of_kafka)
        self.assertEqual(self.names("### kafka.conf"), of_kafka)

    def test_every_counter_of_the_report_has_its_row_and_no_other(self):
        source = (SOURCE / "router/statistic_service.cpp").read_text()
        labels = re.findall(r'"((?:session|packet) [^":]*?)\.*: "', source)
        self.assertEqual(len(labels), len(re.findall(r"\n\s+print_counter\(", source)))
        self.assertEqual(self.names("## The counters"), set(labels))

    def test_every_warning_and_error_has_its_row_and_no_other(self):
        texts = log_texts()
        self.assertGreaterEqual(len(texts), 60)
        rows = self.names("## Log lines that need action")
        for text in texts:
            self.assertGreaterEqual(sum(len(piece) for piece in text if piece is not ANYTHING), 15, shown(text))
            self.assertTrue(any(pattern_of(text).fullmatch(row) for row in rows), f"not in {PAGE.name}: {shown(text)}")
        for row in rows:
            self.assertTrue(any(pattern_of(text).fullmatch(row) for text in texts), f"no line of the router: {row}")


if __name__ == "__main__":
    main()
