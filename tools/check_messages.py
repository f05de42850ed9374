#!/usr/bin/env python3
"""check_messages.py [--list | --finder] [DIRECTORY]

docs/messages.md explains every text that the library writes, and what the tools and the example
complain about. This reads the sources and the page, and fails when the page lacks a text that a
source can write, or has one that no source writes; also when an entry lacks one of its lines, the
finder is not what --finder prints, or the statuses are not those of the header. --list prints the
texts with their places.

How texts are found: what a function hands to a formatting call is a text. Where the format or one
of its %s is a parameter, the callers of that function write the text, each with what it hands over;
so on, up to where the words stand. A word that comes out of a variable stays "%s". Besides, every
literal with a blank in it that goes somewhere else counts as a text of its own, unless it is listed
below as being none: a new way of writing texts is noticed, not passed over.
"""

import os
import re
import subprocess
import sys
from pathlib import Path

PAGE = "docs/messages.md"
HEADER = "include/rm.h"
TOOLS_HEADING = "## Tools and example"  # from here on the page speaks of what is not the library
FIELDS = ("Where", "Severity", "Filled in", "Cause", "Remedy", "Result")
NEEDED = ("Severity", "Cause", "Remedy")  # the others where they say something
FINDER_BEGIN = "<!-- finder: tools/check_messages.py --finder -->"
FINDER_END = "<!-- end of finder -->"

# Functions of the platform that write a text, and which argument of theirs is the format.
FORMATTERS = {"printf": 0, "fprintf": 1}
# The text of a fatal error of the library's own follows this on its line. The page and the sources
# are compared without it.
FRAME = "    Specific problem: "

# Literals with a blank that are no texts: names and patterns.
NO_TEXTS = {
    "dynamic array tag",  # of a tag
    "[%d-%b-%y %H:%M:%S]  ",  # the stamp
    "-+ #0'I",  # flags of a conversion
    "-+ #0",
    " free",  # put in behind a block's line
}

# What is handed to these, in the tools and the example, is said to their users.
COMPLAINTS = {"tools": {"complain"}, "examples/catalogue": {"warn"}}

TOKEN = re.compile(
    r"""(?P<string>"(?:[^"\\\n]|\\.)*")
      | (?P<char>'(?:[^'\\\n]|\\.)*')
      | (?P<number>\.?[0-9](?:[eEpP][+-]|[0-9A-Za-z_.]|'(?=[0-9A-Fa-f]))*)
      | (?P<name>[A-Za-z_][A-Za-z_0-9]*)
      | (?P<other>\.\.\.|::|->|&&|\|\||<<|[^\sA-Za-z_0-9"'])""",
    re.VERBOSE,
)
ESCAPE = re.compile(r"\\(x[0-9A-Fa-f]+|[0-7]{1,3}|.)")
SIMPLE = {"n": "\n", "t": "\t", "r": "\r", "a": "\a", "b": "\b", "f": "\f", "v": "\v"}
CONVERSION = re.compile(r"%(?:%|[-+ #0']*(?:\*|[0-9]+)?(?:\.(?:\*|[0-9]+))?[hlLqjzt]*([A-Za-z]))")
# A literal that reads like a text: words apart, or the line of stars of a banner.
LOOSE = re.compile(r"\S\s+\S|[a-z:] +$|\*{3}")
NOT_CALLED = {"if", "for", "while", "switch", "return", "sizeof", "alignof", "decltype", "catch"}


def fail(text):
    print(f"check_messages.py: {text}", file=sys.stderr)
    sys.exit(2)


def unescape(literal):
    def one(match):
        text = match.group(1)
        if text[0] == "x":
            return chr(int(text[1:], 16))
        if text[0] in "01234567":
            return chr(int(text, 8))
        return SIMPLE.get(text, text)

    return ESCAPE.sub(one, literal[1:-1])


class Token:
    def __init__(self, kind, text, line):
        self.kind, self.text, self.line = kind, text, line


def preprocess(path):
    """The file without comments and with its own macros expanded. Nothing is included."""
    source = re.sub(r"(?m)^[ \t]*#[ \t]*include.*$", "", path.read_text(encoding="utf-8"))
    compiler = os.environ.get("CXX", "c++").split()
    run = subprocess.run(
        compiler + ["-E", "-x", "c++", "-std=c++20", "-"],
        input=source, capture_output=True, text=True, check=False,
    )
    if run.returncode != 0:
        fail(f"{path}: the preprocessor failed:\n{run.stderr}")
    return run.stdout


