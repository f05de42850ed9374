#!/usr/bin/env python3
"""man_pages.py XML_DIRECTORY MAN_DIRECTORY

Makes manual pages of what Doxygen has read out of the public header: in section 3 one for each
function and each variable, in section 7 one for each family of calls and one for the conventions.
Doxygen's own have a page for a family only. Fails when a function does not say whether it can be
fatal, which Doxygen does not ask for.
"""

import os
import re
import sys
import time
import xml.etree.ElementTree as ElementTree
from pathlib import Path

HEADER = "rm.h"
CONVENTIONS = "rm_conventions"
SYSTEM = "_rm"
FATAL_WORDS = re.compile("memory|lock|syscall|mode")
NAME = re.compile(r"(?<!\S)\S*(?:_|%|=|[a-z][A-Z])\S*")
VOLUME = "Resource Manager"
BLOCKS = ("parameterlist", "simplesect", "itemizedlist", "orderedlist", "table", "programlisting",
          "verbatim", "sect1")
# The sections of a function's page, in their order, by the titles that the comments have.
SECTIONS = (("return", "RETURN VALUES"), ("Fatal", "FATAL ERRORS"), ("Locks", "LOCKS"),
            ("Memory", "MEMORY"), ("Log", "LOG"))


def escaped(text):
    return text.replace("\\", "\\e").replace("-", "\\-") if text else ""


def collapsed(text):
    return re.sub(r"\s+", " ", text)


class Names:
    """What the identifiers of the XML lead to."""

    def __init__(self, xml):
        self.functions, self.variables, self.pages = {}, {}, {}
        for path in sorted(xml.glob("group__*.xml")) + [xml / f"{CONVENTIONS}.xml"]:
            compound = ElementTree.parse(path).getroot().find("compounddef")
            self.pages[compound.get("id")] = compound.findtext("compoundname")
            for section in compound.iter("sect1"):
                self.pages[section.get("id")] = CONVENTIONS
            for member in compound.iter("memberdef"):
                kind = {"function": self.functions, "variable": self.variables}.get(
                    member.get("kind"))
                if kind is not None:
                    kind[member.get("id")] = member.findtext("name")

    def of(self, reference, words):
        target = reference.get("refid")
        if target in self.functions:
            return rf"\fB{escaped(self.functions[target])}\fP(3)"
        if target in self.variables:
            return rf"\fB{escaped(self.variables[target])}\fP(3)"
        if target in self.pages:
            return rf"\(lq{words}\(rq in \fB{escaped(self.pages[target])}\fP(7)"
        return rf"\fB{words}\fP" if reference.get("kindref") == "member" else words


