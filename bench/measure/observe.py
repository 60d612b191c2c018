"""What the kernel says about processes, sockets and the machine."""

import os
import subprocess
import time
from dataclasses import dataclass

DEADLINE = 60.0


class Trouble(RuntimeError):
    """A measurement that cannot be made, with the reason."""


def wait_for(condition, what, deadline=DEADLINE, pause=0.002):
    end = time.monotonic() + deadline
    while not condition():
        if time.monotonic() > end:
            raise Trouble(f"waited {deadline} s for {what}")
        time.sleep(pause)


def _tasks(pid):
    try:
        return os.listdir(f"/proc/{pid}/task")
    except FileNotFoundError:
        return []


def cpu_ns_by_thread(pids):
    """Nanoseconds on a processor, exact for threads that sleep: (process, thread) -> ns."""
    found = {}
    for pid in pids:
        for task in _tasks(pid):
            with open(f"/proc/{pid}/task/{task}/schedstat", encoding="ascii") as file:
                found[pid, task] = int(file.read().split()[0])
    return found


def waited_ns(pids):
    """Nanoseconds that threads of the processes could have run and had no processor."""
    total = 0
    for pid in pids:
        for task in _tasks(pid):
            with open(f"/proc/{pid}/task/{task}/schedstat", encoding="ascii") as file:
                total += int(file.read().split()[1])
    return total


def disk_pressure():
    """Microseconds since boot in which somebody, and in which everybody, waited for a disk; 0 where the kernel does not say."""
    try:
        with open("/proc/pressure/io", encoding="ascii") as file:
            return [int(line.rpartition("total=")[2]) for line in file]
    except OSError:
        return [0, 0]


def cpu_ns(pids):
    """The same of all threads of the processes together."""
    return sum(cpu_ns_by_thread(pids).values())


def states(pids):
    """State letters of all threads."""
    found = set()
    for pid in pids:
        for task in _tasks(pid):
            with open(f"/proc/{pid}/task/{task}/stat", encoding="ascii") as file:
                found.add(file.read().rpartition(")")[2].split()[0])
    return found


def resident_kib(pids):
    total = 0
    for pid in pids:
        with open(f"/proc/{pid}/status", encoding="ascii") as file:
            for line in file:
                if line.startswith("VmRSS:"):
                    total += int(line.split()[1])
    return total


@dataclass(frozen=True)
class Socket:
    waiting: int  # bytes of memory in its receive queue
    drops: int


def udp_socket(pid, port):
    """The UDP socket on `port` in the network namespace of a process, or None."""
    with open(f"/proc/{pid}/net/udp", encoding="ascii") as file:
        next(file)
        for line in file:
            columns = line.split()
            if int(columns[1].rpartition(":")[2], 16) == port:
                return Socket(int(columns[4].partition(":")[2], 16), int(columns[12]))
    return None


@dataclass(frozen=True)
class UdpCounters:
    """UDP of one network namespace, since it was made."""

    read: int
    dropped: int  # for want of receive buffer

    @classmethod
    def of(cls, pid):
        with open(f"/proc/{pid}/net/snmp", encoding="ascii") as file:
            names, values = [line.split() for line in file if line.startswith("Udp:")]
        table = dict(zip(names[1:], map(int, values[1:]), strict=True))
        return cls(table["InDatagrams"], table["InErrors"])


@dataclass(frozen=True)
class Machine:
    """Processor seconds since boot, all processors together."""

    busy: float
    steal: float
    at: float

    @classmethod
    def now(cls):
        with open("/proc/stat", encoding="ascii") as file:
            user, nice, system, _idle, _iowait, irq, softirq, steal = (int(word) for word in file.readline().split()[1:9])
        tick = os.sysconf("SC_CLK_TCK")
        return cls((user + nice + system + irq + softirq) / tick, steal / tick, time.monotonic())


