"""python3 -m crrecord.cluster: the verbs of the command about whole stores, on many machines."""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import logging
import os
import sys
from typing import Any, Callable, Dict, List, Optional

from .. import Error, _store, cluster
from .._types import Reference
from ._run import Question, Run, distributed


def _number(least: int, most: int) -> Callable[[str], int]:
    def number(text: str) -> int:
        if not (text.isascii() and text.isdigit() and str(int(text)) == text and least <= int(text) <= most):
            raise argparse.ArgumentTypeError(f"found {text!r}, expected a whole number of {least} to {most}")
        return int(text)

    return number


def _reference(text: str) -> Reference:
    try:
        return Reference.parse(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from error


QUESTIONS: Dict[str, Callable[[argparse.Namespace], Question]] = {
    "live": lambda options: cluster._live(options.held, options.sparse, options.scan),
    "freed": lambda options: cluster._freed(options.reference, options.scan),
    "lost": lambda options: cluster._lost(options.container, options.scan),
    "recall": lambda options: cluster._recall(options.cache, options.scan),
    "validate": lambda options: cluster._validate(options.first, options.bad_only, options.scan),
}


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        "python3 -m crrecord.cluster",
        description="Answer a question about a whole store on many machines. Prints what crrecord VERB --json prints.",
        epilog="Exit status: 0 success; 1 a bad record or a difference; 2 the run failed.",
        allow_abbrev=False,
    )
    verbs = parser.add_subparsers(dest="verb", required=True, metavar="VERB")

    def add(name: str, description: str) -> argparse.ArgumentParser:
        verb = verbs.add_parser(name, help=description, description=description, allow_abbrev=False)
        verb.add_argument("files", nargs="+", metavar="FILE", help="files of records, or patterns")
        verb.add_argument("--work", required=True, metavar="DIR", help="a folder that all workers see")
        verb.add_argument("--scheduler", metavar="ADDRESS", help="of Dask; without it, a worker for each processor")
        verb.add_argument("--scan", action="store_true", help="search for the next record after bytes that are none")
        verb.add_argument("--piece", type=_number(1, 1 << 40), metavar="BYTES", help="bytes of records for a task")
        return verb

    verb = add("live", "report what a store's records need of each container")
    verb.add_argument("--held", action="store_true", help="count only records that have a reference")
    verb.add_argument("--sparse", type=_number(0, 100), default=50, metavar="PERCENT")
    verb = add("freed", "report what a store would no longer need without some references")
    verb.add_argument("--reference", type=_reference, action="append", required=True, metavar="REF")
    verb = add("lost", "list the records that are damaged if some containers are lost")
    verb.add_argument("--container", type=_number(0, (1 << 64) - 1), action="append", required=True, metavar="DCID")
    verb = add("recall", "list the containers that some records need, in the order of a restore")
    verb.add_argument("--cache", type=_number(0, (1 << 32) - 1), default=0, metavar="N")
    verb = add("validate", "report the errors and notes of each record")
    verb.add_argument("--first", action="store_true", help="only the first error of each record, and no notes")
    verb.add_argument("--bad-only", action="store_true", help="only the findings of bad records")
    return parser


def _run(options: argparse.Namespace) -> int:
    logging.disable(logging.ERROR)  # Dask's lines about workers that are lost, whose tasks others do
    dask = distributed()
    processors = len(os.sched_getaffinity(0))
    local: Dict[str, Any] = {"n_workers": processors, "threads_per_worker": 1, "silence_logs": logging.CRITICAL}
    local.update(host="127.0.0.1", dashboard_address="127.0.0.1:0")
    with contextlib.ExitStack() as stack:
        address = options.scheduler or stack.enter_context(dask.LocalCluster(**local))
        client = stack.enter_context(dask.Client(address))
        run = Run(client, QUESTIONS[options.verb](options), options.files, options.work, options.piece)
        status = run.answer(sys.stdout.fileno(), sys.stderr.fileno())
    return status


def main(arguments: Optional[List[str]] = None) -> int:
    options = _parser().parse_args(arguments)
    try:
        return _run(options)
    except ImportError as error:
        is_dask = error.name == "distributed"
        reason = f"{error}: " + ("this needs Debian's package python3-distributed" if is_dask else "a worker needs it")
    except Error as error:
        reason = error.text
    except OSError as error:
        named = f"{os.fsdecode(error.filename)}: {error.strerror}" if error.filename else ""
        reason = named or str(error) or type(error).__name__
    except (Exception, asyncio.CancelledError) as error:  # also Dask's, such as that of a lost scheduler
        reason = str(error) or "the scheduler cancelled the run"
    # A name of a file may have control characters, which must not reach a terminal.
    print(f"crrecord: {os.fsdecode(_store._printable(os.fsencode(reason)))}", file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
