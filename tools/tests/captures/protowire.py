"""The protocol buffer wire format, field by field, for the generated traces."""


def varint(v):
    out = bytearray()
    v &= (1 << 64) - 1
    while v >= 0x80:
        out.append(v & 0x7f | 0x80)
        v >>= 7
    out.append(v)
    return bytes(out)


def vfield(num, v):
    """A varint field."""
    return varint(num << 3) + varint(v)


def lfield(num, data):
    """A length-delimited field (bytes, a string or a nested message)."""
    if isinstance(data, str):
        data = data.encode()
    return varint(num << 3 | 2) + varint(len(data)) + data
