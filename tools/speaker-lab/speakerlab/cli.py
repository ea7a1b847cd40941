"""Command line of the lab: design, emit, golden, report, fit."""

from __future__ import annotations

import argparse
import sys
import time

from . import catalogue as cat


def _design(args) -> int:
    from . import design
    unknown = [s for s in args.speakers if s not in cat.SPEAKERS]
    if unknown:
        print(f"unknown speaker(s): {', '.join(unknown)}")
        return 2
    from pathlib import Path
    directory = Path(args.out) if args.out else design.DESIGN_DIR
    design.run(args.speakers or cat.SPEAKERS, directory=directory)
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


def _fit(args) -> int:
    from . import irfit
    try:
        irfit.run(args.wav, args.plan, plot_path=args.plot, json_path=args.json)
    except irfit.FitError as error:
        print(f"lab fit: {error}", file=sys.stderr)
        return 2
    return 0


def _report(args) -> int:
    from . import report
    started = time.time()
    report.write_report()
    print(f"report written ({time.time() - started:.1f} s)")
    return 0


def main(argv: list[str]) -> int:
    parser = argparse.ArgumentParser(prog="lab", description="speaker lab")
    commands = parser.add_subparsers(dest="command", required=True)

    p = commands.add_parser("design", help="fit the chains, write the design records")
    p.add_argument("speakers", nargs="*", metavar="SPEAKER", help=", ".join(cat.SPEAKERS))
    p.add_argument("--out", help="directory of the design records (default: designs/)")
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

    p = commands.add_parser("report", help="write docs/speakers/README.md and its plots")
    p.set_defaults(run=_report)

    p = commands.add_parser("fit", help="fit a 22-pole chain to a measured impulse response")
    p.add_argument("wav", help="impulse response, WAV at any rate (first channel)")
    p.add_argument("--plan", required=True, help='chain plan, for instance "F2 S9 T"')
    p.add_argument("--plot", help="write a PNG of target, model and error")
    p.add_argument("--json", help="write the chain's poles and float32 records as JSON")
    p.set_defaults(run=_fit)

    args = parser.parse_args(argv)
    return args.run(args)
