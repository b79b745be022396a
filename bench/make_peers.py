#!/usr/bin/env python3
"""Writes what the benchmark needs to compare with other serializers on equal contents.

From the schema's model (trellisc json) it makes, for some records and all that they hold, equivalent schemas for
Protocol Buffers, FlatBuffers and Cap'n Proto, a C++ header that copies one of our objects into each of the others
field by field, and the contents of one filled instance of each record as XML. Usage: make_peers.py MODEL.json OUTPUT_DIRECTORY RECORD...
"""

import json
import pathlib
import sys

INTEGERS = {
    "u_int8": ("uint32", "ubyte", "UInt8"),
    "u_int16": ("uint32", "ushort", "UInt16"),
    "u_int32": ("uint32", "uint", "UInt32"),
    "u_int64": ("uint64", "ulong", "UInt64"),
    "int8": ("sint32", "byte", "Int8"),
    "int16": ("sint32", "short", "Int16"),
    "int32": ("sint32", "int", "Int32"),
    "int64": ("sint64", "long", "Int64"),
    "char": ("sint32", "byte", "Int8"),
    "double": ("double", "double", "Float64"),
    "float": ("float", "float", "Float32"),
    "loom_boolean": ("bool", "bool", "Bool"),
    "enum": ("sint32", "int", "Int32"),
    "ipv4_addr": ("fixed32", "uint", "UInt32"),
    "timestamp": ("fixed64", "ulong", "UInt64"),
    "calendar_time": ("sfixed64", "long", "Int64"),
}
STRINGS = {"loom_vstring", "loom_username_vstring", "loom_aes_vstring", "loom_aes_password_vstring"}
BYTES = {"ipv6_addr", "loom_mac_addr", "ip_address", "ip_prefix", "nexa_bytestr", "loom_phys_addr"}


def camel(name):
    head, *rest = name.split("_")
    return head[0].lower() + head[1:] + "".join(part[:1].upper() + part[1:] for part in rest)


class Model:
    def __init__(self, path):
        model = json.loads(pathlib.Path(path).read_text())
        self.records = {r["name"]: r for r in model["records"]}
        self.enumerations = {e["name"] for e in model["enumerations"]}
        for imported in model["imports"]:
            self.enumerations |= set(imported["enumerations"])
        self.flag_sets = {f["name"] for f in model["flag_sets"]}
        self.members = {e["name"]: [m["name"] for m in e["members"]] for e in model["enumerations"]}
        self.members |= {f["name"]: [b["name"] for b in f["bits"]] for f in model["flag_sets"]}

    def kind(self, attribute):
        """How one value of the attribute travels: integer, string, bytes or record."""
        name = attribute["type"]
        if attribute["form"] in ("counted string", "fixed string"):
            return "string"
        if attribute["form"] == "oid" or name in BYTES or name in self.flag_sets:
            return "bytes"
        if name in STRINGS:
            return "string"
        return "record" if name in self.records else "integer"

    def integer(self, attribute):
        name = attribute["type"]
        return INTEGERS["enum" if name in self.enumerations else name]

    def fields(self, name):
        return [a for a in self.records[name]["attributes"] if a["form"] != "length"]

    def closure(self, roots):
        order = []

        def visit(name):
            if name in order:
                return
            for attribute in self.fields(name):
                if self.kind(attribute) == "record":
                    visit(attribute["type"])
            order.append(name)

        for root in roots:
            visit(root)
        return order


def is_repeated(attribute):
    return attribute["form"] in ("fixed array", "variable array")


def proto(model, names):
    yield 'syntax = "proto3";\npackage peers.proto;\noption optimize_for = SPEED;\n'
    for name in names:
        yield f"message {name} {{"
        for number, a in enumerate(model.fields(name), 1):
            kind = model.kind(a)
            plain = {"string": "string", "bytes": "bytes", "record": a["type"]}.get(kind) or model.integer(a)[0]
            byte_block = is_repeated(a) and a["type"] == "u_int8"
            if byte_block:
                yield f"  bytes {a['name']} = {number};"
            elif is_repeated(a):
                yield f"  repeated {plain} {a['name']} = {number};"
            elif a["form"] == "arm":
                yield f"  optional {plain} {a['name']} = {number};"
            else:
                yield f"  {plain} {a['name']} = {number};"
        yield "}"


