#!/usr/bin/env python3
"""Runs two examples against each other: what one is given to read, the other has to print.

    run_pair.py [--restart] SERVER CLIENT

With --restart the server is killed in between and another one takes its place.
"""
import os
import subprocess
import sys
import threading

TIMEOUT = 60  # seconds
RUNNER = os.environ.get("KVX_RUNNER", "").split()  # of another host's programs
processes = []


def start(program, address):
    process = subprocess.Popen(
        RUNNER + [program, address], stdin=subprocess.PIPE, stdout=subprocess.PIPE, encoding="utf-8", bufsize=1)
    processes.append(process)
    return process


def expect(process, line):
    got = process.stdout.readline().rstrip("\n")
    assert got == line, f"{process.args[-2]} says '{got}', not '{line}'"


def start_server(program, address):
    server = start(program, address)
    expect(server, "Ready.")
    return server


def main():
    restart = sys.argv[1] == "--restart"
    server_program, client_program = sys.argv[-2:]
    address = f"nt_pipe:example-{os.getpid()}"

    server = start_server(server_program, address)
    client = start(client_program, address)
    expect(client, "Listening.")
    print("First words", file=server.stdin)
    expect(client, "First words")
    if restart:
        server.kill()
        server = start_server(server_program, address)
        expect(server, "Somebody listens.")
    for i in range(100):
        print(f"Line {i}: äöü ∞", file=server.stdin)
    server.stdin.close()
    for i in range(100):
        expect(client, f"Line {i}: äöü ∞")
    expect(client, "")
    assert client.wait() == 0, client.returncode
    assert server.wait() == 0, server.returncode


def kill_all():
    for process in processes:
        process.kill()


watchdog = threading.Timer(TIMEOUT, kill_all)
watchdog.start()
try:
    main()
finally:
    watchdog.cancel()
    kill_all()
