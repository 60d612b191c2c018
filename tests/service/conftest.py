"""Fixtures for the tests of the running service."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

from harness import EXECUTABLE, World  # noqa: E402  found through the path above


def pytest_configure():
    if not EXECUTABLE.exists():
        raise pytest.UsageError(f"{EXECUTABLE} is not built (KADREL_EXE names another)")


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
