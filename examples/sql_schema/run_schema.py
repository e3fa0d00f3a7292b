#!/usr/bin/env python3
"""Runs the program on a new database, again, and once more with a description that has grown.

    run_schema.py PROGRAM SCHEMA
"""
import os
import subprocess
import sys
import tempfile

program, schema = sys.argv[1:]
runner = os.environ.get("KVX_RUNNER", "").split()  # of another host's programs
GOOD = "The database is as it should be."
COLUMN = '<COLUMN name="name" type="text not null"/>'

with tempfile.TemporaryDirectory() as folder:
    def run(description):
        result = subprocess.run(runner + [program, f"{folder}/a.sqlite", description], capture_output=True, encoding="utf-8",
                                timeout=30)
        assert result.returncode == 0, result
        return result.stdout.splitlines()

    first = run(schema)
    assert first[-1] == GOOD and len(first) > 1, first
    assert any(line.startswith("create view debtor as") for line in first), first
    assert not any("message" in line for line in first), first
    assert run(schema) == [GOOD]

    with open(schema, encoding="utf-8") as file:
        text = file.read()
    with open(f"{folder}/grown.xml", "w", encoding="utf-8") as file:
        file.write(text.replace(COLUMN, COLUMN + '<COLUMN name="born" type="integer"/>'))
    grown = f"{folder}/grown.xml"
    assert run(grown) == ["alter table person add column born integer: done", GOOD]
    assert run(grown) == [GOOD]
