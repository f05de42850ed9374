#!/usr/bin/env python3
"""check_links.py [--pages DIRECTORY] [--html DIRECTORY] [--man DIRECTORY]

Fails when a link leads nowhere: in the pages of the repository below --pages, which lead to files
and headings; in built pages below --html, which lead to files and anchors; in manual pages below
--man, which name other ones. Links to other machines are not followed.
"""

import argparse
import re
import sys
from html.parser import HTMLParser
from pathlib import Path
from urllib.parse import unquote

sys.dont_write_bytecode = True  # nothing is left behind in the tree
sys.path.insert(0, str(Path(__file__).resolve().parent))
import doxygen_filter  # noqa: E402  how headings are called

OTHER_MACHINES = re.compile(r"[a-z][a-z0-9+.-]*:|//", re.IGNORECASE)


# ---- pages of the repository


def page_lines(text):
    """Lines that are no code, with their numbers."""
    fenced = False
    for number, line in enumerate(text.split("\n"), 1):
        if re.match(r" *```", line):
            fenced = not fenced
        elif not fenced:
            yield number, line


def page_anchors(path, known):
    if path not in known:
        seen, anchors = {}, set()
        for _, line in page_lines(path.read_text(encoding="utf-8")):
            heading = doxygen_filter.HEADING.match(line)
            if heading:
                anchors.add(doxygen_filter.anchor(heading.group(2), seen))
            anchors.update(re.findall(r'<a (?:id|name)="([^"]+)"', line))
        known[path] = anchors
    return known[path]


def pages_of(root):
    for path in sorted(root.rglob("*.md")):
        parts = path.relative_to(root).parts
        if parts[0] != "build" and not any(part.startswith(".") for part in parts):
            yield path


def check_pages(root):
    known, count = {}, 0
    for page in pages_of(root):
        where = page.relative_to(root)
        # A link may break over the end of a line: the text is looked at as a whole.
        kept = dict(page_lines(page.read_text(encoding="utf-8")))
        text = "\n".join(doxygen_filter.CODE.sub("", kept.get(number, ""))
                         for number in range(1, max(kept, default=0) + 1))
        for link in re.finditer(r"\]\(\s*([^()\s]+)(?:\s+\"[^\"]*\")?\s*\)", text):
            target = unquote(link.group(1))
            if OTHER_MACHINES.match(target):
                continue
            count += 1
            line = text.count("\n", 0, link.start()) + 1
            name, _, anchor = target.partition("#")
            path = (page.parent / name).resolve() if name else page
            if not path.exists():
                yield f"{where}:{line}: there is no {target}"
            elif anchor and path.suffix == ".md" and anchor not in page_anchors(path, known):
                yield f"{where}:{line}: there is no heading {target}"
    if count == 0:
        yield f"{root}: no links in any page"


# ---- built pages


class Page(HTMLParser):
    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.anchors, self.links = set(), []

    def handle_starttag(self, tag, attrs):
        for name, value in attrs:
            if value is None:
                continue
            if name == "id" or (name == "name" and tag == "a"):
                self.anchors.add(value)
            elif name in ("href", "src") or (name == "data" and tag == "object"):
                self.links.append((self.getpos()[0], value))

    handle_startendtag = handle_starttag


def read_html(path, known):
    if path not in known:
        page = Page()
        page.feed(path.read_text(encoding="utf-8"))
        known[path] = page
    return known[path]


def check_html(root):
    known, count = {}, 0
    for path in sorted(root.glob("*.html")):
        links = list(read_html(path, known).links)
        for line, link in links:
            if OTHER_MACHINES.match(link) or link in ("#", ""):
                continue
            count += 1
            name, _, anchor = unquote(link).partition("#")
            target = (path.parent / name.partition("?")[0]).resolve() if name else path
            if not target.exists():
                yield f"{path.name}:{line}: there is no {link}"
            elif anchor and target.suffix == ".html" and target.parent == path.parent.resolve() \
                    and anchor not in read_html(target, known).anchors:
                yield f"{path.name}:{line}: there is no place {link}"
    # The tree at the side, and the search.
    for path in sorted(root.glob("*.js")) + sorted(root.glob("search/*.js")):
        for link in re.findall(r"[\"']([\w./-]+\.html(?:#[\w-]+)?)[\"']", path.read_text("utf-8")):
            count += 1
            name, _, anchor = link.partition("#")
            target = (path.parent / name).resolve()
            if not target.exists():
                yield f"{path.name}: there is no {link}"
            elif anchor and anchor not in read_html(target, known).anchors:
                yield f"{path.name}: there is no place {link}"
    if count == 0:
        yield f"{root}: no links in any page"


# ---- manual pages


def check_man(root):
    pages = {(p.stem, p.suffix[1:]) for p in root.glob("man*/*")}
    if not pages:
        yield f"{root}: no manual pages"
    for path in sorted(root.glob("man*/*")):
        for number, line in enumerate(path.read_text(encoding="utf-8").split("\n"), 1):
            links = re.findall(r"\\fB([\w.-]+)\\fP\((\d)\)", line.replace("\\-", "-"))
            links += re.findall(r"^\.Xr (\S+) (\d)", line)
            for link in links:
                if link not in pages:
                    yield f"{path.name}:{number}: there is no {link[0]}({link[1]})"


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n")[0])
    kinds = {"pages": check_pages, "html": check_html, "man": check_man}
    for kind in kinds:
        parser.add_argument(f"--{kind}", type=Path)
    arguments = parser.parse_args()
    found = False
    for kind, check in kinds.items():
        directory = getattr(arguments, kind)
        for problem in check(directory.resolve()) if directory else ():
            print(problem)
            found = True
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
