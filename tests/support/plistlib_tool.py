#!/usr/bin/python3
"""Property lists from python3's plistlib, for differential tests of the library's codec.

  plistlib_tool.py generate DIR COUNT xml|binary SEED
      writes DIR/<i>.plist (random nested property lists) and DIR/<i>.dump (their canonical text)
  plistlib_tool.py compare DIR COUNT SUFFIX [--ints-mod-64|--uids-as-dicts|--uids-from-xml]
      reads DIR/<i>.plist and DIR/<i>.SUFFIX and checks they hold equal values; prints each
      difference and exits 1 when any. --ints-mod-64 compares integers modulo 2**64, for readers
      that keep no sign. --uids-as-dicts compares each UID as the dictionary {"CF$UID": n}, the
      form XML carries it in (plistlib writes no UID to XML and reads that form as a dictionary).
      --uids-from-xml compares with DIR/<i>.uidxml instead of DIR/<i>.plist, its CF$UID
      dictionaries as UIDs.
  plistlib_tool.py uids-as-xml DIR COUNT
      writes DIR/<i>.uidxml: DIR/<i>.plist as XML, each UID as the dictionary {"CF$UID": n}, and
      DIR/<i>.uiddump: the canonical text of what plistlib reads back from it, those dictionaries
      as UIDs (plistlib's XML keeps no carriage return, so this may differ from DIR/<i>.dump)
  plistlib_tool.py dump FILE
      prints the canonical text of one file

The canonical text names every type so that True and 1 differ, writes reals as their IEEE bits,
strings and data as hex, dates as whole seconds since 1970 and dictionary keys sorted by bytes.
"""
import datetime
import plistlib
import random
import struct
import sys

EPOCH = datetime.datetime(1970, 1, 1)
INT_EDGES = [0, 1, -1, 2**63 - 1, -2**63, 2**63, 2**64 - 1, 255, 256, 65535, 65536,
             2**31 - 1, 2**32, -2**31, -129, -32769]
REAL_EDGES = [0.0, -0.0, 0.1, 1.0, -1.5, 1e20, 1e-300, 5e-324, 1.7976931348623157e308,
              float('inf'), float('-inf'), 123456789.125]
DATE_EDGES = [datetime.datetime(1, 1, 1), datetime.datetime(1900, 2, 28, 23, 59, 59),
              datetime.datetime(1969, 12, 31, 23, 59, 59), datetime.datetime(1970, 1, 1),
              datetime.datetime(2001, 1, 1), datetime.datetime(2038, 1, 19, 3, 14, 8),
              datetime.datetime(2100, 3, 1), datetime.datetime(9999, 12, 31, 23, 59, 59)]
# Characters from every width of UTF-8, the XML specials, white space and beyond the BMP.
ALPHABET = (list("abcXYZ019 _-./$") + ["&", "<", ">", '"', "'", "]]>", "\n", "\t", "\u00e9",
            "\u00df", "\u20ac", "\u4e2d", "\ufeff", "\U0001F600", "\U00010348", "\U0010FFFF"])


def random_string(rng, binary):
    n = rng.choice([0, 1, 3, 8, 20])
    chars = [rng.choice(ALPHABET) for _ in range(n)]
    if binary and rng.random() < 0.1:
        chars.append("\r")
    return "".join(chars)


def random_scalar(rng, binary):
    kind = rng.randrange(8 if binary else 7)
    if kind == 0:
        return rng.random() < 0.5
    if kind == 1:
        if rng.random() < 0.5:
            return rng.choice(INT_EDGES)
        return rng.randint(-2**63, 2**64 - 1) >> rng.randrange(64)
    if kind == 2:
        if rng.random() < 0.5:
            return rng.choice(REAL_EDGES)
        return struct.unpack('<d', struct.pack('<Q', rng.getrandbits(62)))[0] * rng.choice([1, -1])
    if kind == 3:
        return random_string(rng, binary)
    if kind == 4:
        return bytes(rng.getrandbits(8) for _ in range(rng.choice([0, 1, 2, 3, 57, 58, 200])))
    if kind == 5:
        if rng.random() < 0.5:
            return rng.choice(DATE_EDGES)
        return EPOCH + datetime.timedelta(seconds=rng.randint(-2**35, 2**35))
    if kind == 6:
        return random_string(rng, binary) + "x"
    return plistlib.UID(rng.choice([0, 1, 255, 256, 2**32, 2**64 - 1, rng.randrange(1000)]))


def random_value(rng, binary, depth):
    r = rng.random()
    if depth > 5 or r < 0.45:
        return random_scalar(rng, binary)
    if r < 0.7:
        return [random_value(rng, binary, depth + 1) for _ in range(rng.randrange(6))]
    return {random_string(rng, binary): random_value(rng, binary, depth + 1)
            for _ in range(rng.randrange(6))}


def deep_value(rng, binary, levels):
    v = random_scalar(rng, binary)
    for _ in range(levels):
        v = [v] if rng.random() < 0.5 else {"k": v}
    return v


def is_nan(v):
    return isinstance(v, float) and v != v


