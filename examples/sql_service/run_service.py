#!/usr/bin/env python3
"""Runs the client against the service, twice, and checks what it prints.

    run_service.py SERVICE CLIENT
"""
import os
import subprocess
import sys
import tempfile

RUNNER = os.environ.get("KVX_RUNNER", "").split()  # of another host's programs
EXPECTED = """All:
  Ada Lovelace, born 1815
  Grace O'Malley, born 1530
  Robert'); drop table people; --, born NULL
Of 1815:
  Ada Lovelace, born 1815
no such table: nowhere
"""

with tempfile.TemporaryDirectory() as folder:
    address = f"nt_pipe:example-sql-{os.getpid()}"
    service = subprocess.Popen(RUNNER + [sys.argv[1], address, f"{folder}/people.sqlite"], stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, encoding="utf-8")
    try:
        assert service.stdout.readline() == "Ready.\n"
        for _ in range(2):
            client = subprocess.run(RUNNER + [sys.argv[2], address], capture_output=True, encoding="utf-8", timeout=30)
            assert (client.returncode, client.stdout, client.stderr) == (0, EXPECTED, ""), client
        service.stdin.close()
        assert service.wait(timeout=30) == 0
    finally:
        service.kill()
