"""Reads a public header: what it declares, and what its comments say about that.

The comments have a fixed layout. The first comment of a file belongs to the module. A comment that
stands alone and begins with "--- Title ---" opens a section. Any other comment at the start of a line
documents the declarations up to the next blank line; a comment after a declaration documents that
declaration. A blank line separates paragraphs. Lines with a deeper indent are an example or a table;
"  name: text", where name is a parameter of the declaration, describes that parameter. A paragraph
that begins with "Returns" describes the result, and sentences such as "Any thread." or "Signal-safe."
say where a function may be called."""

import pathlib
import re
from dataclasses import dataclass, field

ROOT = pathlib.Path(__file__).resolve().parent.parent
HEADERS = sorted(ROOT.glob("include/*.h")) + [ROOT / "evlog/evlog.h", ROOT / "sim/vornsim.h"]
LANDING_PAGE = ROOT / "docs/reference.md"

CONTEXT = re.compile(
    r"(Any thread|Signal-safe|Not signal-safe|Not (safe )?(for|in a) signal|Safe in|Blocks?( |,)|May block|Never (waits|blocks)"
    r"|Not a cancellation|No cancellation|None is|Neither locks|Lock-free|Logarithmic time|Constant time|Takes time)"
)


@dataclass
class Block:
    """A paragraph, a list entry, an example or a table of a comment."""

    kind: str  # "text", "item", "code", "plain" or "table"
    text: str = ""
    rows: list = field(default_factory=list)  # of a table: pairs of a term and its text


@dataclass
class Comment:
    blocks: list = field(default_factory=list)
    parameters: dict = field(default_factory=dict)
    result: list = field(default_factory=list)  # blocks
    context: str = ""

    def summary(self):
        """The first sentence."""
        first = self.blocks or self.result
        return sentences(first[0].text)[0] if first else ""


@dataclass
class Declaration:
    text: str  # without comments
    comment: Comment
    kind: str  # "function", "macro", "type", "variable"
    name: str
    source: str  # with the comments in it
    parameters: list = field(default_factory=list)
    returns: bool = False


@dataclass
class Section:
    title: str
    comment: Comment
    declarations: list = field(default_factory=list)


@dataclass
class Header:
    path: pathlib.Path
    comment: Comment
    sections: list = field(default_factory=list)

    @property
    def module(self):
        return self.path.stem

    def declarations(self):
        return [one for section in self.sections for one in section.declarations]


def sentences(text):
    return re.split(r"(?<=\.)(?<!e\.g\.) ", text)


def titles():
    """The module titles of the landing page, by module."""
    return dict(re.findall(r"^- `(\w+)\.h`: (.*)$", LANDING_PAGE.read_text(encoding="utf-8"), re.M))


def parse_block(lines):
    """Lines with a deeper indent: an example in C, a table of terms, or plain text."""
    indent = min(len(line) - len(line.lstrip()) for line in lines if line)
    lines = [line[indent:] for line in lines]
    text = "\n".join(lines)
    if re.search(r"[;{]$", text, re.M):
        return Block("code", text)
    rows = []
    for line in lines:
        row = re.fullmatch(r" ?(\S(?:.*?\S)?) {2,}(\S.*)", line)
        if row and not line.startswith("  "):
            rows.append([row[1], row[2]])
        elif rows and line.startswith("  "):
            rows[-1][1] += " " + line.strip()
        else:
            return Block("plain", text)
    return Block("table", rows=rows)


def parse_comment(text, parameters=(), of_function=False):
    """A comment's text, between its delimiters, as blocks."""
    lines = [re.sub(r"^ \*(?: |$)", "", line).rstrip() for line in text.strip("\n").split("\n")]
    lines[0] = lines[0].lstrip()
    comment, kind, held = Comment(), "", []
    blocks = []

    def close():
        nonlocal held, kind
        if held and kind == "block":
            blocks.append(parse_block(held))
        elif held:
            blocks.append(Block(kind, " ".join(held)))
        held, kind = [], ""

    parameter = ""
    for line in lines:
        named = re.fullmatch(r"  (\w+|\.\.\.): (.*)", line)
        if named and named[1] in parameters:
            close()
            parameter = named[1]
            comment.parameters[parameter] = named[2]
        elif parameter and line.startswith("    "):
            comment.parameters[parameter] += " " + line.strip()
        elif not line:
            if kind == "block":
                held.append(line)
            else:
                close()
            parameter = ""
        elif line.startswith("  ") and kind != "item":
            if kind != "block":
                close()
            kind = "block"
            held.append(line)
            parameter = ""
        else:
            parameter = ""
            if kind == "block" or line.startswith("- ") or re.match(r"Returns?\b", line):
                while held and not held[-1]:
                    held.pop()
                close()
            if line.startswith("- "):
                kind, line = "item", line[2:]
            kind = kind or "text"
            held.append(line.strip())
    while held and not held[-1]:
        held.pop()
    close()
    if of_function:
        sort(comment, blocks)
    else:
        comment.blocks = blocks
    return comment


