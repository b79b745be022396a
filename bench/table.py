#!/usr/bin/env python3
"""Prints the medians of a benchmark (JSON, with repetitions) as Markdown tables, one per record.

Usage: table.py RESULTS.json
"""

import json
import pathlib
import sys

LIBRARIES = ["trellis", "protobuf", "protobuf arena", "flatbuffers", "capnproto", "pugixml"]


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
    met = {library for operations in times.values() for row in operations.values() for library in row}
    columns = [library for library in LIBRARIES if library in met]
    for record, operations in times.items():
        print(f"### `{record}`\n")
        if record in sizes:
            print("Bytes of the binary form: " + ", ".join(f"{l} {size}" for l, size in sizes[record].items()) + ".\n")
        print("| ns, median of CPU time | " + " | ".join(columns) + " | protobuf / trellis |")
        print("|---|" + "---:|" * (len(columns) + 1))
        for operation, row in operations.items():
            cells = [f"{row[l]:.{0 if row[l] >= 20 else 1}f}" if l in row else "" for l in columns]
            ratio = f"{row['protobuf'] / row['trellis']:.2f}" if "protobuf" in row else ""
            print(f"| {operation} | " + " | ".join(cells) + f" | {ratio} |")
        print()


main()
