"""Mutation sites of C++ sources, for scripts/mutants.py: the stripped view of a file (comments, literals,
preprocessor lines and tracing left out), the sites each kind of mutation finds in it, their keys, and the
seeded sample. What the kinds are, and how keys and the sample are made, is told at the top of mutants.py."""
import hashlib
import os
import re

DEFAULT_FOLDERS = ["src/ports", "src/connections", "src/settings", "src/components"]
SOURCE_EXTENSIONS = (".cpp", ".cc", ".h", ".hpp")
TRACE_CALL = re.compile(r"\b(?:Log|LogData|LogDataFormat|LogV|LogDataFormatV)\s*\(")
IDENT = re.compile(r"[A-Za-z_]\w*")
NEGATION = {"==": "!=", "!=": "==", "<": ">=", "<=": ">", ">": "<=", ">=": "<"}
BOUNDARY = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
CONTROL_WORDS = {"if", "for", "while", "switch", "catch", "constexpr"}
SPECIFIERS = {"inline", "static", "virtual", "explicit", "constexpr", "friend", "extern"}
NOT_A_STATEMENT = {"else", "case", "default", "return", "public", "private", "protected"}


# ---------------------------------------------------------------------------------------------------------------
# Finding mutation sites


def strip_code(text):
    """The text with comments, string and character literals (their insides) and preprocessor lines blanked to
    spaces, newlines kept, so that offsets and line numbers stay those of the file."""
    out = list(text)
    n = len(text)

    def blank(a, b):
        for k in range(a, b):
            if out[k] != "\n":
                out[k] = " "

    i, line_start = 0, True
    while i < n:
        c = text[i]
        if c == "\n":
            line_start, i = True, i + 1
            continue
        if line_start and c == "#":
            j = i
            while j < n and not (text[j] == "\n" and text[j - 1] != "\\"):
                j += 1
            blank(i, j)
            i = j
            continue
        if not c.isspace():
            line_start = False
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j)
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            blank(i, j)
            i = j
        elif c == "R" and text.startswith('"', i + 1) and re.search(r"\w*$", text[max(0, i - 8):i]).group() in (
                "", "u8", "u", "U", "L"):
            m = re.match(r'R"([^(\s]{0,16})\(', text[i:])
            if not m:
                i += 1
                continue
            end = text.find(")" + m.group(1) + '"', i)
            end = n if end < 0 else end + len(m.group(1)) + 1
            blank(i + 2, end)
            i = end + 1
        elif c == '"' or (c == "'" and not (text[i - 1:i].isdigit() and text[i + 1:i + 2].isalnum())):
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            blank(i + 1, min(j, n))
            i = j + 1
        else:
            i += 1
    return "".join(out)


def partner(s, pos):
    """The offset of the bracket that pairs with the one at pos, looking forward from an opening one and
    backward from a closing one; -1 when there is none."""
    pairs = {"(": ")", "[": "]", "{": "}", ")": "(", "]": "[", "}": "{"}
    step, depth, k = (1 if s[pos] in "([{" else -1), 0, pos
    while 0 <= k < len(s):
        if s[k] == s[pos]:
            depth += 1
        elif s[k] == pairs[s[pos]]:
            depth -= 1
            if depth == 0:
                return k
        k += step
    return -1


