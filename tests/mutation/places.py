"""Finds the places of C++ source files that can be broken, and how, with libclang.

A break never changes anything but the one place, and is written so that it can be switched on at run time: a
list of insertions into the file, all of them within lines, so that line numbers stay what they are.
"""

import re
from bisect import bisect_right
from dataclasses import dataclass, field
from pathlib import Path

from clang import cindex
from clang.cindex import CursorKind, TokenKind, TypeKind

# What a comparison becomes when it is turned, and when its bound moves by one.
TURNED = {"==": "!=", "!=": "==", "<": ">", ">": "<", "<=": ">=", ">=": "<="}
BOUND = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
LOGIC = {"&&": "||", "||": "&&"}
SUM = {"+": "-", "-": "+"}
FLAG = {"true": "false", "false": "true"}
SEARCH = {"lower_bound": "upper_bound", "upper_bound": "lower_bound",
          "lowerBoundCursor": "upperBoundCursor", "upperBoundCursor": "lowerBoundCursor"}

FUNCTIONS = {CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR,
             CursorKind.FUNCTION_TEMPLATE, CursorKind.CONVERSION_FUNCTION}
LOOPS = {CursorKind.FOR_STMT, CursorKind.WHILE_STMT, CursorKind.CXX_FOR_RANGE_STMT}


@dataclass
class Place:
    """One break of one place."""
    file: str  # relative to the tree
    line: int
    function: str
    kind: str
    before: str
    after: str
    # (offset, is it an end, nesting, text); the text has {n} for the number of the break
    insertions: list = field(default_factory=list)
    in_function: bool = True
    occurrence: int = 0  # among the places that read the same
    number: int = 0

    def key(self):
        """What the place is known by, whatever else in the file changes."""
        again = f" #{self.occurrence + 1}" if self.occurrence else ""
        return f"{self.file} | {self.function} | {self.kind}{again} | {self.before} -> {self.after}"


class SourceFile:
    """The nodes and tokens of one file, as one of the translation units that include it sees them."""

    def __init__(self, unit, name, relative):
        self.relative = relative
        self.text = Path(name).read_bytes()
        self.nodes = []  # (start, end, cursor, parent's index or None)
        file = unit.get_file(name)
        whole = cindex.SourceRange.from_locations(cindex.SourceLocation.from_offset(unit, file, 0),
                                                  cindex.SourceLocation.from_offset(unit, file, len(self.text)))
        self.tokens = [(t.extent.start.offset, t.extent.end.offset, t.spelling, t.kind)
                       for t in unit.get_tokens(extent=whole) if t.kind != TokenKind.COMMENT]
        self.starts = [t[0] for t in self.tokens]
        self.lines = [0] + [i + 1 for i, c in enumerate(self.text) if c == 10]
        self.macros = []
        self.functions = []  # (start, end, name, is it a function)

    def line(self, offset):
        return bisect_right(self.lines, offset)

    def between(self, start, end):
        """The tokens in [start, end)."""
        first = bisect_right(self.starts, start - 1)
        last = bisect_right(self.starts, end - 1)
        return self.tokens[first:last]

    def flat(self, start, end):
        """The text in one line, without comments."""
        parts, at = [], None
        for s, e, spelling, _ in self.between(start, end):
            if at is not None and s > at:
                parts.append(" ")
            parts.append(spelling)
            at = e
        return "".join(parts)

    def in_macro(self, start, end):
        return any(s < end and start < e for s, e in self.macros)

    def function_of(self, offset):
        inside = [f for f in self.functions if f[0] <= offset < f[1]]
        return min(inside, key=lambda f: f[1] - f[0])[2:] if inside else ("-", False)


