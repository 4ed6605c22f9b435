"""python -m korvel info FILE: the header, groups and channels of an MDF file."""
from __future__ import annotations

import argparse
import sys
from typing import List, Optional

from . import MdfError, open as open_mdf


def info(path: str) -> None:
    with open_mdf(path) as f:
        h = f.header
        print(f"file:     {path}")
        print(f"date:     {h['date']} {h['time']}")
        for key in ("author", "organization", "project", "subject", "comment"):
            if h[key]:
                print(f"{key + ':':<10}{h[key]}")
        print(f"sorted:   {'yes' if f.is_sorted else 'no'}")
        for g in f.groups:
            print(f"group {g.number}: {g.records} records, {len(g.channels)} channels"
                  + (f", {g.comment!r}" if g.comment else ""))
            for c in g.channels:
                rule = "-" if c.conversion_type is None else str(c.conversion_type)
                kind = "time " if c.is_time else ""
                print(f"  {c.index:>3} {c.name:<32} {kind}{c.data_type_name:<9} "
                      f"{c.bits:>3} bits  rule {rule:<5} {c.unit}")


def main(argv: Optional[List[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog="python -m korvel",
                                     description="MDF 3 files through the Korvel library")
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("info", help="header, groups and channels of a file")
    p.add_argument("file")
    args = parser.parse_args(argv)
    try:
        if args.command == "info":
            info(args.file)
    except (MdfError, OSError) as e:
        print(f"korvel: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
