"""The environment of a sanitizer build, and its reports."""

import os
import re
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[3]
EXIT_CODE = 99
_REPORT = re.compile(
    r"(?:FATAL|ERROR|WARNING|SUMMARY): \w+Sanitizer|\w+Sanitizer: |runtime error: |\w+Sanitizer:DEADLYSIGNAL|profiling:"
)


def environment():
    """Reports go to standard error and end in an exit code of their own; LSAN and TSAN suppressions from the tree."""
    thread = f"exitcode={EXIT_CODE}:halt_on_error=0:second_deadlock_stack=1:print_suppressions=0"
    suppressions = os.environ.get("KADREL_TSAN_SUPPRESSIONS", str(REPOSITORY / "tests/sanitizers/tsan.supp"))
    if os.path.exists(suppressions):
        # In quotes: a path may hold blanks, which separate options.
        thread += f":suppressions='{suppressions}'"
    options = {
        "ASAN_OPTIONS": f"exitcode={EXIT_CODE}:verify_asan_link_order=0:detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1",
        "UBSAN_OPTIONS": f"exitcode={EXIT_CODE}:halt_on_error=1:print_stacktrace=1",
        "TSAN_OPTIONS": thread,
    }
    leaks = REPOSITORY / "tests/sanitizers/lsan.supp"
    if leaks.exists():
        options["LSAN_OPTIONS"] = f"suppressions='{leaks}':print_suppressions=0"
    # Settings of the caller win.
    return {name: os.environ.get(name, value) for name, value in options.items()}


def report_in(text):
    """The report from its first line on, or None."""
    match = _REPORT.search(text)
    return text[max(0, match.start() - 200) :] if match else None