def sort(comment, blocks):
    """Splits the blocks into description, result and context."""
    target = comment.blocks
    context = []
    for block in blocks:
        if block.kind != "text":
            target.append(block)
            continue
        if re.match(r"Returns?\b", block.text):
            target = comment.result
        kept = []
        for sentence in sentences(block.text):
            (context if kept + target and CONTEXT.match(sentence) else kept).append(sentence)
        if kept:
            target.append(Block("text", " ".join(kept)))
    comment.context = " ".join(context)


def plain(text):
    return re.sub(r"\s*/\*.*?\*/", "", text, flags=re.S)


def split_parameters(text):
    parts, depth = [""], 0
    for character in text:
        depth += (character == "(") - (character == ")")
        if character == "," and depth == 0:
            parts.append("")
        else:
            parts[-1] += character
    return [part.strip() for part in parts if part.strip() not in ("", "void")]


def parameter_name(text):
    if text == "...":
        return text
    match = re.search(r"\(\*(\w+)\)", text) or re.search(r"(\w+)(?:\[\w*\])?$", text)
    return match[1]


NESTED = r"((?:[^()]|\((?:[^()]|\([^()]*\))*\))*)"


def declare(source):
    """The declaration in source."""
    text = plain(source).strip()
    one = Declaration(text, Comment(), "type", "", source)
    macro = re.match(r"#define (\w+)(?:\(([^)]*)\))?", text)
    function = re.match(r"(?:(?:VORN|EVLOG)_API|static inline(?: __attribute__\(\(\w+\)\))?) +([^(;]*?)(\w+)\(" + NESTED + r"\)", text)
    if macro:
        one.kind, one.name = "macro", macro[1]
        one.parameters = split_parameters(macro[2] or "")
    elif text.startswith("VORN_API extern"):
        one.kind, one.name = "variable", re.search(r"(\w+)(?:\[\w+\])?;$", text)[1]
    elif function:
        one.kind, one.name = "function", function[2]
        one.parameters = [parameter_name(part) for part in split_parameters(" ".join(function[3].split()))]
        one.returns = function[1].strip() != "void"
    elif text.startswith("typedef"):
        pointer = None if "{" in text else re.search(r"\(\*(\w+)\)", text)
        one.name = (pointer or re.search(r"(\w+);$", text))[1]
    return one


def describe(declarations, text):
    """Assigns the comment above the declarations to each of them."""
    names = {name for one in declarations for name in one.parameters}
    for one in declarations:
        one.comment = parse_comment(text, names, one.kind == "function" or bool(one.parameters))
        told = one.comment.parameters
        one.comment.parameters = {name: told[name] for name in one.parameters if name in told}


def is_whole(source):
    text = plain(source)
    if text.startswith("#"):
        return not text.rstrip("\n").endswith("\\")
    return text.count("{") == text.count("}") and re.search(r"[;}]\s*$", text) is not None


def parse(path):
    """The header at path."""
    text = path.read_text(encoding="utf-8")
    header = Header(path, Comment())
    section = Section("", Comment())
    header.sections.append(section)
    comment, source, first, open_ones = "", "", True, []
    # Comments at the start of a line, and the single lines between them.
    for part in re.finditer(r"^/\*((?s:.*?))\*/\n|^.*\n", text, re.M):
        if part[1] is not None and not source:
            if "SPDX-License-Identifier" in part[1]:
                continue
            title = re.match(r"\s*--- (.*?) ---\s*", part[1], re.S)
            if first:
                header.comment, first = parse_comment(part[1].strip()), False
            elif title:
                rest = part[1][title.end() :].lstrip("* \n")
                section = Section(re.sub(r"\s+(\* )?", " ", title[1]), parse_comment(rest) if rest else Comment())
                header.sections.append(section)
            else:
                comment, open_ones = part[1].strip(), []
            continue
        line = part[0]
        if not source:
            if not line.strip():
                comment = ""
            if not line.strip() or re.match(r'#(?!define \w+[( ])|(#define )?VORN_(BEGIN|END)_DECLS|\}|extern "C"|struct \w+;', line):
                continue
        source += line
        if is_whole(source):
            one = declare(source)
            section.declarations.append(one)
            trailing = re.search(r"/\* (.*) \*/\n$", source)
            if comment:
                open_ones.append(one)
                describe(open_ones, comment)
            elif trailing:
                describe([one], trailing[1][0].upper() + trailing[1][1:] + ".")
            source = ""
    return header


def known_names():
    """Every name that the headers document, with the module that declares it."""
    names = {}
    for path in HEADERS:
        header = parse(path)
        for one in header.declarations():
            if one.name:
                names[one.name] = header.module
            if "enum" in one.text:
                names.update(dict.fromkeys(re.findall(r"^ +([A-Z]\w+)\b.*/\*", one.source, re.M), header.module))
    return names