def flat(model, names):
    yield "namespace peers.flat;\n"
    for name in names:
        yield f"table {name} {{"
        for a in model.fields(name):
            kind = model.kind(a)
            plain = {"string": "string", "bytes": "[ubyte]", "record": a["type"]}.get(kind) or model.integer(a)[1]
            if is_repeated(a) and kind == "bytes":
                plain = "string"  # vectors of vectors do not exist there
            yield f"  {a['name']}_:{'[' + plain + ']' if is_repeated(a) else plain};"
        yield "}"


def capnp(model, names):
    yield "@0xb7c1d4e5f60718a9;"
    yield 'using Cxx = import "/capnp/c++.capnp";'
    yield '$Cxx.namespace("peers::capnp");\n'
    for name in names:
        yield f"struct {camel('x_' + name)[1:]} {{"
        for number, a in enumerate(model.fields(name)):
            kind = model.kind(a)
            record = camel("x_" + a["type"])[1:]
            plain = {"string": "Text", "bytes": "Data", "record": record}.get(kind) or model.integer(a)[2]
            if is_repeated(a) and a["type"] == "u_int8":
                plain = "Data"
            elif is_repeated(a):
                plain = f"List({plain})"
            yield f"  {camel(a['name'])} @{number} :{plain};"
        yield "}"


