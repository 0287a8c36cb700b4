"""The commits that are not sent yet: short subjects, no merges."""

import subprocess

import pytest
from test_floors import ROOT

BASE = "origin/main"
SUBJECT = 72


def git(*arguments, directory=ROOT):
    result = subprocess.run(
        ["git", "-C", directory, *arguments], capture_output=True, text=True, check=True
    )
    return result.stdout.strip()


def faults(base, directory=ROOT):
    """What is wrong with the commits behind `base`."""
    listed = git("log", "--format=%h%x09%P%x09%s", f"{base}..", directory=directory)
    found = []
    for line in listed.splitlines():
        commit, parents, subject = line.split("\t", 2)
        if len(parents.split()) > 1:
            found.append(f"{commit} merges: rebase instead")
        elif len(subject) > SUBJECT:
            found.append(f"{commit} has a subject of {len(subject)} characters: {subject}")
    return found


def test_commits_to_be_sent_are_fit_to_read():
    try:
        git("rev-parse", "--verify", "--quiet", f"{BASE}^{{commit}}")
    except (subprocess.CalledProcessError, FileNotFoundError):
        pytest.skip(f"there is no {BASE} here to compare with")
    assert faults(BASE) == []


def test_the_check_itself_finds_long_subjects_and_merges(tmp_path):
    def commit(subject):
        identity = ("-c", "user.name=nobody", "-c", "user.email=nobody@localhost")
        git(*identity, "commit", "--allow-empty", "-qm", subject, directory=tmp_path)

    git("init", "-q", "-b", "main", ".", directory=tmp_path)
    commit("area: The first")
    git("branch", "base", directory=tmp_path)
    git("checkout", "-q", "-b", "side", directory=tmp_path)
    commit("area: " + "x" * 66)
    git("checkout", "-q", "main", directory=tmp_path)
    commit("area: " + "x" * 67)
    assert [fault.split(" ", 1)[1] for fault in faults("base", tmp_path)] == [
        "has a subject of 73 characters: area: " + "x" * 67
    ]
    identity = ("-c", "user.name=nobody", "-c", "user.email=nobody@localhost")
    git(*identity, "merge", "-q", "--no-edit", "side", directory=tmp_path)
    assert sorted(fault.split(" ", 1)[1].split(":")[0] for fault in faults("base", tmp_path)) == [
        "has a subject of 73 characters",
        "merges",
    ]
