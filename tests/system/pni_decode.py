#!/usr/bin/env python3
"""Decodes the PNI record of a FRU image (as `ipmitool fru read` saves it),
independently of the library: every checksum checked, every entry walked.

Prints one line per NIC function:
    MAC ipv4=A,B ipv6=X,Y
(MAC being the reported one, bytes 6 to 11 of the specific area; "-" for an
empty list). Exits 1 with a message on standard error when the image is not
a well-formed PNI record.
"""
import ipaddress
import sys


def fail(text):
    sys.stderr.write("pni_decode: %s\n" % text)
    sys.exit(1)


def zero_sum(data, initial=0):
    return (sum(data) + initial) % 256 == 0


def main(path):
    fru = open(path, "rb").read()
    if len(fru) < 8 or not zero_sum(fru[:8]):
        fail("common header checksum")
    area = fru[1] * 8
    if area == 0 or area + 8 > len(fru):
        fail("no internal use area")
    header = fru[area:area + 8]
    if header[0] != 1 or header[1] != 1 or not zero_sum(header):
        fail("internal use area header")
    adapters = header[3]
    record = area + header[2] * 8
    rh = fru[record:record + 6]
    if len(rh) < 6 or rh[0] != 0xF0 or not zero_sum(rh):
        fail("record header")
    version = rh[1] & 0x0F
    if version not in (10, 11, 12):
        fail("record version %d" % version)
    length = rh[2] | rh[3] << 8
    data = fru[record + 6:record + 6 + length]
    if len(data) != length or not zero_sum(data, rh[4]):
        fail("record data checksum")
    if data[3] != 1:
        fail("record format")

    out = []
    pos = 4

    def entry(at):
        if at + 3 > len(data):
            fail("entry beyond the record at %d" % at)
        return data[at], data[at + 1], data[at + 2]

    for a in range(min(adapters, 8)):
        mark, alen, ports = entry(pos)
        if alen == 0:
            fail("adapter entry of length 0")
        if bool(mark & 0x80) != (a == adapters - 1):
            fail("adapter last-entry mark")
        pos += alen
        for p in range(ports):
            mark, plen, functions = entry(pos)
            if (mark & 0x1F) != p or plen == 0 or bool(mark & 0x80) != (p == ports - 1):
                fail("port entry %d" % p)
            pos += plen
            for f in range(functions):
                mark, units, common = entry(pos)
                flen = units * 4
                if (mark & 0x1F) != f or flen == 0 or bool(mark & 0x80) != (f == functions - 1):
                    fail("function entry %d" % f)
                if pos + flen > len(data) or common + 45 > flen:
                    fail("function entry beyond the record")
                if version == 10:
                    kind = data[pos + 14:pos + common].split(b"\0")[0] == b"NIC"
                else:
                    kind = data[pos + 14] == 0
                if kind:
                    fn_area = data[pos + common:pos + flen]
                    n4 = fn_area[44] & 0x0F
                    n6 = fn_area[44] >> 4
                    if 45 + 4 * n4 + 16 * n6 > len(fn_area):
                        fail("address counts beyond the area")
                    mac = ":".join("%02x" % b for b in fn_area[6:12])
                    v4 = [str(ipaddress.IPv4Address(bytes(fn_area[45 + 4 * i:49 + 4 * i]))) for i in range(n4)]
                    base = 45 + 4 * n4
                    v6 = [str(ipaddress.IPv6Address(bytes(fn_area[base + 16 * i:base + 16 * i + 16]))) for i in range(n6)]
                    out.append("%s ipv4=%s ipv6=%s" % (mac, ",".join(v4) or "-", ",".join(v6) or "-"))
                pos += flen
    print("\n".join(out))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        fail("usage: pni_decode.py FRU-FILE")
    main(sys.argv[1])
