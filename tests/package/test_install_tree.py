"""The files of `cmake --install`: their places, and that they fit each other.

KADREL_BUILD_DIR names the build (build/release by default). It has the manual pages when rst2man is there.
"""

import configparser
import os
import re
import stat
import subprocess
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("KADREL_BUILD_DIR", TOP / "build/release")).resolve()
BUS_NAME = "com.tolvekserver.Kadrel"
WAIT_FOR_DISK_AT_END = 10  # seconds

LOGGER = '#!/bin/sh\nfor text; do :; done\nprintf "%s\\n" "$text" >>{log}\n'
# Writes its words, with "own" for the process that it was started by, and refuses.
REFUSING_RENICE = '#!/bin/sh\necho "$1 $2 $3 ${{4%$PPID}}own" >>{log}\necho no >&2\nexit 1\n'
HANGING_LOGGER = "#!/bin/sh\nexec sleep 3600\n"
# What logger does without a log daemon.
LONELY_LOGGER = '#!/bin/sh\ncase " $* " in *" --socket-errors=on "*) exit 1 ;; esac\n'

FILES = {
    "bin/kadrel",
    "bin/kadrel-cue",
    "etc/default/kadrel",
    "lib/sysctl.d/50-kadrel.conf",
    "lib/systemd/user/kadrel.service",
    "libexec/kadrel/kadrel-session",
    "share/bash-completion/completions/kadrel-cue",
    "share/dbus-1/interfaces/com.tolvekserver.Kadrel.Dump.xml",
    "share/dbus-1/services/com.tolvekserver.Kadrel.service",
    "share/doc/kadrel/dbus.md",
    "share/doc/kadrel/examples/kadrel.nft",
    "share/doc/kadrel/conversions.md",
    "share/doc/kadrel/operations.md",
    "share/doc/kadrel/recording-format.md",
    "share/doc/kadrel/reliability.md",
    "share/doc/kadrel/security.md",
    "share/doc/kadrel/top.md",
    "share/man/man1/kadrel-cue.1",
    "share/man/man1/kadrel.1",
    "share/man/man5/com.tolvekserver.Kadrel.5",
}


@pytest.fixture(scope="session")
def prefix(tmp_path_factory):
    """The tree as it would lie below the prefix that the build was configured with."""
    root = tmp_path_factory.mktemp("install")
    subprocess.run(
        ["cmake", "--install", BUILD], env={**os.environ, "DESTDIR": str(root)}, check=True, capture_output=True
    )
    return next(root.rglob("bin/kadrel")).parents[1]


@pytest.fixture
def launcher(prefix, tmp_path):
    """The launcher with settings, an executable that shows what it was given, and a log of its own."""
    directory = tmp_path / "launcher"
    directory.mkdir()
    text = (prefix / "libexec/kadrel/kadrel-session").read_text(encoding="utf-8")
    settings, executable, logger = directory / "settings", directory / "kadrel", directory / "logger"
    text = re.sub(r"^settings=.*$", f"settings={settings}", text, flags=re.MULTILINE)
    text = re.sub(r"^exec \S+", f"exec {executable}", text, flags=re.MULTILINE)
    executable.write_text('#!/bin/sh\necho "$#:$1"\nenv | grep -E "^(KADREL_|LC_ALL)" | sort\n', encoding="ascii")
    log = directory / "log"
    logger.touch()
    script = directory / "kadrel-session"
    script.write_text(text, encoding="utf-8")
    for file in (executable, logger, script):
        file.chmod(0o755)

    def start(content, without_log=None, **environment):
        """(arguments and settings that kadrel gets, warnings) with this settings file; None: no file."""
        settings.unlink(missing_ok=True)
        log.write_bytes(b"")
        logger.write_text(without_log or LOGGER.format(log=log), encoding="ascii")
        if content is not None:
            settings.write_bytes(content)
        outcome = subprocess.run(
            [script], capture_output=True, text=True, check=True,
            env={"PATH": f"{directory}:/usr/bin:/bin", **environment},
        )
        warnings = outcome.stderr if without_log else log.read_text(encoding="utf-8")
        assert without_log or outcome.stderr == ""
        return outcome.stdout.splitlines(), warnings.splitlines()

    return start


