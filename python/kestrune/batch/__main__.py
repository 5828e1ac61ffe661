# SPDX-License-Identifier: Apache-2.0
"""The command `kestrune-batch`."""

import argparse
import contextlib
import importlib
import signal
import sys
from typing import Any, Iterator, List, Optional, Tuple

import kestrune
from kestrune.matching import KNOWN

from . import BatchError, RunInterrupted, measure

_GOOD, _PARTLY_FAILED, _WRONG_INPUT, _SIGNAL_BASE = 0, 1, 2, 128
_CONNECT_SECONDS = 30
_DETAILS = """\
Each exposure is measured in a child process. One that ends its process or takes too long is tried three times and then
becomes a failed row with its reason, as all that give no points. Tables are the same wherever the work is done.
Folder: exposures/part-*.csv has a row for each exposure, points/part-*.csv one for each marker in space, run.json
settings, calibration and options, journal.sqlite what is done. kestrune.batch.read makes one table of the parts.
Files: nothing is written where settings, calibration or options are wrong. A part is written beside its place and takes
it when it is whole; what ends the run in between leaves the rows that were journalled, and --resume does the rest. It
refuses other settings, another calibration or other options than those of the run; exposures may have been added.
Exit code: 0 if every exposure gave points, 1 if one did not or the run was cut off, 2 for wrong input, 130 after Ctrl-C
and 143 after SIGTERM, which leave what is done.
"""


class _Ended(KeyboardInterrupt):
    """By a signal that a shell or a batch system sends."""

    def __init__(self, number: int):
        self.number = number


def _arguments() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        "kestrune-batch", description="Measures many exposures of a camera pair, on this machine or on a Dask cluster.",
        epilog=_DETAILS, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--calibration", required=True, metavar="FILE",
                        help="YAML file of the camera pair (see docs/calibration.md)")
    parser.add_argument("--settings", required=True, metavar="FILE",
                        help="YAML file with every setting that the path reads")
    parser.add_argument("--out", required=True, metavar="DIR",
                        help="folder of the tables, new or empty; with --resume, that of the run")
    parser.add_argument("--left", metavar="PATTERN", help="left images, in quotes: 'left/*.png'; pairs by sorted names")
    parser.add_argument("--right", metavar="PATTERN", help="right images, one for each left one")
    parser.add_argument("--table", metavar="FILE", help="instead: CSV with columns left, right and perhaps name")
    parser.add_argument("--path", help="path to take, if not that of the settings")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="of a Dask cluster, such as tcp://host:8786; without it, this machine")
    parser.add_argument("--processes", type=int, metavar="N", help="at once on this machine; all processors")
    parser.add_argument("--threads", type=int, default=1, metavar="N", help="of each process; 1")
    parser.add_argument("--chunk", type=int, metavar="N",
                        help="exposures handed over at once; 1, on a cluster 4 to 100 by their rate")
    parser.add_argument("--resume", action="store_true", help="go on with the run in the folder, or begin it")
    parser.add_argument("--range", type=_range, metavar="LOW:HIGH",
                        help="values of images of more than 8 bits that become 0 and 255")
    parser.add_argument("--invert", action="store_true", help="find dark markers: 255 - pixel")
    parser.add_argument("--min-share", type=float, default=0.5, metavar="S",
                        help="share of the poorer eye's markers that must be paired, or the exposure failed; 0.5")
    parser.add_argument("--refine", action="store_true", default=kestrune.REFINE_STEREO,
                        help="measure markers again on the grey levels; points have standard deviations then")
    parser.add_argument("--no-refine", dest="refine", action="store_false", help="keep them as the path found them")
    parser.add_argument("--match", choices=("path", "trusted"), default=kestrune.MATCH_STEREO,
                        help="pair markers by the matcher of the path, or by probability, sure pairs alone; "
                             f"{kestrune.MATCH_STEREO}")
    parser.add_argument("--radii", type=_numbers, metavar="R[,R..]", help="trusted: nominal radii of the markers")
    parser.add_argument("--radius-tolerance", type=float, metavar="S",
                        help="trusted: standard deviation of a radius, as a share of the nominal one")
    parser.add_argument("--depth-range", type=_numbers, metavar="NEAR,FAR", help="trusted: z of the left camera")
    parser.add_argument("--sure", type=float, metavar="P", help="trusted: least probability of a pair that is a point")
    parser.add_argument("--object", metavar="FILE", help="trusted: CSV of markers whose places are known")
    parser.add_argument("--timeout", type=float, metavar="S",
                        help="seconds for one exposure, which is tried three times; no limit")
    parser.add_argument("--version", action="version", version=kestrune.__version__)
    return parser


def _range(text: str) -> Tuple[float, float]:
    low, high = map(float, text.split(":"))
    return low, high


def _numbers(text: str) -> List[float]:
    return [float(number) for number in text.split(",")]


@contextlib.contextmanager
def _client(address: Optional[str]) -> Iterator[Any]:
    """@raises kestrune.InputError"""
    if address is None:
        yield None
        return
    try:
        distributed = importlib.import_module("distributed")
    except ImportError:
        raise kestrune.InputError("--scheduler: needs Dask (package python3-distributed)") from None
    try:
        client = distributed.Client(address, timeout=_CONNECT_SECONDS, set_as_default=False)
    except (OSError, ValueError) as error:
        raise kestrune.InputError(f"--scheduler: {address}: {error}") from error
    try:
        yield client
    finally:
        client.close()


def _run(options: argparse.Namespace) -> int:
    if (options.table is None) == (options.left is None) or (options.left is None) != (options.right is None):
        raise kestrune.InputError("either --left and --right or --table tell of the images")
    rig = kestrune.Rig.read(options.calibration)
    settings = kestrune.Settings.read(options.settings, options.path, use="stereo")
    exposures = options.table or (options.left, options.right)
    with _client(options.scheduler) as client:
        summary = measure(exposures, settings, rig, options.out, client=client, processes=options.processes,
                          chunk=options.chunk, resume=options.resume, invert=options.invert, range=options.range,
                          min_share=options.min_share, refine=options.refine, match=options.match,
                          known={name: getattr(options, name) for name in KNOWN if getattr(options, name) is not None},
                          threads=options.threads, timeout=options.timeout)
    print(f"{summary.exposures} exposures, {summary.failed} failed, {summary.pairs} pairs in {summary.out}"
          f" ({summary.measured} measured now in {summary.seconds:.1f} s)")
    return _PARTLY_FAILED if summary.failed else _GOOD


def main(argv: Optional[List[str]] = None) -> int:
    """@returns the exit code of the process."""
    options = _arguments().parse_args(argv)

    def end(number: int, _: object) -> None:
        raise _Ended(number)

    before = {number: signal.signal(number, end) for number in (signal.SIGINT, signal.SIGTERM)}
    try:
        return _run(options)
    except kestrune.InputError as error:
        print(f"kestrune-batch: {error}", file=sys.stderr)
        return _WRONG_INPUT
    except RunInterrupted as error:
        print(f"kestrune-batch: {error} (--resume)", file=sys.stderr)
    except BatchError as error:
        print(f"kestrune-batch: {error}; go on with --resume", file=sys.stderr)
    except _Ended as ended:
        print(f"\nkestrune-batch: interrupted; what was measured is kept in {options.out}, go on with --resume",
              file=sys.stderr)
        return _SIGNAL_BASE + ended.number
    finally:
        for number, handler in before.items():
            signal.signal(number, handler)
    return _PARTLY_FAILED


if __name__ == "__main__":
    sys.exit(main())
