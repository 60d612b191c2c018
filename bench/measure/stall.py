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
BUFFERS = {"212992": 212_992, "8_MiB": PACKAGED_BUFFER, "16_MiB": 2 * PACKAGED_BUFFER, "32_MiB": 4 * PACKAGED_BUFFER}
STOPPED = 5.0

# KADREL_WRITE_BUFFER_MIB, and a write, in seconds, that this memory cannot outlast.
WRITES = {1: 1.5, 4: 4.0, 8: 8.0, 16: 14.0, 32: 26.0}


class SlowDisk(Faults):
    """Writes of a contender into its recording that take long. `environment`: with which it has to be started."""

    def __init__(self, contender):
        table = f"{contender.site.directory}/faults"
        library = contender.tools.directory.parent / "tests/faults/libfaults.so"
        super().__init__(table, library)
        self.environment = {"LD_PRELOAD": str(library), "KADREL_FAULTS": table}

    def hold_up(self, seconds):
        """Returns when a write has begun that takes `seconds`."""
        self.arm("write", kind=FILE, times=1, delay=seconds)
        wait_for(lambda: self.struck("write") == 1, "a write that stalls", deadline=10)


def lost_in(contender, seconds, stall, disk, **options):
    """Datagrams that are not in the recording after `stall`, which takes so many seconds."""
    contender.start(universes=UNIVERSES, core=None, **options)
    frames = int((2 * MARGIN + seconds) * FRAME_RATE)
    generator = contender.start_sending(
        frames * UNIVERSES, group=UNIVERSES, interval=SECOND / FRAME_RATE, core=None
    )
    time.sleep(MARGIN)
    stall()
    contender.finish_sending(generator)
    contender.wait_idle()
    contender.stop()
    if disk is not None:
        disk.close()
    return contender.account()["lost"]


def lost_in_a_write(contender, seconds, write_buffer):
    disk = SlowDisk(contender)
    environment = {**disk.environment, "KADREL_WRITE_BUFFER_MIB": str(write_buffer)}
    return lost_in(contender, seconds, lambda: disk.hold_up(seconds), disk, environment=environment, buffer=BUFFERS["212992"])


def lost_while_stopped(contender, buffer):
    def stop():
        contender.pause()
        time.sleep(STOPPED)
        contender.go_on()

    return lost_in(contender, STOPPED, stop, None, buffer=buffer)


def stalls(contenders, settings):
    """64 universes at 44 Hz, whole frames back to back. For several write buffers (KADREL_WRITE_BUFFER_MIB), with the kernel's
    own receive buffer: the longest write into the recording without loss, as what is lost in a longer one says. For several
    receive buffers: datagrams lost while the recorder is stopped for 5 s."""
    figures = {}
    rounds = min(3, settings.rounds)
    for contender in contenders:
        own = figures[contender.name] = {}
        for write_buffer, seconds in WRITES.items():
            lost = [lost_in_a_write(contender, seconds, write_buffer) for _ in range(rounds)]
            own[f"longest_write_without_loss_ms_{write_buffer}_MiB"] = [
                round(1000 * (seconds - count / (UNIVERSES * FRAME_RATE))) for count in lost
            ]
        for name, buffer in BUFFERS.items():
            own[f"lost_while_stopped_5_s_{name}"] = [lost_while_stopped(contender, buffer) for _ in range(rounds)]
    return figures
