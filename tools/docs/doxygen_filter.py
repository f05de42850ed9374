#!/usr/bin/env python3
"""doxygen_filter.py FILE

Prints a file of the documentation in the dialect of Doxygen, which runs this over each. The pages
are written so that they read well where they are kept, in the repository: links name files and
headings. In the built pages they lead to the pages made of these; a link to a file that is no page
leads to the file in the tree, from the directory that RM_DOCS_HTML names. Of the public header, the
opening comment becomes a page.
"""

import os
import re
import sys
from pathlib import Path

LINK = re.compile(r"(!?)\[((?:[^\[\]]|\[[^\]]*\])*)\]\(([^()\s]+)\)")
HEADING = re.compile(r"(#{1,6}) +(.*?) *$")
CODE = re.compile(r"(`+)(?!`).*?(?<!`)\1(?!`)")
ROOT = Path(__file__).resolve().parent.parent.parent
HEADER = ROOT / "include/rm.h"
CONVENTIONS = "rm_conventions"  # the page that the header's opening comment becomes
TITLES = {"README.md": "Overview"}  # in the navigation its own would be too long
FAMILIES = "<!-- families -->"  # in its place come links to the families of the interface


def anchor(title, seen):
    """What a heading is called in a link, as the repository's viewers have it."""
    plain = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", title).replace("`", "")
    name = re.sub(r"[^\w\- ]", "", plain.lower()).replace(" ", "-")
    seen[name] = seen.get(name, -1) + 1
    return f"{name}-{seen[name]}" if seen[name] else name


def page_id(path):
    """The name of the built page; docs/ is left out of it."""
    relative = path.resolve().relative_to(ROOT)
    parts = [part for part in relative.with_suffix("").parts if part != "docs"]
    return "md_" + "_".join(parts)


def is_page(path):
    """Whether the built documentation has a page of the file."""
    return path.suffix == ".md" and path.is_file()


def target(page, link):
    """Where a link of the page leads in the built documentation."""
    if re.match(r"[a-z]+:", link):
        return link
    name, _, heading = link.partition("#")
    path = (page.parent / name) if name else page
    if path.resolve() == HEADER:
        return "@ref " + CONVENTIONS
    if is_page(path):
        return "@ref " + page_id(path) + ("-" + heading if heading else "")
    html = os.environ.get("RM_DOCS_HTML", "")
    return os.path.relpath(path, html) if html else link


def image(link):
    """Doxygen looks for pictures by their names."""
    return link if re.match(r"[a-z]+:", link) else Path(link).name


def code_span(code):
    """Doxygen takes a percent sign before a letter away, and a quote for the end of a span."""
    words = re.sub(r"(%+)(?=[A-Za-z_])", r"\1%", code)
    if "'" in words and not words.startswith("``"):
        words = "`" + words + "`"
    return words


def with_links(page, line):
    """Links, the words of which may hold code."""

    def one(match):
        if match.group(1):
            return f"![{match.group(2)}]({image(match.group(3))})"
        return f"[{match.group(2)}]({target(page, match.group(3))})"

    hidden = [code.group() for code in CODE.finditer(line)]
    bare = CODE.sub("\0", line)
    changed = LINK.sub(one, bare)
    return re.sub("\0", lambda _: code_span(hidden.pop(0)), changed)


def families():
    names = re.findall(r"@defgroup (\w+)", HEADER.read_text(encoding="utf-8"))
    return '<div class="families">\n\n' + "\n".join(f"- @ref {n}" for n in names) + "\n\n</div>"


def convert(page, text):
    seen, fenced, lines = {}, False, []
    for line in text.split("\n"):
        if re.match(r" *```", line):
            fenced = not fenced
        elif not fenced:
            heading = HEADING.match(line)
            line = with_links(page, line)
            if heading and len(heading.group(1)) == 1:
                title = TITLES.get(str(page.relative_to(ROOT)), heading.group(2))
                line = "# " + title.replace("`", "")
            if heading:
                name = anchor(heading.group(2), seen)
                if len(heading.group(1)) > 1:
                    line += " {#" + page_id(page) + "-" + name + "}"
                elif page.parent != ROOT / "docs":  # those have it without our help
                    line += " {#" + page_id(page) + "}"
        lines.append(families() if line == FAMILIES else line)
    return "\n".join(lines)


def convert_header(text):
    """The same number of lines, so that warnings name the right ones."""
    opening = re.compile(r"/\*\*\n \* @file rm\.h\n \* @brief ")
    if not opening.search(text):
        sys.exit(f"doxygen_filter.py: {HEADER.name} does not begin as expected")
    # What is verbatim keeps the stars of the comment otherwise.
    text = re.sub(r"(?s)(?<=@verbatim\n)(.*?)(?= \* @endverbatim)",
                  lambda block: re.sub(r"(?m)^ \* ?", "", block.group()), text)
    page = f"/** @file rm.h */ /**\n * @page {CONVENTIONS} Conventions\n * "
    return opening.sub(page, text, count=1)


def main():
    if len(sys.argv) != 2:
        print("usage: doxygen_filter.py FILE", file=sys.stderr)
        return 2
    page = Path(sys.argv[1]).resolve()
    if page == HEADER:
        sys.stdout.write(convert_header(page.read_text(encoding="utf-8")))
        return 0
    # Links that break over the end of a line are put on one.
    text = re.sub(r"\[([^\[\]`]*)\n([^\[\]`]*)\]\(([^()\s]+)\)", r"[\1 \2](\3)",
                  page.read_text(encoding="utf-8"))
    sys.stdout.write(convert(page, text))
    return 0


if __name__ == "__main__":
    sys.exit(main())
