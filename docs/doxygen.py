#!/usr/bin/env python3
"""Shows the headers and pages to the documentation generator as it wants them; they stay as they are.

In a header a comment in front of declarations documents all of them, up to the next empty line, and a comment
behind a field or constant documents that one. In a page, links to files that have no page become plain text.
"""

import re
import sys
from pathlib import Path

PATH = Path(sys.argv[1])


def escaped(text):
    return re.sub(r"([@#<>%&]|\\)", r"\\\1", text)


def header(text):
    out = []
    for block in re.split(r"\n{2,}", text):
        lines = block.split("\n")
        if re.match(r"/\* ----.*---- \*/$", block) or block.startswith(("#ifndef SHKV", "#ifdef", "#if ")):
            out.append(block)
            continue
        m = re.match(r"/\* (.*?)\*/\n?", block, re.S)
        head, rest = "", block
        if m and not re.match(r"\s*$", block[m.end():]):
            words = re.sub(r"^ \* ?", "", m[1], flags=re.M)
            head, rest = "/** " + escaped(words).replace("*/", "") + " */\n", block[m.end():]
        elif m:
            out.append("")  # a remark that documents no declaration
            continue
        rest = re.sub(r"([;,]|^#define .*?\S) +/\* (.*?)\*/", lambda c: f"{c[1]} /**< {escaped(c[2])}*/", rest, flags=re.M | re.S)
        declarations = len(re.findall(r"^(?:SHKV_API|extern|#define|typedef)\b", rest, flags=re.M))
        if head and declarations > 1:
            head, rest = head + "/**@{*/\n", rest + "\n/**@}*/"
        out.append(head + rest)
    return "\n\n".join(out).replace("/** ", "/** @file\n", 1)


def layer(text):
    def lines():
        for number, line in enumerate(text.split("\n")):
            m = re.match(r"(.*?)// (.*)$", line)
            if m and not m[1].strip():
                yield f"{m[1]}/// {'@file ' if number == 0 else ''}{escaped(m[2])}"
            elif m:
                yield f"{m[1]}///< {escaped(m[2])}"
            else:
                yield re.sub(r"^//$", "///", line)

    return "\n".join(lines())


def page(text):
    known = {"README.md"} | {p.name for p in Path(__file__).resolve().parent.glob("*.md")}

    def link(m):
        words, target = m[1], m[2]
        if re.match(r"https?:|#", target) or target.split("/")[-1].split("#")[0] in known:
            return m[0]
        return words

    text = re.sub(r"(?<!!)\[([^\]]*)\]\(([^)\s]+)\)", link, text)
    text = text.replace("](docs/plots/", "](plots/")
    return re.sub(r"^<!-- .* -->\n", "", text, flags=re.M)


source = PATH.read_text()
sys.stdout.write({".md": page, ".h": header, ".hpp": layer}[PATH.suffix](source))
