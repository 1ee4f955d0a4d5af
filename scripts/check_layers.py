#!/usr/bin/env python3
"""Fails when the product code breaks its layering: a forbidden include between
folders, or an include circle between units (a unit is a .h with its .cpp)."""
import os
import re
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
FOLDERS = ["app", "data", "counters", "export", "metrics", "filter", "utils"]

# What each folder may include besides itself. Prefixes of unit paths.
ALLOWED = {
    "utils": [],
    "filter": ["utils/", "data/", "counters/counters_schema"],
    "data": ["utils/", "counters/counters_schema", "filter/"],
    "counters": ["utils/", "data/", "export/", "filter/"],
    "metrics": ["utils/", "data/bytes", "export/value_format", "export/record_output"],
    "export": ["utils/", "data/", "counters/", "metrics/", "filter/"],
    "app": FOLDERS,
}
# Headers that declare part of another unit (kept apart for their heavy includes).
UNIT_OF = {"counters/counters_schema_json": "counters/counters_schema"}
# Units that may form a circle of their own (logger and environment lookup).
CIRCLE_EXEMPT = {frozenset({"utils/log", "utils/env"})}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def units():
    found = {}
    for folder in FOLDERS:
        path = os.path.join(ROOT, folder)
        if not os.path.isdir(path):
            continue
        for name in sorted(os.listdir(path)):
            if name.endswith((".h", ".cpp")):
                unit = folder + "/" + name.rsplit(".", 1)[0]
                unit = UNIT_OF.get(unit, unit)
                found.setdefault(unit, []).append(os.path.join(folder, name))
    return found


def main():
    errors = []
    all_units = units()
    graph = {u: set() for u in all_units}
    for unit, files in all_units.items():
        folder = unit.split("/")[0]
        for rel in files:
            with open(os.path.join(ROOT, rel), encoding="utf-8") as f:
                text = f.read()
            for inc in INCLUDE.findall(text):
                target = inc.rsplit(".", 1)[0]
                target = UNIT_OF.get(target, target)
                if target not in all_units:
                    continue  # generated or third-party headers
                graph[unit].add(target)
                target_folder = target.split("/")[0]
                if target_folder == folder:
                    continue
                if not any(target.startswith(p) for p in ALLOWED[folder]):
                    errors.append(f"{rel}: {folder}/ may not include {inc}")
    # Circles between units (a strongly connected set of more than one unit).
    index, low, stack, on_stack, counter = {}, {}, [], set(), [0]

    def connect(v):
        index[v] = low[v] = counter[0]
        counter[0] += 1
        stack.append(v)
        on_stack.add(v)
        for w in sorted(graph[v]):
            if w == v:
                continue
            if w not in index:
                connect(w)
                low[v] = min(low[v], low[w])
            elif w in on_stack:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            component = []
            while True:
                w = stack.pop()
                on_stack.discard(w)
                component.append(w)
                if w == v:
                    break
            if len(component) > 1 and frozenset(component) not in CIRCLE_EXEMPT:
                errors.append("include circle: " + " <-> ".join(sorted(component)))

    sys.setrecursionlimit(10000)
    for v in sorted(graph):
        if v not in index:
            connect(v)
    for e in errors:
        print(e, file=sys.stderr)
    if errors:
        return 1
    print(f"layers: {len(all_units)} units, no forbidden include, no circle")
    return 0


if __name__ == "__main__":
    sys.exit(main())
