"""Finds what can be changed in a C++ source, one thing at a time. libclang distinguishes a template's
bracket from a comparison, and the end of a statement from a semicolon in a text."""

import dataclasses
import hashlib
import re

from clang.cindex import CursorKind, Index, TokenKind


def table(text):
    """Lines or parts of "one other..." as {one: [other...]}."""
    return {words[0]: words[1:] for words in map(str.split, re.split("[;\n]", text)) if words}


def kinds(names):
    return [getattr(CursorKind, name) for name in names.split()]


# Each operator with what it becomes. Equality has one opposite; an order also moves its boundary.
COMPARISONS = table("== !=; != ==; < <= >=; <= < >; > >= <=; >= > <")
ARITHMETIC = table("+ -; - +; * /; / *; % /; ++ --; -- ++; += -= =; -= += =; << >>; >> <<; >>= <<= =; & |; | &")
BOOLEANS = table("true false; false true; && ||; || &&")
# Constants and calls that have a name, each with a neighbour that compiles in its place.
NAMES = table(
    """
    LOG_ERR LOG_WARNING; LOG_WARNING LOG_ERR; LOG_INFO LOG_NOTICE; LOG_DAEMON LOG_USER
    SIGTERM SIGHUP; SIGINT SIGHUP; O_RDONLY O_WRONLY; O_DIRECTORY O_RDONLY; EINTR EIO
    CURL_GLOBAL_ALL CURL_GLOBAL_NOTHING; CURLE_OK CURLE_WRITE_ERROR
    ARCHIVE_OK ARCHIVE_WARN; ARCHIVE_EOF ARCHIVE_OK; AE_IFREG AE_IFDIR; EVP_sha256 EVP_sha1
    min max; front back; back front
    find_first_not_of find_last_not_of; find_last_not_of find_first_not_of
    exists is_regular_file; remove_all remove; create_directories create_directory; last_write_time file_size
    """
)

UNARY, CALL, NAME = kinds("UNARY_OPERATOR CALL_EXPR DECL_REF_EXPR")
COMPUTING = kinds("BINARY_OPERATOR COMPOUND_ASSIGNMENT_OPERATOR UNARY_OPERATOR CALL_EXPR")
OPERATORS = [*COMPUTING, NAME]
STATEMENTS = [*COMPUTING, *kinds("UNEXPOSED_EXPR CXX_STATIC_CAST_EXPR")]
JUMPS = kinds("RETURN_STMT CONTINUE_STMT BREAK_STMT")
BODIES = kinds("COMPOUND_STMT CASE_STMT DEFAULT_STMT")
FUNCTIONS = kinds("FUNCTION_DECL CXX_METHOD CONSTRUCTOR DESTRUCTOR LAMBDA_EXPR")


@dataclasses.dataclass(frozen=True)
class Mutant:
    """One change of one source: the bytes from start to end become the text after."""

    file: str
    line: int
    column: int
    kind: str
    start: int
    end: int
    before: str
    after: str
    source: str  # digest of the source: results of another version of it do not count
    code: str  # the line that is changed, or the first of them

    @property
    def id(self):
        return f"{self.source}:{self.file}:{self.start}-{self.end}:{self.after}"

    @property
    def key(self):
        """A name that stays as long as the text of the line stays, wherever the line moves."""
        return self.file, self.code, self.change

    @property
    def change(self):
        before, after = (" ".join(text.split()) for text in (self.before, self.after))
        return f"{self.kind}: {before} -> {after}"

    def apply(self, source):
        return source[: self.start] + self.after.encode() + source[self.end :]

    def __str__(self):
        return f"{self.file}:{self.line}:{self.column}: {self.change}"


def extent(cursor):
    return cursor.extent.start.offset, cursor.extent.end.offset


