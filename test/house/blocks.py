"""Refuses a piece of C++ in a document that no compiled source holds.

blocks.py DOCUMENT... [--sources SOURCE...] reads the blocks marked cpp of each document and prints
those whose lines do not stand together in one of the sources, whatever their indentation.
"""
import re
import sys
from pathlib import Path

BLOCK = re.compile(r"^```cpp\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def lines(text):
    return "\n".join(line.strip() for line in text.splitlines() if line.strip())


def missing(document, sources):
    """The first lines of the blocks that none of the sources holds, with their places."""
    text = document.read_text()
    held = ["\n" + lines(source.read_text()) + "\n" for source in sources]
    for block in BLOCK.finditer(text):
        wanted = "\n" + lines(block.group(1)) + "\n"
        if not any(wanted in source for source in held):
            number = text.count("\n", 0, block.start()) + 2
            yield f"{document}:{number}: stands in no source: {block.group(1).splitlines()[0]}"


def main(arguments):
    split = arguments.index("--sources")
    sources = [Path(name) for name in arguments[split + 1:]]
    found = [complaint for name in arguments[:split] for complaint in missing(Path(name), sources)]
    print("\n".join(found))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