def tokens_of(path):
    """Tokens with their lines; literals that stand side by side are one."""
    tokens, line, own = [], 0, False
    for text in preprocess(path).split("\n"):
        mark = re.match(r'# (\d+) "([^"]*)"', text)
        if mark:
            line, own = int(mark.group(1)) - 1, mark.group(2) == "<stdin>"
            continue
        line += 1
        if not own or text.startswith("#"):
            continue
        for match in TOKEN.finditer(text):
            kind = match.lastgroup
            value = unescape(match.group()) if kind == "string" else match.group()
            if kind == "string" and tokens and tokens[-1].kind == "string":
                tokens[-1].text += value
            else:
                tokens.append(Token(kind, value, line))
    return tokens


def closers(tokens):
    """For each opening bracket its closing one, and the other way round."""
    pairs, open_at = {}, []
    for at, token in enumerate(tokens):
        if token.kind != "other":
            continue
        if token.text in "([{":
            open_at.append(at)
        elif token.text in ")]}" and open_at:
            pairs[at] = open_at.pop()
            pairs[pairs[at]] = at
    return pairs


def split_arguments(tokens, begin, end, pairs):
    """The arguments between two brackets, as (first, behind) each."""
    parts, start, at = [], begin + 1, begin + 1
    while at < end:
        token = tokens[at]
        if token.kind == "other" and token.text in "([{" and at in pairs:
            at = pairs[at]
        elif token.text == "," and token.kind == "other":
            parts.append((start, at))
            start = at + 1
        at += 1
    if end > begin + 1:
        parts.append((start, end))
    return parts


class Function:
    """A function or a named lambda, with its body."""

    def __init__(self, path, name, parameters, variadic, private):
        self.path, self.name, self.parameters = path, name, parameters
        self.variadic, self.private = variadic, private
        self.calls = []  # (name, line, arguments)
        self.texts = []  # (parts, line); a part is words, or the number of a parameter


def parameters_of(tokens, begin, end, pairs):
    names, variadic = [], False
    for first, behind in split_arguments(tokens, begin, end, pairs):
        words = [t.text for t in tokens[first:behind]]
        if words == ["..."]:
            variadic = True
            continue
        if "=" in words:
            words = words[: words.index("=")]
        named = [w for w in words if re.fullmatch(r"[A-Za-z_]\w*", w)]
        names.append(named[-1] if len(named) > 1 else "")
    return names, variadic


def function_before(tokens, brace, pairs):
    """Name and bracket of the function whose body begins at `brace`; None when none does."""
    at = brace - 1
    while at >= 0 and tokens[at].text in ("const", "noexcept", "override", "mutable"):
        at -= 1
    if at < 1 or tokens[at].text != ")" or at not in pairs:
        return None
    open_at = pairs[at]
    before = tokens[open_at - 1]
    if before.kind == "name" and before.text not in NOT_CALLED:
        return before.text, open_at
    if before.text == "]" and open_at - 1 in pairs:  # a lambda: NAME = [...](...) {
        bracket = pairs[open_at - 1]
        if bracket >= 2 and tokens[bracket - 1].text == "=":
            return tokens[bracket - 2].text, open_at
    return None


def argument(tokens, first, behind):
    """What is handed over: words, a name, or neither."""
    inside = tokens[first:behind]
    if len(inside) == 1 and inside[0].kind in ("string", "name"):
        return inside[0].kind, inside[0].text
    return "other", None


