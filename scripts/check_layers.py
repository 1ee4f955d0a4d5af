#!/usr/bin/env python3
"""Fails when the product code breaks its layering. Every unit (a .h with its
.cpp) names its stage in a line "// Stage: <stage>." near its top:

  base    utils/: logging, output, text and number helpers
  model   what the input is: the file layout, schemas, filters, metadata,
          decoders of blocks, pages and values
  plan    what is compiled once per loaded schema for the output
  writer  what turns blocks and records into output: writers and sinks
  driver  what runs the rest: the reader's walk, the jobs, the command line

The line stands in the comment that opens the header (or, for a unit of one
.cpp, the file). A unit may include units of its own stage or an earlier one, never of a later
stage; base units include only base units; and no units form an include
circle."""
import os
import re
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
FOLDERS = ["app", "data", "counters", "export", "metrics", "filter", "utils"]
STAGES = ["base", "model", "plan", "writer", "driver"]
# Headers that declare part of another unit (kept apart for their heavy includes).
UNIT_OF = {"counters/counters_schema_json": "counters/counters_schema"}
# Units that may form a circle of their own (logger and environment lookup).
CIRCLE_EXEMPT = {frozenset({"utils/log", "utils/env"})}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
STAGE = re.compile(r"^// Stage: ([a-z]+)\.", re.M)


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


def read(rel):
    with open(os.path.join(ROOT, rel), encoding="utf-8") as f:
        return f.read()


def stage_of(unit, files, errors):
    """The stage the unit's header (or its only file) names."""
    headers = [f for f in files if f.endswith(".h")] or files
    stages = set()
    for rel in headers:
        text = read(rel)
        top = re.search(r"^#\s*(pragma|include)", text, re.M)
        found = STAGE.findall(text[: top.start()] if top else text)
        stages.update(found)
    if len(stages) != 1 or next(iter(stages)) not in STAGES:
        errors.append(f"{unit}: names no stage (a line \"// Stage: <{'|'.join(STAGES)}>.\""
                      " near the top of its header)" if not stages else
                      f"{unit}: names stages {sorted(stages)}")
        return None
    stage = stages.pop()
    if (stage == "base") != unit.startswith("utils/"):
        errors.append(f"{unit}: stage base is utils/ and only utils/")
    return stage


def main():
    errors = []
    all_units = units()
    stage = {u: stage_of(u, files, errors) for u, files in all_units.items()}
    graph = {u: set() for u in all_units}
    for unit, files in all_units.items():
        for rel in files:
            for inc in INCLUDE.findall(read(rel)):
                target = UNIT_OF.get(inc.rsplit(".", 1)[0], inc.rsplit(".", 1)[0])
                if target not in all_units or target == unit:
                    continue  # generated or third-party headers
                graph[unit].add(target)
                if stage[unit] is None or stage[target] is None:
                    continue
                if STAGES.index(stage[target]) > STAGES.index(stage[unit]):
                    errors.append(f"{rel}: a {stage[unit]} unit may not include {inc}"
                                  f" (stage {stage[target]})")
    # Circles between units (a strongly connected set of more than one unit).
    index, low, stack, on_stack, counter = {}, {}, [], set(), [0]

    def connect(v):
        index[v] = low[v] = counter[0]
        counter[0] += 1
        stack.append(v)
        on_stack.add(v)
        for w in sorted(graph[v]):
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
    counts = ", ".join(f"{sum(1 for s in stage.values() if s == n)} {n}" for n in STAGES)
    print(f"layers: {len(all_units)} units ({counts}), no later stage included, no circle")
    return 0


if __name__ == "__main__":
    sys.exit(main())
