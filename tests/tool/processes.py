"""Processes of the tool that are killed, and partners that do not keep to the form.

    processes.py LOOM BEDS
"""

import contextlib
import os
import pathlib
import random
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

    def received(self, sent, *options, then_close=True):
        """What the receiver says, its answers and its greatest size in KiB, when these bytes are sent to it."""
        ours, its = socket.socketpair()
        with ours, its, tempfile.TemporaryFile("w+") as said:
            receiver = subprocess.Popen([LOOM, "receive", "--bundle", "greenhouse", *options], stdin=its,
                                        stdout=subprocess.DEVNULL, stderr=said)
            its.close()
            ours.settimeout(20)
            with contextlib.suppress(BrokenPipeError):
                ours.sendall(sent)
            if then_close:
                ours.shutdown(socket.SHUT_WR)
            stream = ours.makefile("rb")

            def number():
                return int.from_bytes(stream.read(4), "big")

            for _ in range(number()):  # the manifests
                stream.read(number())
            answers = []
            with contextlib.suppress(ConnectionResetError):  # it may close before it has taken everything
                while answer := stream.read(4):
                    answers.append(int.from_bytes(answer, "big"))
            _, status, used = os.wait4(receiver.pid, 0)
            receiver.returncode = os.waitstatus_to_exitcode(status)
            said.seek(0)
            return receiver.returncode, said.read(), answers, used.ru_maxrss

    def sent(self):
        """The bytes of a record, as they travel to a receiver that greets as ours does."""
        ours, its = socket.socketpair()
        with ours, its:
            receiver = subprocess.Popen([LOOM, "receive", "--bundle", "greenhouse"], stdin=its, stderr=subprocess.DEVNULL)
            its.close()
            ours.shutdown(socket.SHUT_WR)
            greeting = ours.makefile("rb").read()
            receiver.wait()
        with socket.socket(socket.AF_UNIX) as listening:
            listening.bind(str(self.file("listening")))
            listening.listen()
            words = ["send", self.db, "bed_tbl", "house=1", "row=1", "--socket", self.file("listening")]
            with subprocess.Popen([LOOM, *words], stderr=subprocess.DEVNULL), listening.accept()[0] as sender:
                sender.sendall(greeting)
                whole = sender.recv(1000)
                sender.sendall(bytes(4))
        return whole

    def test_what_is_no_record_is_refused_and_answered(self):
        header, unknown = b"\xbc" + 6 * b"\xff", bytes(11 + 16 + 4)
        huge = header + bytes(5) + b"\x0f\xff\xff\xff" + unknown
        for sent, answer, said, options in [
            (100 * b"x", 22, "its header is wrong", []),
            (b"", None, "before it sent a record", []),
            (header, 22, "7 of 43 bytes", []),
            (header + bytes(7) + b"\x01" + bytes(1 + 11 + 16 + 20), 22, "20 of 213 bytes", []),  # more is promised
            (header + bytes(8) + b"\x2f" + unknown, 52, "no loaded bundle knows", []),
            (huge, 90, "more than the 16777216 that are taken", []),
            (huge, 22, "bytes came", ["--largest", "1024"]),
        ]:
            status, told, answers, size = self.received(sent, *options)
            self.assertIn(said, told)
            self.assertEqual((status, answers), (1, [answer] if answer else []), said)
            self.assertLess(size, 100_000, said)

    def test_who_lets_the_time_pass_is_not_waited_for(self):
        for sent in [b"", b"\xbc", b"\xbc" + 6 * b"\xff" + bytes(7) + b"\x01" + bytes(29)]:
            status, said, answers, _ = self.received(sent, "--patience", "1", then_close=False)
            self.assertIn("within 1 seconds", said)
            self.assertEqual((status, answers), (1, [110]))
        with socket.socket(socket.AF_UNIX) as silent:  # nor is a receiver that does not greet
            silent.bind(str(self.file("silent")))
            silent.listen()
            send = subprocess.run([LOOM, "send", self.db, "bed_tbl", "--socket", self.file("silent"), "--patience", "1"],
                                  capture_output=True, text=True, timeout=20)
        self.assertIn("greeting does not come within 1 seconds", send.stderr)

    def test_any_bytes_are_answered(self):
        whole = self.sent()
        self.assertEqual(self.received(whole)[2], [0])
        chance = random.Random(8)
        for _ in range(40):
            damaged = bytearray(whole)
            for _ in range(chance.randint(1, 6)):
                damaged[chance.randrange(16, len(damaged))] = chance.choice([0, 1, 127, 128, 255, chance.randrange(256)])
            status, said, answers, size = self.received(bytes(damaged[:chance.choice([120, 120, chance.randrange(44, 120)])]))
            self.assertEqual((len(answers), status), (1, int(answers != [0])), (said, damaged.hex()))
            self.assertLess(size, 100_000, damaged.hex())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
