"""Shared helpers of the vesktap module's tests: a fresh shared-memory root per test, the
vesktap program, and a forked process per in-process test (table interfaces live as long
as the process that made them)."""

import functools
import json
import os
import shutil
import subprocess
import tempfile
import traceback

import pytest


def new_root():
    return tempfile.mkdtemp(prefix="vesk-py-", dir="/dev/shm")


@pytest.fixture
def shm_root():
    root = new_root()
    yield root
    shutil.rmtree(root, ignore_errors=True)


def vesktap_exe():
    exe = os.environ.get("VESKTAP_EXE")
    if not exe:
        pytest.fail("VESKTAP_EXE must name the vesktap program", pytrace=False)
    return exe


def program_env(root):
    """The environment of a vesktap process on `root`. A sanitizer build preloads its
    runtime into this interpreter; the program carries its own and must not get it twice."""
    env = dict(os.environ, VESK_SHM_ROOT=root)
    env.pop("LD_PRELOAD", None)
    return env


def run_vesktap(root, *args, check=True):
    env = program_env(root)
    result = subprocess.run([vesktap_exe(), *args], env=env, capture_output=True, text=True, timeout=240)
    if check and result.returncode != 0:
        pytest.fail(f"vesktap {' '.join(args)} exited {result.returncode}:\n{result.stdout}{result.stderr}",
                    pytrace=False)
    return result


def show_json(root):
    return json.loads(run_vesktap(root, "show", "--json", "--entries").stdout)


def run_in_child(body, root):
    """Runs body() in a forked child whose VESK_SHM_ROOT is root; a failure there, its
    traceback included, fails the calling test."""
    r, w = os.pipe()
    pid = os.fork()
    if pid == 0:
        os.close(r)
        status = 0
        try:
            os.environ["VESK_SHM_ROOT"] = root
            body()
        except BaseException:  # noqa: B036 - everything must reach the parent
            os.write(w, traceback.format_exc().encode())
            status = 1
        os._exit(status)
    os.close(w)
    with os.fdopen(r, "rb") as pipe:
        report = pipe.read().decode()
    _, status = os.waitpid(pid, 0)
    if status != 0:
        pytest.fail(f"child process ended with {os.waitstatus_to_exitcode(status)}:\n{report}", pytrace=False)


def in_fresh_process(test):
    """Runs the test in a child process of its own, at a shared-memory root of its own."""
    @functools.wraps(test)
    def run(*args, **kwargs):
        root = new_root()
        try:
            run_in_child(lambda: test(*args, **kwargs), root)
        finally:
            shutil.rmtree(root, ignore_errors=True)
    return run
