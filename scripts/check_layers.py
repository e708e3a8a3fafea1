#!/usr/bin/env python3
"""Fails when library code includes a header from a layer above its own.

The library is built in layers, each folder under src/ being one; calls (and so includes) only go
downward. A public header belongs to the layer of the source file that implements it (same stem,
e.g. tessel/gcm.h -> src/cipher/gcm.cpp), or to the layer named in HEADER_LAYERS. Both the sources
under src/ and the public headers are checked.

  scripts/check_layers.py [REPO]     exit 0 when every include points at its own layer or below
"""
import pathlib
import re
import sys

# Bottom first. A layer may use every layer before it in this list, except the side branch
# "auth", which sits beside asn1 and above, over hashing, ciphers and curves, and which no other
# layer may use. Layers on one line are siblings and may not use each other.
ORDER = [
    ["core"],
    ["platform"],
    ["hash"],
    ["cipher"],
    ["kernel"],
    ["factory"],
    ["random"],
    ["bignum"],
    ["ec", "pq"],
    ["asn1"],
    ["keys"],
    ["x509"],
    ["trust"],
    ["cms"],  # signed messages find and validate their signers through the store
]
SIDE = {"auth": "ec"}  # side layer -> the highest layer it may use

# Public headers without a source file of the same stem.
HEADER_LAYERS = {
    "tessel/blob.h": "core",
    "tessel/export.h": "core",
    "tessel/diagnostics.h": "core",  # src/core/diag.cpp
    "tessel/version.h": "core",  # generated into the build tree
    "tessel/keys.h": "keys",
    "tessel/cms.h": "cms",
    "tessel/cms_encrypted.h": "cms",
    "tessel/cms_enveloped.h": "cms",
    "tessel/verify.h": "trust",  # implemented by src/trust/verify_chain.cpp and its neighbours
    "tessel/tessel.h": None,  # the umbrella: for hosts only, never included by the library
}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def ranks():
    rank = {}
    for level, names in enumerate(ORDER):
        for name in names:
            rank[name] = level
    return rank


def may_use(user, used, rank):
    if user == used:
        return True
    if used in SIDE:
        return False  # nothing but the side layer itself uses it
    if user in SIDE:
        return rank[used] <= rank[SIDE[user]]
    return rank[used] < rank[user]


def header_layer(include, root):
    if include in HEADER_LAYERS:
        return HEADER_LAYERS[include], True
    if include.startswith(("tessel/", "ol/")):
        stem = pathlib.Path(include).stem
        found = sorted(root.glob(f"src/*/{stem}.cpp"))
        if include.startswith("ol/"):
            return "platform", True
        if found:
            return found[0].parent.name, True
        return None, False
    first = include.split("/")[0]  # an internal header, named by its folder: "cipher/modes.h"
    return first, "/" in include


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".").resolve()
    rank = ranks()
    known = set(rank) | set(SIDE)
    problems = []

    files = []
    for path in sorted(root.glob("src/*/*")):
        files.append((path, path.parent.name))
    for path in sorted(root.glob("include/*/*.h")):
        layer, _ = header_layer(f"{path.parent.name}/{path.name}", root)
        if layer is not None:
            files.append((path, layer))

    for path, layer in files:
        rel = path.relative_to(root)
        if layer not in known:
            problems.append(f"{rel}: folder '{layer}' is not in the layer list")
            continue
        for include in INCLUDE.findall(path.read_text(errors="replace")):
            used, ok = header_layer(include, root)
            if not ok or used is None:
                problems.append(f"{rel}: includes \"{include}\", which belongs to no layer")
            elif used not in known:
                problems.append(f"{rel}: includes \"{include}\" from unknown layer '{used}'")
            elif not may_use(layer, used, rank):
                problems.append(f"{rel} ({layer}): includes \"{include}\" from layer '{used}' above or beside it")

    for line in problems:
        print("layers:", line)
    print(f"layers: {len(files)} files checked, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