class Finder:
    def __init__(self, path, options):
        self.path = path
        self.source = path.read_bytes()
        self.digest = hashlib.sha256(self.source).hexdigest()[:12]
        self.found = {}
        unit = Index.create().parse(str(path), args=options)
        assert not unit.diagnostics, [str(d) for d in unit.diagnostics]
        lines = self.source.splitlines()
        for token in unit.get_tokens(extent=unit.cursor.extent):
            if token.kind != TokenKind.COMMENT and not lines[token.location.line - 1].startswith(b"#"):
                self._look_at_token(token, token.spelling, *extent(token))
        self._look_below(unit.cursor)

    def _add(self, kind, start, end, after):
        """Adds a change; of two with the same result the first gives the kind."""
        before = self._text(start, end)
        if before != after:
            line = self.source.count(b"\n", 0, start) + 1
            column = start - self.source.rfind(b"\n", 0, start)
            code = self.source.splitlines()[line - 1].decode().strip()
            mutant = Mutant(self.path.name, line, column, kind, start, end, before, after, self.digest, code)
            self.found.setdefault((start, end, after), mutant)

    def _text(self, start, end):
        return self.source[start:end].decode()

    # Tokens: operators, literals, names.

    def _look_at_token(self, token, text, start, end):
        if token.kind == TokenKind.LITERAL:
            self._literal(text, start, end)
        elif token.kind == TokenKind.IDENTIFIER and text in NAMES:
            self._add("constant" if text.isupper() else "call", start, end, *NAMES[text])
        elif text in ("true", "false"):
            self._add("boolean", start, end, *BOOLEANS[text])
        elif token.kind == TokenKind.PUNCTUATION and token.cursor.kind in OPERATORS:
            self._operator(token.cursor, text, start, end)

    def _literal(self, text, start, end):
        if text.startswith('"'):
            self._add("text", start, end, '"~' + text[1:])
            if len(text) == 3:  # a separator may be left out
                self._add("text", start, end, '""')
        elif text.startswith("'"):
            self._add("constant", start, end, "'~'")
        else:
            digits, suffix = re.match(r"(0x[0-9A-Fa-f]+|[0-9]+)(.*)$", text).groups()
            value = int(digits, 0)
            for other in {value + 1, abs(value - 1), 0 if value > 2 else value + 1}:
                self._add("constant", start, end, f"{other}{suffix}")

    def _operator(self, cursor, text, start, end):
        overloaded = cursor.kind in (CALL, NAME)
        prefix = cursor.kind == UNARY and text in ("&", "*", "+", "-")
        if overloaded and f"operator{text}" not in cursor.spelling:
            return
        if text == "!":
            self._add("negation", start, end, "")
        for other in COMPARISONS.get(text, []):
            self._add("comparison", start, end, other)
        for other in BOOLEANS.get(text, []):
            self._add("boolean", start, end, other)
        for other in [] if overloaded or prefix else ARITHMETIC.get(text, []):
            self._add("arithmetic", start, end, other)

    # The tree: conditions, operands, statements and their order.

    def _look_below(self, cursor):
        for child in cursor.get_children():
            if child.location.file and child.location.file.name != str(self.path):
                continue
            if child.kind in kinds("IF_STMT CONDITIONAL_OPERATOR"):
                self._condition(next(child.get_children()))
            elif child.kind == CursorKind.BINARY_OPERATOR or child.spelling in ("operator+", "operator|"):
                self._operands(child)
            if child.kind in BODIES:
                self._statements(list(child.get_children()), is_function=cursor.kind in FUNCTIONS)
            self._look_below(child)

    def _condition(self, condition):
        """Makes a condition hold always, and never. Comparisons and negations are inverted elsewhere."""
        start, end = extent(condition)
        while condition.kind == CursorKind.UNEXPOSED_EXPR and len(list(condition.get_children())) == 1:
            (condition,) = condition.get_children()
        operator = self._split(condition)[1]
        negated = self._text(start, end).startswith("!") and operator not in ("&&", "||")
        if condition.kind.is_expression() and operator not in COMPARISONS and not negated:
            self._add("condition", start, end, "true")
            self._add("condition", start, end, "false")

    def _operands(self, cursor):
        """Leaves one operand out of a conjunction, a set of flags or a joined text."""
        left, operator, right = self._split(cursor)
        if operator in ("&&", "||", "|") or cursor.spelling == "operator+":
            self._add("operand", left[0], right[0], "")
            self._add("operand", left[1], right[1], "")

    def _split(self, cursor):
        """The extents of both operands of an expression and the operator between them; it is empty without two."""
        parts = [extent(child) for child in cursor.get_children() if child.kind.is_expression()]
        if len(parts) < 2:
            return (0, 0), "", (0, 0)
        return parts[0], self._text(parts[0][1], parts[-1][0]).strip(), parts[-1]

    def _statement(self, cursor):
        start, end = extent(cursor)
        return start, self.source.index(b";", end - 1) + 1

    def _statements(self, children, is_function):
        for child in children:
            last = is_function and child == children[-1]
            if child.kind in STATEMENTS or (child.kind in JUMPS and not last):
                self._add("statement", *self._statement(child), ";")
        for first, second in zip(children, children[1:]):
            if self._calls(first) and self._calls(second):
                (a, b), (c, d) = self._statement(first), self._statement(second)
                self._add("order", a, d, self._text(c, d) + self._text(b, c) + self._text(a, b))

    def _calls(self, cursor):
        """Whether a statement calls something. The order of other statements, and of lambdas, has no effect."""
        return (
            cursor.kind in [*STATEMENTS, CursorKind.DECL_STMT]
            and "(" in self._text(*extent(cursor))
            and not any(child.kind == CursorKind.LAMBDA_EXPR for child in cursor.walk_preorder())
        )


def mutants_of(path, options):
    """All mutants of one source, in its order."""
    return sorted(Finder(path, options).found.values(), key=lambda m: (m.start, m.end, m.kind, m.after))
