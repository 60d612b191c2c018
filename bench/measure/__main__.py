"""Measures; bench/README.md says how to use it."""

import argparse
import datetime
import os
import resource
import shutil
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import observe  # noqa: E402  found through the path above
import report  # noqa: E402
from contenders import Tools, available  # noqa: E402
from measurements import MEASUREMENTS  # noqa: E402
from place import TOP  # noqa: E402
from smoke import smoke  # noqa: E402
from truth import SITUATIONS, UNIVERSES  # noqa: E402


def executable(text):
    name, separator, path = text.partition("=")
    if not separator or not name or not os.access(path, os.X_OK):
        raise argparse.ArgumentTypeError(f"{text!r} is not NAME=EXECUTABLE")
    return name, path


def arguments():
    parser = argparse.ArgumentParser(prog="./bench-run", description="Measures kadrel beside other recorders.")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--smoke", action="store_true", help="only count: nothing may be lost at a modest load")
    parser.add_argument(
        "--kadrel", action="append", type=executable, metavar="NAME=EXECUTABLE", help="builds to compare; again and again"
    )
    parser.add_argument("--only", action="append", choices=MEASUREMENTS, metavar="MEASUREMENT", help=", ".join(MEASUREMENTS))
    parser.add_argument("--contender", action="append", metavar="NAME", help="leave out all others; again and again")
    parser.add_argument("--rounds", type=int, help="rounds of a measurement; some need fewer (15; truth and stop_stall 1)")
    parser.add_argument(
        "--truth-case", action="append", choices=SITUATIONS, metavar="SITUATION", help=f"of truth: {', '.join(SITUATIONS)}"
    )
    parser.add_argument(
        "--truth-universes",
        action="append",
        type=int,
        metavar="N",
        help=f"of truth, again and again ({', '.join(map(str, UNIVERSES))})",
    )
    parser.add_argument("--copy-mib", type=int, default=2048, help="MiB of the cue that truth duplicates (2048)")
    parser.add_argument("--callgrind-count", type=int, default=4000, help="datagrams of the shorter callgrind run (4000)")
    parser.add_argument("--long-recording", type=int, default=10_000_000, help="datagrams of the longest recording (10000000)")
    parser.add_argument("--strace", dest="use_perf", action="store_false", help="count system calls with strace, not perf")
    parser.add_argument("--output", help="directory of figures.json and of the profiles (build/bench)")
    settings = parser.parse_args()
    settings.long_rounds = settings.rounds or 1
    settings.rounds = settings.rounds or 15
    if settings.rounds < 1 or settings.copy_mib < 1 or settings.callgrind_count < 1 or settings.long_recording < 1:
        parser.error("rounds and counts are 1 or more")
    settings.output = settings.output or settings.build
    settings.attempts = 3
    settings.has_tcpdump = shutil.which("tcpdump") is not None
    settings.notes = []

    def note(text):
        settings.notes.append(text)
        print(f"  {text}", file=sys.stderr, flush=True)

    settings.note = note
    return settings


def own_seconds(contenders):
    """Processor time of this process and of everything that it started and still runs or has seen end."""
    ended = resource.getrusage(resource.RUSAGE_CHILDREN)
    own = resource.getrusage(resource.RUSAGE_SELF)
    alive = sum(one.cpu_ns() for one in contenders if one.process is not None) / 1e9
    return ended.ru_utime + ended.ru_stime + own.ru_utime + own.ru_stime + alive


def revision():
    outcome = subprocess.run(
        ["git", "-C", str(TOP), "describe", "--always", "--dirty"], capture_output=True, text=True, check=False
    )
    return outcome.stdout.strip() or "unknown"


def measure(contenders, settings):
    facts = observe.machine_facts()
    print(f"{facts['processor']}, {facts['processors']} processors, Linux {facts['kernel']}")
    if facts["processors"] < 2:
        settings.note("one processor: contender and generator take turns on it, so only instructions and counts mean something")
    content = {
        "when": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
        "revision": revision(),
        "machine": facts,
        "rounds": settings.rounds,
        "measurements": {},
    }
    for name in settings.only or [name for name, one in MEASUREMENTS.items() if one.usual]:
        function = MEASUREMENTS[name].function
        for contender in contenders:
            contender.traffic.clear()
        notes = len(settings.notes)
        before, own_before = observe.Machine.now(), own_seconds(contenders)
        try:
            taking_part = [one for one in contenders if isinstance(one, MEASUREMENTS[name].contenders)]
            figures = function(taking_part, settings)
        except observe.Trouble as trouble:
            settings.note(f"{name} was given up: {trouble}")
            figures = {}
            for contender in contenders:
                contender.stop()
        after, own_after = observe.Machine.now(), own_seconds(contenders)
        traffic = [run for contender in contenders for run in contender.traffic]
        conditions = report.Conditions(before, after, own_after - own_before, facts["processors"], traffic)
        print("\n".join(report.table(name, figures, function.__doc__)))
        for warning in conditions.warnings():
            settings.note(f"NOISY in {name}: {warning}")
        content["measurements"][name] = {
            "figures": figures,
            "conditions": conditions.as_dict(),
            "notes": settings.notes[notes:],
        }
        report.write_json(settings.output, content)
    print(f"\nAll figures: {report.write_json(settings.output, content)}")
    if settings.notes:
        print("\nTo be kept in mind:")
        for note in settings.notes:
            print(f"  {note}")


def main():
    settings = arguments()
    settings.tools = Tools(settings.build)
    kadrels = settings.kadrel or [("kadrel", f"{settings.build}/kadrel")]
    wanted = settings.contender or (["naive", "recvmmsg", *dict(kadrels)] if settings.smoke else None)
    contenders = []
    with observe.Precedence():
        try:
            for maker in available(settings.tools, kadrels, wanted).values():
                contenders.append(maker())
            if settings.smoke:
                smoke(contenders)
            else:
                measure(contenders, settings)
        finally:
            for contender in contenders:
                contender.close()


try:
    main()
except observe.Trouble as trouble:
    print(f"bench-run: {trouble}", file=sys.stderr)
    sys.exit(1)
