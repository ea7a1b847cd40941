"""Command line of the lab. `report` and `fit` are reserved names for later subcommands."""

from __future__ import annotations

import argparse
import time

from . import catalogue as cat


def _design(args) -> int:
    from . import design
    unknown = [s for s in args.speakers if s not in cat.SPEAKERS]
    if unknown:
        print(f"unknown speaker(s): {', '.join(unknown)}")
        return 2
    design.run(args.speakers or cat.SPEAKERS)
    return 0


def _emit(args) -> int:
    from pathlib import Path

    from . import emit
    started = time.time()
    table_dir = Path(args.table_dir) if args.table_dir else emit.TABLE_DIR
    differences = emit.emit_all(table_dir=table_dir, check=args.check, verify_text=args.verify)
    elapsed = time.time() - started
    if args.check:
        if differences:
            print(f"{differences} table file(s) differ from their design records")
            return 1
        print(f"all 30 table files match their design records ({elapsed:.2f} s)")
        return 0
    print(f"emitted 30 table files ({elapsed:.2f} s)")
    return 0


def _golden(args) -> int:
    from . import golden
    started = time.time()
    golden.write_all(args.models or cat.GOLDEN_MODELS)
    print(f"golden impulse responses written ({time.time() - started:.1f} s)")
    return 0


def main(argv: list[str]) -> int:
    parser = argparse.ArgumentParser(prog="lab", description="speaker lab")
    commands = parser.add_subparsers(dest="command", required=True)

    p = commands.add_parser("design", help="fit the chains, write the design records")
    p.add_argument("speakers", nargs="*", metavar="SPEAKER", help=", ".join(cat.SPEAKERS))
    p.set_defaults(run=_design)

    p = commands.add_parser("emit", help="write the C++ tables from the design records")
    p.add_argument("--check", action="store_true",
                   help="compare with the committed files instead of writing; exit 1 on a difference")
    p.add_argument("--verify", action="store_true",
                   help="also read every emitted number back and compare it bit for bit")
    p.add_argument("--table-dir", help="directory of the table files (default: src/models/tables)")
    p.set_defaults(run=_emit)

    p = commands.add_parser("golden", help="write the golden impulse responses")
    p.add_argument("models", nargs="*")
    p.set_defaults(run=_golden)

    args = parser.parse_args(argv)
    return args.run(args)
