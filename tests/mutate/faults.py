"""Which single faults can be planted in a source: C++ by its tokens, Python by its tokens and its syntax tree.

A fault is a piece of text put in the place of another. It is known by the file, the function, the lines that it changes
before and after (white space made even), and a number when a function has the same lines twice: not by line numbers, so
that its name stays when lines move.
"""

import ast
import collections
import hashlib
import io
import re
import tokenize

Token = collections.namedtuple("Token", "kind text start end")
RELATIONAL = {"<": ("<=", ">"), "<=": ("<", ">"), ">": (">=", "<"), ">=": (">", "<"), "==": ("!=",), "!=": ("==",)}
ARITHMETIC = {"+": ("-",), "-": ("+",), "*": ("/",), "/": ("*",), "%": ("/",), "&": ("|",), "|": ("&",), "^": ("&",),
              "<<": (">>",), ">>": ("<<",), "+=": ("-=",), "-=": ("+=",), "|=": ("&=",), "&=": ("|=",), "*=": ("/=",),
              "/=": ("*=",), "<<=": (">>=",), ">>=": ("<<=",), "//": ("*",)}
SIZED_CALLS = {"memcpy", "memmove", "memset", "memcmp", "strncmp", "strnlen", "strndup", "read", "pread", "write",
               "pwrite", "recv", "send", "fwrite", "fread", "memchr", "malloc", "calloc", "realloc"}
# Hints to the compiler or the memory, and lines that only the compiler reads.
WITHOUT_FAULTS = {"static_assert", "reserve", "__builtin_expect", "alignas"}
# How often a kind is drawn, beside the others that a file has.
WEIGHTS = {"relational": 3, "arithmetic": 3, "logical": 3, "constant": 3, "return": 3, "condition": 3,
           "deletion": 4, "swap": 1, "length": 2}

CXX = re.compile(r'''
    (?P<space>\s+) | (?P<comment>//[^\n]*|/\*.*?\*/) | (?P<directive>^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
  | (?P<string>(?:u8|[uUL])?R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)" | (?:u8|[uUL])?"(?:[^"\\\n]|\\.)*")
  | (?P<char>[uUL]?'(?:[^'\\\n]|\\.)+')
  | (?P<number>(?:0[xX][0-9a-fA-F']+|0[bB][01']+|\d[\d']*(?:\.\d*)?(?:[eE][-+]?\d+)?|\.\d+(?:[eE][-+]?\d+)?)\w*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<op><=>|<<=|>>=|->\*|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||\+=|-=|\*=|/=|%=|&=|\|=|\^=|.)
''', re.VERBOSE | re.MULTILINE | re.DOTALL)

NOT_A_CALL = {"if", "while", "for", "switch", "return", "sizeof", "catch", "case", "else", "do", "using", "typedef",
              "struct", "class", "enum", "goto", "try", "throw", "new", "delete", "const", "auto", "static",
              "constexpr", "template", "operator", "alignof", "decltype", "noexcept", "defined", "requires",
              "static_assert"}

# What follows the name that a call or an assignment begins with.
AFTER_A_NAME = {"(", "=", ".", "->", "[", "::", "++", "--"}


class Fault(collections.namedtuple("Fault", "path function kind line before after number start end text")):
    """`text` stands for the characters [start, end) of the file `path`; the rest is what it is known by."""

    @property
    def key(self):
        return self.path, self.function, self.before, self.after, self.number

    @property
    def name(self):
        return hashlib.sha256("\0".join(map(str, self.key)).encode()).hexdigest()[:10]

    def apply(self, source):
        return source[:self.start] + self.text + source[self.end:]


def even(text):
    return " ".join(text.split())


class _Source:
    """What the two languages share: edits in, faults out."""

    def __init__(self, path, text):
        self.path, self.text = path, text
        self.faults = []
        self.seen = collections.Counter()
        self.begin_of_line = [0] + [match.end() for match in re.finditer("\n", text)]

    def line_of(self, position):
        low, high = 0, len(self.begin_of_line)
        while high - low > 1:
            middle = (low + high) // 2
            low, high = (middle, high) if self.begin_of_line[middle] <= position else (low, middle)
        return low

    def add(self, kind, function, start, end, text):
        first, last = self.line_of(start), self.line_of(max(start, end - 1))
        begin = self.begin_of_line[first]
        stop = self.begin_of_line[last + 1] if last + 1 < len(self.begin_of_line) else len(self.text)
        # Deleted lines stay as empty ones, so that messages name the lines of the original.
        text += "\n" * (self.text.count("\n", start, end) - text.count("\n"))
        before, after = even(self.text[begin:stop]), even(self.text[begin:start] + text + self.text[end:stop])
        if before == after or text == self.text[start:end]:
            return
        self.seen[function, before, after] += 1
        self.faults.append(Fault(self.path, function, kind, first + 1, before, after,
                                 self.seen[function, before, after], start, end, text))