class Source:
    """One file: its text, the stripped text, line offsets, the lines left alone (tracing, static_assert) and
    its blocks."""

    def __init__(self, path, text):
        self.path, self.text = path, text
        self.code = strip_code(text)
        self.line_starts = [0] + [m.end() for m in re.finditer("\n", text)]
        self.skip_lines = set()
        self.blocks = []  # (open, close, kind, returns) with kind namespace|class|init|control|bare|lambda|function
        self._find_blocks()
        self._find_skip_lines()

    def line_of(self, offset):
        lo, hi = 0, len(self.line_starts) - 1
        while lo < hi:
            mid = (lo + hi + 1) // 2
            if self.line_starts[mid] <= offset:
                lo = mid
            else:
                hi = mid - 1
        return lo + 1

    def line_text(self, line):
        start = self.line_starts[line - 1]
        end = self.text.find("\n", start)
        return self.text[start:len(self.text) if end < 0 else end]

    def _mark(self, a, b):
        self.skip_lines.update(range(self.line_of(a), self.line_of(b) + 1))

    def _find_skip_lines(self):
        code = self.code
        for m in TRACE_CALL.finditer(code):
            if code[:m.start()].rstrip().endswith((".", "->")):
                continue
            close = partner(code, m.end() - 1)
            self._mark(m.start(), close if close > 0 else m.end())
            # An `if` whose only statement is this call guards nothing but tracing.
            before = code[:m.start()].rstrip()
            if before.endswith(")"):
                cond_open = partner(code, len(before) - 1)
                if cond_open > 0 and re.search(r"\bif\s*$", code[:cond_open]):
                    self._mark(cond_open, m.start())
        for open_, close, kind, _ in self.blocks:
            body = range(self.line_of(open_) + 1, self.line_of(close))
            if kind == "control" and body and all(k in self.skip_lines or not self.code_line(k).strip()
                                                   for k in body):
                self.skip_lines.add(self.line_of(open_))
        for m in re.finditer(r"\bstatic_assert\s*\(", code):  # checked by the compiler, not by tests
            self._mark(m.start(), max(partner(code, m.end() - 1), m.end()))
        # A constant that only traces use (a trace level) is part of the tracing.
        for m in re.finditer(r"\bconst(?:expr)?\b[^;={}()]*?\b([A-Za-z_]\w*)\s*(?:\[\s*\])?\s*=", code):
            uses = [self.line_of(u.start()) for u in re.finditer(r"\b%s\b" % m.group(1), code)]
            decl = self.line_of(m.start(1))
            others = [k for k in uses if k != decl]
            if others and all(k in self.skip_lines for k in others):
                self.skip_lines.add(decl)

    def code_line(self, line):
        start = self.line_starts[line - 1]
        end = self.code.find("\n", start)
        return self.code[start:len(self.code) if end < 0 else end]

    def _find_blocks(self):
        stack = []
        for m in re.finditer(r"[{}]", self.code):
            if m.group() == "{":
                if stack and stack[-1][1] == "init":
                    stack.append((m.start(), "init", None))
                else:
                    stack.append((m.start(),) + self._classify(m.start()))
            elif stack:
                open_, kind, returns = stack.pop()
                self.blocks.append((open_, m.start(), kind, returns))

    def _classify(self, pos):
        """What the brace at pos opens, and for a function whether it returns a value."""
        code = self.code
        head_start, depth = pos, 0
        while head_start > 0 and (depth or code[head_start - 1] not in ";{}"):
            head_start -= 1
            depth += {")": 1, "(": -1}.get(code[head_start], 0)
        head = code[head_start:pos].strip()
        head = re.sub(r"^(?:public|private|protected)\s*:", "", head).strip()
        head = re.sub(r"^template\s*<[^;{}]*?>\s*(?=[A-Za-z_])", "", head)
        if re.match(r"(?:namespace|extern)\b", head):
            return "namespace", None
        if re.match(r"(?:typedef\s+)?(?:class|struct|union|enum)\b", head) and not head.endswith(")"):
            return "class", None
        bare = re.sub(r"(?:\s*(?:const|noexcept|override|final|mutable|->\s*[\w:<>,\s*&]+))*$", "", head)
        if not head or head[-1] in ";:":
            return "bare", None
        if re.search(r"\b(?:else|do|try)$", head):
            return "control", None
        if head.endswith("]"):
            return "lambda", None
        if not bare.endswith(")"):
            return "init", None
        paren = partner(bare, len(bare) - 1)
        before = bare[:paren].rstrip()
        if before.endswith("]") or before.endswith("mutable"):
            return "lambda", None
        words = IDENT.findall(before)
        if not words or words[-1] in CONTROL_WORDS:
            return ("control", None) if words else ("init", None)
        if before.endswith(("=", ",", "(", "return")):
            return "init", None
        if re.search(r"\boperator\b", bare):
            return "function", True
        first = bare.find("(")
        name = re.search(r"(~?[A-Za-z_][\w:~]*)\s*$", bare[:first])
        prefix = bare[:name.start()] if name else ""
        prefix_words = [w for w in IDENT.findall(re.sub(r"\[\[.*?\]\]", "", prefix)) if w not in SPECIFIERS]
        void = not prefix_words or ("void" in prefix_words and "*" not in prefix)
        return "function", not void

    def function_at(self, offset):
        """The innermost function whose body holds offset, passing through control and bare blocks: its
        block, or None when a lambda, class, initialiser or namespace comes first."""
        inner = sorted((b for b in self.blocks if b[0] < offset < b[1]), key=lambda b: b[0], reverse=True)
        for block in inner:
            if block[2] == "function":
                return block
            if block[2] not in ("control", "bare"):
                return None
        return None