def without_nan(v):
    # NaN is tested separately: it equals nothing, not even itself.
    if isinstance(v, list):
        return [without_nan(x) for x in v if not is_nan(x)]
    if isinstance(v, dict):
        return {k: without_nan(x) for k, x in v.items() if not is_nan(x)}
    return v


def uids_as_dicts(v):
    if isinstance(v, plistlib.UID):
        return {"CF$UID": v.data}
    if isinstance(v, list):
        return [uids_as_dicts(x) for x in v]
    if isinstance(v, dict):
        return {k: uids_as_dicts(x) for k, x in v.items()}
    return v


def dicts_as_uids(v):
    if isinstance(v, list):
        return [dicts_as_uids(x) for x in v]
    if isinstance(v, dict):
        if len(v) == 1 and isinstance(v.get("CF$UID"), int) and v["CF$UID"] >= 0:
            return plistlib.UID(v["CF$UID"])
        return {k: dicts_as_uids(x) for k, x in v.items()}
    return v


def canonical(v, ints_mod_64=False):
    if isinstance(v, bool):
        return "b:1" if v else "b:0"
    if isinstance(v, int):
        return "i:%d" % (v % 2**64 if ints_mod_64 else v)
    if isinstance(v, float):
        return "r:%016x" % struct.unpack('<Q', struct.pack('<d', v))[0]
    if isinstance(v, str):
        return "s:" + v.encode("utf-8", "surrogatepass").hex()
    if isinstance(v, bytes):
        return "d:" + v.hex()
    if isinstance(v, datetime.datetime):
        return "t:%d" % ((v - EPOCH) // datetime.timedelta(seconds=1))
    if isinstance(v, plistlib.UID):
        return "u:%d" % v.data
    if isinstance(v, list):
        return "a[" + ",".join(canonical(x, ints_mod_64) for x in v) + "]"
    if isinstance(v, dict):
        items = sorted(v.items(), key=lambda kv: kv[0].encode("utf-8", "surrogatepass"))
        return "{" + ",".join(kv[0].encode("utf-8", "surrogatepass").hex() + ":" +
                              canonical(kv[1], ints_mod_64) for kv in items) + "}"
    raise TypeError("unexpected %r" % type(v))


def load(path):
    with open(path, "rb") as f:
        return plistlib.load(f)


def generate(folder, count, fmt, seed):
    rng = random.Random(seed)
    binary = fmt == "binary"
    for i in range(count):
        if i % 10 == 9:
            value = deep_value(rng, binary, 100)
        else:
            value = random_value(rng, binary, 0)
        if i % 3 == 0:
            value = {"root": value}
        value = without_nan(value)
        data = plistlib.dumps(value, fmt=plistlib.FMT_BINARY if binary else plistlib.FMT_XML,
                              sort_keys=rng.random() < 0.5)
        with open("%s/%d.plist" % (folder, i), "wb") as f:
            f.write(data)
        with open("%s/%d.dump" % (folder, i), "w") as f:
            f.write(canonical(plistlib.loads(data)))
    return 0


def uids_as_xml(folder, count):
    for i in range(count):
        value = uids_as_dicts(load("%s/%d.plist" % (folder, i)))
        data = plistlib.dumps(value, fmt=plistlib.FMT_XML)
        with open("%s/%d.uidxml" % (folder, i), "wb") as f:
            f.write(data)
        with open("%s/%d.uiddump" % (folder, i), "w") as f:
            f.write(canonical(dicts_as_uids(plistlib.loads(data))))
    return 0


def compare(folder, count, suffix, option):
    ints_mod_64 = option == "--ints-mod-64"
    convert = uids_as_dicts if option == "--uids-as-dicts" else (lambda v: v)
    failures = 0
    for i in range(count):
        if option == "--uids-from-xml":
            original = dicts_as_uids(load("%s/%d.uidxml" % (folder, i)))
        else:
            original = convert(load("%s/%d.plist" % (folder, i)))
        expected = canonical(original, ints_mod_64)
        try:
            actual = canonical(convert(load("%s/%d.%s" % (folder, i, suffix))), ints_mod_64)
        except Exception as e:  # any reader failure is a difference to report
            actual = "unreadable: %s" % e
        if actual != expected:
            at = next((k for k in range(min(len(actual), len(expected)))
                       if actual[k] != expected[k]), min(len(actual), len(expected)))
            print("%d.%s differs at %d: expected ...%s... got ...%s..." %
                  (i, suffix, at, expected[max(0, at - 30):at + 60],
                   actual[max(0, at - 30):at + 60]))
            failures += 1
    return 1 if failures else 0


def main(argv):
    if len(argv) == 5 and argv[0] == "generate":
        return generate(argv[1], int(argv[2]), argv[3], int(argv[4]))
    if len(argv) in (4, 5) and argv[0] == "compare":
        return compare(argv[1], int(argv[2]), argv[3], argv[4] if len(argv) == 5 else None)
    if len(argv) == 3 and argv[0] == "uids-as-xml":
        return uids_as_xml(argv[1], int(argv[2]))
    if len(argv) == 2 and argv[0] == "dump":
        print(canonical(load(argv[1])))
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
