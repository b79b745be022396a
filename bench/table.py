#!/usr/bin/env python3
"""Prints the medians of codec_bench (JSON, with repetitions) as Markdown tables, one per record.

Usage: table.py RESULTS.json
"""

import json
import pathlib
import sys

LIBRARIES = ["trellis", "protobuf", "flatbuffers", "capnproto", "pugixml"]


def medians(path):
    """record -> operation -> library -> nanoseconds; and record -> library -> bytes."""
    times, sizes = {}, {}
    for row in json.loads(pathlib.Path(path).read_text())["benchmarks"]:
        if row.get("aggregate_name") != "median":
            continue
        operation, record, library = row["run_name"].split("/")
        times.setdefault(record, {}).setdefault(operation, {})[library] = row["cpu_time"]
        if "bytes" in row:
            sizes.setdefault(record, {})[library] = int(row["bytes"])
    return times, sizes


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    times, sizes = medians(sys.argv[1])
    for record, operations in times.items():
        held = ", ".join(f"{library} {size}" for library, size in sizes[record].items())
        print(f"### `{record}`\n\nBytes of the binary form: {held}.\n")
        print("| ns, median of CPU time | " + " | ".join(LIBRARIES) + " | protobuf / trellis |")
        print("|---|" + "---:|" * (len(LIBRARIES) + 1))
        for operation, row in operations.items():
            cells = [f"{row[library]:.0f}" if library in row else "" for library in LIBRARIES]
            ratio = f"{row['protobuf'] / row['trellis']:.2f}" if "protobuf" in row else ""
            print(f"| {operation} | " + " | ".join(cells) + f" | {ratio} |")
        print()


main()
