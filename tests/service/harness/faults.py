"""System calls of a running service that fail or take long, when a test says so.

The table is a file that tests/faults/faults.cpp, loaded into the service, maps as well.
"""

import mmap
import struct

from .service import EXECUTABLE
from .waiting import spin_until

LIBRARY = EXECUTABLE.parent / "tests/faults/libfaults.so"

# Kinds of descriptors (see faults.cpp).
ANY, UDP, FILE, LOG, BUS, OTHER = range(6)

FOREVER = -1
SECOND = 1_000_000_000

# Delay of a call that is held.
HELD = -1

NAMES = (
    "bind close connect fallocate fchmod fcntl fstat ftruncate ioctl nanosleep open pipe2 poll pread pthread_create read realtime "
    "recv recvmmsg recvmsg select send sendmsg sendto setsockopt socket statx sync_file_range tmpfile write writev"
).split()
_LINE = struct.Struct("=16siiqqqqq")
_SETTINGS = struct.Struct("=ii")
_TIMES = struct.Struct("=q")
_TIMES_OFFSET = 32
_DELAY_OFFSET = 40
_CALLS_OFFSET = 48


class Faults:
    """Put `prefix` before the command of the service, then arm and disarm."""

    def __init__(self, path, library=LIBRARY):
        self.prefix = ("env", f"LD_PRELOAD={library}", f"KADREL_FAULTS={path}")
        with open(path, "wb+") as file:
            for name in NAMES:
                file.write(_LINE.pack(name.encode(), ANY, 0, 0, 0, 0, 0, 0))
            file.flush()
            self._table = mmap.mmap(file.fileno(), 0)

    def _offset(self, name):
        return NAMES.index(name) * _LINE.size

    def arm(self, name, error=0, kind=ANY, times=FOREVER, skip=0, delay=0.0):
        """The next `times` calls of this function for descriptors of this kind, after `skip` others, take `delay` seconds
        longer and fail with `error` (0: are made)."""
        self.disarm(name)
        offset = self._offset(name)
        _SETTINGS.pack_into(self._table, offset + 16, kind, error)
        _TIMES.pack_into(self._table, offset + 24, skip)
        _TIMES.pack_into(self._table, offset + _DELAY_OFFSET, HELD if delay == HELD else int(delay * SECOND))
        _TIMES.pack_into(self._table, offset + _TIMES_OFFSET, times)

    def disarm(self, name):
        """Lets the calls that are held go on, too."""
        _TIMES.pack_into(self._table, self._offset(name) + _TIMES_OFFSET, 0)
        _TIMES.pack_into(self._table, self._offset(name) + _DELAY_OFFSET, 0)

    def hold(self, name, kind=ANY):
        """Holds all calls of this function for descriptors of this kind until it is disarmed."""
        self.arm(name, kind=kind, delay=HELD)

    def wait_until_struck(self, name, before=0):
        """Returns when more than `before` calls have been struck: a call of `name` is held."""
        spin_until(lambda: self.struck(name) > before, f"a call of {name}")

    def shift_clock(self, seconds):
        """Shifts the wall clock of the service by so much."""
        _TIMES.pack_into(self._table, self._offset("realtime") + _DELAY_OFFSET, seconds * SECOND)

    def calls(self, name):
        """Calls for descriptors of the armed kind so far."""
        return _TIMES.unpack_from(self._table, self._offset(name) + _CALLS_OFFSET)[0]

    def struck(self, name):
        """Those of them that a fault has met."""
        return _TIMES.unpack_from(self._table, self._offset(name) + _CALLS_OFFSET + 8)[0]

    def close(self):
        self._table.close()