class Source:
    def __init__(self, root, path):
        self.name = str(path.relative_to(root))
        self.tokens = tokens_of(path)
        self.pairs = closers(self.tokens)
        self.functions, self.loose = [], []
        self.read()

    def anonymous(self, brace):
        before = self.tokens[brace - 1]
        return before.text == "namespace"

    def read(self):
        tokens, pairs = self.tokens, self.pairs
        inside, private, skip = [], [], {}  # open bodies, and open unnamed namespaces, by their end
        for at, token in enumerate(tokens):
            while inside and inside[-1][0] < at:
                inside.pop()
            while private and private[-1] < at:
                private.pop()
            if token.text == "{" and token.kind == "other" and at in pairs:
                if self.anonymous(at):
                    private.append(pairs[at])
                found = function_before(tokens, at, pairs)
                if found:
                    name, bracket = found
                    names, variadic = parameters_of(tokens, bracket, pairs[bracket], pairs)
                    function = Function(self.name, name, names, variadic, bool(private or inside))
                    self.functions.append(function)
                    inside.append((pairs[at], function))
            elif token.kind == "name" and self.is_call(at):
                bracket = at + 1
                if token.text == "static_assert":
                    skip[bracket] = pairs[bracket]
                arguments = [
                    argument(tokens, first, behind)
                    for first, behind in split_arguments(tokens, bracket, pairs[bracket], pairs)
                ]
                if inside:
                    inside[-1][1].calls.append((token.text, token.line, arguments))
        for at, token in enumerate(tokens):
            if token.kind == "string" and not any(b < at < e for b, e in skip.items()):
                self.loose.append((token.text, token.line))

    def is_call(self, at):
        following = at + 1
        return (
            following < len(self.tokens)
            and self.tokens[following].text == "("
            and self.tokens[following].kind == "other"
            and following in self.pairs
            and self.tokens[at].text not in NOT_CALLED
        )


def conversions(form):
    """The conversions of a format that take an argument, as (begin, end, letter)."""
    return [(m.start(), m.end(), m.group(1)) for m in CONVERSION.finditer(form) if m.group(1)]


def filled(form, arguments, parameters):
    """A format, with the words put in that are handed over, and the parameters marked."""
    parts, last = [], 0
    for number, (begin, end, letter) in enumerate(conversions(form)):
        kind, text = arguments[number] if number < len(arguments) else ("other", None)
        if letter != "s" or form[begin:end] != "%s":
            continue
        if kind == "string":
            parts += [form[last:begin], text]
        elif kind == "name" and text in parameters:
            parts += [form[last:begin], parameters.index(text)]
        else:
            continue
        last = end
    return merge(parts + [form[last:]])


def merge(parts):
    result = []
    for part in parts:
        if result and isinstance(part, str) and isinstance(result[-1], str):
            result[-1] += part
        elif part != "":
            result.append(part)
    return result


def texts_of_call(call, function, sinks, handed):
    """What a call writes, seen from the function that it stands in. `handed`: literals of it."""
    name, _, arguments = call
    result = []
    for what in sinks(name):
        handed.update(text for kind, text in arguments if kind == "string")
        if isinstance(what, int):  # a format and its arguments
            kind, text = arguments[what] if what < len(arguments) else ("other", None)
            if kind == "string":
                result.append(filled(text, arguments[what + 1 :], function.parameters))
            elif kind == "name" and text in function.parameters:
                result.append([function.parameters.index(text)])
            continue
        parts = []
        for part in what:
            if isinstance(part, str):
                parts.append(part)
                continue
            kind, text = arguments[part] if part < len(arguments) else ("other", None)
            if kind == "string":
                parts.append(text)
            elif kind == "name" and text in function.parameters:
                parts.append(function.parameters.index(text))
            else:
                parts.append("%s")
        result.append(merge(parts))
    return result


def normal(text):
    text = text.split("\n")[0]
    if text.startswith(FRAME) and text != FRAME + "%s":
        text = text[len(FRAME) :]
    return text.rstrip()


