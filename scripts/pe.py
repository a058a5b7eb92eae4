"""The parts of a Windows image that the scripts look at: headers, sections, directories, resources, debug records.

Offsets are those of the format's own description; an address is relative to the image's base unless it is said
to be absolute.
"""
import struct

EXPORT, IMPORT, RESOURCE, EXCEPTION, SECURITY, RELOCATION, DEBUG = range(7)
LOAD_CONFIG = 10
EXECUTE, WRITE = 0x20000000, 0x80000000
DEBUG_CODEVIEW, DEBUG_REPRODUCIBLE, DEBUG_EXTENDED = 2, 16, 20
RESOURCE_VERSION = 16


class Image:
    def __init__(self, data):
        self.data = data
        self.pe = self.u32(0x3C)
        assert data[self.pe:self.pe + 4] == b"PE\0\0", "no PE image"
        self.machine, count, self.stamp, _, _, optional_size, _ = struct.unpack_from("<HHIIIHH", data, self.pe + 4)
        self.optional = self.pe + 24
        self.base = self.u64(self.optional + 24)
        self.characteristics = self.u16(self.optional + 70)
        self.sections = []
        for at in range(self.optional + optional_size, self.optional + optional_size + 40 * count, 40):
            name = data[at:at + 8].rstrip(b"\0").decode()
            size, address, raw_size, raw = struct.unpack_from("<IIII", data, at + 8)
            self.sections.append((name, address, max(size, raw_size), raw, self.u32(at + 36)))

    def u16(self, at):
        return struct.unpack_from("<H", self.data, at)[0]

    def u32(self, at):
        return struct.unpack_from("<I", self.data, at)[0]

    def u64(self, at):
        return struct.unpack_from("<Q", self.data, at)[0]

    def text(self, at):
        return self.data[at:self.data.index(b"\0", at)].decode()

    def section(self, address):
        """Name, address, size, place in the file and flags of the section that the address lies in."""
        for section in self.sections:
            if section[1] <= address < section[1] + section[2]:
                return section
        raise AssertionError(f"address {address:#x} lies in no section")

    def offset(self, address):
        """Where in the file the address's content stands."""
        _, start, _, raw, _ = self.section(address)
        return raw + address - start

    def directory(self, index):
        """Address and size."""
        return struct.unpack_from("<II", self.data, self.optional + 112 + 8 * index)

    @property
    def checksum_at(self):
        return self.optional + 64

    def checksum(self):
        """The format's checksum: 16-bit ones' complement sum without the field, plus the length."""
        at = self.checksum_at
        data = self.data[:at] + b"\0\0\0\0" + self.data[at + 4:]
        total = sum(word for (word,) in struct.iter_unpack("<H", data + b"\0" * (len(data) % 2)))
        while total >> 16:
            total = (total & 0xFFFF) + (total >> 16)
        return (total + len(self.data)) & 0xFFFFFFFF

    def debug_records(self):
        """Type to (time stamp, content)."""
        address, size = self.directory(DEBUG)
        found = {}
        for at in range(self.offset(address), self.offset(address) + size, 28) if size else ():
            _, stamp, _, _, kind, length, _, raw = struct.unpack_from("<IIHHIIII", self.data, at)
            found[kind] = stamp, self.data[raw:raw + length]
        return found

    def debug_file(self):
        """The name and the id (16 bytes and age) of the PDB that belongs to the image."""
        _, record = self.debug_records().get(DEBUG_CODEVIEW, (0, b""))
        assert record[:4] == b"RSDS", "no RSDS record: nothing leads to a PDB"
        return record[24:record.index(b"\0", 24)].decode(), record[4:24]

    def resource(self, kind):
        """The content of the first resource of this kind."""
        address, size = self.directory(RESOURCE)
        assert size, "no resources"
        root = self.offset(address)
        at = root
        wanted = kind
        while True: # type, name, language: three floors
            names, ids = self.u16(at + 12), self.u16(at + 14)
            entries = [(self.u32(at + 16 + 8 * i), self.u32(at + 20 + 8 * i)) for i in range(names + ids)]
            entries = [below for key, below in entries if wanted in (None, key)]
            assert entries, f"no resource of kind {kind}"
            wanted = None
            if not entries[0] & 0x80000000:
                content, length = self.u32(root + entries[0]), self.u32(root + entries[0] + 4)
                return self.data[self.offset(content):][:length]
            at = root + (entries[0] & 0x7FFFFFFF)

    def versions(self):
        """File and product version, four numbers each, and the resource's texts by name."""
        record = self.resource(RESOURCE_VERSION)
        fixed = record.find(struct.pack("<I", 0xFEEF04BD))
        assert fixed > 0, "the version resource has no fixed part"
        high, low, product_high, product_low = struct.unpack_from("<IIII", record, fixed + 8)

        def numbers(first, second):
            return first >> 16, first & 0xFFFF, second >> 16, second & 0xFFFF
        return numbers(high, low), numbers(product_high, product_low), strings(record)


def strings(record):
    """Name and value of each text in a version resource."""
    found = {}
    table = record.find("StringFileInfo".encode("utf-16-le"))
    at = (table + 30 + 3) // 4 * 4                          # the first table
    end = at + struct.unpack_from("<H", record, at)[0]
    at = (at + 6 + 18 + 3) // 4 * 4                         # its first text, behind eight digits
    while at + 6 < end:
        length, units, _ = struct.unpack_from("<HHH", record, at)
        assert length, "a broken text in the version resource"
        name = record[at + 6:at + length].decode("utf-16-le").split("\0")[0]
        value = (at + 6 + 2 * len(name) + 2 + 3) // 4 * 4
        found[name] = record[value:value + 2 * units].decode("utf-16-le").rstrip("\0")
        at = (at + length + 3) // 4 * 4
    return found
