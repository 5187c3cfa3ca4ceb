#!/usr/bin/env python3
"""read_collection.py FILE [CATALOGUE] prints the collection in FILE, as docs/shared-memory.md
describes it: its records in hexadecimal, or field by field as the catalogue has them."""
import fcntl, ipaddress, json, mmap, struct, sys, time
def divided(crc):
    for _ in range(8): crc = crc >> 1 ^ (0x82F63B78 if crc & 1 else 0)
    return crc
remainders = [divided(byte) for byte in range(256)]
def step(crc, data):
    for byte in data: crc = crc >> 8 ^ remainders[(crc ^ byte) & 0xFF]
    return crc
def crc32c(layout, *values): return ~step(0xFFFFFFFF, struct.pack(layout, *values)) & 0xFFFFFFFF
def rotate(value, bits): return (value << bits | value >> 32 - bits) & 0xFFFFFFFF
def swap(value): return int.from_bytes(value.to_bytes(4, "little"), "big")
def word(offset): return struct.unpack_from("<Q", data, offset)[0]
def need(condition, message):
    if not condition: raise ValueError(message)
def line(number):
    for offset in 384 + 64 * number, 400 + 64 * number:
        value, check = word(offset), word(offset + 8)
        if check & 0xFFFFFFFF == crc32c("<QQQ", value, check >> 32, number): return value
    need(False, f"header word {number} is damaged")
def slot(begin):  # low half of the slot's seal, upper half, and the record if it is whole
    content, lanes = data[begin:begin + stride], [0xFFFFFFFF] * 4
    low, crc = struct.unpack_from("<II", content)
    for i in range(8, stride, 8): lanes[i // 8 % 4] = step(lanes[i // 8 % 4], content[i:i + 8])
    whole = crc == crc32c("<QIIII", low ^ rotate(low, 8) ^ rotate(low, 19), swap(lanes[1]),
                          rotate(lanes[2], 16), swap(rotate(lanes[3], 16)), lanes[0])
    return low, crc, content[8:8 + record_size] if whole else b""
def dense():
    each, size = slots // places, -(-(slots // places * stride) // 4096) * 4096
    for version in range(line(1), line(2)):
        chunk = (word(4096 + 8 * (version // each % places)) & 0xFFFFFFFF) - 1
        need(0 <= chunk < places, f"the chunk of version {version} is damaged")
        at = places * size if line(4) == version + 1 else chunk * size + version % each * stride
        low, crc, record = slot(slots_at + at)
        absent = crc == crc32c("<QQQ", low, 0x544E455342410000, 0)
        whole = absent or record[:8] == struct.pack("<Q", version)
        need(low == version & 0xFFFFFFFF and whole, f"version {version} is damaged")
        if not absent: yield record
def hashed():
    used = 1 << (line(0) >> 1 & 31)  # the words of the table that are in use
    need(used <= places, "the index is larger than its table")
    table = struct.unpack_from(f"<{used}Q", data, 4096 + 8 * places * (line(0) & 1))
    for entry in filter(None, table):
        number, content = (entry & 0x3FFFFF) - 1, entry & 0xFFFFFFFFFFFF
        good = entry >> 48 == crc32c("<QQQ", content, 0, 0) & 0xFFFF and number < line(7)
        need(good, f"{entry:x} is damaged")
        if number < 0: continue  # a tombstone
        low, _, record = slot(slots_at + number * stride)
        need(record and low & 0xFFF == content >> 22 & 0xFFF, f"the record of {entry:x} is damaged")
        yield record
def collection():
    need(len(data) >= 4096 and data[:8] + data[320:328] == b"QBDRIFT1QBREADY!", "no collection")
    need(struct.unpack_from("<I4xQ", data, 8) == (3, 0x0807060504030208), "of another version")
    need(word(72) == len(data), "it is cut off or longer than it was")
    need(data[300:304] == struct.pack("<I", crc32c("300s", data[:300])), "the header is damaged")
    return struct.unpack_from("<I8xIIIIQQQQQQ16s128s64s", data, 12)
def read(path):  # type and attribute, and the records
    global data, layout, record_size, stride, slots, places, slots_at
    file = open(path, "rb")  # the lock keeps the writer from giving memory back (37: OFD_SETLK)
    lock = struct.pack("hhqqi4x", fcntl.F_RDLCK, 0, 2**62 + time.monotonic_ns(), 1, 0)
    fcntl.fcntl(file, 37, lock)
    data = mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ)
    fault = "it changes while it is read"
    for attempt in range(5):  # what changed while it was read is read again
        try:
            layout, _, record_size, stride, _, _, slots, places, slots_at, *_ = collection()
            before, records = line(0), list(hashed() if layout == 2 else dense())
            names = data[104:232].rstrip(b"\0").decode(), data[232:296].rstrip(b"\0").decode()
            if line(0) == before: return *names, records
        except ValueError as error: fault = str(error)
    sys.exit(f"{path}: {fault}")
def families(path):  # by table id: part, row -> offset, size, count, depth, kind, form, name
    tables = {}
    for record in read(path)[2]:
        table, part, row, *what, name = struct.unpack("<IHHIIHHBB2x128s", record)
        tables.setdefault(table, {})[part, row] = *what, name.rstrip(b"\0").decode()
    return tables.values()
def value_of(kind, element):
    if kind == 0: return int.from_bytes(element, "little")
    return element.hex() if kind == 1 else bool(element[0] & 1)
def decode(rows, content, depth=0):  # takes a group's rows from the front of the list
    group = {}
    while rows and rows[0][3] == depth:
        offset, size, count, _, kind, form, name = rows.pop(0)
        after = rows[:]
        values = []
        for at in range(offset, offset + size * count, size):
            if kind == 5: rows[:] = after
            element = content[at:at + size]
            values.append(decode(rows, element, depth + 1) if kind == 5 else value_of(kind, element))
        if kind == 5: values = [shown(form, value) for value in values]
        if kind == 3 and not values[0]: return None  # all other fields of the group mean nothing
        if kind != 3: group[name] = values if count > 1 else values[0]
    return group
def shown(form, group):
    if form == 2: return f"{group['bank']}:{group['index']}"
    if form != 3: return group
    *words, length = group.values()
    words += [0] * (0 if len(words) == 1 else 4 - len(words))
    return f"{ipaddress.ip_address(b''.join(word.to_bytes(4, 'big') for word in words))}/{length}"
def fields(family, part, content):
    return decode([row for (of, _), row in sorted(family.items()) if of == part], content)
def decoded(family, record):
    config, log, _, _, resource_keys = (family[1, fact] for fact in range(4, 9))
    if type_name == config[-1]:
        version, deleted = struct.unpack_from("<Q?", record, config[0])
        resources = fields(family, 4, record[resource_keys[0]:]) if resource_keys[1] else {}
        return {"version": version, "isDeleted": deleted} | fields(family, 3, record) | resources
    version, flags, unit = struct.unpack_from("<QHH", record)
    what = {"version": version, "flags": flags, "unit": unit}
    return what if flags & 2 else what | fields(family, 3, record[log[0]:])
known = families(sys.argv[2]) if len(sys.argv) > 2 else []
type_name, attribute, records = read(sys.argv[1])
print(type_name, attribute, len(records), "records")
family = [family for family in known if type_name in (family[1, 4][-1], family[1, 5][-1])]
for record in records: print(json.dumps(decoded(family[0], record)) if family else record.hex())
