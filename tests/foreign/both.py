"""The programs of another processor's package, under qemu, beside those of this machine. ./package --arch names them."""

import os
import subprocess
from pathlib import Path

OWN = Path(os.environ["KADREL_EXE"])
FOREIGN = Path(os.environ["KADREL_FOREIGN_EXE"])
EMULATOR = [os.environ["KADREL_FOREIGN_EMULATOR"], "-L", os.environ["KADREL_FOREIGN_ROOT"]]


def answers(*arguments, directory, network=()):
    """What both kadrel-cue do with a command line: [(exit code, output, errors)], this machine's first.

    WHO in an argument is a name of its own for each. `network`: what is called to run them in a network of their own.
    """
    found = []
    for who, prefix, program in ("by-this-one", (), OWN), ("by-the-other", EMULATOR, FOREIGN):
        outcome = subprocess.run(
            [*network, *prefix, program.parent / "kadrel-cue", *(str(word).replace("WHO", who) for word in arguments)],
            cwd=directory, capture_output=True, timeout=900, check=False, text=True,
        )
        found.append((outcome.returncode, outcome.stdout.replace(who, "WHO"), outcome.stderr.replace(who, "WHO")))
    return found
