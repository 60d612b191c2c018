"""Waiting for events with a deadline; nothing in the tests sleeps."""

import os
import threading
import time

# Seconds after which a test gives up on an event. Far beyond what any event takes, also under a sanitizer on a busy machine.
DEADLINE = 60.0


class DeadlinePassed(AssertionError):
    """The awaited event did not come."""


def now():
    return time.monotonic()


def spin_until(condition, what, deadline=DEADLINE):
    """Looks again and again, giving the processor away between looks, for states that nobody announces."""
    end = now() + deadline
    while True:
        result = condition()
        if result:
            return result
        if now() > end:
            raise DeadlinePassed(f"waited {deadline} s for {what}")
        os.sched_yield()


class Collector:
    """A growing list that one thread fills and another waits on.

    `items` is a copy, in order of arrival. A test that wants only what comes
    after some point keeps `mark()` and hands it on as `start`.
    """

    def __init__(self, name):
        self.name = name
        self._items = []
        self._changed = threading.Condition()

    def notify(self):
        """Lets those who wait look again."""
        with self._changed:
            self._changed.notify_all()

    def append(self, item):
        with self._changed:
            self._items.append(item)
            self._changed.notify_all()

    @property
    def items(self):
        with self._changed:
            return list(self._items)

    def mark(self):
        with self._changed:
            return len(self._items)

    def since(self, start):
        return self.items[start:]

    def wait_for(self, predicate, what="an item", start=0, deadline=DEADLINE, give_up=lambda: False):
        """The first item from `start` on that fulfils the predicate.

        Ends early, with None, when `give_up` says so after a `notify`.
        """
        end = now() + deadline
        position = start
        with self._changed:
            while True:
                while position < len(self._items):
                    if predicate(self._items[position]):
                        return self._items[position]
                    position += 1
                if give_up():
                    return None
                left = end - now()
                if left <= 0:
                    shown = "\n  ".join(str(item)[:400] for item in self._items[start:][-60:])
                    raise DeadlinePassed(f"{self.name}: waited {deadline} s for {what}; there was:\n  {shown}")
                self._changed.wait(left)

    def wait_for_count(self, count, start=0, deadline=DEADLINE):
        """All items from `start` on, as soon as there are `count` of them."""
        end = now() + deadline
        with self._changed:
            while len(self._items) - start < count:
                left = end - now()
                if left <= 0:
                    shown = "\n  ".join(str(item)[:400] for item in self._items[start:][-60:])
                    raise DeadlinePassed(
                        f"{self.name}: waited {deadline} s for {count} items, there were "
                        f"{len(self._items) - start}:\n  {shown}"
                    )
                self._changed.wait(left)
            return self._items[start:]
