"""How true a recording is to the wire, and what a disk or a processor that the recorder waits for does to it.

A show is whole frames back to back, 44 a second, for 4 s (for 8 s around a write of 5 s and around a copy). Every datagram
tells when it was sent. What happens, happens a second after the first frame.

The time error of a datagram is its time in the recording (the sum of all pauses before it) less the time when it was sent.
The zero of a recording is its least error: a constant counts for nothing, so the errors are what is later than the datagram
that was recorded soonest after it was sent. The error of a pause is the recorded pause less the sender's, of datagrams that
follow each other in the stream and in the recording, without its sign.

What a recording is worth shows when it is played: kadrel-cue plays it through the cable, the kernel stamps the packets at the
far end. A frame is late that has a datagram more than 5 ms later than in the show (`played_late`), or than the recording says
(`played_off_schedule`, the player's own share), each with the least error as zero again.
"""

import os
import subprocess
import tempfile
import time
from contextlib import contextmanager, suppress

from contenders import PACKAGED_BUFFER, Kadrel, Ola, Recorder, Tcpdump
from observe import Trouble, wait_for
from place import CAPTURED, PEER, PORT, TOP
from stall import FRAME_RATE, SECOND, SlowDisk

UNIVERSES = (1, 16, 64, 512)

# Seconds of a show, and of one in which something takes 5 s; what happens, happens after LEAD seconds.
SHOW = 4
LONG_SHOW = 8
LEAD = 1.0

OWN_BUFFER = 212_992
# A frame of so many universes fits into the kernel's own receive buffer.
FITTING = 64

# Bytes of a capture before its packets, and before each of them.
CAPTURE_HEADER = 24
PACKET_HEADER = 16


class Situation:
    """What happens during a show; this one: nothing."""

    seconds = SHOW
    buffer = OWN_BUFFER
    kinds = (Recorder, Tcpdump, Kadrel, Ola)

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        pass

    def options(self, contender):
        """Settings of Contender.start."""
        del contender
        return {}

    @contextmanager
    def around(self, contender):
        """Lasts as long as the show."""
        del contender
        yield

    def happen(self, contender):
        """Is called LEAD seconds after the first frame."""

    def path(self, contender):
        """Where the recording is, as the contender and as this process sees it."""
        return contender.site.inside(contender.file), contender.site.outside(contender.file)


class SlowWrite(Situation):
    """One write into the recording takes long."""

    # libpcap writes with calls inside of the C library, which no preload reaches.
    kinds = (Recorder, Kadrel, Ola)

    def __init__(self, duration, seconds=SHOW):
        self.duration = duration
        self.seconds = seconds

    def options(self, contender):
        self._disk = SlowDisk(contender)
        return {"environment": self._disk.environment}

    @contextmanager
    def around(self, contender):
        del contender
        try:
            yield
        finally:
            self._disk.close()

    def happen(self, contender):
        del contender
        self._disk.hold_up(self.duration)


class Stopped(Situation):
    """All threads of the recorder stand still."""

    buffer = PACKAGED_BUFFER

    def happen(self, contender):
        contender.pause()
        time.sleep(1)
        contender.go_on()


