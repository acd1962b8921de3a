"""The command line: the known words, and the output of the words that start no service."""

import pytest
from host import DIRECTORY, PIDFILE

VERSION = b"\naddrpubd addrpubd for linux ver 1.0.4 build 2025-4-11\n"

USAGE = b"""
usage:addrpubd [-start] | [-stop] | [-status] | [-ver]
demo:
addrpubd -start
    Start the service or run in background
addrpubd -stop
    Stop addrpubd
addrpubd -status
    Check if addrpubd is running
addrpubd -ver
    view the version of addrpubd
addrpubd -run
    Run in console

addrpubd ver 1.0.4 build 2025-4-11

"""


def test_101_no_word_prints_the_usage_text(host):
    assert host.command() == USAGE


@pytest.mark.parametrize("word", ["-ver", "-version", "-VER", "-Version", "-vErSiOn"])
def test_102_both_version_words_in_any_case_print_the_version_line(host, word):
    assert host.command(word) == VERSION


@pytest.mark.parametrize(
    "word",
    ["", "-", "start", "run", "ver", "-h", "--help", "--ver", "-v", "-versions", "-ver ", " -ver", "-run\n", "%s%n"],
)
def test_103_an_unknown_word_prints_only_the_empty_line(host, word):
    assert host.command(word) == b"\n"


@pytest.mark.parametrize("words", [("-ver", "-ver"), ("-run", ""), ("-start", "now"), ("-stop", "1"), ("-status",) * 3])
def test_104_several_words_print_only_the_empty_line(host, words):
    assert host.command(*words) == b"\n"


@pytest.mark.parametrize("words", [(), ("-ver",), ("-h",), ("-run", "x")])
def test_105_usage_version_and_unknown_words_leave_no_pid_file(host, words):
    host.command(*words)
    assert not host.sandbox.path(PIDFILE).exists()


@pytest.mark.parametrize("words", [(), ("-ver",), ("-h",)])
def test_106_usage_version_and_unknown_words_call_nothing_of_the_client_library(host, words):
    host.command(*words)
    assert host.library.calls() == []


@pytest.mark.parametrize("word", ["-RUN", "-Run", "-rUn"])
def test_107_the_console_run_starts_in_any_case(host, word):
    process = host.start(word)
    host.clock.of(process).wait_parked()
    assert b"Start success!\n\n" in host.stop(process)


@pytest.mark.parametrize("words", [(), ("-ver",), ("-h",)])
def test_108_a_terminal_shows_what_a_pipe_receives_with_carriage_returns(host, words):
    assert host.command(*words, tty=True) == host.command(*words).replace(b"\n", b"\r\n")


def test_109_the_usage_text_names_addrpubd_if_the_file_has_another_name(host):
    host.sandbox.run("ln", f"{DIRECTORY}/addrpubd", f"{DIRECTORY}/other")
    process = host.sandbox.spawn("./other", cwd=DIRECTORY)
    assert process.all_output() == USAGE


def test_110_without_dev_null_the_version_line_is_the_same(host):
    host.sandbox.run("mount", "-t", "tmpfs", "tmpfs", "/dev")
    assert host.command("-ver") == VERSION
