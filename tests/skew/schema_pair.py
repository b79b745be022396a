"""Makes a random schema, a newer version of it by changes that peers survive, and changes that they do not.

Everything comes from one seed. A schema is kept as plain data and written as schema text at the end, so a change is
a change of data. What compiling and exchanging the two versions takes stands in run_pairs.py.
"""

import copy
import random

SCALARS = ["u_int8", "u_int16", "u_int32", "u_int64", "int8", "int16", "int32", "int64", "char", "double", "float",
           "loom_boolean"]
OBJECTS = ["ipv4_addr", "ipv6_addr", "ip_address", "ip_prefix", "loom_mac_addr", "loom_phys_addr", "calendar_time",
           "timestamp", "loom_vstring", "nexa_bytestr", "loom_username_vstring", "loom_aes_vstring",
           "loom_aes_password_vstring"]
COUNTS = ["u_int8", "u_int16", "u_int32"]
KEYS = ["u_int8", "u_int16", "u_int32", "u_int64", "int32", "ipv4_addr", "loom_mac_addr", "loom_vstring"]

# What a record may hold in all, with two elements in each array and list, so that random objects stay small.
LARGEST = 150

# The attribute that a row of an ordered table has its place in.
SEQUENCE_NUMBER = "reorder_seq_compact_no"

# How an enumeration chooses values: each is its place, or stands far from all places, or is its place plus one.
DENSE, SPARSE, FROM_ONE = range(3)


class Enumeration:
    """Members by variant, each a name and the value it is told to have, or None."""

    def __init__(self, name, values):
        self.name = name
        self.values = values
        self.shared = False
        self.variants = [[]]

    def members(self):
        return [member for variant in self.variants for member in variant]

    def text(self):
        lines = [("shared " if self.shared else "") + f"enum {self.name} {{"]
        for number, members in enumerate(self.variants):
            lines += [f"  since {number}"] if number else []
            lines += [f"    {name}" if value is None else f"    {name} = {value}" for name, value in members]
        return lines + ["}"]


class FlagSet:
    """Names of bits by variant."""

    def __init__(self, name):
        self.name = name
        self.variants = [[]]

    def text(self):
        lines = [f"flags {self.name} {{"]
        for number, bits in enumerate(self.variants):
            lines += [f"  since {number}"] if number else []
            lines += [f"    {bit}" for bit in bits]
        return lines + ["}"]


class Attribute:
    """One attribute with what belongs to it: its count, its arms. `kind` is plain, fixed, counted, text,
    counted_text, oid, list, choice or later_arms; the arms of the last two are (case, name, type)."""

    def __init__(self, kind, name, type=None, extent=None, count=None, arms=()):
        self.kind = kind
        self.name = name
        self.type = type
        self.extent = extent
        self.count = count
        self.arms = list(arms)

    def text(self):
        length = f"    {self.name}_len: {self.count}"
        if self.kind == "plain":
            return [f"    {self.name}: {self.type}"]
        if self.kind == "fixed":
            return [f"    {self.name}: {self.type}[{self.extent}]"]
        if self.kind == "counted":
            return [length, f"    {self.name}: {self.type}[{self.name}_len]"]
        if self.kind == "text":
            return [f"    {self.name}: string[{self.extent}]"]
        if self.kind == "counted_text":
            return [length, f"    {self.name}: string[{self.name}_len]"]
        if self.kind == "oid":
            return [f"    {self.name}: oid -> {self.type}"]
        if self.kind == "list":
            return [f"    {self.name}: list of {self.type}"]
        first = f"    {self.name}: {self.type} {{" if self.kind == "choice" else f"    arms of {self.name} {{"
        lines, case = [first], None
        for of_case, name, type in self.arms:
            lines += [f"        case {of_case}"] if of_case != case else []
            lines.append(f"            {name}: {type}")
            case = of_case
        return lines + ["    }"]


class Record:
    """Attributes by variant."""

    def __init__(self, name):
        self.name = name
        self.variants = [[]]
        self.is_key = False  # of a table, and so of one variant with single values

    def attributes(self):
        return [attribute for variant in self.variants for attribute in variant]

    def is_ordered(self):
        return any(attribute.name == SEQUENCE_NUMBER for attribute in self.attributes())

    def held(self):
        """Types of its values."""
        of_values = [a.type for a in self.attributes() if a.kind in ("plain", "fixed", "counted", "list")]
        return of_values + [type for a in self.attributes() for _, _, type in a.arms]

    def text(self):
        lines = [f"record {self.name} {{"]
        for number, attributes in enumerate(self.variants):
            lines += [f"  since {number}"] if number else []
            for attribute in attributes:
                lines += attribute.text()
        return lines + ["}"]