def test_every_file_is_where_it_belongs_and_nothing_else(prefix):
    found = {str(path.relative_to(prefix)) for path in prefix.rglob("*") if not path.is_dir()}
    assert found == FILES
    for name in FILES:
        mode = stat.S_IMODE((prefix / name).stat().st_mode)
        assert mode == (0o755 if name.startswith(("bin/", "libexec/")) else 0o644), name


@pytest.fixture(scope="session")
def other_build(tmp_path_factory):
    """Configures a build with or without libsystemd; its unit."""

    def configure(with_systemd):
        build = tmp_path_factory.mktemp("build")
        subprocess.run(
            ["cmake", "-S", TOP, "-B", build, "-DKADREL_BUILD_TESTS=OFF", "-DKADREL_BUILD_TOOLS=OFF",
             f"-DKADREL_SYSTEMD={with_systemd}"],
            check=True, capture_output=True,
        )
        return (build / "data/kadrel.service").read_text(encoding="utf-8")

    return {choice: configure(choice) for choice in ("ON", "OFF")}


def settings_of(unit):
    """The unit's settings, but for those that may be there several times."""
    parser = configparser.RawConfigParser(strict=False)
    parser.optionxform = str
    parser.read_string(unit)
    return parser["Service"]


def test_the_unit_expects_of_kadrel_what_it_was_built_for(other_build, prefix):
    told, silent = other_build["ON"], other_build["OFF"]
    watchdog = [line for line in told.splitlines() if line not in silent.splitlines()]
    assert watchdog[0] == "Type=notify" and watchdog[-1] == "WatchdogSec=30s" and len(watchdog) == 3
    assert settings_of(silent)["Type"] == "dbus" and "WatchdogSec" not in settings_of(silent)
    # Nothing else differs, and nothing is left of the places where it stands.
    assert told.replace("Type=notify", "Type=dbus").replace("\n".join(watchdog[1:]) + "\n", "") == silent
    assert settings_of(told)["BusName"] == settings_of(silent)["BusName"] == BUS_NAME
    for unit in (told, silent):
        # What the manager is told comes from kadrel itself, and nothing is read again while it runs.
        assert not {"NotifyAccess", "ExecReload"} & set(settings_of(unit))
    has_systemd = b"NOTIFY_SOCKET" in (prefix / "bin/kadrel").read_bytes()
    installed = (prefix / "lib/systemd/user/kadrel.service").read_text(encoding="utf-8")
    assert settings_of(installed)["Type"] == ("notify" if has_systemd else "dbus")


@pytest.mark.parametrize("with_systemd", ["ON", "OFF"])
def test_the_user_unit_verifies_clean(other_build, prefix, tmp_path, with_systemd):
    unit = other_build[with_systemd]
    started = re.search(r"^ExecStart=(.*)$", unit, re.MULTILINE).group(1)
    copy = tmp_path / "kadrel.service"
    copy.write_text(unit.replace(started, str(prefix / "libexec/kadrel/kadrel-session")), encoding="utf-8")
    outcome = subprocess.run(
        ["systemd-analyze", "--user", "--man=no", "verify", copy],
        env={"PATH": os.environ["PATH"], "HOME": str(tmp_path), "XDG_RUNTIME_DIR": str(tmp_path)},
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
    )
    assert (outcome.returncode, outcome.stdout) == (0, "")


def test_unit_bus_and_launcher_speak_of_the_same_things(prefix):
    def read(path):
        parser = configparser.RawConfigParser(strict=False)
        parser.optionxform = str
        parser.read_string((prefix / path).read_text(encoding="utf-8"))
        return parser

    unit = read("lib/systemd/user/kadrel.service")["Service"]
    activation = read(f"share/dbus-1/services/{BUS_NAME}.service")["D-BUS Service"]
    assert activation["Name"] == unit["BusName"] == BUS_NAME
    assert activation["Exec"] == unit["ExecStart"]
    assert activation["Exec"].endswith(str(prefix / "libexec/kadrel/kadrel-session").split("/libexec/")[1])
    assert activation["SystemdService"] == "kadrel.service"
    launcher = (prefix / "libexec/kadrel/kadrel-session").read_text(encoding="utf-8")
    base = activation["Exec"].split("/libexec/")[0]
    assert f"exec {base}/bin/kadrel " in launcher
    assert "@" not in launcher.replace('"$@"', "")