class _Cxx(_Source):
    def __init__(self, path, text):
        super().__init__(path, text)
        self.tokens = [Token(match.lastgroup if match.lastgroup != "mark" else "string", match.group(), match.start(),
                             match.end())
                       for match in CXX.finditer(text)]
        self.tokens = [token for token in self.tokens if token.kind not in ("space", "comment", "directive")]
        self.partner = self._pair()
        self.place = self._places()
        self.lines = {self.line_of(token.start) for token, place in zip(self.tokens, self.place) if place[0]}
        self._find()

    def _pair(self):
        partner, open_ones = {}, []
        for i, token in enumerate(self.tokens):
            if token.kind == "op" and token.text in "([{":
                open_ones.append(i)
            elif token.kind == "op" and token.text in ")]}" and open_ones:
                j = open_ones.pop()
                partner[i], partner[j] = j, i
        return partner

    def _places(self):
        """For each token: the function it stands in, or none; whether it may be changed at all."""
        places = [("", False)] * len(self.tokens)
        i, begin = 0, 0  # where the declaration began
        while i < len(self.tokens):
            token = self.tokens[i]
            if token.text == ";" or token.text == "}":
                begin = i + 1
            elif token.text == "{" and i in self.partner:
                declared = self.tokens[begin:i]
                names = {t.text for t in declared}
                before = self.tokens[i - 1].text if i else ""
                is_function = before in (")", "const", "noexcept", "override") and "(" in names
                if is_function:
                    called = [a.text for a, b in zip(declared, declared[1:])
                              if a.kind == "name" and b.text == "(" and not a.text.startswith("__")
                              and a.text not in ("noexcept", "decltype", "requires")]
                    name = called[0] if called else "?"
                    for j in range(i, self.partner[i] + 1):
                        places[j] = (name, True)
                    i = self.partner[i]
                    begin = i + 1
                elif before == "=" or before == "]" or "=" in names:
                    for j in range(begin, self.partner[i] + 1):
                        places[j] = ("", True)
                    i = self.partner[i]
                else:
                    begin = i + 1
            elif token.text == "=" and not self.path.endswith(".h"):
                j = i
                while j < len(self.tokens) and self.tokens[j].text not in (";", "{", "}"):
                    places[j] = ("", True)
                    j += 1
            i += 1
        for i, token in enumerate(self.tokens[:-1]):
            if token.text in WITHOUT_FAULTS and self.tokens[i + 1].text == "(" and i + 1 in self.partner:
                for j in range(i, self.partner[i + 1] + 1):
                    places[j] = (places[j][0], False)
        return places

    def _is_binary(self, i):
        token = self.tokens[i]
        return self.text[token.start - 1].isspace() and self.text[token.end:token.end + 1].isspace()

    def _arguments(self, i):
        """The (first, last) token of each argument of the call whose "(" is token i."""
        arguments, first, j = [], i + 1, i + 1
        while j < self.partner[i]:
            if j in self.partner and self.partner[j] > j:
                j = self.partner[j]
            elif self.tokens[j].text == ",":
                arguments.append((first, j - 1))
                first = j + 1
            j += 1
        if first <= self.partner[i] - 1:
            arguments.append((first, self.partner[i] - 1))
        return arguments

    def _source(self, first, last):
        return self.text[self.tokens[first].start:self.tokens[last].end]

    def _end_of_statement(self, i):
        while i < len(self.tokens) and self.tokens[i].text != ";":
            if self.tokens[i].text in (")", "]", "}"):
                return None
            i = self.partner.get(i, i) + 1
        return i if i < len(self.tokens) else None

    def _find(self):
        for i, token in enumerate(self.tokens):
            function, allowed = self.place[i]
            if not allowed:
                continue

            def put(kind, text, first=i, last=i, function=function):
                self.add(kind, function, self.tokens[first].start, self.tokens[last].end, text)

            if token.kind == "number":
                self._number(token, put)
            if token.kind == "string" and re.match(r'"[2345]\d\d ', token.text):
                put("return", '"' + str(1000 - int(token.text[1:4])) + token.text[4:])
            if not function:
                continue
            if token.kind == "char" and len(token.text) == 3 and chr(ord(token.text[1]) ^ 1) not in "'\\\"":
                put("constant", f"'{chr(ord(token.text[1]) ^ 1)}'")
            elif token.text in ("true", "false"):
                put("return" if self.tokens[i - 1].text == "return" else "constant",
                    "false" if token.text == "true" else "true")
            elif token.kind == "op" and i and self._is_binary(i):
                if token.text in RELATIONAL:
                    for other in RELATIONAL[token.text]:
                        put("relational", other)
                elif token.text in ARITHMETIC:
                    if "string" not in (self.tokens[i - 1].kind, self.tokens[i + 1].kind):
                        put("arithmetic", ARITHMETIC[token.text][0])
                elif token.text in ("&&", "||"):
                    put("logical", "||" if token.text == "&&" else "&&")
            elif token.text in ("++", "--"):
                put("arithmetic", "--" if token.text == "++" else "++")
            elif token.text == "!":
                put("condition", "")
            elif token.text == "return":
                self._return(i, put)
            elif token.text in ("if", "while") and self.tokens[i + 1].text == "(":
                self._condition(i, put)
            elif token.text == "(" and self.tokens[i - 1].kind == "name" and self.tokens[i - 1].text not in NOT_A_CALL:
                self._call(i, put)
            if self.tokens[i - 1].text in (";", "{", "}", ":", ")") and self.place[i - 1][0]:
                self._deletion(i, put)

    @staticmethod
    def _number(token, put):
        match = re.fullmatch(r"(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlLzZ]*)", token.text)
        if match:
            digits = match.group(1).replace("'", "")
            is_hex = digits[:2] in ("0x", "0X")
            value = int(digits, 16 if is_hex else 10)
            for other in {value + 1, value - 1} - {-1}:
                put("constant", (hex(other) if is_hex else str(other)) + match.group(2))

    def _return(self, i, put):
        end = self._end_of_statement(i + 1)
        if end is None or end == i + 1:
            return
        text = self._source(i + 1, end - 1)
        if re.fullmatch(r"-?\d+", text):
            put("return", "-1" if text == "0" else "0", i + 1, end - 1)
        elif text == "nullptr":
            put("return", '"fault"', i + 1, end - 1)
        elif self.tokens[i + 1].kind == "string" and end == i + 2:
            put("return", "nullptr", i + 1, end - 1)
        elif text not in ("true", "false"):
            if re.search(r"&&|\|\||[=!<>]=| [<>] |^!", text):
                put("return", f"!({text})", i + 1, end - 1)
            else:
                put("return", "{}", i + 1, end - 1)

    def _condition(self, i, put):
        end = self.partner.get(i + 1)
        if end is None:
            return
        inner = self._source(i + 2, end - 1)
        if ";" in inner or re.search(r"^[\w:<>\s]+[*&]*\s*(const\s+)?\w+ = ", inner):
            return
        put("condition", f"!({inner})", i + 2, end - 1)

    def _call(self, i, put):
        if i not in self.partner:
            return
        arguments = self._arguments(i)
        for (first, last), (second, end) in zip(arguments, arguments[1:]):
            a, b = self._source(first, last), self._source(second, end)
            if a != b:
                put("swap", f"{b}, {a}", first, end)
        if self.tokens[i - 1].text in SIZED_CALLS and arguments:
            for first, last in arguments[2:3] or arguments[-1:]:
                text = self._source(first, last)
                for change in ("- 1", "+ 1"):
                    put("length", f"({text}) {change}", first, last)

    def _deletion(self, i, put):
        """A statement that begins at token i and can go: a call, an assignment, a check in one line, a jump."""
        token, previous = self.tokens[i], self.tokens[i - 1].text
        if previous == ")":
            opened = self.partner.get(i - 1, 0)
            if self.tokens[opened - 1].text not in ("if", "while", "for"):
                return
        elif previous == ":" and self.text[self.tokens[i - 1].start - 1].isspace():
            return  # of a conditional expression or a range
        elif previous == ";" and self._is_in_parentheses(i):
            return
        end = self._end_of_statement(i)
        if end is None:
            return
        if token.text == "if":
            condition = self.partner.get(i + 1)
            if condition is None or self.tokens[condition + 1].text in ("{", "if", "for", "while") or \
                    end + 1 < len(self.tokens) and self.tokens[end + 1].text == "else":
                return
            put("deletion", ";", i, end)
        elif token.text in ("break", "continue"):
            put("deletion", ";", i, end)
        elif token.text in ("static_cast", "*", "++", "--", "(") or token.kind == "name" and \
                token.text not in NOT_A_CALL and self.tokens[i + 1].text in AFTER_A_NAME \
                or self.tokens[i + 1].text in ARITHMETIC and self.tokens[i + 1].text.endswith("="):
            text = self._source(i, end)
            if not re.match(r"[\w:]+(<[^;]*>)? [*&]?\w+[ ;({=]", text):
                put("deletion", ";", i, end)

    def _is_in_parentheses(self, i):
        """Whether token i is a part of the head of a for."""
        depth = 0
        for j in range(i - 1, -1, -1):
            text = self.tokens[j].text
            if text == ")":
                depth += 1
            elif text == "(":
                if depth == 0:
                    return True
                depth -= 1
            elif text in "{}":
                return False
        return False