class Table:
    def __init__(self, name, record, key, ordered=False, luid=None):
        self.name = name
        self.record = record
        self.key = key
        self.ordered = ordered
        self.luid = luid

    def text(self):
        return [f"table {self.name} of {self.record} keyed by {self.key}" + (" ordered" if self.ordered else "") +
                (f" luid {self.luid}" if self.luid else "")]


class Message:
    def __init__(self, name, record):
        self.name = name
        self.record = record

    def text(self):
        return [f"message {self.name}" + (f" carries {self.record}" if self.record else "")]


class Schema:
    def __init__(self, name):
        self.name = name
        self.enumerations = []
        self.flag_sets = []
        self.records = []
        self.tables = []
        self.messages = []
        self.lender = None  # the schema that this one imports from
        self.order = None  # what the declarations are shuffled by

    def text(self):
        """The declarations stand in an order of their own: versions need not agree in it."""
        declarations = self.enumerations + self.flag_sets + self.records + self.tables + self.messages
        random.Random(self.order).shuffle(declarations)
        lines = [f"bundle {self.name}"]
        if self.lender:
            lines += ["", f"import {self.lender.name} {{"]
            lines += [f"    enum {each.name}" for each in self.lender.shared()]
            lines += [f"    table {each.name} luid {each.luid}" for each in self.lender.tables] + ["}"]
        for declaration in declarations:
            lines += [""] + declaration.text()
        return "\n".join(lines) + "\n"

    def shared(self):
        return [enumeration for enumeration in self.enumerations if enumeration.shared]

    def value_enumerations(self):
        return self.enumerations + (self.lender.shared() if self.lender else [])

    def targets(self):
        """Tables that oids may refer to."""
        return self.tables + (self.lender.tables if self.lender else [])

    def named(self, name):
        return next((record for record in self.records if record.name == name), None)

    def weight(self, type):
        """Values in a filled object of the type, roughly."""
        record = self.named(type)
        if record is None:
            return 1
        times = {"fixed": lambda a: a.extent, "counted": lambda a: 2, "list": lambda a: 2, "plain": lambda a: 1}
        return 1 + sum(times[a.kind](a) * self.weight(a.type) if a.kind in times else
                       1 + sum(self.weight(type) for _, _, type in a.arms) for a in record.attributes())

    def reaches(self, type, name):
        """Whether objects of the type may hold some of the record called `name`."""
        record = self.named(type)
        return type == name or record is not None and any(self.reaches(held, name) for held in record.held())

    def listed(self):
        return {a.type for record in self.records for a in record.attributes() if a.kind == "list"}


