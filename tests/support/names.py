"""Names (bytes) as dtldump writes them in text: backslashes, line feeds,
tabs and other control characters escaped, and every byte that is not part
of valid UTF-8 as \\xNN. The tests of the HTML report and of the terminal
browser compute what each must show with it."""


def escaped(name, c1=False):
    """The text of name; with c1, the control characters U+0080 to U+009F
    are escaped too (byte by byte), as a terminal must never receive them."""
    out = []
    for ch in name.decode("utf-8", "surrogateescape"):
        o = ord(ch)
        if ch == "\\":
            out.append("\\\\")
        elif ch == "\n":
            out.append("\\n")
        elif ch == "\t":
            out.append("\\t")
        elif 0xDC80 <= o <= 0xDCFF:
            out.append("\\x%02x" % (o - 0xDC00))
        elif o < 0x20 or o == 0x7F or (c1 and 0x80 <= o < 0xA0):
            out.extend("\\x%02x" % b for b in ch.encode())
        else:
            out.append(ch)
    return "".join(out)
