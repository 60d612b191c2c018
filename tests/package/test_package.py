"""The package in a root of its own: installed, called by bus activation, used, upgraded, removed.

KADREL_DEB names the package (out/kadrel_*_ARCH.deb by default; ./package builds it), KADREL_DEB_BEFORE the version before
it, KADREL_ROOT the root that is copied (this machine's by default). Needs root, in KADREL_ROOT the packages that it depends
on, and no network.
"""

import glob
import os
import re
import signal
import subprocess
from pathlib import Path

import pytest
from harness import Recording
from harness.artnet import OP_POLL_REPLY, art_dmx, art_poll, header
from harness.bus import INTERFACE, SERVICE
from harness.waiting import spin_until
from harness.world import World
from throwaway import ThrowawayRoot

TOP = Path(__file__).resolve().parents[2]
NOBODY = 65534

# Notes of dpkg, apt and their triggers about all packages, past ones included.
BOOKKEEPING = re.compile(
    r"/etc/ld\.so\.cache|/var/(cache/(apt|debconf|ldconfig|man)|lib/(apt|dpkg|systemd)|log)(/.*)?|/usr/share/info/dir(\.old)?"
)

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="only root may change a root")


def architecture():
    return subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True, check=True).stdout.strip()


@pytest.fixture(scope="module")
def deb():
    if "KADREL_DEB" in os.environ:
        return Path(os.environ["KADREL_DEB"]).resolve()
    built = glob.glob(str(TOP / f"out/kadrel_*_{architecture()}.deb"))
    assert built, "no package in out/; ./package builds it"
    return Path(max(built, key=os.path.getmtime))


@pytest.fixture
def world():
    with World() as world:
        yield world


@pytest.fixture(scope="module")
def deb_before():
    if "KADREL_DEB_BEFORE" not in os.environ:
        pytest.skip("no package of the version before; ./package --releases builds it")
    return Path(os.environ["KADREL_DEB_BEFORE"]).resolve()


@pytest.fixture
def root(world, deb):
    """A root in which the package lies as /kadrel.deb; it may have it already, then it is removed first."""
    root = ThrowawayRoot(world)
    if status_of(root):
        root.run("apt-get", "-q", "-y", "purge", "kadrel")
    Path(root.path("/kadrel.deb")).write_bytes(deb.read_bytes())
    return root


def status_of(root):
    """Status and version of the package in the root; empty when dpkg does not know it."""
    known = "dpkg-query -W -f '${Package} ${db:Status-Abbrev}${Version}\\n' | sed -n 's/^kadrel //p'"
    return root.run("sh", "-c", known).strip()


def install(root, package="/kadrel.deb"):
    """As an unattended upgrade does: settings that were changed here and in the package stay as they are here."""
    root.run("apt-get", "-q", "-y", "-o", "Dpkg::Use-Pty=0", "-o", "Dpkg::Options::=--force-confdef", "-o",
             "Dpkg::Options::=--force-confold", "--no-install-recommends", "install", package,
             environment={"DEBIAN_FRONTEND": "noninteractive"})


@pytest.fixture
def root_before(root, deb_before):
    """A root that has the version before."""
    Path(root.path("/before.deb")).write_bytes(deb_before.read_bytes())
    install(root, "/before.deb")
    return root


class Session:
    """A user's session bus without systemd, and what it starts; all of it ends with the bus."""

    def __init__(self, world, root):
        home = world.path("home")
        os.mkdir(home)
        os.chown(home, NOBODY, NOBODY)
        self.home = home
        self.address = f"unix:path={home}/bus"
        daemon = root.command(
            "dbus-daemon", "--session", "--nofork", "--nopidfile", "--nosyslog", f"--address={self.address}",
            user=NOBODY, environment={"HOME": home},
        )
        self._bus = world.namespaces.popen(
            ["unshare", "--pid", "--fork", "--kill-child", *daemon], stderr=subprocess.DEVNULL
        )
        spin_until(lambda: os.path.exists(f"{home}/bus"), "the session bus")
        self._root = root

    def call(self, method, *arguments):
        """Calls the recorder as the user does; the answer as busctl prints it."""
        return self._root.run(
            "busctl", "--user", "call", SERVICE, "/", INTERFACE, method, *arguments,
            user=NOBODY, environment={"DBUS_SESSION_BUS_ADDRESS": self.address},
        ).strip()

    def process(self, name):
        """The process id, seen from here, of a program that runs in the root."""
        space = os.readlink(f"/proc/{self._bus.pid}/ns/pid_for_children")
        for entry in filter(str.isdigit, os.listdir("/proc")):
            try:
                # After an upgrade the file of a running program is gone.
                program = os.path.basename(os.readlink(f"/proc/{entry}/exe")).removesuffix(" (deleted)")
                if program == name and os.readlink(f"/proc/{entry}/ns/pid") == space:
                    return int(entry)
            except OSError:  # it has ended, perhaps as a zombie
                continue
        return None

    def close(self):
        self._bus.kill()
        self._bus.wait()


