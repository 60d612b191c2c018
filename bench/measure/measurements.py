"""The measurements. Each takes the contenders and the settings, and gives per contender a dictionary of figures; a list
holds one value per round. A contender that lost what it must not lose gives {"void": reason} instead."""

import json
import os
import re
import statistics
import subprocess
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import observe
from contenders import PACKAGED_BUFFER, RAISED_BUFFER, Kadrel, Ola, Recorder, Tcpdump
from observe import Trouble
from stall import stalls
from standstill import stop_stall
from truth import truth

SECOND = 1_000_000_000
BACKLOG = 3000

# 209,000 full ArtDmx datagrams fill a gigabit wire: 590 bytes each with all headers, gap and preamble, 8 bits a byte.
WIRE_RATE = 209_000
FRAME_RATE = 44


def all_there(contender):
    """Refuses figures of a contender that did not record everything: they would be about fewer datagrams."""
    report = contender.account()
    wrong = {key: report[key] for key in ("lost", "duplicated", "reordered", "damaged", "foreign") if report[key]}
    if wrong:
        raise Trouble(f"{contender.name} did not record everything, figures void: {wrong}")
    return report


def attempts(contender, settings, measure):
    """The figures of one contender; tried again when it lost datagrams, which the machine may have made it do."""
    for attempt in range(settings.attempts):
        try:
            return measure()
        except Trouble as trouble:
            contender.stop()
            reason = str(trouble)
            settings.note(f"{reason} (attempt {attempt + 1} of {settings.attempts})")
    return {"void": reason}


def in_turn(contenders, rounds):
    """(round, contender), every second round backwards, so that a drift of the machine falls on all alike."""
    for number in range(rounds):
        for contender in contenders if number % 2 == 0 else reversed(contenders):
            yield number, contender


def let_go(contender, count=BACKLOG, core=0, one_thread=False):
    """Nanoseconds of processor time for each of `count` datagrams that wait when the contender is let go.

    `core`: the generator's processor, 0 its own, 1 the contender's, which it needs only while the contender is stopped.
    `one_thread`: only what the busiest thread used.
    """
    contender.pause()
    contender.send(count, core=core)
    before = observe.cpu_ns_by_thread(contender.pids)
    contender.go_on()
    contender.wait_idle()
    used = [time - before.get(thread, 0) for thread, time in observe.cpu_ns_by_thread(contender.pids).items()]
    return (max(used) if one_thread else sum(used)) / count


def close_books(contenders, settings, figures):
    """Ends all contenders; voids the figures of those that lost something."""
    for contender in contenders:
        contender.stop()
        try:
            all_there(contender)
        except Trouble as trouble:
            settings.note(str(trouble))
            figures[contender.name] = {"void": str(trouble)}
    return figures


def backlog(contenders, settings, core=0):
    """CPU time per datagram when 3,000 wait: the contender is stopped, the queue filled, the contender let go."""
    figures = {contender.name: {"cpu_ns_per_datagram": []} for contender in contenders}
    for contender in contenders:
        contender.start(universes=256, buffer=RAISED_BUFFER)
        contender.send(BACKLOG, group=16, interval=1_000_000)
        contender.wait_idle()
    for _, contender in in_turn(contenders, settings.rounds):
        figures[contender.name]["cpu_ns_per_datagram"].append(let_go(contender, core=core))
    return close_books(contenders, settings, figures)


def local_backlog(contenders, settings):
    """As backlog, but the queue is filled from the contender's own processor: the kernel then frees each datagram where it
    was made, and no interrupt goes to another processor for it."""
    return backlog(contenders, settings, core=1)


