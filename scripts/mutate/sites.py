"""Finds what may be changed in a source file, by clang's syntax tree.

A site is a range of the text with the texts that may stand there instead. Sites nest or lie apart. What the language
needs at compile time is left alone, and what is only said: arguments of log() and of what is thrown, times taken.
"""

import hashlib
import json
import re
from dataclasses import dataclass, field
from pathlib import Path

from clang.cindex import Config, CursorKind as Kind, Index, TypeKind

Config.set_library_file("libclang-14.so.1")

SWAPPED = {
    "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"], "==": ["!="], "!=": ["=="],
    "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"], "<<": [">>"], ">>": ["<<"], "&": ["|"], "|": ["&"],
    "+=": ["-="], "-=": ["+="], "*=": ["/="], "/=": ["*="], "|=": ["&="], "&=": ["|="], "<<=": [">>="], ">>=": ["<<="],
}
DECIDES = {"<", "<=", ">", ">=", "==", "!=", "&&", "||"}
WHOLE = {TypeKind.CHAR_S, TypeKind.SCHAR, TypeKind.UCHAR, TypeKind.SHORT, TypeKind.USHORT, TypeKind.INT, TypeKind.UINT,
         TypeKind.LONG, TypeKind.ULONG, TypeKind.LONGLONG, TypeKind.ULONGLONG}
REAL = {TypeKind.FLOAT, TypeKind.DOUBLE}
FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.FUNCTION_TEMPLATE, Kind.CONVERSION_FUNCTION}
BLOCKS = {Kind.COMPOUND_STMT, Kind.IF_STMT, Kind.FOR_STMT, Kind.WHILE_STMT, Kind.CXX_FOR_RANGE_STMT, Kind.CASE_STMT,
          Kind.DEFAULT_STMT}
SAID = re.compile(r"(tarn::)?log\w*\(")


@dataclass
class Mutant:
    file: str       # below the tree
    line: int
    source: str     # the line's text
    before: str
    after: str
    kind: str
    key: str = ""   # stays the same when other lines change
    number: int = 0


@dataclass
class Site:
    start: int
    end: int
    drops: bool = False  # a statement, which may be nothing
    changes: list = field(default_factory=list)  # (Mutant, text)


def plain(text):
    return " ".join(text.split())


