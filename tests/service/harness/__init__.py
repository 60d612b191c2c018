"""Runs the service in worlds of its own; see README.md beside this package."""

from .bus import INTERFACE, PATH, SERVICE, Signal, interface_members
from .network import APPLIANCE, ARTNET_PORT, BROADCAST
from .recording import BadRecording, Record, Recording
from .service import EXECUTABLE, Process, Service
from .syslog import ERROR, INFO, WARNING
from .waiting import DEADLINE, Collector, DeadlinePassed, spin_until
from .world import CONSOLE, World

__all__ = [
    "APPLIANCE",
    "ARTNET_PORT",
    "BROADCAST",
    "BadRecording",
    "CONSOLE",
    "Collector",
    "DEADLINE",
    "DeadlinePassed",
    "ERROR",
    "EXECUTABLE",
    "INFO",
    "INTERFACE",
    "PATH",
    "Process",
    "Record",
    "Recording",
    "SERVICE",
    "Service",
    "Signal",
    "WARNING",
    "World",
    "interface_members",
    "spin_until",
]