class Finder:
    def __init__(self, tree, rooms):
        self.tree = Path(tree).resolve()
        self.rooms = rooms
        self.names = {}  # of files: in the tree, or None when they are none of the rooms'
        self.files = {}
        self.places = {}

    def wanted(self, name):
        if name not in self.names:
            path = Path(name)
            relative = path.relative_to(self.tree) if path.is_relative_to(self.tree) else None
            self.names[name] = str(relative) if relative and relative.parts[0] in self.rooms else None
        return self.names[name]

    def scan(self, source, arguments):
        """Finds what there is in the source and in those headers of the rooms that no other source had."""
        options = cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD
        unit = cindex.Index.create().parse(source, args=arguments, options=options)
        errors = [d for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            raise RuntimeError(f"libclang does not understand {source}: {errors[0]}")
        new = {}
        for cursor in unit.cursor.get_children():
            name = cursor.location.file.name if cursor.location.file else None
            if name is None or self.wanted(name) is None or (name in self.files and name not in new):
                continue
            if name not in new:
                new[name] = self.files[name] = SourceFile(unit, name, self.wanted(name))
            if cursor.kind == CursorKind.MACRO_INSTANTIATION:
                new[name].macros.append((cursor.extent.start.offset, cursor.extent.end.offset))
            elif not cursor.kind.is_preprocessing():
                self.walk(new[name], name, cursor, "")
        for file in new.values():
            FileFinder(file, self.places).find()

    def walk(self, file, name, cursor, function, parent=None):
        extent = cursor.extent
        if extent.start.file is None or extent.start.file.name != name:
            return
        start, end = extent.start.offset, extent.end.offset
        if cursor.kind in FUNCTIONS:
            around = cursor.semantic_parent
            scope = around.spelling if around and around.kind != CursorKind.TRANSLATION_UNIT else ""
            function = re.sub(r"<[^<>]*>$", "", f"{scope}::{cursor.spelling}" if scope else cursor.spelling)
            file.functions.append((start, end, function, True))
        elif cursor.kind in (CursorKind.VAR_DECL, CursorKind.FIELD_DECL) and not function:
            file.functions.append((start, end, cursor.spelling, False))
        file.nodes.append((start, end, cursor, parent))
        index = len(file.nodes) - 1
        for child in cursor.get_children():
            self.walk(file, name, child, function, index)


class FileFinder:
    def __init__(self, file, places):
        self.file = file
        self.places = places
        self.by_size = sorted(((s, e, c) for s, e, c, _ in file.nodes), key=lambda n: n[1] - n[0])

    def add(self, kind, start, before, after, *insertions):
        function, in_function = self.file.function_of(start)
        place = Place(self.file.relative, self.file.line(start), function, kind, before, after, list(insertions),
                      in_function)
        self.places.setdefault((self.file.relative, start, kind, before, after), place)

    def expression(self, kind, start, end, after, before=None):
        """Another expression in this one's place."""
        size = end - start
        self.add(kind, start, before or self.file.flat(start, end), after,
                 (start, False, size, f"(Mutation::on({{n}}) ? ({after}) : ("), (end, True, size, "))"))

    def find(self):
        self.operators()
        for start, end, cursor, parent in self.file.nodes:
            if cursor.kind == CursorKind.COMPOUND_STMT:
                self.compound(cursor, parent)
            elif cursor.kind == CursorKind.IF_STMT or cursor.kind in LOOPS:
                self.branches(cursor)
            elif cursor.kind == CursorKind.CONDITIONAL_OPERATOR:
                children = list(cursor.get_children())
                if len(children) == 3:
                    self.condition(children[0])

    # Expressions

    def enclosing(self, start, end):
        """The smallest node around the token that is more than the token."""
        for s, e, cursor in self.by_size:
            if s <= start and end <= e and (s, e) != (start, end):
                return s, e, cursor
        return None

    def operators(self):
        text = self.file.text
        for start, end, spelling, kind in self.file.tokens:
            if self.file.in_macro(start, end):
                continue
            if spelling in FLAG and kind == TokenKind.KEYWORD:
                self.expression("flag", start, end, FLAG[spelling])
            elif kind == TokenKind.LITERAL and spelling.isdigit():
                self.expression("bound", start, end, str(int(spelling) + 1))
            elif spelling in SEARCH and kind == TokenKind.IDENTIFIER:
                self.search(start, end, spelling)
            elif spelling in ("++", "--", "+=", "-="):
                self.counter(start, end, spelling)
            elif kind == TokenKind.PUNCTUATION and spelling == "!" and text[start - 1:start] in b" (":
                self.negation(start, end)
            elif kind == TokenKind.PUNCTUATION and text[start - 1:start].isspace() and text[end:end + 1].isspace():
                for name, table in (("turned", TURNED), ("bound", BOUND), ("logic", LOGIC), ("bound", SUM)):
                    if spelling in table:
                        self.binary(name, start, end, table[spelling])

    def binary(self, kind, start, end, operator):
        around = self.enclosing(start, end)
        allowed = (CursorKind.BINARY_OPERATOR, CursorKind.CALL_EXPR, CursorKind.UNEXPOSED_EXPR)
        if around is None or around[2].kind not in allowed or around[0] == start:
            return
        left, right = self.file.flat(around[0], start), self.file.flat(end, around[1])
        self.expression(kind, around[0], around[1], f"({left}) {operator} ({right})")

    def negation(self, start, end):
        around = self.enclosing(start, end)
        if around and around[0] == start:
            self.expression("negated", start, around[1], f"static_cast<bool>({self.file.flat(end, around[1])})")

    def search(self, start, end, spelling):
        around = self.enclosing(start, end)
        while around and around[2].kind != CursorKind.CALL_EXPR:
            s, e, _ = around
            around = next((n for n in self.by_size if n[0] <= s and e <= n[1] and (n[0], n[1]) != (s, e)), None)
        if around and around[2].kind == CursorKind.CALL_EXPR:
            after = self.file.flat(around[0], start) + SEARCH[spelling] + self.file.flat(end, around[1])
            self.expression("bound", around[0], around[1], after)

    def counter(self, start, end, spelling):
        around = self.enclosing(start, end)
        if around is None:
            return
        if spelling in ("++", "--"):
            counted = self.file.flat(around[0], start) + self.file.flat(end, around[1])
        else:
            counted = self.file.flat(around[0], start)
        self.expression("uncounted", around[0], around[1], counted)

    def condition(self, cursor):
        start, end = cursor.extent.start.offset, cursor.extent.end.offset
        before = self.file.flat(start, end)
        # Turned or negated already.
        simple = before.startswith("!") or re.search(r" [!=]= ", before)
        if cursor.kind.is_expression() and not simple and not self.file.in_macro(start, end):
            size = end - start
            self.add("negated", start, before, f"not ({before})",
                     (start, False, size, "(Mutation::on({n}) != static_cast<bool>("), (end, True, size, "))"))

    # Statements

    def branches(self, cursor):
        children = list(cursor.get_children())
        start = cursor.extent.start.offset
        condition = None
        if cursor.kind == CursorKind.FOR_STMT:
            condition = next((c for c in children[1:-1] if c.kind.is_expression()), None)
            children = children[-1:]
        elif cursor.kind == CursorKind.CXX_FOR_RANGE_STMT:
            children = children[-1:]
        else:
            condition = next((c for c in children if c.kind.is_expression()), None)
            if children and children[0].kind.is_declaration():
                condition = None  # a declaration's value, or what follows one
            first = bisect_right([c.extent.start.offset for c in children],
                                 condition.extent.end.offset if condition else start)
            children = children[first:]
        if condition is not None and "constexpr" not in self.file.flat(start, condition.extent.start.offset):
            self.condition(condition)
        for child in children:
            if child.kind.is_expression():
                self.sequence([child], may_return=True)

    def statement_end(self, end):
        """Where it ends with its semicolon."""
        following = self.file.between(end, end + 200)
        return following[0][1] if following and following[0][2] == ";" else end

    def compound(self, cursor, parent):
        children = list(cursor.get_children())
        returns_value = False
        outer = self.file.nodes[parent][2] if parent is not None else None
        if outer is not None and outer.kind in FUNCTIONS:
            returns_value = outer.result_type.kind not in (TypeKind.VOID, TypeKind.INVALID)
            if outer.kind in (CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR):
                returns_value = False
        self.sequence(children, may_return=not returns_value)

    def returns(self, cursor):
        """Whether it may leave the function with a value, or by an exception."""
        words = {t[2] for t in self.file.between(cursor.extent.start.offset, cursor.extent.end.offset)}
        return bool(words & {"return", "throw"})

    def sequence(self, children, may_return):
        """may_return: what runs off the end of the last of them is at the end of a function without value."""
        plain = []  # (start, end) or None, of those that can be left out
        for i, child in enumerate(children):
            start, end = child.extent.start.offset, child.extent.end.offset
            last = i + 1 == len(children)
            droppable = child.kind.is_expression() or child.kind in LOOPS or child.kind in (
                CursorKind.IF_STMT, CursorKind.BREAK_STMT, CursorKind.CONTINUE_STMT)
            if child.kind == CursorKind.RETURN_STMT:
                droppable = not list(child.get_children())
            if child.kind == CursorKind.DECL_STMT:
                self.held(child)
            if last and (not may_return or self.returns(child) and child.kind != CursorKind.RETURN_STMT):
                droppable = False
            if not droppable:
                plain.append(None)
                continue
            # The else of an if may be a block or another if; braces around the whole keep them together.
            end = self.statement_end(end)
            plain.append((start, end))
            words = self.file.flat(start, end)
            # Leaving these out is what another break of the same statement does.
            if not re.match(r"(\+\+|--)", words) and not re.search(r" [+-]= ", words):
                self.statement("dropped", start, end, words, "nothing", "!Mutation::on({n})")
        for i in range(len(plain) - 1):
            if plain[i] and plain[i + 1] and self.order_matters(children[i], children[i + 1]):
                self.swap(plain[i], plain[i + 1])

    def order_matters(self, first, second):
        """False for two assignments of which neither calls anything or reads what the other assigns. To swap
        what leaves a block is to leave out the other statement, which is another break."""
        leaving = (CursorKind.RETURN_STMT, CursorKind.BREAK_STMT, CursorKind.CONTINUE_STMT)
        if first.kind in leaving or second.kind in leaving:
            return False
        a, b = (re.fullmatch(r"([\w.\[\]>-]+) = ([^;]*?);?", self.file.flat(c.extent.start.offset, c.extent.end.offset))
                for c in (first, second))
        if a is None or b is None:
            return True
        calls = any("(" in re.sub(r"std::move\(", "", value) for value in (a[2], b[2]))
        return calls or a[1] == b[1] or a[1] in b[2] or b[1] in a[2]

    def statement(self, kind, start, end, before, after, guard):
        size = end - start
        self.add(kind, start, before, after, (start, False, size, f"if ({guard}) {{ "), (end, True, size, " }"))

    def swap(self, first, second):
        a, b = self.file.flat(*first), self.file.flat(*second)
        size, second_size = first[1] - first[0], second[1] - second[0]
        # Inserted before what else stands around the first statement: its guards must not hold the second.
        self.add("swapped", first[0], f"{a} {b}", f"{b} {a}",
                 (first[0], False, size + 1, f"if (Mutation::on({{n}})) {{ {b} }} "),
                 (second[0], False, second_size + 0.5, "if (!Mutation::on({n})) { "),
                 (second[1], True, second_size + 0.5, " }"))

    def held(self, declaration):
        """A counted pointer that only keeps something alive: let go at once."""
        variables = list(declaration.get_children())
        if len(variables) != 1 or variables[0].kind != CursorKind.VAR_DECL:
            return
        variable = variables[0]
        start, end = declaration.extent.start.offset, declaration.extent.end.offset
        if not variable.spelling.lower().startswith("held") or "const " in self.file.flat(start, end)[:6]:
            return
        self.add("not held", start, self.file.flat(start, end), "let go at once",
                 (end, False, 0, f" if (Mutation::on({{n}})) {variable.spelling} = nullptr;"))


def find(tree, rooms, commands):
    """Every break of every file of the rooms. commands: (source, arguments of its compiler)."""
    finder = Finder(tree, rooms)
    for source, arguments in commands:
        finder.scan(source, arguments)
    places = sorted(finder.places.values(), key=lambda p: (p.file, p.insertions[0][0], p.kind, p.after))
    seen = {}
    for number, place in enumerate(places, 1):
        place.number = number
        key = place.key()
        place.occurrence = seen.get(key, 0)
        seen[key] = place.occurrence + 1
    return places


def broken(text, places):
    """The file's text with the places' breaks in it, and where each stands in it: (start, end, place)."""
    insertions = [(offset, is_end, size, place, piece)
                  for place in places for offset, is_end, size, piece in place.insertions]
    # At one offset: what ends there before what begins; inner ends first, outer beginnings first.
    insertions.sort(key=lambda i: (i[0], not i[1], i[2] if i[1] else -i[2], i[3].number if not i[1] else -i[3].number))
    parts, at, length, spans = [], 0, 0, {}
    for offset, _, _, place, piece in insertions:
        piece = piece.replace("{n}", str(place.number)).encode()
        parts += [text[at:offset], piece]
        length += offset - at
        start, end = spans.get(place.number, (length, 0))
        length += len(piece)
        spans[place.number] = (start, length)
        at = offset
    parts.append(text[at:])
    return b"".join(parts), [(*spans[p.number], p) for p in places]
