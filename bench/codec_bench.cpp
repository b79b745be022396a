// The codecs beside public peers, in one process, on the same contents: Protocol Buffers, FlatBuffers and
// Cap'n Proto with equivalent schemas (make_peers.py). A row's name is operation/record/library. What is timed for
// a peer is told beside its code; scripts/bench prints the table.
#include "peers.h"

#include "types/rec_parent_with_sing_child.h"
#include "types/string_key.h"
#include "types/trellis_stats_perf.h"
#include "types/trl_radio_operation_config.h"

#include <loom_runtime/runtime.h>
#include <loom_runtime/xml.h>

#include <benchmark/benchmark.h>
#include <capnp/serialize.h>
#include <google/protobuf/arena.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <pugixml.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace types = bundle_trellis_test_types::types;
constexpr std::uint32_t domain = 1;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "codec_bench: %s\n", what.c_str());
    std::exit(1);
}

/// One handle and one document of contents for all rows.
struct ground {
    loom_handle* handle = loom_open_private();
    loom_xml_document* contents = nullptr;
    ground() {
        loom_xml_error error{};
        contents = loom_xml_parse_file(RECORDS_XML, &error);
        if (contents == nullptr) fail(std::string(RECORDS_XML) + ": " + error.reason);
    }
    static ground& get() {
        static ground one;
        return one;
    }
};

// ---- Ours ----------------------------------------------------------------------------------------------------

template <class Facade>
struct ours {
    using object = typename Facade::c_type;
    loom_handle* handle = ground::get().handle;
    object* filled = nullptr;
    std::vector<unsigned char> bytes;
    std::uint32_t error = 0;

    ours() {
        filled = Facade::create(handle, domain);
        char message[200] = {};
        const std::string path = std::string("//") + Facade::name;
        Facade::from_xml(handle, domain, path.c_str(), ground::get().contents, filled, &error, message,
                         sizeof message);
        if (error != 0) fail(path + " is not read: " + message);
        bytes.resize(Facade::len(handle, domain, filled) + 1); // the writer wants one spare byte
        bytes.resize(marshal());
        if (error != 0) fail(path + " is not written");
    }
    ~ours() { Facade::destroy(handle, domain, filled); }
    std::uint32_t marshal() {
        return Facade::marshal(handle, domain, bytes.data(), filled, static_cast<int>(bytes.capacity()), &error);
    }
};

template <class Facade>
void our_len(benchmark::State& state) {
    ours<Facade> x;
    for (auto _ : state)
        benchmark::DoNotOptimize(Facade::len(x.handle, domain, x.filled));
    state.counters["bytes"] = static_cast<double>(x.bytes.size());
}
template <class Facade>
void our_marshal(benchmark::State& state) {
    ours<Facade> x;
    std::vector<unsigned char> out(x.bytes.size() + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            Facade::marshal(x.handle, domain, out.data(), x.filled, static_cast<int>(out.size()), &x.error));
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(x.bytes.size());
}
template <class Facade>
void our_unmarshal(benchmark::State& state) {
    ours<Facade> x;
    auto* into = Facade::create(x.handle, domain);
    for (auto _ : state)
        benchmark::DoNotOptimize(Facade::unmarshal(x.handle, domain, x.bytes.data(), into,
                                                   static_cast<int>(x.bytes.size()), 1, &x.error));
    if (Facade::compare(into, x.filled) != 0) fail("what was read differs");
    Facade::destroy(x.handle, domain, into);
}
template <class Facade>
void our_create_unmarshal_destroy(benchmark::State& state) {
    ours<Facade> x;
    for (auto _ : state) {
        auto* into = Facade::create(x.handle, domain);
        Facade::unmarshal(x.handle, domain, x.bytes.data(), into, static_cast<int>(x.bytes.size()), 0, &x.error);
        Facade::destroy(x.handle, domain, into);
    }
}
template <class Facade>
void our_compare(benchmark::State& state) {
    ours<Facade> x, y;
    for (auto _ : state)
        benchmark::DoNotOptimize(Facade::compare(x.filled, y.filled));
}
template <class Facade>
void our_hash(benchmark::State& state) {
    ours<Facade> x;
    for (auto _ : state)
        benchmark::DoNotOptimize(Facade::hash(x.filled, 0));
}
template <class Facade>
void our_text(benchmark::State& state) {
    ours<Facade> x;
    std::vector<char> out(1 << 20);
    for (auto _ : state)
        benchmark::DoNotOptimize(Facade::print(x.handle, domain, out.data(), 0, Facade::name, x.filled,
                                               static_cast<int>(out.size()), &x.error));
}
template <class Facade>
void our_xml(benchmark::State& state) {
    ours<Facade> x;
    std::vector<char> out(1 << 20);
    for (auto _ : state)
        benchmark::DoNotOptimize(Facade::to_xml(x.handle, domain, Facade::name, out.data(), x.filled,
                                                static_cast<int>(out.size()), 0, &x.error));
}