class Writer:
    def __init__(self, names):
        self.names, self.lines = names, []

    # ---- text

    def inline(self, element):
        """The words of an element, without the blocks in it."""
        words = escaped(element.text)
        for child in element:
            if child.tag not in BLOCKS:
                words += self.styled(child)
            words += escaped(child.tail)
        return words

    def styled(self, element):
        words = self.inline(element)
        if element.tag == "ref":
            return self.names.of(element, words)
        if element.tag in ("bold", "computeroutput"):
            return rf"\fB{words}\fP"
        if element.tag == "emphasis":
            return rf"\fI{words}\fP"
        return {"ndash": r"\(en", "mdash": r"\(em", "nonbreakablespace": r"\ ", "sp": " "}.get(
            element.tag, words)

    def text(self, words):
        # A name in two pieces is not found by a search.
        words = NAME.sub(r"\\%\g<0>", collapsed(words).strip())
        if words:
            # A line that begins with a dot or a quote would be taken for a request.
            self.lines.append(("\\&" if words[0] in ".'" else "") + words)

    def request(self, line):
        self.lines.append(line)

    def section(self, title):
        self.request(f".Sh {title}")

    # ---- blocks

    def flow(self, paragraphs, first=True):
        """Paragraphs with the lists and tables in them; no parameters and no named sections."""
        for paragraph in paragraphs:
            words = escaped(paragraph.text)
            starts = words.strip() or (len(paragraph) and paragraph[0].tag not in BLOCKS)
            if starts and not first:
                self.request(".Pp")
            first = False
            for child in paragraph:
                if child.tag in BLOCKS:
                    self.text(words)
                    words = ""
                    self.block(child)
                else:
                    words += self.styled(child)
                words += escaped(child.tail)
            self.text(words)

    def block(self, element):
        if element.tag in ("itemizedlist", "orderedlist"):
            self.request(".Bl -enum" if element.tag == "orderedlist" else ".Bl -bullet")
            for item in element.findall("listitem"):
                self.request(".It")
                self.flow(item.findall("para"))
            self.request(".El")
        elif element.tag == "table":
            self.table(element)
        elif element.tag == "programlisting":
            self.literal("\n".join("".join(self.in_order(line))
                                   for line in element.findall("codeline")))
        elif element.tag == "verbatim":
            self.literal(element.text)

    def in_order(self, element):
        if element.tag == "sp":
            yield " "
        yield element.text or ""
        for child in element:
            yield from self.in_order(child)
            yield child.tail or ""

    def literal(self, text):
        self.request(".Bd -literal")
        for line in text.strip("\n").split("\n"):
            line = escaped(line.rstrip())
            self.lines.append(("\\&" if line[:1] in (".", "'") else "") + line)
        self.request(".Ed")

    def table(self, element):
        rows = [[self.cell(entry) for entry in row.findall("entry")]
                for row in element.findall("row")]
        columns = max(len(row) for row in rows)
        # The widest column is broken to what the others leave.
        widths = [max(len(row[at]) for row in rows if at < len(row)) for at in range(columns)]
        broken = widths.index(max(widths))
        self.request(".Pp")
        self.request(".TS")
        self.request("allbox;")
        self.request(" ".join(["lb"] * columns))
        self.request(" ".join("lx" if at == broken else "l" for at in range(columns)) + ".")
        for row in rows:
            self.lines.append("\t".join(f"T{{\n{cell}\nT}}" if at == broken else cell
                                        for at, cell in enumerate(row)))
        self.request(".TE")
        self.request(".sp")  # a paragraph behind a table makes no distance

    def cell(self, entry):
        words = collapsed(" ".join(self.inline(p) for p in entry.findall("para"))).strip()
        return ("\\&" if words[:1] in (".", "'") else "") + words

    # ---- pages

    def begin(self, title, section, date):
        # The first line asks for the table formatter.
        self.lines = ["'\\\" t", f".Dd {date}", f".Dt {title} {section}", f".Os {SYSTEM}",
                      f".ds doc-volume-operating-system {VOLUME}", f".ds doc-volume {VOLUME}"]

    def name(self, name, brief):
        self.section("NAME")
        self.request(f".Nm {name}")
        brief = brief[0].lower() + brief[1:] if not re.match(r"[A-Z]{2}", brief) else brief
        self.request(f".Nd {brief.rstrip('.')}")

    def include(self):
        self.section("SYNOPSIS")
        self.request(f".In {HEADER}")

    def prototype(self, member):
        kind = collapsed("".join(member.find("type").itertext())).strip()
        self.request(f".Ft {escaped(kind)}")
        self.request(f".Fo {member.findtext('name')}")
        for parameter in member.findall("param"):
            form = collapsed("".join(parameter.find("type").itertext())).strip()
            name = parameter.findtext("declname") or ""
            array = parameter.findtext("array") or ""
            glue = "" if not name or form.endswith("*") else " "
            form = escaped(f"{form}{glue}{name}{array}")
            self.request(f'.Fa "{form}"')
        if not member.findall("param"):
            self.request(".Fa void")
        self.request(".Fc")

    def see_also(self, pages):
        self.section("SEE ALSO")
        for at, (name, section) in enumerate(pages):
            self.request(f".Xr {name} {section}" + (" ," if at + 1 < len(pages) else ""))

    def save(self, path):
        text = "\n".join(self.lines) + "\n"
        path.write_text(text, encoding="utf-8")


def paragraphs_of(element):
    return element.find("detaileddescription").findall("para")


def sections_of(paragraphs):
    """The named sections of a description: title -> element."""
    found = {}
    for paragraph in paragraphs:
        for section in paragraph.findall("simplesect"):
            found[section.findtext("title") or section.get("kind")] = section
    return found