class Precedence:
    """While it lasts, what this terminal session runs goes before all other work of the machine, where that is allowed.

    The kernel weighs whole sessions against one another (autogroup), so that the nice value of a single process says
    nothing to the work of other sessions. The service spins with sched_yield while it waits for its lock, so a
    real-time class, in which a spinning thread is never displaced, is no choice for a contender.
    """

    FILE = "/proc/self/autogroup"

    def __enter__(self):
        self.given = False
        self._before = None
        try:
            os.setpriority(os.PRIO_PROCESS, 0, -19)
            self.given = True
            with open(self.FILE, encoding="ascii") as file:
                self._before = file.read().split()[-1]
            self._set("-19")
        except (OSError, IndexError):
            pass
        return self

    def _set(self, value):
        with open(self.FILE, "w", encoding="ascii") as file:
            file.write(value)

    def __exit__(self, *_exception):
        if self._before is not None:
            try:
                self._set(self._before)
            except OSError:
                pass


def machine_facts():
    model = "unknown"
    with open("/proc/cpuinfo", encoding="utf-8", errors="replace") as file:
        for line in file:
            if line.startswith("model name"):
                model = line.partition(":")[2].strip()
                break
    with open("/proc/sys/net/core/rmem_default", encoding="ascii") as file:
        receive_buffer = int(file.read())
    return {
        "processor": model,
        "processors": len(os.sched_getaffinity(0)),
        "kernel": os.uname().release,
        "rmem_default": receive_buffer,
    }


class SystemCalls:
    """Counts the system calls of running processes, without slowing them down (perf) or, where perf cannot, with
    strace, which makes a contender so slow that bursts look longer than they are."""

    NAMED = (
        "recvfrom recvmmsg recvmsg select pselect6 poll ppoll epoll_wait write writev pwritev pwrite64 sendto sched_yield futex "
        "clock_nanosleep"
    ).split()

    @staticmethod
    def perf_works():
        probe = subprocess.run(
            ["perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter", "true"], capture_output=True, text=True, check=False
        )
        return probe.returncode == 0 and probe.stderr.split(",")[0].strip().isdigit()

    def __init__(self, pids, with_perf=True):
        self.with_perf = with_perf
        self.pids = [str(pid) for pid in pids]

    def __enter__(self):
        if self.with_perf:
            events = ["raw_syscalls:sys_enter", *(f"syscalls:sys_enter_{name}" for name in self.NAMED)]
            command = ["perf", "stat", "-x,", "-e", ",".join(events), "-p", ",".join(self.pids)]
            self._process = subprocess.Popen(
                [*command, "--", "sh", "-c", "echo counting; read -r end"],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                text=True,
            )
            assert self._process.stdout.readline() == "counting\n"
        else:
            attach = [word for pid in self.pids for word in ("-p", pid)]
            self._process = subprocess.Popen(
                ["strace", "-f", "-c", *attach], stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True
            )
            tracer = str(self._process.pid)
            wait_for(lambda: all(self._tracer(pid, task) != "0" for pid in self.pids for task in _tasks(pid)), f"strace {tracer}")
        return self

    @staticmethod
    def _tracer(pid, task):
        with open(f"/proc/{pid}/task/{task}/status", encoding="ascii") as file:
            for line in file:
                if line.startswith("TracerPid:"):
                    return line.split()[1]
        return "0"

    def __exit__(self, *_exception):
        self.counts = {}
        if self.with_perf:
            _, errors = self._process.communicate("\n")
            for line in errors.splitlines():
                columns = line.split(",")
                if len(columns) > 2 and columns[0].isdigit():
                    name = columns[2].rpartition(":")[2].replace("sys_enter_", "").replace("sys_enter", "all")
                    self.counts[name] = int(columns[0])
        else:
            self._process.send_signal(2)
            _, errors = self._process.communicate()
            for line in errors.splitlines():
                columns = line.split()
                if len(columns) >= 5 and columns[3].isdigit():
                    self.counts["all" if columns[-1] == "total" else columns[-1]] = int(columns[3])
