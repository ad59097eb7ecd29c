"""Random sequences of operations over the golden records. Whatever was done before, properties raise or return values, and
a record stays valid. CRRECORD_FUZZ_SECONDS sets the time."""
import copy
import os
import pickle
import random
import time
import unittest

import crrecord
from crrecord import DORecord, Error, SegmentView, SORecord, View
from golden import JSON, stored

EXPECTED = (Error, ValueError, TypeError, BufferError, OverflowError, IndexError, AttributeError, KeyError,
            StopIteration)
NUMBERS = (0, 1, 2, 3, 4, 6, 9, 31, 63, 64, 255, 256, 2**31, 2**32 - 1, 2**32, 2**63, 2**64 - 1, 2**64, -1)

class Sequence:
    def __init__(self, seed):
        self.random = random.Random(seed)
        self.objects = []
        self.steps = []

    def any(self):
        pick, number = self.random.choice, self.random.choice(NUMBERS)
        return pick((number, number, pick(self.objects), self.data(), "host", "network", f"task:{number}",
                     (pick((2, 4, 6, 9)), number), None, slice(number, None, pick((1, -1, 3))), bool))

    def data(self):
        name = self.random.choice(list(JSON))
        data = bytearray(stored(name, self.random.choice(("host", "network", "form")))[0])
        for _ in range(self.random.choice((0, 0, 0, 1, 2))):
            data[self.random.randrange(len(data))] ^= 1 << self.random.randrange(8)
        return self.random.choice((bytes, bytearray, memoryview))(data)

    def make(self):
        said = self.random.choice([said for said in JSON.values() if said["kind"] == "do"])
        choices = [lambda: make(self.data()) for make in (View, SegmentView, DORecord.from_buffer, SORecord.from_buffer)]
        choices += [lambda: crrecord.records(self.data() + bytes(self.data()), on_error=self.random.choice(("skip", list))),
                    lambda: DORecord.from_form(self.data(), dotype=said["dotype"], fptype=said["fptype"]),
                    lambda: View.__new__(self.random.choice((View, SORecord, crrecord.Array)))]
        return self.random.choice(choices)()

    def step(self):
        if not self.objects or self.random.random() < 0.2:
            self.objects.append(self.make())
            return
        thing = self.random.choice(self.objects)
        name = self.random.choice([name for name in dir(thing) if name[0] != "_" or name in
                                   ("__getitem__", "__bytes__", "__iter__", "__next__", "__contains__", "__eq__")])
        self.steps.append((type(thing).__name__, name))
        choice = self.random.randrange(10)
        if choice == 0:
            made = self.random.choice((copy.deepcopy, lambda item: pickle.loads(pickle.dumps(item))))(thing)
        elif choice == 1:
            made = setattr(thing, name, self.any())
        else:
            made = getattr(thing, name)
            if callable(made):
                made = made(*(self.any() for _ in range(self.random.choice((0, 0, 1, 1, 2)))))
        if type(made).__module__.startswith("crrecord"):
            self.objects.append(made)
        self.objects = self.objects[-6:]

    def read_everything(self):
        for thing in self.objects:
            for name in [name for name in dir(thing) if name[0] != "_"]:
                try:
                    value = getattr(thing, name)
                    if isinstance(value, (crrecord.Array, crrecord.Segments)):
                        repr((list(value[:99]), list(value[-1:]), memoryview(value[:9]).tobytes()))
                except EXPECTED:
                    pass

    def run(self):
        for _ in range(self.random.randrange(1, 20)):
            try:
                self.step()
            except EXPECTED:
                pass
            self.read_everything()

class Operations(unittest.TestCase):
    def test_no_sequence_of_operations_crashes(self):
        seconds, seed = float(os.environ.get("CRRECORD_FUZZ_SECONDS", 0)), 0
        until = time.monotonic() + seconds
        while seed < 300 or time.monotonic() < until:
            sequence = Sequence(seed)
            try:
                sequence.run()
            except BaseException:
                print("seed", seed, sequence.steps)
                raise
            for record in sequence.objects:
                if type(record) is DORecord and record.dotype != 4:  # a received list is not converted yet
                    View(bytes(record), sub_do=True)
            seed += 1
