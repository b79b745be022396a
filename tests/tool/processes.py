"""Processes of the tool that are killed, and partners that do not keep to the form.

    processes.py LOOM BEDS
"""

import contextlib
import pathlib
import socket
import subprocess
import sys
import tempfile
import time
import unittest

LOOM, BEDS = sys.argv[1:]


class Processes(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.db = self.database("a.db")

    def file(self, name):
        return pathlib.Path(self.directory.name) / name

    def loom(self, *words):
        return subprocess.run([LOOM, *words], check=True, capture_output=True, text=True).stdout

    def database(self, name):
        self.loom("create", self.file(name))
        self.loom("import", self.file(name), BEDS)
        return self.file(name)

    def many_beds(self, count):
        rows = "".join(f"<bed_tbl><bed><plant>plant {row}</plant></bed><bed_key><house>9</house><row>{row}</row></bed_key>"
                       "</bed_tbl>" for row in range(count))
        self.file("many.xml").write_text(f"<beds>{rows}</beds>")
        return self.file("many.xml")

    def records(self):
        return len(self.loom("walk", self.db, "bed_tbl").splitlines())

    def test_a_killed_import_leaves_all_or_nothing(self):
        many, trial = self.many_beds(4000), self.database("trial.db")
        began = time.monotonic()
        self.loom("import", trial, many)
        whole = time.monotonic() - began
        for part in range(1, 13):
            with subprocess.Popen([LOOM, "import", self.db, many], stdout=subprocess.DEVNULL) as importing:
                time.sleep(whole * part / 12)
                importing.kill()
            self.assertIn(self.records(), [3, 4003])
            if self.records() != 3:
                break  # all of it came through before the kill
        else:
            self.loom("import", self.db, many)  # what was undone can be done
        self.assertGreater(part, 1, "no import was killed in its middle")
        self.assertEqual(self.records(), 4003)

    def test_readers_see_whole_imports_only(self):
        with subprocess.Popen([LOOM, "import", self.db, self.many_beds(1500)], stdout=subprocess.DEVNULL) as importing:
            while importing.poll() is None:
                self.assertIn(self.records(), [3, 1503])
        self.assertEqual((importing.returncode, self.records()), (0, 1503))

    def test_what_is_no_record_is_refused(self):
        header = b"\xbc" + 6 * b"\xff"
        for sent, said in [
            (100 * b"x", "its header is wrong"),
            (b"", "before it sent a record"),
            (header, "7 of 43 bytes"),
            (header + bytes(7) + b"\x01" + bytes(1 + 11 + 16 + 20), "20 of 213 bytes"),  # promises more than follows
            (header + bytes(8) + b"\x2f" + bytes(11 + 16 + 4), "no loaded bundle knows"),
        ]:
            ours, its = socket.socketpair()
            with ours, subprocess.Popen([LOOM, "receive"], stdin=its, stderr=subprocess.PIPE, text=True) as receiver:
                its.close()
                ours.sendall(sent)
                ours.shutdown(socket.SHUT_WR)
                # The receiver's manifests must be taken, or it might wait for room.
                with contextlib.suppress(ConnectionResetError):
                    while ours.recv(4096):
                        pass
                self.assertIn(said, receiver.communicate()[1])
            self.assertEqual(receiver.returncode, 1, said)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