// ---- Protocol Buffers ----------------------------------------------------------------------------------------

template <class Facade, class Message>
struct protobuf {
    Message filled;
    std::string bytes;
    protobuf() {
        ours<Facade> x;
        peers::to_proto(*x.filled, &filled);
        filled.SerializeToString(&bytes);
    }
};

template <class Facade, class Message>
void protobuf_len(benchmark::State& state) {
    protobuf<Facade, Message> x;
    for (auto _ : state)
        benchmark::DoNotOptimize(x.filled.ByteSizeLong());
    state.counters["bytes"] = static_cast<double>(x.bytes.size());
}
/// Serializing into a buffer measures the message first; that is part of the operation.
template <class Facade, class Message>
void protobuf_marshal(benchmark::State& state) {
    protobuf<Facade, Message> x;
    std::vector<char> out(x.bytes.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(x.filled.SerializeToArray(out.data(), static_cast<int>(out.size())));
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(x.bytes.size());
}
/// Into a message that keeps its memory from the time before.
template <class Facade, class Message>
void protobuf_unmarshal(benchmark::State& state) {
    protobuf<Facade, Message> x;
    Message into;
    for (auto _ : state)
        benchmark::DoNotOptimize(into.ParseFromArray(x.bytes.data(), static_cast<int>(x.bytes.size())));
}
template <class Facade, class Message>
void protobuf_create_unmarshal_destroy(benchmark::State& state) {
    protobuf<Facade, Message> x;
    for (auto _ : state) {
        auto into = std::make_unique<Message>();
        into->ParseFromArray(x.bytes.data(), static_cast<int>(x.bytes.size()));
        benchmark::DoNotOptimize(into.get());
    }
}
/// The library's own comparison goes by reflection.
template <class Facade, class Message>
void protobuf_compare(benchmark::State& state) {
    protobuf<Facade, Message> x, y;
    for (auto _ : state)
        benchmark::DoNotOptimize(google::protobuf::util::MessageDifferencer::Equals(x.filled, y.filled));
}
template <class Facade, class Message>
void protobuf_text(benchmark::State& state) {
    protobuf<Facade, Message> x;
    std::string out;
    for (auto _ : state)
        benchmark::DoNotOptimize(google::protobuf::TextFormat::PrintToString(x.filled, &out));
}

// ---- FlatBuffers ---------------------------------------------------------------------------------------------

/// Writing packs the object form; reading verifies and unpacks into the object form, as a receiver of bytes that
/// it wants to change does.
template <class Facade, class Table>
struct flatbuffer {
    typename Table::NativeTableType filled;
    flatbuffers::FlatBufferBuilder builder{1 << 16};
    flatbuffer() {
        ours<Facade> x;
        peers::to_flat(*x.filled, &filled);
        pack();
    }
    void pack() {
        builder.Clear();
        builder.Finish(Table::Pack(builder, &filled));
    }
    const Table* root() const { return flatbuffers::GetRoot<Table>(builder.GetBufferPointer()); }
    bool verify() const {
        return flatbuffers::Verifier(builder.GetBufferPointer(), builder.GetSize()).VerifyBuffer<Table>(nullptr);
    }
};

template <class Facade, class Table>
void flatbuffers_marshal(benchmark::State& state) {
    flatbuffer<Facade, Table> x;
    for (auto _ : state) {
        x.pack();
        benchmark::DoNotOptimize(x.builder.GetBufferPointer());
    }
    state.counters["bytes"] = x.builder.GetSize();
}
template <class Facade, class Table>
void flatbuffers_create_unmarshal_destroy(benchmark::State& state) {
    flatbuffer<Facade, Table> x;
    for (auto _ : state) {
        if (!x.verify()) fail("FlatBuffers refuses its own bytes");
        typename Table::NativeTableType into;
        x.root()->UnPackTo(&into);
        benchmark::DoNotOptimize(&into);
    }
}

// ---- Cap'n Proto ---------------------------------------------------------------------------------------------

/// Writing builds the message from the object and flattens it; reading reads every field once, since there is no
/// object form to fill.
template <class Facade, class Struct>
struct capnproto {
    ours<Facade> x;
    kj::Array<::capnp::word> words = build();
    kj::Array<::capnp::word> build() {
        ::capnp::MallocMessageBuilder message;
        peers::to_capnp(*x.filled, message.initRoot<Struct>());
        return ::capnp::messageToFlatArray(message);
    }
};

template <class Facade, class Struct>
void capnproto_marshal(benchmark::State& state) {
    capnproto<Facade, Struct> x;
    for (auto _ : state) {
        auto words = x.build();
        benchmark::DoNotOptimize(words.begin());
    }
    state.counters["bytes"] = static_cast<double>(x.words.size() * sizeof(::capnp::word));
}
template <class Facade, class Struct>
void capnproto_unmarshal(benchmark::State& state) {
    capnproto<Facade, Struct> x;
    for (auto _ : state) {
        ::capnp::FlatArrayMessageReader reader(x.words);
        benchmark::DoNotOptimize(peers::read_capnp(reader.getRoot<Struct>()));
    }
}

// ---- XML by hand ---------------------------------------------------------------------------------------------

/// A writer by hand on pugixml: the tree of the same contents, printed without indentation.
struct text_sink : pugi::xml_writer {
    std::string text;
    void write(const void* data, size_t size) override { text.append(static_cast<const char*>(data), size); }
};
void copy_tree(const pugi::xml_node& from, pugi::xml_node to) {
    for (const pugi::xml_node& child : from.children()) {
        if (child.type() == pugi::node_pcdata)
            to.text().set(child.value());
        else
            copy_tree(child, to.append_child(child.name()));
    }
}
template <class Facade>
void pugixml_xml(benchmark::State& state) {
    pugi::xml_document source;
    source.load_file(RECORDS_XML);
    const pugi::xml_node record = source.child("records").child(Facade::name);
    text_sink sink;
    for (auto _ : state) {
        pugi::xml_document document;
        copy_tree(record, document.append_child(Facade::name));
        sink.text.clear();
        document.save(sink, "", pugi::format_raw | pugi::format_no_declaration);
        benchmark::DoNotOptimize(sink.text.data());
    }
}

template <class Facade, class Message, class Table, class Struct>
void add_rows() {
    const std::string record = std::string("/") + Facade::name + "/";
    const auto row = [&](const char* operation, const char* library, void (*body)(benchmark::State&)) {
        benchmark::RegisterBenchmark((operation + record + library).c_str(), body);
    };
    row("len", "trellis", our_len<Facade>);
    row("len", "protobuf", protobuf_len<Facade, Message>);
    row("marshal", "trellis", our_marshal<Facade>);
    row("marshal", "protobuf", protobuf_marshal<Facade, Message>);
    row("marshal", "flatbuffers", flatbuffers_marshal<Facade, Table>);
    row("marshal", "capnproto", capnproto_marshal<Facade, Struct>);
    row("unmarshal into existing", "trellis", our_unmarshal<Facade>);
    row("unmarshal into existing", "protobuf", protobuf_unmarshal<Facade, Message>);
    row("create, unmarshal, destroy", "trellis", our_create_unmarshal_destroy<Facade>);
    row("create, unmarshal, destroy", "protobuf", protobuf_create_unmarshal_destroy<Facade, Message>);
    row("create, unmarshal, destroy", "flatbuffers", flatbuffers_create_unmarshal_destroy<Facade, Table>);
    row("create, unmarshal, destroy", "capnproto", capnproto_unmarshal<Facade, Struct>);
    row("compare", "trellis", our_compare<Facade>);
    row("compare", "protobuf", protobuf_compare<Facade, Message>);
    row("hash", "trellis", our_hash<Facade>);
    row("text", "trellis", our_text<Facade>);
    row("text", "protobuf", protobuf_text<Facade, Message>);
    row("xml", "trellis", our_xml<Facade>);
    row("xml", "pugixml", pugixml_xml<Facade>);
}

} // namespace

int main(int argc, char** argv) {
    namespace proto = peers::proto;
    namespace flat = peers::flat;
    namespace cap = peers::capnp;
    add_rows<types::trl_radio_operation_config, proto::trl_radio_operation_config,
             flat::trl_radio_operation_config, cap::TrlRadioOperationConfig>();
    add_rows<types::rec_parent_with_sing_child, proto::rec_parent_with_sing_child,
             flat::rec_parent_with_sing_child, cap::RecParentWithSingChild>();
    add_rows<types::trellis_stats_perf, proto::trellis_stats_perf, flat::trellis_stats_perf,
             cap::TrellisStatsPerf>();
    add_rows<types::string_key, proto::string_key, flat::string_key, cap::StringKey>();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