def test_the_unit_goes_before_others_without_a_right_and_gives_the_end_its_time(prefix):
    unit = configparser.RawConfigParser(strict=False)
    unit.optionxform = str
    unit.read_string((prefix / "lib/systemd/user/kadrel.service").read_text(encoding="utf-8"))
    service = unit["Service"]
    assert service["CPUWeight"] == "10000"
    # A policy that is not allowed fails the start, and the lock's waits have no place in a real-time class.
    assert not any(name.startswith(("CPUScheduling", "Limit")) for name in service)
    assert service["RestrictRealtime"] == "yes"
    assert int(service["TimeoutStopSec"].removesuffix("s")) > WAIT_FOR_DISK_AT_END


@pytest.mark.parametrize("place", ["/opt/stage light", "/opt/$HOME", "/opt/100%", '/opt/"a"'])
def test_a_prefix_that_nobody_could_quote_is_refused(tmp_path, place):
    outcome = subprocess.run(
        ["cmake", "-S", TOP, "-B", tmp_path, "-DKADREL_BUILD_TESTS=OFF", "-DKADREL_BUILD_TOOLS=OFF",
         f"-DCMAKE_INSTALL_PREFIX={place}"],
        capture_output=True, text=True, check=False,
    )
    assert outcome.returncode == 1 and "A path of the installation may hold" in outcome.stderr


def test_the_receive_buffer_is_one_setting(prefix):
    lines = (prefix / "lib/sysctl.d/50-kadrel.conf").read_text(encoding="utf-8").splitlines()
    assert [line for line in lines if line and line[0] not in "#;"] == ["net.core.rmem_default = 8388608"]


def test_the_manual_tells_of_every_method_and_signal(prefix):
    interface = ElementTree.parse(prefix / "share/dbus-1/interfaces/com.tolvekserver.Kadrel.Dump.xml").find("interface")
    text = (TOP / "docs/man/com.tolvekserver.Kadrel.5.rst").read_text(encoding="utf-8")
    told = {}
    for name, arguments, result in re.findall(r"^(?:\| )?\*\*(\w+)\*\*\\ \(((?!\d).*?)\)(?: → (\S+))?$", text, re.MULTILINE):
        told[name] = ("".join(re.sub(r"\*\w+\*|[ ,]", "", arguments)), result)
    described = {}
    for member in interface:
        if member.tag not in ("method", "signal"):
            continue
        given = [argument for argument in member.findall("arg")
                 if member.tag == "signal" or argument.get("direction") == "in"]
        answer = [argument for argument in member.findall("arg")
                  if member.tag == "method" and argument.get("direction") == "out"]
        described[member.get("name")] = (
            "".join(argument.get("type") for argument in given), "".join(argument.get("type") for argument in answer)
        )
    assert told == described


@pytest.mark.parametrize("page", ["man1/kadrel.1", "man1/kadrel-cue.1", "man5/com.tolvekserver.Kadrel.5"])
def test_a_manual_page_is_well_formed(prefix, page):
    outcome = subprocess.run(
        ["groff", "-man", "-Kutf8", "-Tutf8", "-ww", "-z", prefix / "share/man" / page],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
    )
    assert (outcome.returncode, outcome.stdout) == (0, "")


def test_the_shipped_settings_are_the_defaults(launcher, prefix):
    shipped = (prefix / "etc/default/kadrel").read_bytes()
    assert launcher(shipped) == (["1:6454", "KADREL_UNIVERSE_COUNT=1", "LC_ALL=C.UTF-8"], [])


def test_every_setting_of_the_service_passes_the_launcher_and_none_comes_from_its_environment(launcher):
    source = (TOP / "src/Settings.cpp").read_text(encoding="utf-8")
    names = re.findall(r'^ {4}{"(KADREL_\w+)", ', source, re.MULTILINE)
    assert len(names) >= 4
    assert launcher("".join(f"{name}=7\n" for name in names).encode()) == (
        ["1:6454", *sorted(f"{name}=7" for name in names), "LC_ALL=C.UTF-8"], []
    )
    assert launcher(None, **dict.fromkeys(names, "7")) == (["1:6454", "LC_ALL=C.UTF-8"], [])


def test_without_settings_the_port_is_the_one_of_art_net(launcher):
    assert launcher(None) == (["1:6454", "LC_ALL=C.UTF-8"], [])
    assert launcher(b"") == (["1:6454", "LC_ALL=C.UTF-8"], [])


