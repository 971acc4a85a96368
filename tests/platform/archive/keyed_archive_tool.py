#!/usr/bin/python3
"""Keyed archives written and read by python3's plistlib, from the published layout alone.

  keyed_archive_tool.py archive IN OUT xml|binary
      reads the plain property list IN and writes OUT, a keyed archive of its value. A dictionary
      with the key "$class" is archived as an object of that class, its other keys as fields
      (numbers and booleans inline, everything else referenced), the way other writers do.
  keyed_archive_tool.py unarchive FILE
      decodes the keyed archive FILE and prints its canonical text (see plistlib_tool.py); an
      object comes back as a dictionary of its fields plus "$class".

This writer differs from the library's on purpose: class dictionaries come first, equal strings
are not shared, every container is written even when it repeats.
"""
import datetime
import os
import plistlib
import sys

sys.dont_write_bytecode = True  # nothing written beside the sources
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
from plistlib_tool import canonical  # noqa: E402

REFERENCE = datetime.datetime(2001, 1, 1)
CLASSES = {
    "NSMutableArray": ["NSMutableArray", "NSArray", "NSObject"],
    "NSMutableDictionary": ["NSMutableDictionary", "NSDictionary", "NSObject"],
    "NSDate": ["NSDate", "NSObject"],
}


class Archiver:
    def __init__(self):
        self.objects = ["$null"]
        self.classes = {}

    def add(self, value):
        self.objects.append(value)
        return plistlib.UID(len(self.objects) - 1)

    def klass(self, name):
        if name not in self.classes:
            chain = CLASSES.get(name, [name, "NSObject"])
            self.classes[name] = self.add({"$classname": name, "$classes": chain})
        return self.classes[name]

    def ref(self, v):
        if isinstance(v, list):
            c = self.klass("NSMutableArray")
            slot = self.add(None)
            self.objects[slot.data] = {"$class": c, "NS.objects": [self.ref(x) for x in v]}
            return slot
        if isinstance(v, dict) and "$class" in v:
            c = self.klass(v["$class"])
            slot = self.add(None)
            fields = {"$class": c}
            for k, x in v.items():
                if k == "$class":
                    continue
                inline = isinstance(x, (bool, int, float))
                fields[k] = x if inline else self.ref(x)
            self.objects[slot.data] = fields
            return slot
        if isinstance(v, dict):
            c = self.klass("NSMutableDictionary")
            slot = self.add(None)
            self.objects[slot.data] = {"$class": c, "NS.keys": [self.ref(k) for k in v],
                                       "NS.objects": [self.ref(x) for x in v.values()]}
            return slot
        if isinstance(v, datetime.datetime):
            c = self.klass("NSDate")
            return self.add({"$class": c, "NS.time": (v - REFERENCE).total_seconds()})
        return self.add(v)


def spell_uids(v):
    # XML has no UID type: the published form is a dictionary with the single key "CF$UID".
    if isinstance(v, plistlib.UID):
        return {"CF$UID": v.data}
    if isinstance(v, list):
        return [spell_uids(x) for x in v]
    if isinstance(v, dict):
        return {k: spell_uids(x) for k, x in v.items()}
    return v


def read_uids(v):
    if isinstance(v, dict) and len(v) == 1 and isinstance(v.get("CF$UID"), int):
        return plistlib.UID(v["CF$UID"])
    if isinstance(v, list):
        return [read_uids(x) for x in v]
    if isinstance(v, dict):
        return {k: read_uids(x) for k, x in v.items()}
    return v


def archive(src, dst, fmt):
    with open(src, "rb") as f:
        value = plistlib.load(f)
    a = Archiver()
    root = a.ref(value)
    top = {"$archiver": "NSKeyedArchiver", "$version": 100000, "$top": {"root": root},
           "$objects": a.objects}
    with open(dst, "wb") as f:
        if fmt == "binary":
            plistlib.dump(top, f, fmt=plistlib.FMT_BINARY)
        else:
            plistlib.dump(spell_uids(top), f, fmt=plistlib.FMT_XML)
    return 0


def unarchive(path):
    with open(path, "rb") as f:
        top = read_uids(plistlib.load(f))
    assert top["$archiver"] == "NSKeyedArchiver" and top["$version"] == 100000
    objects = top["$objects"]
    assert objects[0] == "$null"

    def dec(uid):
        if uid.data == 0:
            return None
        o = objects[uid.data]
        if not isinstance(o, dict):
            return o
        name = objects[o["$class"].data]["$classname"]
        if name in ("NSArray", "NSMutableArray"):
            return [dec(x) for x in o["NS.objects"]]
        if name in ("NSDictionary", "NSMutableDictionary"):
            return {dec(k): dec(x) for k, x in zip(o["NS.keys"], o["NS.objects"])}
        if name == "NSDate":
            return REFERENCE + datetime.timedelta(seconds=o["NS.time"])
        fields = {"$class": name}
        for k, x in o.items():
            if k != "$class":
                x = dec(x) if isinstance(x, plistlib.UID) else x
                if x is not None:
                    fields[k] = x
        return fields

    print(canonical(dec(top["$top"]["root"])))
    return 0


def main(argv):
    if len(argv) == 4 and argv[0] == "archive":
        return archive(argv[1], argv[2], argv[3])
    if len(argv) == 2 and argv[0] == "unarchive":
        return unarchive(argv[1])
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