def without_sections(paragraphs):
    """The description alone."""
    result = []
    for paragraph in paragraphs:
        copy = ElementTree.Element("para")
        copy.text = paragraph.text
        for child in paragraph:
            if child.tag not in ("simplesect", "parameterlist"):
                copy.append(child)
        if len(copy) or (copy.text or "").strip():
            result.append(copy)
    return result


def brief_of(member, writer):
    """The first sentence."""
    words = collapsed(writer.inline(paragraphs_of(member)[0])).strip()
    plain = re.sub(r"\\f[BIP]", "", words)
    return re.match(r".*?[.:](?= |$)|.*$", plain).group().rstrip(".:")


def log_texts(section, writer):
    """A list of the texts: they stand in quotes, and a semicolon ends what is said of each."""
    words = collapsed(" ".join(writer.inline(p) for p in section.findall("para"))).strip()
    return re.findall(r'(?:"[^"]*"|[^";])+', words)


def write_log(writer, section):
    texts = log_texts(section, writer)
    if len(texts) < 2:
        writer.flow(section.findall("para"))
        return
    writer.request(".Bl -bullet -compact")
    for text in texts:
        writer.request(".It")
        writer.text(text)
    writer.request(".El")


def function_page(writer, member, date):
    name = member.findtext("name")
    paragraphs = paragraphs_of(member)
    writer.begin(name.upper(), 3, date)
    writer.name(name, brief_of(member, writer))
    writer.include()
    writer.prototype(member)
    writer.section("DESCRIPTION")
    writer.flow(without_sections(paragraphs))
    parameters = [p for paragraph in paragraphs for p in paragraph.findall("parameterlist")]
    if parameters:
        writer.section("PARAMETERS")
        writer.request(".Bl -tag -width Ds")
        for item in parameters[0].findall("parameteritem"):
            field = item.find("parameternamelist/parametername")
            direction = field.get("direction")
            what = {"out": " (output)", "inout": " (input and output)"}.get(direction, "")
            writer.request(f".It Fa {escaped(field.text)}{' No' + what if what else ''}")
            writer.flow(item.findall("parameterdescription/para"))
        writer.request(".El")
    sections = sections_of(paragraphs)
    if "Fatal" not in sections:
        sys.exit(f"man_pages.py: {HEADER}: {name}() does not say whether it can be fatal")
    for title, heading in SECTIONS:
        if title in sections:
            writer.section(heading)
            if title == "Log":
                write_log(writer, sections[title])
            else:
                writer.flow(sections[title].findall("para"))
            if title == "Fatal" and FATAL_WORDS.match(writer.lines[-1]):
                writer.request(".Pp")
                writer.text(r"What the words mean: \(lqFATAL ERRORS\(rq in "
                            rf"\fB{CONVENTIONS}\fP(7).")


def variable_page(writer, member, date):
    name = member.findtext("name")
    kind = collapsed("".join(member.find("type").itertext())).strip()
    writer.begin(name.upper(), 3, date)
    writer.name(name, brief_of(member, writer))
    writer.include()
    writer.request(f".Vt extern {escaped(kind)} {escaped(name)} ;")
    writer.section("DESCRIPTION")
    writer.flow(without_sections(paragraphs_of(member)))


def members(compound, kind):
    """In the order of the header."""
    found = [m for m in compound.iter("memberdef") if m.get("kind") == kind]
    return sorted(found, key=lambda m: int(m.find("location").get("line")))


