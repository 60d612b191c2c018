"""A root that is thrown away: another one, with everything that is changed kept in memory."""

import hashlib
import os
import stat

# This machine's own, or that of another Debian.
BASE = os.path.realpath(os.environ.get("KADREL_ROOT", "/"))
PLACE = "/mnt"
ROOT = f"{PLACE}/root"
# Seen by the mount namespace of one world only. The directory of the world lies in the root under its own name, and with it
# /dev/log and the sockets. /run is empty, so nothing takes this for a system that systemd runs; no setting of the
# kernel can be changed.
SCRIPT = """
mount -t tmpfs -o mode=755 tmpfs {place}
mkdir {place}/upper {place}/work {root}
mount -t overlay -o lowerdir={base},upperdir={place}/upper,workdir={place}/work overlay {root}
mount -t tmpfs -o mode=755 tmpfs {root}/run
mount -t tmpfs -o mode=1777 tmpfs {root}/tmp
mkdir -p {root}{directory}
mount --bind {directory} {root}{directory}
mount --rbind /dev {root}/dev
mount -t proc proc {root}/proc
mount --bind {root}/proc/sys {root}/proc/sys
mount -o remount,bind,ro {root}/proc/sys
printf '#!/bin/sh\\nexit 101\\n' > {root}/usr/sbin/policy-rc.d
chmod 755 {root}/usr/sbin/policy-rc.d
"""


class ThrowawayRoot:
    def __init__(self, world):
        self._namespaces = world.namespaces
        self._namespaces.run(["sh", "-euc", SCRIPT.format(base=BASE, place=PLACE, root=ROOT, directory=world.directory)])

    def path(self, name):
        """A file of the root, as this process can open it."""
        return f"{self._namespaces.root}{ROOT}{name}"

    def command(self, *command, user=None, environment=None):
        """The command line that runs a command in the root, to be given to the namespaces."""
        variables = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", **(environment or {})}
        # A change of the user resets the signal at the parent's death, so it is set after that.
        user = [f"--reuid={user}", f"--regid={user}", "--clear-groups"] if user is not None else []
        return [
            "chroot", ROOT, "setpriv", *user, "--pdeathsig", "KILL",
            "env", "-i", *(f"{name}={value}" for name, value in variables.items()), *command,
        ]

    def run(self, *command, deadline=120, **arguments):
        return self._namespaces.run(self.command(*command, **arguments), directory="/", deadline=deadline)

    def changes(self):
        """Every file that differs from those of the base: {path: type, mode and content}. Folders that are only passed
        through do not count."""
        upper = f"{self._namespaces.root}{PLACE}/upper"
        found = {}
        for directory, folders, files in os.walk(upper):
            inside = directory[len(upper) :]
            for name in files:
                found[f"{inside}/{name}"] = _state(f"{directory}/{name}")
            for name in folders:
                if os.path.islink(f"{directory}/{name}"):
                    found[f"{inside}/{name}"] = _state(f"{directory}/{name}")
                elif not os.path.isdir(f"{BASE}{inside}/{name}"):
                    found[f"{inside}/{name}/"] = "folder"
        return found


def _state(path):
    status = os.lstat(path)
    if stat.S_ISCHR(status.st_mode):
        return "removed"
    if stat.S_ISLNK(status.st_mode):
        return os.readlink(path)
    with open(path, "rb") as file:
        return f"{status.st_mode:o} {hashlib.sha256(file.read()).hexdigest()}"