class Fill:
    """C++ that copies one object into the three others."""

    def __init__(self, model):
        self.model = model

    def number(self, a, value):
        name = a["type"]
        if name in self.model.enumerations:
            return f"{value}.value"
        if name == "ipv4_addr":
            return f"{value}.address"
        if name == "timestamp":
            return f"(std::uint64_t{{{value}.high}} << 32 | {value}.low)"
        if name == "calendar_time":
            return f"{value}.seconds"
        if name == "loom_boolean":
            return f"({value} != 0)"
        return value

    def octets(self, a, value):
        """An expression for the bytes that count, as a std::string_view."""
        name = a["type"]
        if a["form"] == "oid":
            return f"octets(&{value}, {value}.object == 0 ? 0 : sizeof {value})"
        if a["form"] == "counted string":
            return f"octets({value}, {value} == nullptr ? 0 : from.{a['length']})"
        if a["form"] == "fixed string":
            return f"octets({value}, strnlen({value}, sizeof {value}))"
        if name in STRINGS:
            return f"octets({value}.text, {value}.length)"
        if name == "nexa_bytestr":
            return f"octets({value}.bytes, {value}.length)"
        if name in self.model.flag_sets:
            return f"octets({value}.bits, sizeof {value}.bits)"
        if name == "ip_address":
            return f"octets({value}.octets, {value}.family == 4 ? 4 : {value}.family == 6 ? 16 : 0)"
        if name == "ip_prefix":
            return f"octets(&{value}.length, {value}.family == 4 ? 8 : {value}.family == 6 ? 20 : 0)"
        return f"octets({value}.octets, sizeof {value}.octets)"

    def count(self, a):
        if a["form"] == "fixed array":
            return str(a["extent"])
        return f"(from.{a['name']} == nullptr ? 0u : static_cast<std::uint32_t>(from.{a['length']}))"

    def each(self, a):
        yield f"    for (std::uint32_t i = 0; i < {self.count(a)}; ++i) {{"

    def proto(self, name):
        yield f"inline void to_proto(const ::{name}& from, peers::proto::{name}* to) {{"
        for a in self.model.fields(name):
            n, kind = a["name"], self.model.kind(a)
            setter = n.lower()
            if is_repeated(a):
                if a["type"] == "u_int8":
                    yield f"    if ({self.count(a)} != 0) to->set_{setter}(from.{n}, {self.count(a)});"
                    continue
                yield from self.each(a)
                value = f"from.{n}[i]"
                if kind == "record":
                    yield f"        to_proto({value}, to->add_{setter}());"
                elif kind == "integer":
                    yield f"        to->add_{setter}({self.number(a, value)});"
                else:
                    yield f"        to->add_{setter}(std::string({self.octets(a, value)}));"
                yield "    }"
                continue
            value = f"from.{n}" if a["form"] != "arm" else f"(*from.{n})"
            guard = f"    if (from.{n} != nullptr) " if a["form"] == "arm" else "    "
            if kind == "record":
                yield f"{guard}to_proto({value}, to->mutable_{setter}());"
            elif kind == "integer":
                yield f"{guard}to->set_{setter}({self.number(a, value)});"
            else:
                yield f"{guard}to->set_{setter}(std::string({self.octets(a, value)}));"
        yield "}"

    def flat(self, name):
        yield f"inline void to_flat(const ::{name}& from, peers::flat::{name}T* to) {{"
        for a in self.model.fields(name):
            n, kind = a["name"], self.model.kind(a)
            value = f"from.{n}" if a["form"] != "arm" else f"(*from.{n})"
            guard = f"    if (from.{n} != nullptr) " if a["form"] == "arm" else "    "
            if is_repeated(a):
                yield from self.each(a)
                value = f"from.{n}[i]"
                if kind == "record":
                    yield f"        to->{n}_.push_back(std::make_unique<peers::flat::{a['type']}T>());"
                    yield f"        to_flat({value}, to->{n}_.back().get());"
                elif kind == "integer":
                    yield f"        to->{n}_.push_back({self.number(a, value)});"
                else:
                    yield f"        to->{n}_.emplace_back({self.octets(a, value)});"
                yield "    }"
            elif kind == "record":
                yield f"{guard}to_flat({value}, (to->{n}_ = std::make_unique<peers::flat::{a['type']}T>()).get());"
            elif kind == "integer":
                yield f"{guard}to->{n}_ = {self.number(a, value)};"
            elif kind == "string":
                yield f"{guard}to->{n}_ = {self.octets(a, value)};"
            else:
                yield f"{guard}assign_octets(to->{n}_, {self.octets(a, value)});"
        yield "}"

    def capnp(self, name):
        struct = camel("x_" + name)[1:]
        yield f"inline void to_capnp(const ::{name}& from, peers::capnp::{struct}::Builder to) {{"
        for a in self.model.fields(name):
            n, kind = a["name"], self.model.kind(a)
            accessor = camel(n)[0].upper() + camel(n)[1:]
            if is_repeated(a):
                count = self.count(a)
                if a["type"] == "u_int8":
                    yield f"    to.set{accessor}(data(octets(from.{n}, {count})));"
                    continue
                yield f"    auto {n}_list = to.init{accessor}({count});"
                yield from self.each(a)
                value = f"from.{n}[i]"
                if kind == "record":
                    yield f"        to_capnp({value}, {n}_list[i]);"
                elif kind == "integer":
                    yield f"        {n}_list.set(i, {self.number(a, value)});"
                else:
                    yield f"        {n}_list.set(i, {'text' if kind == 'string' else 'data'}({self.octets(a, value)}));"
                yield "    }"
                continue
            value = f"from.{n}" if a["form"] != "arm" else f"(*from.{n})"
            guard = f"    if (from.{n} != nullptr) " if a["form"] == "arm" else "    "
            if kind == "record":
                yield f"{guard}to_capnp({value}, to.init{accessor}());"
            elif kind == "integer":
                yield f"{guard}to.set{accessor}({self.number(a, value)});"
            else:
                yield f"{guard}to.set{accessor}({'text' if kind == 'string' else 'data'}({self.octets(a, value)}));"
        yield "}"

    def read_capnp(self, name):
        """Reads every field once, as an application that uses the message would; returns a sum so that it stays."""
        struct = camel("x_" + name)[1:]
        yield f"inline std::uint64_t read_capnp(peers::capnp::{struct}::Reader from) {{"
        yield "    std::uint64_t sum = 0;"
        for a in self.model.fields(name):
            kind = self.model.kind(a)
            accessor = camel(a["name"])[0].upper() + camel(a["name"])[1:]
            if is_repeated(a) and a["type"] != "u_int8":
                read = {"record": "read_capnp(item)", "integer": "static_cast<std::uint64_t>(item)"}.get(
                    kind, "item.size()")
                yield f"    for (auto item : from.get{accessor}()) sum += {read};"
            elif kind == "record":
                yield f"    if (from.has{accessor}()) sum += read_capnp(from.get{accessor}());"
            elif kind == "integer" and not is_repeated(a):
                yield f"    sum += static_cast<std::uint64_t>(from.get{accessor}());"
            else:
                yield f"    sum += from.get{accessor}().size();"
        yield "    return sum;\n}"