def paced(contenders, settings):
    """CPU time per datagram at 256 universes and 40 Hz, evenly spaced."""
    rate, seconds = 256 * 40, 2
    figures = {contender.name: {"cpu_ns_per_datagram": []} for contender in contenders}
    for contender in contenders:
        contender.start(universes=256, buffer=RAISED_BUFFER)
        contender.send(2 * 256, interval=SECOND / rate)
        contender.wait_idle()
    for _, contender in in_turn(contenders, max(3, settings.rounds // 3)):
        before = contender.cpu_ns()
        contender.send(rate * seconds, interval=SECOND / rate)
        contender.wait_idle()
        figures[contender.name]["cpu_ns_per_datagram"].append((contender.cpu_ns() - before) / (rate * seconds))
    return close_books(contenders, settings, figures)


def _callgrind_run(contender, count, directory):
    """Instructions of a whole run over `count` datagrams; its profile stays in the output directory."""
    profile = f"{contender.site.directory}/callgrind.{count}"
    contender.start(
        universes=256, buffer=RAISED_BUFFER, wrapper=["valgrind", "--tool=callgrind", f"--callgrind-out-file={profile}"]
    )
    contender.send(count)
    contender.wait_idle(settle=0.05)
    contender.stop()
    all_there(contender)
    text = Path(profile).read_text(encoding="utf-8", errors="replace")
    (Path(directory) / f"callgrind.{contender.name}.{count}").write_text(text, encoding="utf-8")
    totals = re.findall(r"^(?:totals|summary): (\d+)", text, re.MULTILINE)
    if not totals:
        raise Trouble(f"callgrind wrote no total for {contender.name}: {contender.log_text()}")
    return int(totals[-1])


def instructions(contenders, settings):
    """User instructions per recorded full ArtDmx: callgrind over N and over 2N datagrams, the difference divided by N."""
    count = settings.callgrind_count
    figures = {}
    for contender in contenders:
        def measure(contender=contender):
            short = _callgrind_run(contender, count, settings.output)
            long = _callgrind_run(contender, 2 * count, settings.output)
            return {"instructions_per_datagram": [(long - short) / count]}

        figures[contender.name] = attempts(contender, settings, measure)
    return figures


def _count_calls(contender, with_perf, traffic):
    with observe.SystemCalls(contender.pids, with_perf) as calls:
        contender.send(**traffic)
        contender.wait_idle()
    return calls.counts


def system_calls(contenders, settings):
    """System calls per datagram, datagrams one by one (4 ms apart) and in bursts of 16 (20 ms apart): N and 2N
    datagrams, the difference divided by N, so that waits that have nothing to do with datagrams cancel."""
    with_perf = settings.use_perf and observe.SystemCalls.perf_works()
    if not with_perf:
        settings.note("system calls are counted with strace, which slows a contender down: its bursts look longer than they are")
    figures = {}
    for contender in contenders:
        def measure(contender=contender):
            contender.start(universes=256, buffer=RAISED_BUFFER)
            own = {}
            for name, count, traffic in (
                ("single", 300, {"interval": 4_000_000}),
                ("burst_of_16", 960, {"group": 16, "interval": 20_000_000}),
            ):
                totals, parts = [], {}
                for _ in range(min(3, settings.rounds)):
                    short = _count_calls(contender, with_perf, {"count": count, **traffic})
                    long = _count_calls(contender, with_perf, {"count": 2 * count, **traffic})
                    totals.append((long["all"] - short["all"]) / count)
                    for call in long:
                        parts.setdefault(call, []).append((long[call] - short.get(call, 0)) / count)
                own[f"calls_per_datagram_{name}"] = totals
                own[f"of_these_{name}"] = {
                    call: round(statistics.median(values), 3) for call, values in parts.items() if call != "all" and any(values)
                }
            contender.stop()
            all_there(contender)
            return own

        figures[contender.name] = attempts(contender, settings, measure)
    return figures


def allocations(contenders, settings):
    """Allocations per recorded datagram (malloc and its kin, hence new), while 5,000 of them are recorded."""
    figures = {}
    count = 5000
    for contender in contenders:
        def measure(contender=contender):
            counter = f"{contender.site.directory}/allocations"
            contender.start(
                universes=256,
                buffer=RAISED_BUFFER,
                environment={
                    "LD_PRELOAD": contender.tools.path("liballocation_count.so"),
                    "BENCH_ALLOCATION_FILE": counter,
                },
            )

            def allocated():
                return int.from_bytes(Path(counter).read_bytes(), "little")

            contender.send(1024, group=16, interval=1_000_000)  # whatever is only made once is made here
            contender.wait_idle()
            values = []
            for _ in range(3):
                before = allocated()
                contender.send(count, group=16, interval=1_000_000)
                contender.wait_idle()
                values.append((allocated() - before) / count)
            contender.stop()
            all_there(contender)
            return {"allocations_per_datagram": values}

        figures[contender.name] = attempts(contender, settings, measure)
    return figures


FRAMES = (64, 96, 128, 160, 192, 256, 320, 384, 448, 512, 640, 768, 1024, 1280, 1536, 2048, 2560, 3072, 4096, 4750)


def _largest_frame(contender, start):
    """Climbs from size to size, one second each, until two tries of a size lose something.

    @return the last size without loss, 0 when even the smallest does not fit
    """
    best = 0
    for size in FRAMES[FRAMES.index(start) :]:
        for _ in range(2):
            before = contender.missing()
            contender.universes = size
            contender.send(size * FRAME_RATE, group=size, interval=SECOND / FRAME_RATE)
            contender.wait_idle()
            if contender.missing() == before:
                best = size
                break
        else:
            break
    return best


def frames(contenders, settings):
    """The largest whole frame, back to back as fast as the sender goes, that arrives 44 times a second without loss: with
    the system's own receive buffer, and with the packaged setting (8 MiB). The largest size tried is what fills a
    gigabit wire. Then one second of the median size is recorded and accounted for."""
    figures = {contender.name: {} for contender in contenders}
    for name, buffer, start in (("default_buffer", None, 64), ("packaged_buffer", PACKAGED_BUFFER, 512)):
        for _, contender in in_turn(contenders, min(3, settings.rounds)):
            contender.start(universes=1, buffer=buffer)
            figures[contender.name].setdefault(f"largest_frame_{name}", []).append(_largest_frame(contender, start))
            contender.stop()
        for contender in contenders:
            found = figures[contender.name].get(f"largest_frame_{name}")
            if not found:
                continue
            size = int(statistics.median_low(found))
            if size == 0:
                continue
            contender.start(universes=size, buffer=buffer)
            contender.send(size * FRAME_RATE, group=size, interval=SECOND / FRAME_RATE)
            contender.wait_idle()
            contender.stop()
            report = contender.account()
            figures[contender.name][f"lost_on_record_{name}"] = [report["lost"]]
            if report["duplicated"] or report["reordered"] or report["damaged"]:
                settings.note(f"{contender.name}, frames of {size}: {report}")
    return figures


def flood(contenders, settings):
    """Gigabit wire rate, 209,000 datagrams/s for 5 seconds, with the packaged receive buffer: what is lost. The generator
    sends 16 at a time as one segmented datagram; one by one a processor hardly gets so many through a virtual cable."""
    figures = {contender.name: {} for contender in contenders}
    count, group, universes = WIRE_RATE * 5, 16, 4750
    for _, contender in in_turn(contenders, min(3, settings.rounds)):
        contender.start(universes=universes, buffer=PACKAGED_BUFFER)
        before = contender.cpu_ns()
        sender = contender.send(count, group=group, interval=SECOND * group / WIRE_RATE, segmented=True)
        contender.wait_idle()
        own = figures[contender.name]
        own.setdefault("cpu_ns_per_datagram", []).append((contender.cpu_ns() - before) / count)
        contender.stop()
        report = contender.account()
        own.setdefault("lost", []).append(report["lost"])
        achieved = sender["sent"] * SECOND / sender["ns"]
        own.setdefault("sent_per_second", []).append(achieved)
        if achieved < 0.99 * WIRE_RATE:
            settings.note(f"the generator reached only {achieved:.0f} of {WIRE_RATE} datagrams/s beside {contender.name}")
        if report["duplicated"] or report["reordered"] or report["damaged"]:
            settings.note(f"{contender.name} at wire rate: {report}")
    return figures


CALLS = ("get_status", "latest_grab", "set_ctrl_universe", "set_ctrl_action", "set_ctrl_record", "grab_stop")


def calls(contenders, settings):
    """How long 1,000 calls of each D-Bus method take their caller while 40,000 datagrams/s come in; the first five methods
    while these are recorded. Includes the bus, there and back."""
    rate = 40_000
    figures = {}
    for contender in contenders:
        own = figures[contender.name] = {}
        for _ in range(min(3, settings.rounds)):
            for method in CALLS:
                contender.start(universes=256, buffer=PACKAGED_BUFFER, begin=method != "grab_stop")
                generator = contender.start_sending(rate * 4, group=4, interval=SECOND * 4 / rate)
                observe.wait_for(lambda c=contender: c.missing() < c.sent, "the first datagram")
                client = contender.client_program(
                    contender.tools.path("call_latency"), "1000", method, contender.site.inside("other")
                )
                answer, _ = client.communicate()
                if client.returncode != 0:
                    raise Trouble(f"{method} of {contender.name} failed")
                sending = generator.poll() is None
                contender.finish_sending(generator)
                if not sending:
                    settings.note(f"{contender.name}: 1,000 calls of {method} took longer than the 4 s of traffic")
                contender.wait_idle()
                times = json.loads(answer)
                own.setdefault(f"{method}_p50_us", []).append(times["p50_ns"] / 1000)
                own.setdefault(f"{method}_p99_us", []).append(times["p99_ns"] / 1000)
                own.setdefault(f"{method}_max_us", []).append(times["max_ns"] / 1000)
                own.setdefault("lost", []).append(contender.missing())
                contender.stop()
    return figures


def memory(contenders, settings):
    """Resident memory when recording begins, after 120,000 datagrams of 4,096 universes, and after 360,000 more."""
    del settings
    figures = {}
    rate = 40_000
    for contender in contenders:
        contender.start(universes=4096, buffer=PACKAGED_BUFFER)
        values = [observe.resident_kib(contender.pids)]
        for count in (120_000, 360_000):
            contender.send(count, group=8, interval=SECOND * 8 / rate)
            contender.wait_idle()
            values.append(observe.resident_kib(contender.pids))
        contender.stop()
        figures[contender.name] = {
            f"resident_kib_{name}": [value] for name, value in zip(("start", "after_120k", "after_480k"), values, strict=True)
        }
    return figures


def timing(contenders, settings):
    """How far recorded pauses are from those of the sender, and the stamps of tcpdump on the same packets beside them."""
    figures = {}
    rounds = min(3, settings.rounds)
    for universes in (1, 64):
        count, interval = FRAME_RATE * universes * (10 if universes == 1 else 3), SECOND / FRAME_RATE / universes
        for _, contender in in_turn(contenders, rounds):
            beside = Tcpdump("tcpdump", contender.tools, contender.site) if settings.has_tcpdump else None
            contender.start(universes=universes)
            if beside is not None:
                beside.start(universes=universes, core=0)
            contender.send(count, interval=interval)
            contender.wait_idle()
            contender.stop()
            pairs = [(contender.name, contender)]
            if beside is not None:
                beside.sent = contender.sent
                beside.wait_idle()
                beside.stop()
                pairs.append((f"tcpdump beside {contender.name}", beside))
            for name, one in pairs:
                report = one.account()
                own = figures.setdefault(name, {})
                for part in ("p50", "p99", "max"):
                    own.setdefault(f"{universes}_universes_{part}_us", []).append(report[f"pause_error_{part}_ns"] / 1000)
                own.setdefault("lost", []).append(report["lost"])
    return figures


def growth(contenders, settings):
    """CPU time per waiting datagram over the number of universes, the length of the recording, and known nodes."""
    figures = {contender.name: {} for contender in contenders}
    rounds = max(5, settings.rounds // 2)
    for universes in (1, 8, 64, 512, 4096, 32768):
        for contender in contenders:
            contender.start(universes=universes, buffer=RAISED_BUFFER)
            for _ in range(0, max(universes, BACKLOG), 8192):  # every universe has been seen once
                contender.send(8192)
                contender.wait_idle()
        for _, contender in in_turn(contenders, rounds):
            figures[contender.name].setdefault(f"{universes}_universes", []).append(let_go(contender))
        for contender in contenders:
            contender.stop()
    for contender in contenders:
        own = figures[contender.name]
        # Gigabytes of fresh memory cost any recorder more than all else here, so this recording goes nowhere.
        contender.start(universes=256, buffer=RAISED_BUFFER, path="/dev/null")
        for length in (10_000, settings.long_recording):
            while contender.sent < length:
                contender.send(min(32_000, length - contender.sent))
                contender.wait_idle()
            own[f"after_{length}_datagrams"] = [let_go(contender) for _ in range(rounds)]
        if contender.missing():
            settings.note(f"{contender.name} has not read {contender.missing()} datagrams of its longest recording")
        contender.stop()
    return figures


def _poll_replies(contender, nodes, interval, count, core=0):
    """Starts the generator with ArtPollReplies of `nodes` different nodes."""
    command = [contender.tools.path("generator"), "--to", "10.77.0.1", "--replies", str(nodes)]
    command += ["--count", str(count), "--interval", str(int(interval))]
    if os.geteuid() == 0:
        command = ["chrt", "--fifo", "1", *command]
    return contender.site.popen(command, "peer", core=core)


def nodes(contenders, settings):
    """CPU time of the receive thread per waiting datagram with no and with 1,200 known nodes, which answer all the time, while
    detection cycles run."""
    figures = {}
    known = 1200
    for contender in contenders:
        own = figures[contender.name] = {}
        for name, count in (("no_nodes", 0), (f"{known}_nodes", known)):
            contender.start(universes=256, buffer=RAISED_BUFFER)
            contender.client.start_polling_artnet_nodes()
            if count:
                observe.wait_for(lambda c=contender: _answer(c, known) >= known, f"{known} nodes", pause=0.1)
            contender.send(BACKLOG)
            contender.wait_idle()
            own[name] = []
            for _ in range(max(5, settings.rounds // 2)):
                if count:
                    _answer(contender, known)
                own[name].append(let_go(contender, one_thread=True))
            contender.stop()
    return figures


def _answer(contender, known):
    """Lets every node answer once. @return how many nodes the service knows"""
    _poll_replies(contender, known, 200_000, known).wait()
    contender.sent += known
    contender.wait_idle()
    return contender.client.get_detected_nodes().count('"ip"')


def copying(contenders, settings):
    """A 2 GB cue is duplicated while 10,240 datagrams/s are recorded, all on the same disk: what is lost."""
    figures = {}
    rate = 256 * 40
    for contender in contenders:
        cue = f"{contender.site.directory}/cue"
        with open(cue, "wb") as file:
            block = os.urandom(1 << 20)
            for _ in range(2048):
                file.write(block)
        path = f"{contender.site.directory}/on_disk"
        contender.start(universes=256, buffer=PACKAGED_BUFFER, core=None, path=path)
        generator = contender.start_sending(rate * 30, interval=SECOND / rate)
        observe.wait_for(lambda c=contender: c.missing() < c.sent, "the first datagram")
        began = os.times().elapsed
        copy = contender.client.call("dup_cue", contender.site.directory, cue, deadline=120)
        lasted = os.times().elapsed - began
        while_copied = generator.poll() is None
        contender.finish_sending(generator)
        contender.wait_idle()
        lost = contender.missing()
        contender.stop()
        if not while_copied:
            settings.note(f"{contender.name}: the copy took longer than the 30 s of traffic")
        figures[contender.name] = {"lost": [lost], "copy_seconds": [lasted], "copied": [os.path.getsize(copy)]}
        for name in (cue, copy, path):
            os.unlink(name)
    return figures


def four(contenders, settings):
    """CPU time per datagram at 4 universes, which is what olad takes in, at 1,000 and at 10,000 datagrams/s; the most
    datagrams a second, in steps of 5,000, that are all recorded with the system's own receive buffer."""
    figures = {}
    for contender in contenders:
        own = figures[contender.name] = {}
        for rate in (1000, 10_000):
            for _ in range(min(3, settings.rounds)):
                contender.start(universes=4)
                before = contender.cpu_ns()
                contender.send(rate * 2, interval=SECOND / rate)
                contender.wait_idle()
                own.setdefault(f"cpu_ns_per_datagram_{rate}", []).append((contender.cpu_ns() - before) / (rate * 2))
                contender.stop()
                own.setdefault(f"lost_{rate}", []).append(contender.account()["lost"])
        best = 0
        for rate in range(5000, 100_001, 5000):
            contender.start(universes=4)
            contender.send(rate, group=4, interval=SECOND * 4 / rate)
            try:
                contender.wait_idle()
            except Trouble as trouble:
                settings.note(f"{contender.name} at {rate} datagrams/s: {trouble}")
                contender.stop()
                break
            contender.stop()
            if contender.account()["lost"] != 0:
                break
            best = rate
        own["largest_rate"] = [best]
    return figures


def micro(contenders, settings):
    """User instructions of single steps (callgrind over N and 2N iterations, the difference divided by N)."""
    del contenders
    program = settings.tools.path("micro")

    def run(*arguments, **options):
        return subprocess.run([*arguments], capture_output=True, text=True, check=True, **options).stdout

    def instructions_of(name, count):
        environment = {**os.environ, "MICRO_ITERATIONS": str(count)}
        profile = Path(settings.output) / "callgrind.micro"
        wrapper = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={profile}"]
        run(*wrapper, program, f"--benchmark_filter=^{name}/iterations:{count}$", env=environment)
        return int(re.findall(r"^totals: (\d+)", profile.read_text(encoding="utf-8", errors="replace"), re.MULTILINE)[-1])

    figures = {}
    for name in run(program, "--benchmark_list_tests").split():
        if name == "service/stop_32768_universes":  # most of it is preparation, which callgrind counts as well
            continue
        count = 4 if "cycle" in name or "report" in name else 4096
        figures[name] = {"instructions": [(instructions_of(name, 2 * count) - instructions_of(name, count)) / count]}
    return figures


def triggers(contenders, settings):
    """10,000 packets/s of the control universe: which trigger signals arrive, in which order, and how late."""
    figures = {}
    rate, count = 10_000, 30_000
    for contender in contenders:
        own = figures[contender.name] = {}
        for _ in range(min(3, settings.rounds)):
            contender.start(universes=1, buffer=PACKAGED_BUFFER, begin=False)
            contender.client.set_ctrl_universe(1)
            # Slots 1 and 2 hold the low half of the datagram's number.
            contender.client.set_ctrl_action(2, 1, -1)
            watch = contender.client_program(contender.tools.path("trigger_watch"), str(count), "20")
            if watch.stdout.readline() != "ready\n":
                raise Trouble("trigger_watch does not start")
            sender = contender.send(count, interval=SECOND / rate)
            lines, _ = watch.communicate()
            contender.stop()
            arrived = [tuple(map(int, line.split())) for line in lines.splitlines()]
            numbers = [key * 256 + subkey for _, key, subkey in arrived]
            late = sorted(
                (time - sender["began_ns"] - number * SECOND // rate) / 1000
                for (time, _, _), number in zip(arrived, numbers, strict=True)
            )
            own.setdefault("missing", []).append(count - len(set(numbers)))
            own.setdefault("out_of_order", []).append(sum(a > b for a, b in zip(numbers, numbers[1:], strict=False)))
            if late:
                own.setdefault("late_p50_us", []).append(late[len(late) // 2])
                own.setdefault("late_max_us", []).append(late[-1])
    return figures


RECORDERS = (Recorder, Kadrel)
AND_TCPDUMP = (*RECORDERS, Tcpdump)
SERVICE = (Kadrel,)
EVERYBODY = (*AND_TCPDUMP, Ola)


@dataclass(frozen=True)
class Measurement:
    function: Callable
    contenders: tuple  # kinds that take part
    usual: bool = True  # part of a run without --only


MEASUREMENTS = {
    "backlog": Measurement(backlog, AND_TCPDUMP),
    "local_backlog": Measurement(local_backlog, RECORDERS),
    "paced": Measurement(paced, AND_TCPDUMP),
    "instructions": Measurement(instructions, RECORDERS),
    "syscalls": Measurement(system_calls, RECORDERS),
    "allocations": Measurement(allocations, RECORDERS),
    "frames": Measurement(frames, RECORDERS),
    "flood": Measurement(flood, RECORDERS),
    "calls": Measurement(calls, SERVICE),
    "memory": Measurement(memory, RECORDERS),
    "timing": Measurement(timing, RECORDERS),
    "triggers": Measurement(triggers, SERVICE),
    "four": Measurement(four, EVERYBODY),
    "micro": Measurement(micro, ()),
    "growth": Measurement(growth, RECORDERS, usual=False),
    "nodes": Measurement(nodes, SERVICE, usual=False),
    "stall": Measurement(stalls, SERVICE, usual=False),
    "copy": Measurement(copying, SERVICE, usual=False),
    "truth": Measurement(truth, EVERYBODY, usual=False),
    "stop_stall": Measurement(stop_stall, SERVICE, usual=False),
}