def test_settings_reach_the_service_and_the_environment_does_not(launcher):
    content = (
        b"KADREL_PORT=7000\nKADREL_UNIVERSE_COUNT=\"16\"\r\nKADREL_WRITE_BUFFER_MIB=64\nKADREL_LOG_LEVEL=6  \n"
        b"\n# KADREL_LOG_OUTPUT=none\nKADREL_LOG_OUTPUT='console'"
    )
    assert launcher(content, KADREL_PORT="9", KADREL_LOG_LEVEL="-2", LC_ALL="C") == (
        ["1:7000", "KADREL_LOG_LEVEL=6", "KADREL_LOG_OUTPUT=console", "KADREL_UNIVERSE_COUNT=16", "KADREL_WRITE_BUFFER_MIB=64",
         "LC_ALL=C.UTF-8"], []
    )


@pytest.mark.parametrize("port", ["", "0", "65536", "-1", "6454x", "0x10", "99999999999999999999", "$(id)", " 7"])
def test_a_port_that_is_none_is_reported_and_the_default_taken(launcher, port):
    arguments, warnings = launcher(f"KADREL_PORT={port}\n".encode())
    assert arguments == ["1:6454", "LC_ALL=C.UTF-8"]
    assert warnings == [f"KADREL_PORT is not a number from 1 to 65535, using 6454 (value:{port})"]


@pytest.mark.parametrize("logger", [HANGING_LOGGER, LONELY_LOGGER], ids=["hangs", "missing"])
def test_without_a_log_the_start_is_not_held_up_and_the_warning_is_on_standard_error(launcher, logger):
    assert launcher(b"KADREL_PORT=none\n", without_log=logger) == (
        ["1:6454", "LC_ALL=C.UTF-8"],
        ["kadrel-session: KADREL_PORT is not a number from 1 to 65535, using 6454 (value:none)"],
    )


def test_the_launcher_asks_for_precedence_and_starts_without_it(launcher, tmp_path):
    renice = tmp_path / "launcher/renice"
    renice.write_text(REFUSING_RENICE.format(log=tmp_path / "launcher/log"), encoding="ascii")
    renice.chmod(0o755)
    assert launcher(None) == (["1:6454", "LC_ALL=C.UTF-8"], ["-n -20 -p own"])


def test_nothing_in_the_settings_is_run(launcher, tmp_path):
    trap = tmp_path / "trap"
    lines = [f"touch {trap}", f"$(touch {trap})", f"KADREL_UNIVERSE_COUNT=$(touch {trap})", "PATH=/nowhere", "KADREL_PROT=7"]
    arguments, warnings = launcher("\n".join(lines).encode())
    assert not trap.exists()
    assert arguments == ["1:6454", f"KADREL_UNIVERSE_COUNT=$(touch {trap})", "LC_ALL=C.UTF-8"]
    assert [warning.split("(line:")[1] for warning in warnings] == [
        f"{line})" for line in lines if not line.startswith("KADREL_UNIVERSE_COUNT")
    ]


def test_the_completion_is_sound(prefix):
    subprocess.run(["bash", "-n", prefix / "share/bash-completion/completions/kadrel-cue"], check=True)


def test_there_is_one_version():
    def version(file, pattern):
        return re.search(pattern, (TOP / file).read_text(encoding="utf-8")).group(1)

    # The programs have theirs from CMakeLists.txt.
    assert version("debian/changelog", r"^kadrel \((\S+)\)") == version("CMakeLists.txt", r"project\(kadrel VERSION (\S+)")


def test_the_operations_guide_knows_every_error_and_warning():
    guide = (TOP / "docs/operations.md").read_text(encoding="utf-8")
    sources = [path for folder in ("kesto", "src") for path in sorted((TOP / folder).glob("*.cpp"))]
    texts = [text for path in sources
             for text in re.findall(r'KESTO_LOG\(\s*-[12],\s*"((?:[^"\\]|\\.)*)"', path.read_text(encoding="utf-8"))]
    assert len(texts) >= 12
    missing = []
    for text in texts:
        # Only up to the first value: the rest differs from line to line.
        known = re.split(r"%|\\n|\(|, using", text)[0].rstrip()
        if known and known.removesuffix(".") not in guide:
            missing.append(text)
    assert missing == []