class Compilers(Situation):
    """Two compilers for each processor, and a recorder that is an ordinary program beside them."""

    buffer = PACKAGED_BUFFER
    EACH = 2

    @staticmethod
    def _ordinary():
        """What gives a command the standing of one that is started in a terminal of its own (see Precedence)."""
        return ["setsid", "nice", "-n", str(-os.getpriority(os.PRIO_PROCESS, 0))]

    def options(self, contender):
        del contender
        return {"wrapper": self._ordinary()}

    @contextmanager
    def around(self, contender):
        del contender
        loops = self.EACH * len(os.sched_getaffinity(0))
        one = f"echo compiling; while :; do g++ -std=c++17 -O2 -I '{TOP}' -c '{TOP}/bench/account.cpp' -o /dev/null; done"
        many = "".join(f"( {one} ) & " for _ in range(loops)) + "wait"
        # All in one session, as a build is. timeout passes its end on to all of them.
        bounded = ["timeout", str(self.seconds + 30), "sh", "-c", many]
        compilers = subprocess.Popen([*self._ordinary(), *bounded], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        try:
            for _ in range(loops):
                if compilers.stdout.readline() != "compiling\n":
                    raise Trouble("the compilers do not start")
            yield
        finally:
            compilers.terminate()
            compilers.wait()
            compilers.stdout.close()


class Copy(Situation):
    """dup_cue of a large cue on the disk that takes the recording; it may last longer than the show."""

    seconds = LONG_SHOW
    buffer = PACKAGED_BUFFER
    kinds = (Kadrel,)

    def __init__(self, mib):
        self.mib = mib

    def __enter__(self):
        block = os.urandom(1 << 20)
        with tempfile.NamedTemporaryFile(prefix="kadrel-bench-", dir="/tmp", delete=False) as file:
            self._cue = file.name
            try:
                for _ in range(self.mib):
                    file.write(block)
                file.flush()
                os.fsync(file.fileno())  # the copy is to find a quiet disk
            except BaseException:
                os.unlink(self._cue)
                raise
        return self

    def __exit__(self, *_exception):
        os.unlink(self._cue)

    def path(self, contender):
        path = f"{contender.site.directory}/on_disk"
        return path, path

    def options(self, contender):
        return {"path": self.path(contender)[0]}

    def happen(self, contender):
        copy = contender.client.call("dup_cue", contender.site.directory, self._cue, deadline=120)
        if copy == "" or os.path.getsize(copy) != self.mib << 20:
            raise Trouble(f"{contender.name} made no copy")
        os.unlink(copy)


SITUATIONS = {
    "nothing": lambda _: Situation(),
    "write_0.3_s": lambda _: SlowWrite(0.3),
    "write_1_s": lambda _: SlowWrite(1.0),
    "write_5_s": lambda _: SlowWrite(5.0, LONG_SHOW),
    "stopped_1_s": lambda _: Stopped(),
    "compilers": lambda _: Compilers(),
    "copy": lambda settings: Copy(settings.copy_mib),
}


def record(contender, situation, universes, settings):
    """Records one show. @return what account says of it"""
    inside, outside = situation.path(contender)
    with suppress(FileNotFoundError):
        os.unlink(outside)
    buffer = situation.buffer if universes <= FITTING else PACKAGED_BUFFER
    contender.start(universes=universes, buffer=buffer, core=None, **situation.options(contender))
    with situation.around(contender):
        generator = contender.start_sending(
            situation.seconds * FRAME_RATE * universes, group=universes, interval=SECOND / FRAME_RATE, one_by_one=True
        )
        try:
            time.sleep(LEAD)
            situation.happen(contender)
        except BaseException:
            generator.kill()
            generator.communicate()
            raise
        contender.finish_sending(generator)
    contender.wait_idle()
    contender.stop()
    report = contender.account(outside)
    wrong = {key: report[key] for key in ("duplicated", "damaged", "foreign") if report[key]}
    if wrong:
        settings.note(f"{contender.name}, {universes} universes: {wrong}")
    return report


def play(contender, situation, records, settings):
    """Plays the recording through the cable. @return what account says of it against the show, and against the recording"""
    inside, outside = situation.path(contender)
    player = contender.tools.directory.parent / "kadrel-cue"
    if records == 0 or not os.access(player, os.X_OK):
        settings.note(f"{contender.name}: {'an empty recording' if records == 0 else 'no kadrel-cue here'}, nothing was played")
        return None
    site = contender.site
    # Without a receiver every packet would be answered.
    sink = site.namespaces.udp_socket("peer", PEER, PORT)
    try:
        with site.capture("played", "udp", "dst", "port", str(PORT)) as played:
            command = [str(player), "play", inside, "--to", f"{PEER}:{PORT}"]
            process = site.popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
            _, errors = process.communicate()
            if process.returncode != 0:
                settings.note(f"{contender.name}: kadrel-cue ended with {process.returncode}: {errors.strip()[-500:]}")
            whole = CAPTURE_HEADER + records * (PACKET_HEADER + CAPTURED)
            with suppress(Trouble):
                wait_for(lambda: os.path.getsize(played) >= whole, "the last packet", deadline=2)
    finally:
        sink.close()
    reports = contender.account(played, "capture"), contender.account(played, "capture", outside)
    if reports[0]["records"] != records:
        settings.note(f"{contender.name}: {reports[0]['records']} of {records} played datagrams were captured")
    os.unlink(played)
    return reports


def figures_of(contender, situation, universes, settings):
    """One show, recorded and, where kadrel recorded it, played."""
    try:
        report = record(contender, situation, universes, settings)
        own = {
            "sent": contender.sent,
            "lost": report["lost"],
            "out_of_order": report["out_of_order"],
            **{f"time_{part}_ms": report[f"time_error_{part}_ns"] / 1e6 for part in ("p50", "p99", "max")},
            **{f"pause_{part}_us": report[f"pause_error_{part}_ns"] / 1e3 for part in ("p50", "p99")},
        }
        reports = play(contender, situation, report["records"], settings) if isinstance(contender, Kadrel) else None
        if reports:
            own["frames_played_late"], own["frames_played_off_schedule"] = (one["frames_late_by_5_ms"] for one in reports)
        return own
    finally:
        contender.stop()
        with suppress(FileNotFoundError):
            os.unlink(situation.path(contender)[1])


def truth(contenders, settings):
    """Frames at 44 Hz, whole and back to back: what is lost and out of order; the error of the recorded times, above that of the
    datagram recorded soonest after it was sent; the error of the recorded pauses; and frames that are more than 5 ms late
    when kadrel-cue plays the recording: than in the show, and than the recording says."""
    figures = {contender.name: {} for contender in contenders}
    chosen = settings.truth_universes or UNIVERSES
    if not settings.contender:
        # Its times are those of recvmmsg.
        contenders = [contender for contender in contenders if contender.name != "select"]
    for number in range(settings.long_rounds):
        for name in settings.truth_case or SITUATIONS:
            with SITUATIONS[name](settings) as situation:
                for universes in sorted({*chosen, Ola.UNIVERSES}):
                    for contender in contenders if number % 2 == 0 else reversed(contenders):
                        wanted = (Ola.UNIVERSES,) if isinstance(contender, Ola) else chosen
                        if universes not in wanted or not isinstance(contender, situation.kinds):
                            continue
                        try:
                            own = figures_of(contender, situation, universes, settings)
                        except Trouble as trouble:
                            settings.note(f"{name}, {universes} universes: {trouble}")
                            continue
                        figures[contender.name].setdefault(f"{name}, {universes} universes", []).append(own)
    return figures