class Author:
    """Writes a schema at random and grows it."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.names = 0
        self.never_listed = set()  # records of the older version that are no elements

    def chance(self, probability):
        return self.random.random() < probability

    def fresh(self, prefix):
        self.names += 1
        return f"{prefix}{self.names}"

    # ---- Types --------------------------------------------------------------------------------------------

    def add_members(self, enumeration, count):
        taken = {value for _, value in enumeration.members()}
        for _ in range(count):
            value = None
            if enumeration.values == FROM_ONE and not taken:
                value = 1
            elif enumeration.values == SPARSE:
                value = self.random.choice([-1, 1]) * self.random.randint(100, 100000)
                while value in taken:
                    value += 1
            taken.add(value)
            enumeration.variants[-1].append((self.fresh("MEMBER_"), value))

    def add_bits(self, flag_set, count):
        flag_set.variants[-1] += [self.fresh("BIT_") for _ in range(count)]

    def grow_bits(self, flag_set):
        self.add_bits(flag_set, self.random.choice([1, 2, 7, 8, 30]))

    def some_variants(self, of, fill):
        while self.chance(0.35) and len(of.variants) < 4:
            of.variants.append([])
            fill()

    def enumeration(self, schema):
        made = Enumeration(self.fresh("enum_"), self.random.choice([DENSE, SPARSE, FROM_ONE]))
        self.add_members(made, self.random.randint(1, 5))
        schema.enumerations.append(made)
        self.some_variants(made, lambda: self.add_members(made, self.random.randint(1, 2)))

    def flag_set(self, schema):
        made = FlagSet(self.fresh("flags_"))
        self.add_bits(made, self.random.choice([1, 3, 7, 8, 9, 16, 40, 64, 70]))
        schema.flag_sets.append(made)
        self.some_variants(made, lambda: self.grow_bits(made))

    def record(self, schema, *uses):
        """A record and what holds it: a table, an ordered table, a message. `uses` are those that it has at least."""
        made = Record(self.fresh("record_"))
        made.variants[0].append(Attribute("plain", self.fresh("key_"), self.random.choice(KEYS)))
        schema.records.append(made)
        self.add_attributes(schema, made, self.random.randint(0, 6))
        self.some_variants(made, lambda: self.add_attributes(schema, made, self.random.randint(1, 3)))
        for use in self.random.choices(["table", "ordered", "message", "none"], weights=[4, 1, 3, 6]) + list(uses):
            if use == "ordered" and not made.is_ordered():
                made.variants[0].insert(self.random.randint(0, len(made.variants[0])),
                                        Attribute("plain", SEQUENCE_NUMBER, "u_int32"))
            if use in ("table", "ordered"):
                key = self.key_record(schema) if self.chance(0.3) else made.variants[0][0].name
                if key == SEQUENCE_NUMBER:
                    key = made.variants[0][1].name
                schema.tables.append(Table(self.fresh("table_"), made.name, key, use == "ordered"))
            if use == "message":
                schema.messages.append(Message(self.fresh("message_"), made.name))

    def key_record(self, schema):
        made = Record(self.fresh("record_"))
        made.variants[0] = [Attribute("plain", self.fresh("key_"), self.random.choice(KEYS)) for _ in range(2)]
        made.is_key = True
        schema.records.append(made)
        return f"record {made.name}"

    # ---- Attributes ---------------------------------------------------------------------------------------

    def holdable(self, schema, record, times):
        """Records that `record` may hold so many times: they do not lead back to it and are small enough."""
        room = LARGEST - schema.weight(record.name)
        return [each.name for each in schema.records
                if not schema.reaches(each.name, record.name) and times * schema.weight(each.name) <= room]

    def value_type(self, schema, record, times=1):
        """A type for single values and elements."""
        choice = self.random.random()
        others = self.holdable(schema, record, times)
        if others and choice < 0.3:
            return self.random.choice(others)
        if choice < 0.42:
            return self.random.choice(schema.value_enumerations()).name
        if schema.flag_sets and choice < 0.54:
            return self.random.choice(schema.flag_sets).name
        return self.random.choice(SCALARS if choice < 0.77 else OBJECTS)

    def arms(self, schema, record, enumeration, count):
        cases = [name for name, _ in enumeration.members()]
        chosen = sorted(self.random.choices(cases, k=count), key=cases.index)
        return [(case, self.fresh("arm_"), self.value_type(schema, record, count)) for case in chosen]

    def attribute(self, schema, record):
        kind = self.random.choice(["plain", "plain", "plain", "fixed", "counted", "counted", "text", "counted_text",
                                   "oid", "list", "list", "choice", "choice", "later_arms"])
        name = self.fresh("a_")
        elements = [r for r in self.holdable(schema, record, 2) if r not in self.never_listed]
        # A peer that does not know the last of members from one takes it for another: no arms hang on these.
        selectors = {e.name: e for e in schema.enumerations if e.values != FROM_ONE}
        choices = [a for a in record.attributes() if a.kind == "choice"]
        if kind == "list" and elements:
            return Attribute("list", name, self.random.choice(elements))
        if kind == "oid" and schema.targets():
            return Attribute("oid", name, self.random.choice(schema.targets()).name)
        if kind == "choice" and selectors:
            of = self.random.choice(list(selectors.values()))
            return Attribute("choice", name, of.name, arms=self.arms(schema, record, of, self.random.randint(1, 4)))
        if kind == "later_arms" and choices:
            of = self.random.choice(choices)
            count = self.random.randint(1, 2)
            return Attribute("later_arms", of.name, arms=self.arms(schema, record, selectors[of.type], count))
        if kind == "text":
            return Attribute("text", name, extent=self.random.choice([1, 5, 16, 33]))
        if kind == "counted_text":
            return Attribute("counted_text", name, count=self.random.choice(COUNTS))
        if kind == "fixed":
            extent = self.random.randint(1, 3)
            return Attribute("fixed", name, self.value_type(schema, record, extent), extent=extent)
        if kind == "counted":
            return Attribute("counted", name, self.value_type(schema, record, 2), count=self.random.choice(COUNTS))
        return Attribute("plain", name, self.value_type(schema, record))

    def add_attributes(self, schema, record, count):
        for _ in range(count):
            record.variants[-1].append(self.attribute(schema, record))

    # ---- Versions -----------------------------------------------------------------------------------------

    def lender(self, name):
        """A small bundle to import from."""
        schema = Schema(name)
        schema.order = self.random.random()
        for _ in range(self.random.randint(1, 2)):
            self.enumeration(schema)
            schema.enumerations[-1].shared = True
        made = Record(self.fresh("record_"))
        made.variants[0] = [Attribute("plain", self.fresh("key_"), "u_int32"),
                            Attribute("plain", self.fresh("a_"), schema.enumerations[0].name)]
        schema.records.append(made)
        luid = f"{self.random.getrandbits(128):032x}"
        schema.tables.append(Table(self.fresh("table_"), made.name, made.variants[0][0].name, luid=luid))
        return schema

    def first(self, name):
        schema = Schema(name)
        schema.order = self.random.random()
        schema.lender = self.lender(name + "_lender")
        for _ in range(self.random.randint(1, 3)):
            self.enumeration(schema)
        for _ in range(self.random.randint(1, 2)):
            self.flag_set(schema)
        self.record(schema, "table", "message")
        self.record(schema, "ordered")
        for _ in range(self.random.randint(1, 3)):
            self.record(schema)
        schema.messages.append(Message(self.fresh("message_"), None))
        return schema

    def grown(self, before):
        """A newer version: new variants at the ends, new types of every kind."""
        schema = copy.deepcopy(before)
        schema.order = self.random.random()
        known = [record for record in schema.records if not record.is_key]
        self.never_listed = {record.name for record in before.records} - before.listed()
        if self.chance(0.5):
            self.enumeration(schema)
        if self.chance(0.4):
            self.flag_set(schema)
        for enumeration in schema.value_enumerations():
            if self.chance(0.6):
                enumeration.variants.append([])
                self.add_members(enumeration, self.random.randint(1, 3))
        if self.chance(0.5):
            record = schema.lender.records[0]
            record.variants.append([Attribute("plain", self.fresh("a_"), self.random.choice(SCALARS))])
        for flag_set in schema.flag_sets:
            if self.chance(0.6):
                flag_set.variants.append([])
                self.grow_bits(flag_set)
        for _ in range(self.random.randint(0, 2)):
            self.record(schema)
        self.record(schema, self.random.choice(["table", "ordered", "message"]))
        for record in known:
            for _ in range(self.random.choice([0, 1, 1, 2])):
                record.variants.append([])
                self.add_attributes(schema, record, self.random.randint(1, 3))
                if max(schema.weight(each.name) for each in schema.records) > 2 * LARGEST:
                    record.variants.pop()
        return schema


# ---- Changes that break peers --------------------------------------------------------------------------------

class Vandal:
    """Makes one change of a newer version that breaks peers of the older one. A change may also leave a schema that
    is none any more: whoever asks checks, and asks again."""

    def __init__(self, random, old, new):
        self.random = random
        self.old = old
        self.new = copy.deepcopy(new)

    def change(self):
        """The changed schema and the kind of change."""
        changes = [name for name in vars(Vandal) if name.startswith("make_")]
        while True:
            chosen = self.random.choice(changes)
            if getattr(self, chosen)() is not False:
                return self.new, chosen.removeprefix("make_").replace("_", " ")

    def known(self, all_old, all_new):
        """One that both versions have, as it is in the older and in the newer."""
        if not all_old:
            return None, None
        old = self.random.choice(all_old)
        return old, next(each for each in all_new if each.name == old.name)

    def attributes(self):
        """The attributes of a variant that the older version has."""
        old, new = self.known(self.old.records, self.new.records)
        return new.variants[self.random.randrange(len(old.variants))]

    def place_in(self, parts):
        return self.random.randrange(len(parts))

    def make_attribute_gone(self):
        attributes = self.attributes()
        del attributes[self.place_in(attributes)]

    def make_attribute_added_to_an_old_variant(self):
        attributes = self.attributes()
        attributes.insert(self.random.randint(0, len(attributes)), Attribute("plain", "intruder", "u_int8"))

    def make_attributes_swapped(self):
        attributes = self.attributes()
        if len(attributes) < 2:
            return False
        place = self.random.randrange(len(attributes) - 1)
        attributes[place], attributes[place + 1] = attributes[place + 1], attributes[place]

    def make_attribute_retyped(self):
        plain = [a for a in self.attributes() if a.kind in ("plain", "fixed", "counted")]
        if not plain:
            return False
        attribute = self.random.choice(plain)
        attribute.type = "int8" if attribute.type == "u_int8" else "u_int8"

    def make_array_of_other_extent(self):
        fixed = [a for a in self.attributes() if a.kind in ("fixed", "text")]
        if not fixed:
            return False
        self.random.choice(fixed).extent += self.random.choice([1, 8])

    def make_count_of_other_width(self):
        counted = [a for a in self.attributes() if a.kind in ("counted", "counted_text")]
        if not counted:
            return False
        attribute = self.random.choice(counted)
        attribute.count = self.random.choice([c for c in COUNTS if c != attribute.count])

    def make_attribute_renamed(self):
        attributes = self.attributes()
        attributes[self.place_in(attributes)].name += "_more"

    def make_attribute_moved_to_the_next_variant(self):
        old, new = self.known(self.old.records, self.new.records)
        if len(new.variants) < 2:
            return False
        place = self.random.randrange(min(len(old.variants), len(new.variants) - 1))
        new.variants[place + 1].insert(0, new.variants[place].pop())

    def make_arm_of_another_case(self):
        choices = [a for a in self.attributes() if a.kind in ("choice", "later_arms")]
        if not choices:
            return False
        choice = self.random.choice(choices)
        place = self.place_in(choice.arms)
        case, name, type = choice.arms[place]
        others = {c for a in choices for c, _, _ in a.arms} - {case}
        if not others:
            return False
        choice.arms[place] = (self.random.choice(sorted(others)), name, type)

    def make_arm_gone(self):
        choices = [a for a in self.attributes() if len(a.arms) > 1]
        if not choices:
            return False
        choice = self.random.choice(choices)
        del choice.arms[self.place_in(choice.arms)]

    def make_record_gone(self):
        self.new.records.remove(self.known(self.old.records, self.new.records)[1])

    def make_record_an_element(self):
        outside = [r for r in self.old.records if r.name not in self.old.listed() | self.new.listed()]
        if not outside:
            return False
        holder = Record("late_holder")
        holder.variants = [[Attribute("list", "elements", self.random.choice(outside).name)]]
        self.new.records.append(holder)

    def make_member_gone(self):
        _, new = self.known(self.old.enumerations, self.new.enumerations)
        del new.variants[0][self.place_in(new.variants[0])]

    def make_member_put_in_front(self):
        _, new = self.known(self.old.enumerations, self.new.enumerations)
        new.variants[0].insert(0, ("MEMBER_INTRUDER", -7))

    def make_member_of_another_value(self):
        _, new = self.known(self.old.enumerations, self.new.enumerations)
        place = self.place_in(new.variants[0])
        new.variants[0][place] = (new.variants[0][place][0], 200001)

    def make_enumeration_shared(self):
        self.known(self.old.enumerations, self.new.enumerations)[1].shared = True

    def make_bit_gone(self):
        _, new = self.known(self.old.flag_sets, self.new.flag_sets)
        del new.variants[0][self.place_in(new.variants[0])]

    def make_bit_added_to_an_old_variant(self):
        _, new = self.known(self.old.flag_sets, self.new.flag_sets)
        new.variants[0].append("BIT_INTRUDER")

    def make_bits_swapped(self):
        _, new = self.known(self.old.flag_sets, self.new.flag_sets)
        if len(new.variants[0]) < 2:
            return False
        new.variants[0].reverse()

    def make_table_gone(self):
        _, table = self.known(self.old.tables, self.new.tables)
        if table is None:
            return False
        self.new.tables.remove(table)

    def make_table_of_another_key(self):
        _, table = self.known(self.old.tables, self.new.tables)
        if table is None:
            return False
        table.key = "record late_key"
        key = Record("late_key")
        key.variants = [[Attribute("plain", "part", "u_int16")]]
        self.new.records.append(key)

    def make_table_ordered_or_not(self):
        _, table = self.known(self.old.tables, self.new.tables)
        if table is None:
            return False
        table.ordered = not table.ordered

    def make_imported_table_of_another_luid(self):
        self.new.lender.tables[0].luid = f"{self.random.getrandbits(128):032x}"

    def make_import_from_another_bundle(self):
        self.new.lender.name += "_more"

    def make_message_of_another_payload(self):
        _, message = self.known(self.old.messages, self.new.messages)
        if message is None:
            return False
        message.record = next(r.name for r in self.new.records if r.name != message.record)

    def make_bundle_renamed(self):
        self.new.name += "_more"


def pair(seed, name):
    """The author with both versions."""
    author = Author(seed)
    old = author.first(name)
    return author, old, author.grown(old)
