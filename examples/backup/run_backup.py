"""Runs the example on a folder and a key of a registry of its own, and compares what came back."""

import filecmp
import os
import pathlib
import subprocess
import sys
import tempfile

runner = os.environ.get("KVX_RUNNER", "").split()  # of another host's programs
example, kvx = [runner + [program] for program in sys.argv[1:]]
with tempfile.TemporaryDirectory() as name:
    folder = pathlib.Path(name)
    os.environ["KVX_REGISTRY"] = str(folder / "registry.db")
    os.environ["KVX_DRIVE_C"] = str(folder / "c")
    (folder / "in" / "deep").mkdir(parents=True)
    (folder / "in" / "one.txt").write_text("one")
    (folder / "in" / "deep" / "zwölf.txt").write_text("12" * 50000)
    key = r"HKEY_CURRENT_USER\Software\Backup"
    subprocess.run(kvx + ["reg", "set", key, "colour", "blue"], check=True)
    subprocess.run(example + [f"Z:{folder}/in".replace("/", "\\"), key, f"Z:{folder}/out".replace("/", "\\"), key + "2"],
                   check=True)
    for file in ["one.txt", "deep/zwölf.txt"]:
        assert filecmp.cmp(folder / "in" / file, folder / "out" / file, shallow=False), file
    value = subprocess.run(kvx + ["reg", "get", key + "2", "colour"], check=True, capture_output=True, text=True)
    assert "blue" in value.stdout, value.stdout
    for own in [key, key + "2"]:  # the registry may be the host's
        subprocess.run(kvx + ["reg", "delete", own, "--recursive"], check=True)
print("The folder and the key came back.")
