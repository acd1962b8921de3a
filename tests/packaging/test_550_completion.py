"""Completion of the commands in bash: the installed file, and its words compared with the usage of the programs."""

import contextlib
import os
import pty
import re
import subprocess

import pytest
from installation import BUILD

REQUIRES = ("bash", "cmake")

#  Arguments: the completion file, then the words of a command line. Prints what bash would offer for the last word.
COMPLETE = """
compopt() { :; }
source "$1"; shift
[[ $(complete -p "${1##*/}") = *"-F _addrpubd ${1##*/}" ]] || exit 1
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_addrpubd "$1" "${!#}" "${COMP_WORDS[COMP_CWORD - 1]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""


@pytest.fixture(params=["addrpubd", "addrpubd-check"])
def program(request):
    return request.param


@pytest.fixture
def file(installed):
    return installed.path(installed.prefix / "share/bash-completion/completions/addrpubd")


def usage(program):
    words = [BUILD / program, *(["--help"] if program == "addrpubd-check" else [])]
    return subprocess.run(words, cwd=BUILD, capture_output=True, check=True, text=True).stdout


def completions(file, *words, folder="/"):
    command = ["bash", "--norc", "-c", COMPLETE, "bash", file, *words]
    run = subprocess.run(command, cwd=folder, capture_output=True, check=True, text=True)
    assert run.stderr == ""
    return sorted(run.stdout.split("\n")[:-1])


def test_551_the_words_are_exactly_those_of_the_usage(file, program):
    table = dict(re.findall(r'^    \[([\w-]+)\]="(.*)"$', file.read_text(), re.MULTILINE))
    others = {"addrpubd", "addrpubd-check"} - {program}
    words = {word for key, value in table.items() if key not in others for word in value.split()}
    dashes = "--" if program == "addrpubd-check" else "-"
    ours = {word for word in words if re.match(rf"{dashes}\w", word)}
    shown = set(re.findall(rf"(?<![\w-]){dashes}[a-z]+(?:-[a-z]+)*", usage(program)))
    assert ours == shown | ({"--help"} if program == "addrpubd-check" else set())


def test_552_the_words_of_the_first_place_are_completed(file, program):
    assert completions(file, "addrpubd", "-st") == ["-start", "-status", "-stop"]
    assert completions(file, "/usr/sbin/addrpubd", "-v") == ["-ver"]
    assert completions(file, "addrpubd-check", "--h") == ["--help"]
    assert completions(file, program, "x") == [""]


def test_553_no_word_follows_a_command_word(file):
    assert completions(file, "addrpubd", "-start", "") == [""]
    assert completions(file, "addrpubd-check", "--help", "") == [""]
    for name in ("folder/", "addrpubd", "addrpubd-check"):
        assert completions(file, "addrpubd-check", name, "") == [""]


def test_554_only_words_of_an_option_follow_it(file):
    assert completions(file, "addrpubd-check", "--remove", "--") == ["--port", "--with-tag", "--yes"]
    assert completions(file, "addrpubd-check", "--status", "--") == ["--json", "--prometheus"]
    assert completions(file, "addrpubd-check", "--status", "--json", "-") == [""]


def test_555_ini_files_and_folders_are_completed_for_the_checker_only(file, tmp_path):
    for name in ("a.ini", "b c.ini", "a.txt"):
        (tmp_path / name).write_text("")
    (tmp_path / "folder").mkdir()
    assert completions(file, "addrpubd-check", "a", folder=tmp_path) == ["a.ini"]
    assert completions(file, "addrpubd-check", "b", folder=tmp_path) == ["b c.ini"]
    assert completions(file, "addrpubd-check", "f", folder=tmp_path) == ["folder"]
    assert completions(file, "addrpubd-check", "--connect", "a", folder=tmp_path) == ["a.ini"]
    assert completions(file, "addrpubd", "a", folder=tmp_path) == [""]


def test_556_an_interactive_bash_completes_a_word_and_a_file_name(file, tmp_path):
    (tmp_path / "my settings.ini").write_text("")
    typed = f"""addrpubd() {{ printf '<%s>' "$@"; }}; addrpubd-check() {{ addrpubd "$@"; }}; source {file}
addrpubd -star\t
addrpubd-check m\t
exit
"""
    child, terminal = pty.fork()
    if child == 0:
        os.chdir(tmp_path)
        words = ["bash", "--norc", "--noprofile", "-i"]
        os.execve("/bin/bash", words, {"PS1": "> ", "PATH": "/usr/bin", "TERM": "dumb"})
    os.write(terminal, typed.encode())
    output = b""
    with contextlib.suppress(OSError):  # the end of bash
        while part := os.read(terminal, 4096):
            output += part
    os.waitpid(child, 0)
    os.close(terminal)
    assert b"<-start>" in output and b"<my settings.ini>" in output, output