class Sample:
    """XML of one filled instance of a record: the contents that all serializers get."""

    TEXTS = {
        "loom_vstring": "text {0} of a usual length",
        "loom_username_vstring": "user{0}",
        "loom_aes_vstring": "secret {0}",
        "loom_aes_password_vstring": "password {0}",
        "nexa_bytestr": "00112233445566778899aabbccddeeff",
        "loom_boolean": "true",
        "char": "a",
        "double": "{0}.25",
        "float": "{0}.5",
        "ipv4_addr": "192.0.2.7",
        "ipv6_addr": "2001:db8::7",
        "loom_mac_addr": "00:00:5e:00:53:0c",
        "ip_address": "192.0.2.9",
        "ip_prefix": "198.51.100.0/24",
        "calendar_time": "2024-05-17T08:30:00Z",
        "timestamp": "2024-05-17T08:30:00.250Z",
    }

    def __init__(self, model):
        self.model, self.number = model, 0

    def value(self, a):
        name = a["type"]
        if a["form"] in ("counted string", "fixed string"):
            return "sixteen letters."
        if name in self.model.records:
            return "".join(self.content(name))
        if name in self.model.enumerations:
            members = self.model.members.get(name, [])
            return f"<{members[1 % len(members)]}/>" if members else ""
        if name in self.model.flag_sets:
            bits = self.model.members[name]
            return "".join(f"<{bit}/>" for bit in bits[::3])
        self.number += 1
        return self.TEXTS.get(name, "{0}").format(self.number % 100)

    def content(self, name):
        chosen = {}
        for a in self.model.fields(name):
            if a["form"] == "arm":
                # The case of the sample value that its discriminator got above.
                if chosen.get(a["discriminator"]) == f"<{a['case']}/>":
                    yield f"<{a['discriminator']}-{a['name']}>{self.value(a)}</{a['discriminator']}-{a['name']}>"
                continue
            if a["form"] in ("oid", "list"):
                continue
            count = {"fixed array": a.get("extent", 1), "variable array": 16 if a["type"] == "u_int8" else 3}
            for _ in range(count.get(a["form"], 1)):
                value = self.value(a)
                chosen[a["name"]] = value
                yield f"<{a['name']}>{value}</{a['name']}>"


def samples(model, roots):
    yield "<records>"
    for root in roots:
        yield f"<{root}>{''.join(Sample(model).content(root))}</{root}>"
    yield "</records>"


def header(model, names):
    yield "// Copies of one object into the messages of other serializers. Written by make_peers.py."
    yield "#pragma once\n"
    for name in names:
        yield f"#include <trellis_test_types/{name}.h>"
    yield """
#include "peers.capnp.h"
#include "peers.pb.h"
#include "peers_generated.h"

#include <cstring>
#include <string_view>

namespace peers {
inline std::string_view octets(const void* start, std::size_t length) {
    return {length == 0 ? "" : static_cast<const char*>(start), length};
}
inline ::capnp::Text::Reader text(std::string_view s) { return {s.data(), s.size()}; }
inline ::capnp::Data::Reader data(std::string_view s) {
    return {reinterpret_cast<const unsigned char*>(s.data()), s.size()};
}
inline void assign_octets(std::vector<std::uint8_t>& to, std::string_view s) { to.assign(s.begin(), s.end()); }
"""
    fill = Fill(model)
    for name in names:
        for part in (fill.proto, fill.flat, fill.capnp, fill.read_capnp):
            yield from part(name)
    yield "} // namespace peers"


def main():
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    model, out, roots = Model(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3:]
    names = model.closure(roots)
    out.mkdir(parents=True, exist_ok=True)
    for file, lines in (
        ("peers.proto", proto(model, names)),
        ("peers.fbs", flat(model, names)),
        ("peers.capnp", capnp(model, names)),
        ("peers.h", header(model, names)),
        ("records.xml", samples(model, roots)),
    ):
        (out / file).write_text("\n".join(lines) + "\n")


main()