def find_sites(src):
    """Every mutation site of one file: (op, start, end, replacement) with offsets into its text."""
    code, text, sites = src.code, src.text, []
    for m in re.finditer(r"(?<= )(==|!=|<=|>=|<|>)(?= )", code):
        if code[:m.start()].rstrip().endswith("operator"):
            continue
        sites.append(("flip-cmp", m.start(), m.end(), NEGATION[m.group()]))
        if m.group() in BOUNDARY:
            sites.append(("boundary", m.start(), m.end(), BOUNDARY[m.group()]))
    for m in re.finditer(r"(?<= )(&&|\|\|)(?= )", code):
        sites.append(("and-or", m.start(), m.end(), "||" if m.group() == "&&" else "&&"))
    for m in re.finditer(r"(?<![\w)\]!])!(?=[\w(])", code):
        sites.append(("negate", m.start(), m.end(), ""))
    for m in re.finditer(r"(?<![\w.'])(0[xX][0-9A-Fa-f]+|[0-9]+)([uUlL]{0,3})(?![\w.'])", code):
        if re.search(r"\)\s*(?:const\s*)?(?:override\s*)?=\s*$", code[:m.start()]):
            continue  # a pure virtual function's "= 0"
        digits = m.group(1)
        value = int(digits, 16) if digits[:2] in ("0x", "0X") else int(digits)
        for new in (value + 1, value - 1):
            if new < 0:
                continue
            if digits[:2] in ("0x", "0X"):
                hexed = "%0*x" % (len(digits) - 2, new)
                new_text = digits[:2] + (hexed.upper() if digits[2:].isupper() else hexed)
            else:
                new_text = str(new)
            sites.append(("const", m.start(1), m.end(1), new_text))
    for m in re.finditer(r"\bif\s*\(", code):
        close = partner(code, m.end() - 1)
        cond = code[m.end():close]
        if close > 0 and re.search(r"\w\s*\(", cond) and not re.search(r"(?<![=!<>])=(?!=)", cond):
            sites.append(("drop-check", m.end(), close, "(%s) && false" % text[m.end():close]))
    for line in range(1, len(src.line_starts) + 1):
        stripped = src.code_line(line)
        first = len(stripped) - len(stripped.lstrip())
        offset = src.line_starts[line - 1] + first
        if not stripped.strip() or stripped.lstrip()[0] in "{}":
            continue
        word = IDENT.match(stripped.lstrip())
        if not word or word.group() in NOT_A_STATEMENT or re.match(r"\w+\s*:(?!:)", stripped.lstrip()):
            continue
        before = code[:offset].rstrip()
        if not before or before[-1] not in ";{}":
            continue
        if before[-1] in "{}":
            brace = len(before) - 1
            if any(b[2] == "init" and brace in (b[0], b[1]) for b in src.blocks):
                continue
        function = src.function_at(offset)
        if function is not None:
            sites.append(("return-early", offset, offset, "return {}; " if function[3] else "return; "))
    return [s for s in sites if src.line_of(s[1]) not in src.skip_lines]


class Mutant:
    def __init__(self, path, src, op, start, end, new, seed, occurrence):
        self.path, self.op, self.start, self.end, self.new = path, op, start, end, new
        self.line = src.line_of(start)
        self.col = start - src.line_starts[self.line - 1]
        self.old = src.text[start:end]
        identity = "\0".join([str(seed), path, op, src.line_text(self.line).strip(), str(self.col), new,
                              str(occurrence)])
        self.key = hashlib.sha256(identity.encode("utf-8", "surrogateescape")).hexdigest()
        self.id = self.key[:8]
        self.number = 0
        last = src.line_of(max(start, end - 1))
        self.before = [src.line_text(k) for k in range(self.line, last + 1)]
        mutated = src.text[:start] + new + src.text[end:]
        tail = src.text[src.line_starts[last]:] if last < len(src.line_starts) else ""
        body = mutated[src.line_starts[self.line - 1]:len(mutated) - len(tail)]
        self.after = body.rstrip("\n").split("\n")

    def describe(self):
        what = "insert `%s`" % self.new.strip() if self.op == "return-early" else "`%s` -> `%s`" % (
            self.old if len(self.old) < 60 else self.old[:57] + "...", self.new if len(self.new) < 60 else
            self.new[:57] + "...")
        return "%s:%d  %-12s %s" % (self.path, self.line, self.op, what)


def list_files(tree, folders):
    files = []
    for folder in folders:
        for root, dirs, names in os.walk(os.path.join(tree, folder)):
            dirs[:] = sorted(d for d in dirs if d not in ("test", "tests", "testdata"))
            for name in sorted(names):
                stem = os.path.splitext(name)[0]
                if name.endswith(SOURCE_EXTENSIONS) and not re.search(r"(^|_)(test|fixture)(_|$)", stem):
                    files.append(os.path.relpath(os.path.join(root, name), tree))
    return sorted(set(files))


def read_text(path):
    with open(path, "rb") as f:
        return f.read().decode("utf-8", "surrogateescape")


def all_mutants(tree, folders, seed):
    mutants = []
    for path in list_files(tree, folders):
        src = Source(path, read_text(os.path.join(tree, path)))
        seen = {}
        for op, start, end, new in sorted(find_sites(src), key=lambda s: (s[1], s[0], s[3])):
            line = src.line_of(start)
            same = (op, src.line_text(line).strip(), start - src.line_starts[line - 1], new)
            seen[same] = seen.get(same, -1) + 1
            mutants.append(Mutant(path, src, op, start, end, new, seed, seen[same]))
    return mutants


def sample(mutants, size):
    """Each kind of mutation in turn, the smallest keys first: round r takes every kind's r-th site."""
    by_op = {}
    for m in sorted(mutants, key=lambda m: m.key):
        by_op.setdefault(m.op, []).append(m)
    chosen, rank = [], 0
    while len(chosen) < size and any(rank < len(sites) for sites in by_op.values()):
        round_ = sorted((sites[rank] for sites in by_op.values() if rank < len(sites)), key=lambda m: m.key)
        chosen += round_[:size - len(chosen)]
        rank += 1
    for number, m in enumerate(chosen, 1):
        m.number = number
    return chosen
