"""Checks what libquarnbastil.so shows and needs.

library.py LIBRARY NAMESPACE... prints what is wrong and exits with 1 if anything is: a symbol that
stands in none of the namespaces, a library needed beyond the C and C++ runtime and fmt, code that
would have to be changed where it is loaded, a search path, a call where the cost of a trace that is
off or of a counted pointer's copy is to be a few instructions.
"""
import re
import subprocess
import sys

# The compiler adds the mathematics and its own support library to every C++ program.
NEEDED = re.compile(r"(libc|libstdc\+\+|libm|libgcc_s|libfmt|ld-linux-x86-64)\.so\.\d+$")

# What must be inlined wherever it stands. `.cold` and the like are pieces of other functions.
INLINED = re.compile(r" (\S+::levelEnabled\(.*|Fenrik::(?:NonNull)?Ptr<.*>::~?(?:NonNull)?Ptr\(.*)$")


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def complaints(library, namespaces):
    names = "|".join(f"{len(name)}{name}" for name in namespaces)
    prefix = r"_Z(T[CISTV]|GV|T[chv][^_]*_(n?\d+_)*)?N[KORV]*"
    ours = re.compile(rf"{prefix}({names}|3fmt\w*?9formatterIN({names}))")
    symbols = [line.split()[-1] for line in output("nm", "-D", "--defined-only", library).splitlines()]
    if not any(map(ours.match, symbols)):
        yield "it shows nothing of its own"
    for symbol in symbols:
        if not ours.match(symbol):
            yield f"it shows {output('c++filt', symbol).strip()} ({symbol}), which is not its own"

    entries = re.findall(r"\((\w+)\)\s+(.*)", output("readelf", "-dW", library))
    for tag, text in entries:
        value = text.split("[")[-1].rstrip("]")
        if tag == "NEEDED" and not NEEDED.match(value):
            yield f"it needs {value}"
        if tag in ("TEXTREL", "RPATH", "RUNPATH"):
            yield f"it has a {tag}: {text}"
    sonames = [text for tag, text in entries if tag == "SONAME"]
    if not sonames or not re.search(r"\[libquarnbastil\.so\.\d+\.\d+\]", sonames[0]):
        yield f"its soname is {sonames}, not libquarnbastil.so.MAJOR.MINOR"

    code = [line for line in output("nm", "-C", library).splitlines() if re.search(r" [tTwW] ", line)]
    if not code:
        yield "it has no symbol table, so that nobody can tell what was inlined"
    for called in sorted({match[1] for match in map(INLINED.search, code) if match}):
        yield f"it calls {called}, which is to be inlined"


if __name__ == "__main__":
    found = list(complaints(sys.argv[1], sys.argv[2:]))
    print(*found, sep="\n")
    sys.exit(bool(found))
