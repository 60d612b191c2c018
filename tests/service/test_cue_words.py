"""The command line of kadrel-cue, its manual page and its completion know the same words."""

import re
import subprocess

import pytest
from harness import EXECUTABLE
from harness.sanitizers import REPOSITORY

CUE = EXECUTABLE.parent / "kadrel-cue"
COMMANDS = ("info", "verify", "play", "cut", "join", "export", "import", "plot", "record", "top", "ready")


def help_of(*command):
    return subprocess.run([CUE, *command, "--help"], capture_output=True, text=True, check=True).stdout


def options_of(command):
    return set(re.findall(r"--[a-z-]+", help_of(command).split("Examples:")[0]))


def completions(*words):
    """What the completion offers for the last of these words."""
    script = (
        f"source {REPOSITORY}/data/kadrel-cue.bash-completion\n"
        'COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kadrel_cue; printf "%s\\n" "${COMPREPLY[@]}"'
    )
    out = subprocess.run(
        ["bash", "-c", script, "bash", "kadrel-cue", *words], capture_output=True, text=True, check=True
    )
    return set(out.stdout.split("\n")) - {""}


def test_the_help_names_every_command():
    listed = re.findall(r"^  ([a-z]+) ", help_of().split("Subcommands:")[1], re.MULTILINE)
    assert tuple(sorted(listed)) == tuple(sorted(COMMANDS))


def test_the_completion_knows_every_command():
    assert completions("") == {*COMMANDS, "--help", "--version"}
    assert completions("pl") == {"play", "plot"}


@pytest.mark.parametrize("command", COMMANDS)
def test_the_completion_knows_every_option(command):
    assert completions(command, "--") == options_of(command)


@pytest.mark.parametrize("command", COMMANDS)
def test_the_manual_page_explains_every_option_of_the_command(command):
    page = (REPOSITORY / "docs/man/kadrel-cue.1.rst").read_text(encoding="utf-8")
    of_several = page.split("Several commands have these options:")[1].split("COMMANDS\n")[0]
    section = re.split(r"^\*\*[a-z]+\*\*$|^EXIT STATUS$", page.split(f"\n**{command}**\n")[1], flags=re.MULTILINE)[0]
    known = set(re.findall(r"--[a-z-]+", of_several + section)) | {"--help"}
    assert options_of(command) <= known


def test_the_completion_offers_files_and_leaves_values_alone(tmp_path):
    (tmp_path / "a show.cue").touch()
    (tmp_path / "wire.pcapng").touch()
    here = f"{tmp_path}/"
    assert completions("info", here) == {f"{tmp_path}/a show.cue", f"{tmp_path}/wire.pcapng"}
    assert completions("import", here) == {f"{tmp_path}/wire.pcapng"}
    assert completions("import", "-o", here) == {f"{tmp_path}/a show.cue", f"{tmp_path}/wire.pcapng"}
    assert completions("play", "--to", here) == set()
    assert completions("play", "--loop", "") == {"forever"}
    assert completions("top", here) == {f"{tmp_path}/a show.cue", f"{tmp_path}/wire.pcapng"}
    assert completions("top", "--prom", here) == {f"{tmp_path}/a show.cue", f"{tmp_path}/wire.pcapng"}
    assert "lo" in completions("top", "l") and "any" in completions("top", "an")
    assert completions("top", "--listen", here) == set()