class Finder:
    def __init__(self, path, name, arguments):
        self.path, self.name = path, name
        self.bytes = Path(path).read_bytes()
        self.lines = self.bytes.decode().split("\n")
        self.sites = {}
        self.unit = Index.create().parse(path, args=arguments)

    def find(self):
        for cursor in self.unit.cursor.get_children():
            if self.is_here(cursor):
                self.visit(cursor, None)
        self.name_all()
        return sorted(self.sites.values(), key=lambda site: (site.start, -site.end))

    def is_here(self, cursor):
        return cursor.location.file is not None and cursor.location.file.name == self.path

    def text(self, start, end):
        return self.bytes[start:end].decode()

    def text_of(self, cursor):
        return self.text(cursor.extent.start.offset, cursor.extent.end.offset)

    def add(self, cursor, after, kind, drops=False):
        start, end = cursor.extent.start.offset, cursor.extent.end.offset
        if end <= start:
            return
        site = self.sites.setdefault((start, end, drops), Site(start, end, drops))
        if any(text == after for _, text in site.changes):
            return
        line = cursor.extent.start.line
        shown = "nothing" if drops else plain(after)
        mutant = Mutant(self.name, line, self.lines[line - 1].strip(), plain(self.text(start, end)), shown, kind)
        site.changes.append((mutant, after))

    def name_all(self):
        seen = {}
        for site in sorted(self.sites.values(), key=lambda site: (site.start, -site.end)):
            for mutant, _ in site.changes:
                what = "|".join((mutant.file, mutant.source, mutant.before, mutant.after))
                seen[what] = seen.get(what, 0) + 1
                mutant.key = hashlib.sha1(f"{what}|{seen[what]}".encode()).hexdigest()[:16]

    # --- the walk ---

    def visit(self, cursor, parent):
        kind = cursor.kind
        text = self.text_of(cursor)
        if self.is_constant(cursor, text) or kind == Kind.CXX_THROW_EXPR:
            return
        if kind.is_expression() and SAID.match(text):
            return
        children = list(cursor.get_children())
        if kind.is_expression():
            self.expression(cursor, children, text)
        if kind.is_expression() and parent is not None and parent.kind in BLOCKS and self.is_statement(cursor, parent):
            self.statement(cursor, text)
        if kind in (Kind.IF_STMT, Kind.CONDITIONAL_OPERATOR):
            self.condition(cursor, children)
        if kind == Kind.RETURN_STMT and children and children[0].type.get_canonical().kind == TypeKind.BOOL:
            self.negated(children[0], "return")
        for child in children[1:] if kind == Kind.CASE_STMT else children:
            self.visit(child, cursor)

    def is_constant(self, cursor, text):
        """What must be known at compile time."""
        kind = cursor.kind
        if kind in (Kind.STATIC_ASSERT, Kind.ENUM_DECL, Kind.TYPE_REF, Kind.TEMPLATE_REF, Kind.TYPE_ALIAS_DECL):
            return True
        if kind in FUNCTIONS:
            return re.search(r"\bconst(expr|eval)\b", text.split("{")[0]) is not None
        if kind == Kind.VAR_DECL:
            return "constexpr" in text.split("=")[0].split("{")[0]
        return kind == Kind.IF_STMT and text.startswith("if constexpr")

    def is_statement(self, cursor, parent):
        if parent.kind in (Kind.COMPOUND_STMT, Kind.DEFAULT_STMT, Kind.CASE_STMT):
            return True
        # Behind the closing parenthesis of `if (...)` and its like, or behind `else`.
        ahead = self.text(parent.extent.start.offset, cursor.extent.start.offset).rstrip()
        if not (ahead.endswith(")") or ahead.endswith("else")):
            return False
        return ahead.count("(") == ahead.count(")")

    def operator(self, children):
        """The operator between two operands, as written."""
        operands = [child for child in children if child.extent.end.offset > child.extent.start.offset]
        if len(operands) < 2:
            return None
        left, right = operands[0], operands[-1]
        between = self.text(left.extent.end.offset, right.extent.start.offset).strip()
        return (left, between, right) if between in SWAPPED or between in DECIDES else None

    def expression(self, cursor, children, text):
        kind = cursor.kind
        if kind in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.CALL_EXPR, Kind.UNEXPOSED_EXPR):
            found = self.operator(children)
            if found:
                self.binary(cursor, *found)
        if kind == Kind.CALL_EXPR and re.match(r"std::(min|max)\(", text):
            other = "std::max" if text.startswith("std::min") else "std::min"
            self.add(cursor, other + text[len("std::min"):], "call")
        elif kind == Kind.INTEGER_LITERAL and text[:1].isdigit():
            self.add(cursor, "0" if text == "1" else f"{text} + 1", "constant")
        elif kind == Kind.FLOATING_LITERAL and text[:1].isdigit():
            self.add(cursor, f"{text} + 1" if re.fullmatch(r"0\.?0*", text) else f"{text} * 2", "constant")
        elif kind == Kind.CXX_BOOL_LITERAL_EXPR:
            self.add(cursor, "false" if text == "true" else "true", "constant")
        elif kind == Kind.UNARY_OPERATOR and text.startswith("!"):
            self.add(cursor, f"static_cast<bool>({text[1:]})", "condition")
        elif kind == Kind.DECL_REF_EXPR and self.is_named_constant(cursor):
            is_real = cursor.type.get_canonical().kind in REAL
            self.add(cursor, f"{text} * 2" if is_real else f"{text} + 1", "constant")

    def is_named_constant(self, cursor):
        named = cursor.referenced
        if named is None or named.kind != Kind.VAR_DECL or cursor.type.get_canonical().kind not in WHOLE | REAL:
            return False
        return "constexpr" in [token.spelling for token in named.get_tokens()][:4]

    def binary(self, cursor, left, operator, right):
        first, last = self.text_of(left), self.text_of(right)
        if operator in ("&&", "||"):
            self.add(cursor, f"static_cast<bool>({first})", "condition")
            self.add(cursor, f"static_cast<bool>({last})", "condition")
            return
        kind = "comparison" if operator in DECIDES else "arithmetic"
        for other in SWAPPED[operator]:
            self.add(cursor, f"{first} {other} {last}", kind)

    def statement(self, cursor, text):
        if not text.startswith(("(void)", "static_cast<void>", "std::ignore")) and "timer.st" not in text:
            self.add(cursor, "(void)0", "dropped", drops=True)

    def condition(self, cursor, children):
        """Swapped branches: the condition says the opposite."""
        conditions = [child for child in children if child.kind.is_expression()]
        if not conditions or any(child.kind == Kind.DECL_STMT for child in children[:1]):
            return
        if children[0].kind == Kind.VAR_DECL:  # if (auto x = ...)
            return
        self.negated(conditions[0], "branch")

    def negated(self, cursor, kind):
        """Comparisons, negations and constants have changes of their own."""
        inner = cursor
        while inner.kind in (Kind.UNEXPOSED_EXPR, Kind.PAREN_EXPR) and len(list(inner.get_children())) == 1:
            inner = next(inner.get_children())
        text = self.text_of(cursor)
        if text.startswith("!") or inner.kind == Kind.CXX_BOOL_LITERAL_EXPR or self.operator(list(inner.get_children())):
            return
        self.add(cursor, f"!({text})", kind)


def place_of(path, name, cache):
    """Where the sites of a file are kept; they spare the syntax tree of a file that has not changed."""
    here = Path(__file__).read_bytes() + Path(path).read_bytes()
    return Path(cache) / (hashlib.sha1(here + name.encode()).hexdigest() + ".json")


def find_sites(path, name, arguments, cache):
    kept = place_of(path, name, cache)
    if kept.exists():
        return [Site(s["start"], s["end"], s["drops"], [(Mutant(**m), text) for m, text in s["changes"]])
                for s in json.loads(kept.read_text())]
    sites = Finder(path, name, arguments).find()
    kept.parent.mkdir(parents=True, exist_ok=True)
    kept.write_text(json.dumps([{"start": s.start, "end": s.end, "drops": s.drops,
                                 "changes": [(vars(m), text) for m, text in s.changes]} for s in sites]))
    return sites