@pytest.fixture
def open_session(world):
    """Opens a session in a root."""
    opened = []

    def make(root):
        opened.append(Session(world, root))
        return opened[-1]

    yield make
    for session in opened:
        session.close()


@pytest.fixture
def session(root, open_session):
    install(root)
    return open_session(root)


def test_what_is_installed_goes_without_a_trace(root):
    before = root.changes()
    install(root)
    installed = {name for name in root.changes() if name not in before and not BOOKKEEPING.fullmatch(name)}
    listed = {name for name in root.run("dpkg", "--listfiles", "kadrel").split() if not os.path.isdir(root.path(name))}
    assert {name for name in installed if not name.endswith("/")} == listed
    assert {"/usr/bin/kadrel", "/usr/bin/kadrel-cue", "/etc/default/kadrel", "/usr/share/man/man1/kadrel.1.gz"} <= installed

    root.run("apt-get", "-q", "-y", "remove", "kadrel")
    left = {name for name in root.changes() if name not in before and not BOOKKEEPING.fullmatch(name)}
    assert left == {"/etc/default/kadrel"}, "settings survive a removal"

    root.run("apt-get", "-q", "-y", "purge", "kadrel")
    after = root.changes()
    assert {name: after[name] for name in after if not BOOKKEEPING.fullmatch(name)} == {
        name: before[name] for name in before if not BOOKKEEPING.fullmatch(name)
    }
    assert status_of(root) == ""
    assert glob.glob(root.path("/var/lib/dpkg/info/kadrel*")) == []


def test_settings_that_were_changed_survive_a_new_installation(root):
    install(root)
    settings = Path(root.path("/etc/default/kadrel"))
    settings.write_text("KADREL_PORT=7000\n", encoding="ascii")
    root.run("dpkg", "--install", "--force-confold", "/kadrel.deb")
    assert settings.read_text(encoding="ascii") == "KADREL_PORT=7000\n"


def version_of(deb):
    return subprocess.run(
        ["dpkg-deb", "--field", deb, "Version"], capture_output=True, text=True, check=True
    ).stdout.strip()


def test_an_upgrade_brings_what_is_new_and_keeps_the_settings(root_before, deb, deb_before):
    root = root_before
    assert status_of(root) == f"ii {version_of(deb_before)}"
    settings = Path(root.path("/etc/default/kadrel"))
    changed = settings.read_bytes() + b"KADREL_PORT=7000\n"
    settings.write_bytes(changed)
    install(root)
    assert status_of(root) == f"ii {version_of(deb)}"
    assert version_of(deb) != version_of(deb_before)
    assert settings.read_bytes() == changed
    # Nothing of the version before is left, and everything of this one is there.
    kept = {name for name in root.changes() if "kadrel" in name and not BOOKKEEPING.fullmatch(name)}
    listed = {name for name in root.run("dpkg", "--listfiles", "kadrel").split() if not os.path.isdir(root.path(name))}
    beside = {name for name in kept if name.startswith("/etc/default/kadrel.dpkg-")}
    assert {name for name in kept if not name.endswith((".deb", "/"))} - beside <= listed
    root.run("dpkg", "--verify", "kadrel")

    root.run("apt-get", "-q", "-y", "remove", "kadrel")
    assert status_of(root) == f"rc {version_of(deb)}" and settings.read_bytes() == changed
    root.run("apt-get", "-q", "-y", "purge", "kadrel")
    assert status_of(root) == "" and glob.glob(f"{settings}*") == []


