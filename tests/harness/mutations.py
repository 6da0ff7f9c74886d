"""Finds what can be changed in a source, one thing at a time, with the eyes of a compiler: libclang tells a template's
bracket from a comparison, and a statement's end from a semicolon in a text."""

import dataclasses
import hashlib
import re

from clang.cindex import CursorKind, Index, TokenKind

# Each operator with what it becomes. Equality has one opposite; an order also moves its boundary.
COMPARISONS = {
    "==": ["!="],
    "!=": ["=="],
    "<": ["<=", ">="],
    "<=": ["<", ">"],
    ">": [">=", "<="],
    ">=": [">", "<"],
}
ARITHMETIC = {
    "+": ["-"],
    "-": ["+"],
    "*": ["/"],
    "/": ["*"],
    "%": ["/"],
    "++": ["--"],
    "--": ["++"],
    "+=": ["-=", "="],
    "-=": ["+=", "="],
    "<<": [">>"],
    ">>": ["<<"],
    ">>=": ["<<=", "="],
    "&": ["|"],
    "|": ["&"],
}
BOOLEANS = {"true": "false", "false": "true", "&&": "||", "||": "&&"}
# Constants and calls that have a name, each with a neighbour that compiles in its place.
NAMES = {
    "LOG_ERR": "LOG_WARNING",
    "LOG_WARNING": "LOG_ERR",
    "LOG_INFO": "LOG_NOTICE",
    "LOG_DAEMON": "LOG_USER",
    "SIGTERM": "SIGHUP",
    "SIGINT": "SIGHUP",
    "O_RDONLY": "O_WRONLY",
    "O_DIRECTORY": "O_RDONLY",
    "EINTR": "EIO",
    "CURL_GLOBAL_ALL": "CURL_GLOBAL_NOTHING",
    "CURLE_OK": "CURLE_WRITE_ERROR",
    "ARCHIVE_OK": "ARCHIVE_WARN",
    "ARCHIVE_EOF": "ARCHIVE_OK",
    "AE_IFREG": "AE_IFDIR",
    "EVP_sha256": "EVP_sha1",
    "min": "max",
    "front": "back",
    "back": "front",
    "find_first_not_of": "find_last_not_of",
    "find_last_not_of": "find_first_not_of",
    "exists": "is_regular_file",
    "remove_all": "remove",
    "create_directories": "create_directory",
    "last_write_time": "file_size",
}
OPERATORS = (
    CursorKind.BINARY_OPERATOR,
    CursorKind.COMPOUND_ASSIGNMENT_OPERATOR,
    CursorKind.UNARY_OPERATOR,
    CursorKind.CALL_EXPR,
    CursorKind.DECL_REF_EXPR,
)
STATEMENTS = (
    CursorKind.CALL_EXPR,
    CursorKind.BINARY_OPERATOR,
    CursorKind.COMPOUND_ASSIGNMENT_OPERATOR,
    CursorKind.UNARY_OPERATOR,
    CursorKind.UNEXPOSED_EXPR,
    CursorKind.CXX_STATIC_CAST_EXPR,
)
JUMPS = (CursorKind.RETURN_STMT, CursorKind.CONTINUE_STMT, CursorKind.BREAK_STMT)
BODIES = (CursorKind.COMPOUND_STMT, CursorKind.CASE_STMT, CursorKind.DEFAULT_STMT)
FUNCTIONS = (
    CursorKind.FUNCTION_DECL,
    CursorKind.CXX_METHOD,
    CursorKind.CONSTRUCTOR,
    CursorKind.DESTRUCTOR,
    CursorKind.LAMBDA_EXPR,
)


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
    source: str  # digest of the source, so that results of a former one are told apart
    code: str  # the line that is changed, or begins to be

    @property
    def id(self):
        return f"{self.source}:{self.file}:{self.start}-{self.end}:{self.after}"

    @property
    def key(self):
        """What the mutant is called as long as its line stays as it is, wherever that moves."""
        return self.file, self.code, self.change

    @property
    def change(self):
        def on_one_line(text):
            return re.sub(r"\s+", " ", text).strip()

        return f"{self.kind}: {on_one_line(self.before)} -> {on_one_line(self.after)}"

    def apply(self, source):
        return source[: self.start] + self.after.encode() + source[self.end :]

    def __str__(self):
        return f"{self.file}:{self.line}:{self.column}: {self.change}"


