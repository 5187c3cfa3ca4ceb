"""Refuses an include that goes up a floor of the house, or leaves it.

floors.py SOURCES reads every source below SOURCES and its folder platform, prints what is wrong
and exits with 1 if anything is.
"""
import re
import sys
from pathlib import Path

FLOORS = (
    {"Fenrik", "OvSlab"},
    {"Kiv", "Blipline"},
    {"KivSharedMem", "KivDrift", "Drift", "Stavro"},
    {"OrderedTable"},
    {"QuarnLpmLib", "QuarnL3NiLib", "OvmResourceTable"},
    {"QuarnBastil"},
)
# What a room may use of its own floor.
BESIDE = {
    "Fenrik": ("OvSlab/",),
    # Leaf headers that include nothing but one another: the slab is made before the nodes in it.
    "OvSlab": ("Fenrik/Export.h", "Fenrik/ThreadControl.h", "Fenrik/Atomic.h",
               "Fenrik/ForkGuard.h"),
    "Blipline": ("Kiv/",),
    "KivDrift": ("Drift/",),
    "KivSharedMem": ("Drift/", "KivDrift/"),
    "Stavro": ("Drift/",),
    "QuarnL3NiLib": ("OvmResourceTable/",),
}
FLOOR_OF = {room: floor for floor, rooms in enumerate(FLOORS, 1) for room in rooms}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)


def refusal(room, quote, path):
    """Why `room` may not include `path`, or nothing."""
    used = path.split("/")[0]
    if used not in FLOOR_OF:
        return 'a header of the house is included as "Room/Header.h"' if quote == '"' else None
    if used == room or FLOOR_OF[used] < FLOOR_OF[room]:
        return None
    if path.startswith(BESIDE.get(room, ())):
        return None
    where = "beside it" if FLOOR_OF[used] == FLOOR_OF[room] else "above it"
    return f"{room} stands on floor {FLOOR_OF[room]}, {used} {where} on floor {FLOOR_OF[used]}"


def refusals(sources):
    for folder in (sources, sources / "platform"):
        for room in sorted(p for p in folder.iterdir() if p.is_dir() and p.name != "platform"):
            if room.name not in FLOOR_OF:
                yield f"{room}: a room without a floor; give it one in {__file__}"
                continue
            for source in sorted(p for p in room.rglob("*") if p.suffix in (".h", ".cpp")):
                text = source.read_text()
                for match in INCLUDE.finditer(text):
                    reason = refusal(room.name, *match.groups())
                    if reason:
                        line = text.count("\n", 0, match.start(2)) + 1
                        yield f'{source}:{line}: {match[0].strip()}: {reason}'


if __name__ == "__main__":
    found = list(refusals(Path(sys.argv[1])))
    print(*found, sep="\n")
    sys.exit(bool(found))