def library_texts(root):
    """Text -> its places."""
    paths = sorted(p for p in (root / "rm").rglob("*") if p.suffix in (".cpp", ".h"))
    sources = [Source(root, path) for path in paths]
    functions = [f for source in sources for f in source.functions]
    exported = set(re.findall(r"\b\w+", (root / HEADER).read_text(encoding="utf-8")))
    public, own, handed = {}, {}, set()
    for function in functions:
        target = own.setdefault(function.path, {}) if function.private else public
        target.setdefault(function.name, []).append(function)

    def sinks_for(path):
        def sinks(name):
            found = own.get(path, {}).get(name) or public.get(name, [])
            result = [FORMATTERS[name]] if name in FORMATTERS else []
            for function in found:
                if function.variadic and function.parameters:
                    result.append(len(function.parameters) - 1)
                else:
                    result += [p for p, _ in function.texts if any(isinstance(x, int) for x in p)]
            return result

        return sinks

    changed = True
    while changed:
        changed = False
        for function in functions:
            before = len(function.texts)
            for call in function.calls:
                for parts in texts_of_call(call, function, sinks_for(function.path), handed):
                    if (parts, call[1]) not in function.texts:
                        function.texts.append((parts, call[1]))
            changed = changed or len(function.texts) != before

    texts = {}

    def add(text, place):
        places = texts.setdefault(normal(text), [])
        if place not in places:
            places.append(place)

    called = {call[0] for function in functions for call in function.calls}
    for function in functions:
        by_hosts = not function.private and function.name in exported
        for parts, line in function.texts:
            if any(isinstance(part, int) for part in parts):
                # Written by the callers. What the library exports is called by hosts too, and what
                # nobody seems to call by a macro of a header.
                if function.name in called and not by_hosts:
                    continue
                if not any(isinstance(part, str) for part in parts):
                    continue
            text = "".join(part if isinstance(part, str) else "%s" for part in parts)
            if CONVERSION.sub("", text).strip():
                add(text, f"{function.path}:{line}")
    for source in sources:
        for literal, line in source.loose:
            if literal not in NO_TEXTS and literal not in handed and LOOSE.search(literal):
                add(literal, f"{source.name}:{line}")
    return texts


def said(tokens):
    """What an expression of words, joined by "+", says: "..." for what is put in."""
    parts = []
    for token in tokens:
        if token.kind == "string":
            parts.append(token.text)
        elif not parts or parts[-1] != "...":
            parts.append("...")
    words = [p for p in parts if p != "..."]
    if not words:
        return None
    # std::string("x") + f(y): the bracket around words is none that is put in
    while parts and parts[0] == "..." and tokens[0].text == "std":
        parts.pop(0)
        tokens = tokens[1:] if tokens[0].text != "std" else [Token("other", "", 0)]
    return re.sub(r"(?:\.\.\.)+", "...", "".join(parts))


def alternatives(tokens, first, behind, pairs):
    """The branches of `a ? b : c`, where the expression is one."""
    at, question = first, None
    while at < behind:
        token = tokens[at]
        if token.kind == "other" and token.text in "([{" and at in pairs:
            at = pairs[at]
        elif token.text == "?" and question is None:
            question = at
        elif token.text == ":" and question is not None:
            return alternatives(tokens, question + 1, at, pairs) + alternatives(
                tokens, at + 1, behind, pairs)
        at += 1
    return [(first, behind)]


def tool_texts(root):
    texts = {}
    for directory, names in COMPLAINTS.items():
        for path in sorted((root / directory).rglob("*.cpp")):
            source = Source(root, path)
            for at, token in enumerate(source.tokens):
                if token.kind != "name" or token.text not in names or not source.is_call(at):
                    continue
                arguments = split_arguments(source.tokens, at + 1, source.pairs[at + 1],
                                            source.pairs)
                if not arguments or source.tokens[at - 1].text == "void":
                    continue
                for first, behind in alternatives(source.tokens, *arguments[0], source.pairs):
                    text = said(source.tokens[first:behind])
                    if text and CONVERSION.sub("", normal(text)).strip():
                        texts.setdefault(normal(text), []).append(f"{source.name}:{token.line}")
    return texts


# ---- the page


class Entry:
    def __init__(self, title, line, library):
        self.title, self.line, self.library = title, line, library
        self.texts, self.fields = [], []


def read_page(path):
    entries, library, inside, entry = [], True, False, None
    for number, line in enumerate(path.read_text(encoding="utf-8").split("\n"), 1):
        if line.startswith("```"):
            inside = not inside
        elif inside:
            if entry is not None:  # else an example
                entry.texts.append((line, number))
        elif line.startswith("## "):
            library = library and line != TOOLS_HEADING
            entry = None
        elif line.startswith("### "):
            entry = Entry(line[4:].strip(), number, library)
            entries.append(entry)
        elif entry is not None:
            field = re.match(r"- \*\*([^*:]+):\*\*", line)
            if field:
                entry.fields.append(field.group(1))
    return [entry for entry in entries if entry.texts]