def test_an_upgrade_renews_settings_that_nobody_changed(root_before, deb):
    root = root_before
    install(root)
    fresh = root.run("sh", "-c", "dpkg-deb --fsys-tarfile /kadrel.deb | tar -xO ./etc/default/kadrel")
    assert Path(root.path("/etc/default/kadrel")).read_text(encoding="utf-8") == fresh
    assert glob.glob(root.path("/etc/default/kadrel.*")) == []


def test_a_recording_goes_on_through_an_upgrade(world, root_before, open_session):
    root, session = root_before, open_session(root_before)
    assert session.call("get_status") == 's "off"'
    before = session.process("kadrel")
    world.log.wait_for_text("[Dump::listen_incoming_data] This device IP is: 10.77.0.1")
    cue = f"{session.home}/cue"
    frames = [art_dmx(number % 4, bytes([number] * 512), sequence=number + 1) for number in range(60)]
    session.call("grab", "s", cue)
    world.console.send(*frames[:30])
    world.settle()
    install(root)
    assert session.process("kadrel") == before, "an upgrade ends no recorder"
    world.console.send(*frames[30:])
    world.settle()
    session.call("stop")
    assert Recording.read(cue).datagrams == frames
    # The next start is that of the new version.
    os.kill(before, signal.SIGTERM)
    spin_until(lambda: session.process("kadrel") is None, "the recorder to end")
    assert session.call("get_status") == 's "off"'
    assert os.readlink(f"/proc/{session.process('kadrel')}/exe").endswith("/usr/bin/kadrel")
    assert "is whole" in root.run("kadrel-cue", "verify", cue) or "60" in root.run("kadrel-cue", "info", cue)


def test_the_installed_unit_and_manual_pages_are_sound(root):
    install(root)
    said = root.run("systemd-analyze", "--user", "verify", "/usr/lib/systemd/user/kadrel.service",
                    environment={"XDG_RUNTIME_DIR": "/run", "HOME": "/root"})
    assert said == ""
    for page in ("kadrel.1", "kadrel-cue.1", "com.tolvekserver.Kadrel.5"):
        text = root.run("man", "--warnings", "--encoding=UTF-8", f"/usr/share/man/man{page[-1]}/{page}.gz",
                        environment={"MANWIDTH": "100"})
        assert "EXAMPLES" in text and "warning:" not in text, page


def test_the_first_call_starts_the_recorder_and_it_records(world, root, session):
    Path(root.path("/etc/default/kadrel")).write_text("KADREL_PORT=6454\nKADREL_UNIVERSE_COUNT=16\n", encoding="ascii")
    assert session.process("kadrel") is None

    # A call to a name that nobody owns.
    assert session.call("get_status") == 's "off"'
    pid = session.process("kadrel")
    assert pid is not None and os.stat(f"/proc/{pid}").st_uid == NOBODY
    assert os.readlink(f"/proc/{pid}/exe").endswith("/usr/bin/kadrel")
    world.log.wait_for_text("[Dump::listen_incoming_data] This device IP is: 10.77.0.1")

    # The settings have reached it.
    world.console.send(art_poll())
    replies = [world.console.receive() for _ in range(16)]
    assert all(reply.data.startswith(header(OP_POLL_REPLY)) for reply in replies)

    cue = f"{session.home}/cue"
    frames = [art_dmx(number % 4, bytes([number] * 512), sequence=number + 1) for number in range(60)]
    session.call("grab", "s", cue)
    world.console.send(*frames)
    world.settle()
    assert session.call("get_status") == 's "run"'
    session.call("stop")
    assert Recording.read(cue).datagrams == frames
    assert r'\"empty\": false, \"uniceil\": 3' in session.call("latest_grab")
    said = root.run("kadrel-cue", "verify", cue)
    assert "60" in root.run("kadrel-cue", "info", cue), said

    # It ends in good order, and the next call starts it again.
    os.kill(pid, signal.SIGTERM)
    spin_until(lambda: session.process("kadrel") is None, "the recorder to end")
    assert session.call("get_status") == 's "off"'
    assert session.process("kadrel") not in (None, pid)
