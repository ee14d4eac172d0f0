"""What documents tell readers to type: commands, configurations, and options that a sentence names."""
import pathlib
import re
import shlex

# What begins a command; any other line of code is an output, a configuration or a drawing.
PROGRAMS = ("apt cat chmod chown cmake cp ctest etcd etcdctl export install ip sed smilint snmpget snmptable snmpwalk sudo "
            "systemctl trelctl trelmemberd trelsnmpd").split()
OWN = ("trelctl", "trelmemberd", "trelsnmpd")
SCRIPT = re.compile(r"(\./|build/|bench/|tests/\w+/|examples/\w+/)[\w./-]+$")
ASSIGNMENT = re.compile(r"[A-Z_]+=\S*$")


class Command:
    def __init__(self, page, line, text):
        self.page, self.line, self.text = page, line, text

    def __repr__(self):
        return f"{self.page}:{self.line}: {self.text}"


class Block:
    """Lines of code that stand together."""

    def __init__(self, page, line, lines):
        self.page, self.line = page, line
        margin = min(len(one) - len(one.lstrip()) for one in lines if one.strip())
        self.lines = [one[margin:] for one in lines]
        self.commands = list(self._commands())

    def __repr__(self):
        return f"{self.page}:{self.line}: {self.lines[0]}"

    @property
    def text(self):
        return "\n".join(self.lines)

    def _commands(self):
        at = 0
        while at < len(self.lines):
            first, text = at, self.lines[at]
            while text.endswith("\\"):
                at += 1
                text = text[:-1].rstrip() + " " + self.lines[at].strip()
            at += 1
            if begins_command(text):
                yield Command(self.page, self.line + first, without_remark(text))


def begins_command(text):
    words = text.split(None, 6)
    while words and ASSIGNMENT.match(words[0]):
        words.pop(0)
    return bool(words) and not text[0].isspace() and (words[0] in PROGRAMS or bool(SCRIPT.match(words[0])))


def without_remark(text):
    """Examples in a column say behind the command what it does."""
    quoted = ""
    for at, one in enumerate(text):
        if quoted:
            quoted = "" if one == quoted else quoted
        elif one in "'\"":
            quoted = one
        elif text.startswith("  ", at) or text.startswith(" # ", at):
            return text[:at]
    return text


def blocks(root, page):
    lines = (pathlib.Path(root) / page).read_text().split("\n")
    found, start, fenced = [], None, None
    for at, line in enumerate(lines + [""]):
        if line.lstrip().startswith("```"):
            if fenced is not None and lines[fenced].strip() == "```sh":
                found.append(Block(page, fenced + 2, lines[fenced + 1:at]))
            fenced = None if fenced is not None else at
        elif fenced is None and start is None:
            if line.startswith("    ") and lines[at - 1] == "":
                start = at
        elif fenced is None and not line.startswith("    ") and (line or not lines[at + 1:at + 2] or
                                                                 not lines[at + 1].startswith("    ")):
            found.append(Block(page, start + 1, lines[start:at]))
            start = None
    return found


def inline(root, page):
    """Commands of the project in sentences and tables."""
    text = (pathlib.Path(root) / page).read_text()
    for found in re.finditer(r"`((?:trelctl|trelmemberd|trelsnmpd|\./[a-z]+) [^`]+)`", text):
        yield Command(page, text.count("\n", 0, found.start()) + 1, " ".join(found[1].replace("\\|", "|").split()))


def options(root, page):
    """Every option that the page names, wherever it stands, with its line."""
    text = (pathlib.Path(root) / page).read_text().replace("\\-", "-")
    for number, line in enumerate(text.split("\n"), 1):
        for found in re.finditer(r"(?<![\w-])--[a-z][a-z_-]*[a-z]", line):
            yield number, found[0]


def parts(text):
    """The words of each command of a line; what the shell would take apart."""
    lexer = shlex.shlex(text, posix=True, punctuation_chars="|&;<>")
    lexer.whitespace_split = True
    lexer.commenters = ""
    command = []
    for word in lexer:
        if word and set(word) <= set("|&;"):
            yield command
            command = []
        else:
            command.append(word)
    yield command


def words_of(command):
    """Each command's words without assignments and sudo."""
    for words in parts(command.text):
        while words and (ASSIGNMENT.match(words[0]) or words[0] == "sudo"):
            words = words[1:]
        if words:
            yield words
