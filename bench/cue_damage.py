"""What `kadrel-cue verify` sees of damage and what its repair keeps: one table for each program that is named.

    /usr/bin/python3 -B bench/cue_damage.py [--show N] [--only "zeroed page"] PROGRAM...

The shows are made here: N datagrams of four universes, full (512 slots), short (24 slots) and mixed in size, each with
levels and a sequence number of its own. Each damage is done to a copy. A row counts

    tried      damaged files
    unseen     files that verify calls whole although a datagram, a delay record or the length is damaged. Damage that
               leaves every header as it was (levels, a pause that stays possible) is not tried, but for the pauses
    lost       datagrams that the damage has not touched and that are not in the repaired file, all files together
    not clean  repaired files that verify --strict does not call whole
    code       exit codes of the repairs
"""

import argparse
import random
import struct
import subprocess
import sys
import tempfile
from collections import Counter
from pathlib import Path

DELAY = 18
PAGE = 4096
HEADER = b"Art-Net\0"


def delay(pause):
    return HEADER + b"\xfe\0" + struct.pack("<q", pause)


def art_dmx(universe, sequence, levels):
    return HEADER + struct.pack("<HBBBBHBB", 0x5000, 0, 14, sequence, 0, universe, len(levels) >> 8, len(levels) & 255) + levels


class Show:
    """A recording, and where its datagrams are."""

    def __init__(self, name, sizes, datagrams, chance):
        self.name = name
        self.datagrams = []
        for n in range(datagrams):
            levels = struct.pack(">I", n) + chance.randbytes(chance.choice(sizes) - 4)
            self.datagrams.append(art_dmx(n % 4, n // 4 % 255 + 1, levels))
        self.content, self.places = b"", []
        for datagram in self.datagrams:
            if self.content:
                self.content += delay(5_681_818)
            self.places.append((len(self.content), len(self.content) + len(datagram)))
            self.content += datagram

    def delays(self):
        return [begin - DELAY for begin, _ in self.places[1:]]


class Damaged:
    """A file, and the bytes of it (from, to) that were damaged."""

    def __init__(self, content, *hit):
        self.content, self.hit = content, hit


def replaced(content, at, size, new):
    return content[:at] + new + content[at + size :]


def flipped(content, at, bit):
    return replaced(content, at, 1, bytes([content[at] ^ 1 << bit]))


def pages(show):
    """One page of zeros at each place of a page in which a header lies; a page of levels alone cannot be seen."""
    for at in range(0, len(show.content) - PAGE, PAGE):
        yield Damaged(replaced(show.content, at, PAGE, bytes(PAGE)), (at, at + PAGE))


def header_bits(show):
    for at in show.delays():
        for bit in range(80):
            yield Damaged(flipped(show.content, at + bit // 8, bit % 8), (at, at + DELAY))


def pause_bits(show):
    for at in show.delays():
        for bit in range(80, 144):
            yield Damaged(flipped(show.content, at + bit // 8, bit % 8), (at, at + DELAY))


def signs(show):
    for at in show.delays():
        yield Damaged(flipped(show.content, at + DELAY - 1, 7), (at, at + DELAY))


def dmx_header_bits(show):
    """The identifier, the operation code and the slots: those after a sequence number are levels to the reader."""
    for begin, end in show.places:
        for byte in (*range(10), 16, 17):
            for bit in range(8):
                yield Damaged(flipped(show.content, begin + byte, bit), (begin, end))


def zero_tails(show):
    for size in (1, 4, 18, 100, 512, 1000, PAGE, 2 * PAGE, 16384):
        yield Damaged(show.content + bytes(size), (len(show.content), len(show.content) + size))


def cuts(show):
    """At every byte of the last three datagrams but behind one."""
    ends = {end for _, end in show.places}
    for size in range(show.places[-3][0], len(show.content)):
        if size not in ends:
            yield Damaged(show.content[:size], (size, len(show.content)))


def bursts(show, chance):
    """Random bytes over the border of two records, so that a header is hit."""
    for at in show.delays():
        for _ in range(8):
            begin = at - chance.randrange(8)
            size = 9 + chance.randrange(600)
            size = min(size, len(show.content) - begin)
            yield Damaged(replaced(show.content, begin, size, chance.randbytes(size)), (begin, begin + size))


def run(program, *arguments):
    return subprocess.run([program, *map(str, arguments)], capture_output=True, check=False).returncode


def datagrams_of(content, datagrams):
    """Which of these datagrams are in a file. Each is there once: its number is among its levels."""
    return {n for n, datagram in enumerate(datagrams) if datagram in content}


class Row:
    def __init__(self):
        self.tried = self.unseen = self.lost = self.not_clean = 0
        self.codes = Counter()

    def take(self, program, show, damaged, folder):
        broken, good = Path(folder, "broken.cue"), Path(folder, "good.cue")
        broken.write_bytes(damaged.content)
        good.unlink(missing_ok=True)
        self.tried += 1
        self.unseen += run(program, "verify", broken) == 0
        self.codes[run(program, "verify", "--repair", "-o", good, broken)] += 1
        kept = datagrams_of(good.read_bytes() if good.exists() else b"", show.datagrams)
        whole = {
            n
            for n, (begin, end) in enumerate(show.places)
            if all(end <= hit[0] or begin >= hit[1] for hit in damaged.hit)
        }
        self.lost += len(whole - kept)
        if good.exists():
            self.not_clean += run(program, "verify", "--strict", good) != 0

    def text(self):
        codes = ", ".join(f"{code}: {count}" for code, count in sorted(self.codes.items()))
        return f"{self.tried:7d}{self.unseen:8d}{self.lost:7d}{self.not_clean:11d}  {codes}"


def main():
    arguments = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    arguments.add_argument("--show", type=int, default=64, help="datagrams of a show")
    arguments.add_argument("--only", action="append", help="kinds of damage, as the table names them")
    arguments.add_argument("programs", nargs="+")
    options = arguments.parse_args()
    chance = random.Random(1)
    sizes = {"512": [512], "24": [24], "mixed": [8, 24, 100, 333, 512]}
    shows = [Show(name, of, options.show, chance) for name, of in sizes.items()]
    kinds = {
        "zeroed page": pages,
        "bit of a delay header": header_bits,
        "bit of a pause": pause_bits,
        "sign of a pause": signs,
        "bit of an ArtDmx header": dmx_header_bits,
        "zero tail": zero_tails,
        "cut": cuts,
        "random burst": lambda show: bursts(show, random.Random(2)),
    }
    for program in options.programs:
        print(f"{program}\n{'slots':7}{'damage':25}{'tried':>7}{'unseen':>8}{'lost':>7}{'not clean':>11}  code", flush=True)
        for show in shows:
            for kind, damage in kinds.items():
                if options.only and kind not in options.only:
                    continue
                row = Row()
                with tempfile.TemporaryDirectory(prefix="cue_damage_") as folder:
                    for damaged in damage(show):
                        row.take(program, show, damaged, folder)
                print(f"{show.name:7}{kind:25}{row.text()}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