def family_page(writer, compound, xml, date):
    name, title = compound.findtext("compoundname"), compound.findtext("title")
    paragraphs = paragraphs_of(compound)
    writer.begin(name.upper(), 7, date)
    writer.name(name, title)
    functions = members(compound, "function")
    variables = members(compound, "variable")
    writer.include()
    for function in functions:
        writer.prototype(function)
    for variable in variables:
        kind = collapsed("".join(variable.find("type").itertext())).strip()
        writer.request(f".Vt extern {escaped(kind)} {escaped(variable.findtext('name'))} ;")
    writer.section("DESCRIPTION")
    writer.flow(without_sections(paragraphs))
    constants = members(compound, "define")
    if constants:
        writer.section("CONSTANTS")
        writer.request(".Bl -tag -width Ds")
        for constant in constants:
            value = collapsed(constant.findtext("initializer") or "").strip()
            writer.request(f".It Dv {escaped(constant.findtext('name'))} No = {escaped(value)}")
            writer.flow(paragraphs_of(constant))
        writer.request(".El")
    structures = [inner.get("refid") for inner in compound.findall("innerclass")]
    if structures:
        writer.section("TYPES")
        for reference in structures:
            structure(writer, ElementTree.parse(xml / f"{reference}.xml").getroot()
                      .find("compounddef"))
    for title, section in sections_of(paragraphs).items():
        if title.startswith("Example"):
            writer.section(title.upper())
            writer.flow(section.findall("para"))
    own = [(f.findtext("name"), 3) for f in functions + variables]
    pages = sorted(own, key=lambda page: page[0].casefold()) + [(CONVENTIONS, 7)]
    writer.see_also(pages)


def structure(writer, compound):
    writer.request(f".Ss struct {escaped(compound.findtext('compoundname'))}")
    writer.flow(without_sections(paragraphs_of(compound)))
    fields = members(compound, "variable")
    if fields:
        writer.request(".Bl -tag -width Ds")
        for field in fields:
            kind = collapsed("".join(field.find("type").itertext())).strip()
            glue = "" if kind.endswith("*") else " "
            writer.request(f'.It Vt "{escaped(kind + glue + field.findtext("name"))}"')
            writer.flow(paragraphs_of(field))
        writer.request(".El")


def conventions_page(writer, compound, families, date):
    writer.begin(CONVENTIONS.upper(), 7, date)
    writer.name(CONVENTIONS, "what holds for every call of the resource manager")
    writer.include()
    writer.section("DESCRIPTION")
    writer.flow(paragraphs_of(compound))
    for section in compound.find("detaileddescription").findall("sect1"):
        writer.section(section.findtext("title").upper())
        writer.flow(section.findall("para"))
    writer.see_also([(name, 7) for name in families])


def page_date():
    """Of the header: the same pages come out of the same sources, if the build says when."""
    seconds = os.environ.get("SOURCE_DATE_EPOCH") or Path("include", HEADER).stat().st_mtime
    return time.strftime("%B %d, %Y", time.gmtime(int(float(seconds)))).replace(" 0", " ")


def main():
    if len(sys.argv) != 3:
        print("usage: man_pages.py XML_DIRECTORY MAN_DIRECTORY", file=sys.stderr)
        return 2
    xml, man = Path(sys.argv[1]), Path(sys.argv[2])
    for section in (3, 7):
        (man / f"man{section}").mkdir(parents=True, exist_ok=True)
        for old in (man / f"man{section}").iterdir():
            old.unlink()
    writer, date, families, count = Writer(Names(xml)), page_date(), [], 0

    compounds = [ElementTree.parse(path).getroot().find("compounddef")
                 for path in xml.glob("group__*.xml")]
    for compound in sorted(compounds, key=lambda c: c.findtext("compoundname")):
        family = compound.findtext("compoundname")
        families.append(family)
        family_page(writer, compound, xml, date)
        writer.save(man / "man7" / f"{family}.7")
        functions, variables = members(compound, "function"), members(compound, "variable")
        names = [m.findtext("name") for m in functions + variables]
        for member in functions + variables:
            if member in functions:
                function_page(writer, member, date)
            else:
                variable_page(writer, member, date)
            name = member.findtext("name")
            others = sorted(set(names) - {name}, key=str.casefold)
            writer.see_also([(o, 3) for o in others] + [(CONVENTIONS, 7), (family, 7)])
            writer.save(man / "man3" / f"{name}.3")
            count += 1
    compound = ElementTree.parse(xml / f"{CONVENTIONS}.xml").getroot().find("compounddef")
    conventions_page(writer, compound, families, date)
    writer.save(man / "man7" / f"{CONVENTIONS}.7")
    print(f"{count} manual pages of calls and variables, {len(families) + 1} of families")
    return 0


if __name__ == "__main__":
    sys.exit(main())