class _Finder:
    def __init__(self, path, options):
        self.path = path
        self.source = path.read_bytes()
        self.digest = hashlib.sha256(self.source).hexdigest()[:12]
        unit = Index.create().parse(str(path), args=options)
        assert not unit.diagnostics, [str(d) for d in unit.diagnostics]
        self.tokens = [t for t in unit.get_tokens(extent=unit.cursor.extent) if t.kind != TokenKind.COMMENT]
        self.found = {}
        self._look_at_tokens()
        self._look_below(unit.cursor)

    def mutants(self):
        return sorted(self.found.values(), key=lambda m: (m.start, m.end, m.kind, m.after))

    def _add(self, kind, start, end, after):
        before = self.source[start:end].decode()
        if before == after:
            return
        line = self.source.count(b"\n", 0, start) + 1
        column = start - (self.source.rfind(b"\n", 0, start) + 1) + 1
        code = self.source.splitlines()[line - 1].decode().strip()
        mutant = Mutant(self.path.name, line, column, kind, start, end, before, after, self.digest, code)
        self.found.setdefault((start, end, after), mutant)

    def _text(self, start, end):
        return self.source[start:end].decode()

    # Tokens: operators, literals, names.

    def _look_at_tokens(self):
        directives = {n for n, line in enumerate(self.source.split(b"\n"), 1) if line.startswith(b"#")}
        for token in self.tokens:
            if token.location.line in directives:
                continue
            start, end = token.extent.start.offset, token.extent.end.offset
            if token.kind == TokenKind.LITERAL:
                self._literal(token, start, end)
            elif token.kind == TokenKind.IDENTIFIER and token.spelling in NAMES:
                self._add("constant" if token.spelling.isupper() else "call", start, end, NAMES[token.spelling])
            elif token.spelling in ("true", "false"):
                self._add("boolean", start, end, BOOLEANS[token.spelling])
            elif token.kind == TokenKind.PUNCTUATION and token.cursor.kind in OPERATORS:
                self._operator(token, start, end)

    def _literal(self, token, start, end):
        text = token.spelling
        if text.startswith('"'):
            self._add("text", start, end, '"~' + text[1:])
            if len(text) == 3:  # a separator may be left out
                self._add("text", start, end, '""')
        elif text.startswith("'"):
            self._add("constant", start, end, "'~'")
        else:
            number = re.match(r"(0x[0-9A-Fa-f]+|[0-9]+)(.*)$", text)
            value = int(number[1], 0)
            for other in {value + 1, value - 1 if value > 0 else value + 1, 0 if value > 2 else value + 1}:
                self._add("constant", start, end, f"{other}{number[2]}")

    def _operator(self, token, start, end):
        text = token.spelling
        cursor = token.cursor
        overloaded = cursor.kind in (CursorKind.CALL_EXPR, CursorKind.DECL_REF_EXPR)
        if overloaded and f"operator{text}" not in cursor.spelling:
            return
        if text in COMPARISONS:
            for other in COMPARISONS[text]:
                self._add("comparison", start, end, other)
        elif text in BOOLEANS:
            self._add("boolean", start, end, BOOLEANS[text])
        elif text == "!":
            self._add("negation", start, end, "")
        elif text in ARITHMETIC and not overloaded and not self._is_prefix(cursor, text):
            for other in ARITHMETIC[text]:
                self._add("arithmetic", start, end, other)

    @staticmethod
    def _is_prefix(cursor, text):
        return cursor.kind == CursorKind.UNARY_OPERATOR and text in ("&", "*", "+", "-")

    # The tree: conditions, operands, statements and their order.

    def _look_below(self, cursor, function_body=None):
        for child in cursor.get_children():
            if child.location.file and child.location.file.name != str(self.path):
                continue
            body = child if child.kind == CursorKind.COMPOUND_STMT and cursor.kind in FUNCTIONS else None
            self._look_at(child, body)
            self._look_below(child, body)

    def _look_at(self, cursor, body):
        if cursor.kind in (CursorKind.IF_STMT, CursorKind.CONDITIONAL_OPERATOR):
            self._condition(next(cursor.get_children()))
        elif cursor.kind == CursorKind.BINARY_OPERATOR or cursor.spelling in ("operator+", "operator|"):
            self._operands(cursor)
        if cursor.kind in BODIES:
            self._statements(list(cursor.get_children()), is_function=body is not None)

    def _condition(self, condition):
        """Makes a condition always hold, and never; a comparison and a negation are turned round elsewhere."""
        start, end = self._range(condition)
        while condition.kind == CursorKind.UNEXPOSED_EXPR and len(list(condition.get_children())) == 1:
            (condition,) = condition.get_children()
        operator = self._split(condition)[1]
        negated = self._text(start, end).startswith("!") and operator not in ("&&", "||")
        if condition.kind.is_expression() and operator not in COMPARISONS and not negated:
            self._add("condition", start, end, "true")
            self._add("condition", start, end, "false")

    def _operands(self, cursor):
        """Leaves one operand of a conjunction, of a set of flags or of a joined text out."""
        left, operator, right = self._split(cursor)
        if operator in ("&&", "||", "|") or cursor.spelling == "operator+":
            self._add("operand", left[0], right[0], "")
            self._add("operand", left[1], right[1], "")

    def _split(self, cursor):
        """The ranges of both operands of an expression and the operator between them, which is empty without."""
        parts = [child for child in cursor.get_children() if child.kind.is_expression()]
        if len(parts) < 2:
            return (0, 0), "", (0, 0)
        left, right = self._range(parts[0]), self._range(parts[-1])
        return left, self._text(left[1], right[0]).strip(), right

    def _range(self, cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def _statement_range(self, cursor):
        start, end = self._range(cursor)
        while self.source[end - 1 : end] != b";":
            end += 1
        return start, end

    def _statements(self, children, is_function):
        for child in children:
            last = is_function and child == children[-1]
            if child.kind in STATEMENTS or (child.kind in JUMPS and not last):
                self._add("statement", *self._statement_range(child), ";")
        for first, second in zip(children, children[1:]):
            if self._may_swap(first) and self._may_swap(second):
                (a, b), (c, d) = self._statement_range(first), self._statement_range(second)
                self._add("order", a, d, self._text(c, d) + self._text(b, c) + self._text(a, b))

    def _may_swap(self, cursor):
        """Whether a statement calls something: the order of mere assignments, or of lambdas, matters to nothing."""
        return (
            cursor.kind in (*STATEMENTS, CursorKind.DECL_STMT)
            and "(" in self._text(*self._range(cursor))
            and not any(child.kind == CursorKind.LAMBDA_EXPR for child in cursor.walk_preorder())
        )


def mutants_of(path, options):
    """All mutants of one source, in its order."""
    return _Finder(path, options).mutants()
