"""What a stall costs: a disk or a processor that the recorder has to wait for, while a show of 64 universes goes on."""

import time

from contenders import PACKAGED_BUFFER
from observe import wait_for

from harness.faults import FILE, Faults  # place.py has put it within reach

UNIVERSES = 64
FRAME_RATE = 44
SECOND = 1_000_000_000

# Seconds of the show before and after a stall.
MARGIN = 0.7

# Bytes as net.core.rmem_default would give them; 212,992 is the usual value.
BUFFERS = {"212992": 212_992, "4_MiB": PACKAGED_BUFFER, "8_MiB": 2 * PACKAGED_BUFFER, "16_MiB": 4 * PACKAGED_BUFFER}
STALLS = {"disk_2_s": ("disk", 2.0), "stopped_5_s": ("stopped", 5.0)}

# The largest stall without loss is looked for up to this many seconds, and so closely.
LONGEST = {"212992": 0.2, "4_MiB": 4.0, "8_MiB": 8.0, "16_MiB": 16.0}
STEPS = 6


def lost_in(contender, buffer, kind, seconds):
    """Datagrams that are not in the recording after one stall of `seconds`."""
    table = f"{contender.site.directory}/faults"
    library = contender.tools.directory.parent / "tests/faults/libfaults.so"
    faults = Faults(table, library)
    contender.start(
        universes=UNIVERSES,
        buffer=buffer,
        core=None,
        environment={"LD_PRELOAD": str(library), "KADREL_FAULTS": table},
    )
    frames = int((2 * MARGIN + seconds) * FRAME_RATE)
    generator = contender.start_sending(
        frames * UNIVERSES, group=UNIVERSES, interval=SECOND / FRAME_RATE, core=None
    )
    time.sleep(MARGIN)
    if kind == "disk":
        faults.arm("write", kind=FILE, times=1, delay=seconds)
        wait_for(lambda: faults.struck("write") == 1, "a write that stalls")
    else:
        contender.pause()
        time.sleep(seconds)
        contender.go_on()
    contender.finish_sending(generator)
    contender.wait_idle()
    contender.stop()
    faults.close()
    return contender.account()["lost"]


def largest_without_loss(contender, buffer, longest):
    """Seconds of a disk stall, found by halving."""
    survived, too_long = 0.0, longest
    for _ in range(STEPS):
        tried = (survived + too_long) / 2
        if lost_in(contender, buffer, "disk", tried) == 0:
            survived = tried
        else:
            too_long = tried
    return survived


def stalls(contenders, settings):
    """64 universes at 44 Hz, whole frames back to back: datagrams lost when a write into the recording takes 2 s, or the
    recorder is stopped for 5 s, and the longest write of which nothing is lost; with several receive buffers."""
    figures = {}
    for contender in contenders:
        own = figures[contender.name] = {}
        for name, buffer in BUFFERS.items():
            for stall, (kind, seconds) in STALLS.items():
                own[f"lost_{stall}_{name}"] = [
                    lost_in(contender, buffer, kind, seconds) for _ in range(min(3, settings.rounds))
                ]
            longest = largest_without_loss(contender, buffer, LONGEST[name])
            own[f"longest_without_loss_ms_{name}"] = [round(1000 * longest)]
    return figures