class _Python(_Source):
    def __init__(self, path, text):
        super().__init__(path, text)
        self.tree = ast.parse(text)
        self.functions = sorted(
            ((node.lineno, node.end_lineno, node.name) for node in ast.walk(self.tree)
             if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef))), key=lambda place: place[0])
        self.lines = set()
        for first, last, _ in self.functions:
            self.lines.update(number for number in range(first, last)
                              if text[self.begin_of_line[number]:].split("\n", 1)[0].strip())
        self._find_in_tokens()
        self._find_in_tree()

    def _function(self, line):
        names = [name for first, last, name in self.functions if first <= line <= last]
        return names[-1] if names else ""

    def _at(self, line, column):
        begin = self.begin_of_line[line - 1]
        return begin + len(self.text[begin:].split("\n", 1)[0].encode()[:column].decode())

    def _find_in_tokens(self):
        for token in tokenize.generate_tokens(io.StringIO(self.text).readline):
            function = self._function(token.start[0])
            start = self.begin_of_line[token.start[0] - 1] + token.start[1]
            end = start + len(token.string)

            def put(kind, text, function=function, start=start, end=end):
                self.add(kind, function, start, end, text)

            if token.type == tokenize.NUMBER and re.fullmatch(r"0[xX][0-9a-fA-F]+|\d+", token.string):
                value = int(token.string, 0)
                for other in {value + 1, value - 1} - {-1}:
                    put("constant", hex(other) if token.string[:2].lower() == "0x" else str(other))
            elif not function:
                continue
            elif token.type == tokenize.OP and self.text[start - 1] == " " and self.text[end:end + 1] == " ":
                for kind, table in (("relational", RELATIONAL), ("arithmetic", ARITHMETIC)):
                    for other in table.get(token.string, ())[:2 if kind == "relational" else 1]:
                        put(kind, other)
            elif token.string in ("and", "or"):
                put("logical", "or" if token.string == "and" else "and")
            elif token.string in ("True", "False"):
                put("constant", "False" if token.string == "True" else "True")
            elif token.string == "not" and self.text[end:end + 4] != " in " and self.text[start - 3:start] != "is ":
                put("condition", "")

    def _span(self, node):
        return self._at(node.lineno, node.col_offset), self._at(node.end_lineno, node.end_col_offset)

    def _find_in_tree(self):
        for node in ast.walk(self.tree):
            if not hasattr(node, "lineno"):
                continue
            function = self._function(node.lineno)
            if not function:
                continue
            start, end = self._span(node)
            if isinstance(node, (ast.If, ast.While)):
                first, last = self._span(node.test)
                self.add("condition", function, first, last, f"not ({self.text[first:last]})")
                if isinstance(node, ast.If) and len(node.body) == 1 and not node.orelse and \
                        isinstance(node.body[0], (ast.Raise, ast.Return, ast.Continue, ast.Break)):
                    self.add("deletion", function, start, end, "pass")
            elif isinstance(node, ast.Return) and node.value is not None:
                first, last = self._span(node.value)
                text = self.text[first:last]
                if isinstance(node.value, (ast.Compare, ast.BoolOp)):
                    self.add("return", function, first, last, f"not ({text})")
                elif text != "None":
                    self.add("return", function, first, last, "None")
            elif isinstance(node, (ast.Assign, ast.AugAssign)) or \
                    isinstance(node, ast.Expr) and isinstance(node.value, ast.Call):
                self.add("deletion", function, start, end, "pass")
            elif isinstance(node, ast.Call) and not any(isinstance(a, ast.Starred) for a in node.args):
                for a, b in zip(node.args, node.args[1:]):
                    (first, second), (third, last) = self._span(a), self._span(b)
                    swapped = f"{self.text[third:last]}, {self.text[first:second]}"
                    self.add("swap", function, first, last, swapped)


def find(path, text):
    """All faults of a source in the order of its text, and how many lines of it can have one."""
    source = (_Python if path.endswith(".py") else _Cxx)(path, text)
    return sorted(source.faults, key=lambda fault: (fault.start, fault.end, fault.text)), len(source.lines)