def anchor(title):
    """The name that a heading has as the target of a link."""
    return re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")


def sort_key(text):
    plain = re.sub(r"^[\W_]+", "", text)
    return (plain[:1].isalpha() is False, plain.casefold(), text)


def finder(entries):
    lines = ["| Text | Entry |", "|---|---|"]
    rows = []
    for entry in entries:
        if entry.library:
            rows += [(text.strip(), entry.title) for text, _ in entry.texts]
    for text, title in sorted(set(rows), key=lambda row: sort_key(row[0])):
        lines.append(f"| `{text}` | [{title}](#{anchor(title)}) |")
    return lines


def statuses(root):
    """The codes of the header's table: (name, value)."""
    header = (root / HEADER).read_text(encoding="utf-8")
    group = re.search(r"@defgroup rm_status\b(.*?)/\*\* @\} \*/", header, re.DOTALL)
    codes = re.findall(r"#define (RM_\w+) \(?(-?\d+)\)?", group.group(1) if group else "")
    return [(name, value) for name, value in codes if value != "0"]


def status_problems(root, lines):
    rows = set()
    for line in lines:
        cells = [cell.strip() for cell in line.split("|")]
        if len(cells) > 3 and re.fullmatch(r"-?\d+", cells[1]):
            rows.add((cells[2].strip("`"), cells[1]))
    codes = set(statuses(root))
    for name, value in sorted(codes - rows):
        yield f"{HEADER}: missing from the statuses of {PAGE}: {name} {value}"
    for name, value in sorted(rows - codes):
        yield f"{PAGE}: no status of {HEADER}: {name} {value}"


def check(root):
    page = root / PAGE
    if not page.exists():
        print(f"{PAGE}: there is no such page")
        return 1
    entries = read_page(page)
    problems = []
    for library, texts in ((True, library_texts(root)), (False, tool_texts(root))):
        listed = {}
        for entry in entries:
            if entry.library == library:
                for text, line in entry.texts:
                    if normal(text) in listed:
                        problems.append(f"{PAGE}:{line}: listed twice: {text}")
                    listed[normal(text)] = line
        for text in sorted(set(texts) - set(listed)):
            problems.append(f"{texts[text][0]}: missing from {PAGE}: {text}")
        for text in sorted(set(listed) - set(texts)):
            problems.append(f"{PAGE}:{listed[text]}: no source writes this: {text}")
    for entry in entries:
        for field in NEEDED if entry.library else NEEDED[1:]:
            if field not in entry.fields:
                problems.append(f'{PAGE}:{entry.line}: the entry "{entry.title}" has no {field}')
        for field in entry.fields:
            if field not in FIELDS:
                problems.append(f'{PAGE}:{entry.line}: "{field}" is no line of an entry')
    lines = page.read_text(encoding="utf-8").split("\n")
    if FINDER_BEGIN not in lines or FINDER_END not in lines:
        problems.append(f"{PAGE}: the finder is missing")
    else:
        there = lines[lines.index(FINDER_BEGIN) + 1 : lines.index(FINDER_END)]
        if [line for line in there if line] != finder(entries):
            problems.append(f"{PAGE}: the finder is not what {Path(__file__).name} --finder prints")
    problems += status_problems(root, lines)
    for problem in problems:
        print(problem)
    if not problems:
        count = sum(len(entry.texts) for entry in entries)
        print(f"{count} texts in {len(entries)} entries: page and sources agree")
    return 1 if problems else 0


def main():
    arguments = sys.argv[1:]
    action = "check"
    if arguments and arguments[0] in ("--list", "--finder"):
        action = arguments.pop(0)
    if len(arguments) > 1 or (arguments and arguments[0].startswith("-")):
        print("usage: check_messages.py [--list | --finder] [DIRECTORY]", file=sys.stderr)
        return 2
    root = Path(arguments[0] if arguments else Path(__file__).parent.parent).resolve()
    if action == "--list":
        for texts in (library_texts(root), tool_texts(root)):
            for text in sorted(texts, key=sort_key):
                print(f"{text}\t{' '.join(texts[text])}")
        return 0
    if action == "--finder":
        print("\n".join(finder(read_page(root / PAGE))))
        return 0
    return check(root)


if __name__ == "__main__":
    sys.exit(main())
