"""Fixtures for the tests of the running service."""

import itertools
import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

from harness import EXECUTABLE, World  # noqa: E402  found through the path above
from harness.faults import LIBRARY, Faults  # noqa: E402


def pytest_configure():
    if not EXECUTABLE.exists():
        raise pytest.UsageError(f"{EXECUTABLE} is not built (KADREL_EXE names another)")


# Files whose tests wait for detection cycles of three seconds rather than compute.
WAITING = ("test_polling_shutdown", "test_node_detection", "test_node_intake", "test_real_peers")


def pytest_collection_modifyitems(items):
    """Spreads the tests that wait among the first ones: others compute beside them, and none is left over at the end."""
    waiting = [item for item in items if item.path.stem in WAITING]
    computing = iter([item for item in items if item.path.stem not in WAITING])
    items[:] = [one for item in waiting for one in (item, *itertools.islice(computing, 3))]
    items.extend(computing)


@pytest.hookimpl(optionalhook=True)
def pytest_xdist_auto_num_workers():
    """-n auto: the tests wait more than they compute, so there are several for each processor."""
    return 4 * len(os.sched_getaffinity(0))


@pytest.hookimpl(optionalhook=True)
def pytest_xdist_make_scheduler(config, log):
    """Tests are handed out singly: in the portions of dozens that xdist makes, one worker is left with minutes of waiting."""
    from xdist.scheduler import LoadScheduling  # only there when the hook is called

    class Singly(LoadScheduling):
        def _send_tests(self, node, num):
            # A worker begins a test only when it knows the next one.
            super()._send_tests(node, min(num, 2 - len(self.node2pending[node])))

    return Singly(config, log)


@pytest.fixture
def make_world():
    """Makes worlds with options of their own; see World."""
    worlds = []

    def make(**options):
        worlds.append(World(**options))
        return worlds[-1]

    yield make
    failures = []
    for world in worlds:
        try:
            world.finish()
        except BaseException as error:  # every world is closed before the first failure is raised
            failures.append(error)
        finally:
            world.close()
    if failures:
        raise failures[0]


@pytest.fixture
def world(make_world):
    """A world with eth0, a bus and a log, without a branding file; nothing runs in it yet."""
    return make_world()


@pytest.fixture
def service(world):
    """The service, started and ready, in `world`."""
    return world.start()


@pytest.fixture
def faults(world):
    """Faults for services that are started with `prefix=faults.prefix`, as `faulty` is."""
    if not LIBRARY.exists():
        pytest.skip("built with the unit tests only (KADREL_BUILD_TESTS)")
    made = Faults(world.path("faults"))
    yield made
    made.close()


@pytest.fixture
def faulty(world, faults):
    """The service, whose calls may be made to fail or be held."""
    return world.start(prefix=faults.prefix)
