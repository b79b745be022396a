// Two builds of a bundle, of an older and a newer version of its schema, exchange random objects: one process per
// build, joined by a socket pair, since a process holds one build of a bundle. Both go through the same steps in
// the same order, one as writer and one as reader. The writer sends bytes with the form that they are to have
// (rules.h); the reader has everything at hand to judge what it made of them.
//
//   skew_exchange OLD_DIRECTORY NEW_DIRECTORY SEED BUNDLE...
//
// prints what failed, with the seed and the step, and ends with 0 when nothing did. A directory holds
// lib<bundle>.so and <bundle>.json, the model, of each bundle; bundles stand behind those that they import from.
#include "tests/skew/carrier.h"
#include "tests/skew/rules.h"
#include "tests/support/database.h"
#include "tests/support/forms.h"
#include "tools/loom/manifest.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace trellis::testing {
namespace {

using nlohmann::json;

constexpr uint32_t domain = 1;
// In each of these rounds the reader begins with another object; the rounds behind go on with it.
constexpr uint32_t new_target = 0, used_target = 2, rounds = 4;
// How often all of it is done, with other objects.
constexpr uint32_t passes = 4;
constexpr int most_failures = 5;

// ---- The wire between the two --------------------------------------------------------------------------------

class channel {
  public:
    explicit channel(int socket) : socket_(socket) {}
    ~channel() { close(socket_); }
    channel(const channel&) = delete;

    void send(const json& message) const {
        const std::string text = message.dump();
        const auto size = static_cast<uint32_t>(text.size());
        write_all(&size, sizeof size);
        write_all(text.data(), text.size());
    }
    json receive() const {
        uint32_t size = 0;
        read_all(&size, sizeof size);
        std::string text(size, ' ');
        read_all(text.data(), text.size());
        return json::parse(text);
    }

  private:
    void write_all(const void* bytes, size_t size) const {
        for (size_t done = 0; done < size;) {
            const ssize_t now = ::send(socket_, static_cast<const char*>(bytes) + done, size - done, MSG_NOSIGNAL);
            if (now <= 0) throw std::runtime_error("the other build is gone");
            done += static_cast<size_t>(now);
        }
    }
    void read_all(void* bytes, size_t size) const {
        for (size_t done = 0; done < size;) {
            const ssize_t now = ::read(socket_, static_cast<char*>(bytes) + done, size - done);
            if (now <= 0) throw std::runtime_error("the other build is gone");
            done += static_cast<size_t>(now);
        }
    }
    int socket_;
};

// ---- One build -----------------------------------------------------------------------------------------------

/// The bundles of one version, as files.
struct version {
    std::string directory;
    std::vector<std::string> bundles;
    std::string library(const std::string& bundle) const { return directory + "/lib" + bundle + ".so"; }
    std::string model(const std::string& bundle) const { return directory + "/" + bundle + ".json"; }
};

/// What all bundles of a version have.
schema_description schema_of(const version& of) {
    schema_description all;
    for (const std::string& bundle : of.bundles) {
        schema_description own = schema_description::read(of.model(bundle));
        all.records.merge(own.records);
        all.enumerations.merge(own.enumerations);
        all.flag_sets.merge(own.flag_sets);
        all.tables.insert(all.tables.end(), own.tables.begin(), own.tables.end());
        all.messages.merge(own.messages);
    }
    return all;
}
/// Its tables and messages by name: two versions need not agree in the order.
std::map<std::string, carrier_type> carriers_of(const schema_description& schema) {
    std::map<std::string, carrier_type> all;
    for (const table_description& table : schema.tables)
        all.emplace(table.name, carrier_type::of(table));
    for (const auto& [name, payload] : schema.messages)
        all.emplace(name, carrier_type::of_message(name, payload));
    return all;
}

struct peer_releaser {
    void operator()(loom_peer* peer) const { loom_peer_release(peer); }
};
using peer_pointer = std::unique_ptr<loom_peer, peer_releaser>;

/// What the peer's libraries say of themselves.
peer_pointer peer_of(const version& other) {
    peer_pointer peer(loom_peer_create("the other build"));
    for (const std::string& bundle : other.bundles) {
        const std::string manifest = tool::read_manifest(other.library(bundle)).text;
        if (loom_peer_add_manifest(peer.get(), manifest.data(), manifest.size()) != 0)
            throw std::runtime_error(loom_error_text());
    }
    return peer;
}

enum class awareness {
    none,  // the writer takes its peer for a build like its own
    late,  // it learns of the peer when the object is made
    early, // the object is made for the peer
};
constexpr const char* awareness_names[] = {"unaware", "aware late", "aware early"};

std::vector<uint8_t> bytes_of(const std::string& digits) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}
std::string digits_of(const std::vector<uint8_t>& bytes) { return hexadecimal(bytes.data(), bytes.size()); }

/// The step that this end is at, for a process that aborts as well.
std::string current_step = "start";

void tell_step(int) { std::fprintf(stderr, "aborted at: %s\n", current_step.c_str()); }

/// One build of the two: its library is loaded, its peer is at the other end of the channel.
class build {
  public:
    build(const version& own, const version& other, bool is_older, uint32_t seed, int socket)
        : channel_(socket), schema_(schema_of(own)), others_(schema_of(other)), peer_(peer_of(other)),
          is_older_(is_older), seed_(seed) {
        for (const std::string& bundle : own.bundles)
            if (dlopen(own.library(bundle).c_str(), RTLD_NOW | RTLD_GLOBAL) == nullptr)
                throw std::runtime_error(dlerror());
    }

    /// All steps; returns the number of failures seen at this end.
    int run() {
        for (pass_ = 0; pass_ < passes; ++pass_)
            run_pass();
        return failures_;
    }
    uint64_t objects() const { return objects_; }

  private:
    void run_pass() {
        for (const std::string& type : common_types())
            for (const bool older_writes : {true, false})
                for (const tracking_pair& tracking : tracking_pairs)
                    for (const awareness knows : {awareness::none, awareness::late, awareness::early})
                        exchange(type, older_writes, tracking, knows);
        for (const std::string& type : common_types())
            for (const bool older_writes : {true, false})
                exchange_xml(type, older_writes);
        const std::map<std::string, carrier_type> own = carriers_of(schema_), other = carriers_of(others_);
        for (const auto& [name, type] : own) {
            if (!other.contains(name)) {
                meet_a_stranger(type);
                continue;
            }
            for (const bool older_writes : {true, false}) {
                for (const tracking_pair& tracking : tracking_pairs)
                    for (const awareness knows : {awareness::none, awareness::late, awareness::early})
                        exchange_framed(type, older_writes, tracking, knows);
                exchange_framed_xml(type, older_writes);
                if (type.is_table) exchange_rows(type, older_writes);
            }
        }
    }
    std::vector<std::string> common_types() const {
        std::vector<std::string> types;
        const auto collect = [&](const auto& own, const auto& other) {
            for (const auto& [name, type] : own)
                if (other.contains(name)) types.push_back(name);
        };
        collect(schema_.records, others_.records);
        collect(schema_.enumerations, others_.enumerations);
        collect(schema_.flag_sets, others_.flag_sets);
        return types;
    }

    void fail(const std::string& what) {
        ++failures_;
        std::fprintf(stderr, "seed %u: %s: %s\n", seed_, current_step.c_str(), what.c_str());
        if (failures_ >= most_failures) throw std::runtime_error("enough has failed");
    }
    void expect_same(const std::string& what, const json& expected, const json& found) {
        if (expected == found) return;
        fail(what + " differ; from expected to found: " + json::diff(expected, found).dump().substr(0, 4000));
    }
    template <class T>
    void expect_equal(const std::string& what, const T& expected, const T& found) {
        if (expected == found) return;
        fail(what + " is " + std::to_string(found) + " and was to be " + std::to_string(expected));
    }

    bool is_writer(bool older_writes) const { return older_writes == is_older_; }
    /// Random numbers of this end at this step alone.
    std::mt19937 random() const {
        std::seed_seq mixed{seed_, static_cast<uint32_t>(std::hash<std::string>{}(current_step)),
                            uint32_t{is_older_}};
        return std::mt19937(mixed);
    }
    void begin_step(const std::string& type, bool older_writes, const std::string& how) {
        current_step = type + " " + (older_writes ? "older to newer" : "newer to older") + ", " + how + ", pass " +
                       std::to_string(pass_);
        ++objects_;
    }

    // ---- Binary form ---------------------------------------------------------------------------------------

    /// An object of a database that ends with it.
    class subject {
      public:
        subject(const build& in, const std::string& type, loom_handle* handle)
            : walker(in.schema_, handle, domain), operations(type), type_(type), handle_(handle),
              object(operations.create(handle, domain)) {}
        ~subject() {
            // An older variant would leave values of later ones behind.
            walker.raise_variants(type_, object);
            operations.destroy(handle_, domain, object);
        }
        subject(const subject&) = delete;

        json view() const { return walker.view(type_, object); }
        void raise() const { walker.raise_variants(type_, object); }
        void fill(std::mt19937& random, const fill_options& options) const {
            walker.fill(type_, object, random, options);
        }

        model_walker walker;
        named_type operations;

      private:
        std::string type_;
        loom_handle* handle_;

      public:
        void* object;
    };

    void exchange(const std::string& type, bool older_writes, const tracking_pair& tracking, awareness knows) {
        const bool writes = is_writer(older_writes);
        const database own(writes ? tracking.writer : tracking.reader);
        const std::string how = std::string(awareness_names[static_cast<int>(knows)]) + ", tracking " +
                                std::to_string(tracking.writer) + " to " + std::to_string(tracking.reader);
        // What the database keeps for itself is made by the first objects. Objects of negative variants keep their
        // values when they end, so the objects of any variant come last and in no account.
        uint64_t kept = 0;
        for (const bool again : {false, true}) {
            run_rounds(type, older_writes, tracking, knows, own, how, false);
            if (again) expect_equal<uint64_t>("blocks left behind", kept, own.blocks());
            kept = own.blocks();
        }
        if (knows != awareness::early)
            run_rounds(type, older_writes, tracking, knows, own, how + ", any variant", true);
    }

    void run_rounds(const std::string& type, bool older_writes, const tracking_pair& tracking, awareness knows,
                    const database& own, const std::string& how, bool any_variant) {
        if (is_writer(older_writes)) {
            for (uint32_t round = 0; round < rounds; ++round) {
                begin_step(type, older_writes, how + ", round " + std::to_string(round));
                write(type, own, knows, any_variant);
            }
            return;
        }
        std::unique_ptr<subject> target;
        for (uint32_t round = 0; round < rounds; ++round) {
            begin_step(type, older_writes, how + ", round " + std::to_string(round));
            if (round == new_target || round == used_target) target = std::make_unique<subject>(*this, type, own);
            if (round == used_target) {
                std::mt19937 random = this->random();
                target->fill(random, {});
            }
            read(type, own, tracking, round != new_target, *target);
            if (!any_variant) target->raise();
        }
    }

    void write(const std::string& type, loom_handle* handle, awareness knows, bool any_variant) {
        std::mt19937 random = this->random();
        if (knows == awareness::early) loom_set_peer(handle, peer_.get());
        {
            const subject source(*this, type, handle);
            fill_options options;
            options.lower_variants = any_variant;
            options.within_variant = knows == awareness::early;
            source.fill(random, options);
            if (knows == awareness::late) loom_set_peer(handle, peer_.get());
            send_object(type, handle, knows, source);
        }
        loom_set_peer(handle, nullptr);
    }

    void send_object(const std::string& type, loom_handle* handle, awareness knows, const subject& source) {
        bool cut_down = false;
        const json form =
            written_form(schema_, type, source.view(), knows == awareness::none ? nullptr : &others_, &cut_down);
        if (knows == awareness::early && cut_down) fail("an object made for the peer is newer than the peer");

        // The last guarded byte wants two bytes of room, and one more may be stored to.
        const uint32_t length = source.operations.len(handle, domain, source.object);
        std::vector<uint8_t> bytes(length + 2);
        uint32_t error = 0;
        bytes.resize(source.operations.marshal(handle, domain, bytes.data(), source.object,
                                               static_cast<int32_t>(length) + 1, &error));
        expect_equal<uint32_t>("error of the writer", cut_down ? LOOM_EIDRM : 0, error);
        if (length < bytes.size()) fail("longer than its length");
        if (!cut_down) {
            bool complete = true;
            const std::vector<uint8_t> expected = source.walker.marshal(type, source.object, &complete);
            if (bytes != expected)
                fail("bytes written differ\n  expected " + digits_of(expected) + "\n  found    " +
                     digits_of(bytes));
        }
        channel_.send({{"step", current_step}, {"bytes", digits_of(bytes)}, {"form", form}});
    }

    json receive() {
        json message = channel_.receive();
        if (message.at("step") != current_step)
            throw std::runtime_error("the two builds are out of step: " + message.at("step").dump());
        return message;
    }

    void read(const std::string& type, loom_handle* handle, const tracking_pair& tracking, bool existing,
              const subject& target) {
        const json message = receive();
        std::vector<uint8_t> bytes = bytes_of(message.at("bytes"));
        const auto size = static_cast<uint32_t>(bytes.size());
        if (schema_.records.contains(type) && size >= 6) {
            const uint32_t jump =
                uint32_t{bytes[2]} << 24 | uint32_t{bytes[3]} << 16 | uint32_t{bytes[4]} << 8 | bytes[5];
            expect_equal("end that the jump names", size, 2 + jump);
        }
        const json expected =
            received_form(how_read(handle, tracking, existing), type, target.view(), message.at("form"));

        // Something stands behind the record: a last guarded byte wants two bytes of room.
        bytes.push_back(0xAA);
        uint32_t error = 0;
        const uint32_t end = target.operations.unmarshal(handle, domain, bytes.data(), target.object,
                                                         static_cast<int32_t>(bytes.size()), existing, &error);
        expect_equal("error of the reader", 0u, error);
        expect_equal("end of the reader", size, end);
        expect_same("objects read", expected, target.view());
    }

    reading how_read(loom_handle* handle, const tracking_pair& tracking, bool existing) const {
        return {schema_, tracking.reader == LOOM_TRACKING_ON, tracking.writer == LOOM_TRACKING_ON, existing,
                [this, handle](const std::string& of) { return subject(*this, of, handle).view(); }};
    }

    // ---- XML -----------------------------------------------------------------------------------------------

    void expect_shared(const json& written, const json& read, const std::string& text) {
        if (!holds_shared(written, read))
            fail("objects read from XML differ; from written to read: " +
                 json::diff(written, read).dump().substr(0, 2000) + "\n" + text.substr(0, 6000));
    }

    void exchange_xml(const std::string& type, bool older_writes) {
        const database own;
        for (uint32_t round = 0; round < rounds; ++round) {
            begin_step(type, older_writes, "XML, round " + std::to_string(round));
            const subject here(*this, type, own);
            uint32_t error = 0;
            if (is_writer(older_writes)) {
                std::mt19937 random = this->random();
                fill_options options;
                options.presentable = true;
                here.fill(random, options);
                std::vector<char> text(1u << 20);
                const uint32_t size = here.operations.to_xml(own, domain, "root", text.data(), here.object,
                                                             static_cast<int32_t>(text.size()), 0, &error);
                expect_equal("error of the XML writer", 0u, error);
                channel_.send({{"step", current_step},
                               {"text", std::string(text.data(), size)},
                               {"form", shared_form(schema_, others_, type, here.view())}});
                continue;
            }
            const json message = receive();
            const std::string text = message.at("text");
            here.operations.from_xml(own, domain, "//root", xml_text(text), here.object, &error);
            expect_equal("error of the XML reader", 0u, error);
            expect_shared(message.at("form"), shared_form(schema_, others_, type, here.view()), text);
        }
    }

    // ---- Rows and messages ---------------------------------------------------------------------------------

    void fill_parts(const carrier& it, loom_handle* handle, std::mt19937& random,
                    const fill_options& options) const {
        const model_walker walker(schema_, handle, domain);
        for (size_t i = 0; i < it.type().parts.size(); ++i)
            walker.fill(it.type().parts[i], it.part(i), random, options);
    }
    /// An older variant would leave values of later ones behind at the end.
    void raise_parts(const carrier& it, loom_handle* handle) const {
        const model_walker walker(schema_, handle, domain);
        for (size_t i = 0; i < it.type().parts.size(); ++i)
            walker.raise_variants(it.type().parts[i], it.part(i));
    }
    json view_of_part(const carrier& it, size_t number, loom_handle* handle) const {
        return model_walker(schema_, handle, domain).view(it.type().parts[number], it.part(number));
    }

    /// The other build has no such table or message and gets nothing.
    void meet_a_stranger(const carrier_type& type) {
        begin_step(type.name, is_older_, "unknown to the peer");
        const database own;
        const carrier it = carrier::made(type, own, domain);
        loom_set_peer(own, peer_.get());
        uint32_t error = 0;
        expect_equal<size_t>("bytes for a peer that knows nothing of it", 0, it.marshal(&error).size());
        expect_equal<uint32_t>("error for a peer that knows nothing of it", LOOM_EBADE, error);
        loom_set_peer(own, nullptr);
    }

    void exchange_framed(const carrier_type& type, bool older_writes, const tracking_pair& tracking,
                         awareness knows) {
        const bool writes = is_writer(older_writes);
        const database own(writes ? tracking.writer : tracking.reader);
        const std::string how = std::string("framed, ") + awareness_names[static_cast<int>(knows)] +
                                ", tracking " + std::to_string(tracking.writer) + " to " +
                                std::to_string(tracking.reader) + ", round ";
        uint64_t kept = 0;
        for (const bool again : {false, true}) {
            std::unique_ptr<carrier> target;
            for (uint32_t round = 0; round < 2; ++round) {
                begin_step(type.name, older_writes, how + std::to_string(round));
                if (writes) {
                    write_framed(type, own, tracking, knows);
                    continue;
                }
                const bool existing = round > 0 && type.is_table && target->object() != nullptr;
                if (!existing) target = std::make_unique<carrier>(type, own, domain);
                read_framed(*target, own, tracking, existing);
            }
            target.reset();
            if (again) expect_equal<uint64_t>("blocks left behind", kept, own.blocks());
            kept = own.blocks();
        }
    }

    void write_framed(const carrier_type& type, loom_handle* handle, const tracking_pair& tracking,
                      awareness knows) {
        if (knows == awareness::early) loom_set_peer(handle, peer_.get());
        {
            const carrier source = carrier::made(type, handle, domain);
            fill_options options;
            options.within_variant = knows == awareness::early;
            std::mt19937 random = this->random();
            fill_parts(source, handle, random, options);
            if (knows == awareness::late) loom_set_peer(handle, peer_.get());
            send_framed(source, handle, tracking, knows);
            raise_parts(source, handle);
        }
        loom_set_peer(handle, nullptr);
    }

    void send_framed(const carrier& source, loom_handle* handle, const tracking_pair& tracking, awareness knows) {
        bool cut_down = false;
        json forms = json::array();
        std::vector<uint8_t> content;
        for (size_t i = 0; i < source.type().parts.size(); ++i) {
            const std::string& part = source.type().parts[i];
            forms.push_back(written_form(schema_, part, view_of_part(source, i, handle),
                                         knows == awareness::none ? nullptr : &others_, &cut_down));
            bool complete = true;
            const std::vector<uint8_t> bytes =
                model_walker(schema_, handle, domain).marshal(part, source.part(i), &complete);
            content.insert(content.end(), bytes.begin(), bytes.end());
        }
        uint32_t error = 0;
        std::vector<uint8_t> bytes = source.marshal(&error);
        expect_equal<uint32_t>("error of the writer", cut_down ? LOOM_EIDRM : 0, error);
        if (source.length() < bytes.size()) fail("longer than its length");
        const std::vector<uint8_t> header(bytes.begin(), bytes.begin() + LOOM_MESSAGE_HEADER_WIRE_SIZE);
        if (cut_down) {
            // What cannot be sent whole is not sent: the place of the header stays empty.
            if (digits_of(header).find_first_not_of('0') != std::string::npos) fail("header over an error");
            channel_.send({{"step", current_step}, {"bytes", nullptr}});
            return;
        }
        const std::vector<uint8_t> expected =
            whole_frame(source, content, tracking.writer == LOOM_TRACKING_ON, handle->header_tag);
        if (bytes != expected)
            fail("bytes written differ\n  expected " + digits_of(expected) + "\n  found    " + digits_of(bytes));
        channel_.send({{"step", current_step}, {"bytes", digits_of(bytes)}, {"forms", forms}});
    }

    /// Magic number, six bytes of ones, tracking, tag and length in 27 bytes; the luid; the content.
    static std::vector<uint8_t> whole_frame(const carrier& of, const std::vector<uint8_t>& content, bool tracked,
                                            uint32_t tag) {
        std::vector<uint8_t> bytes{188, 255, 255, 255, 255, 255, 255, static_cast<uint8_t>(tracked)};
        const size_t whole = LOOM_MESSAGE_HEADER_WIRE_SIZE + LOOM_LUID_SIZE + content.size();
        for (const uint32_t number : {tag, static_cast<uint32_t>(whole)})
            for (int shift = 24; shift >= 0; shift -= 8)
                bytes.push_back(static_cast<uint8_t>(number >> shift));
        bytes.resize(LOOM_MESSAGE_HEADER_WIRE_SIZE);
        bytes.insert(bytes.end(), of.luid(), of.luid() + LOOM_LUID_SIZE);
        bytes.insert(bytes.end(), content.begin(), content.end());
        return bytes;
    }

    void read_framed(carrier& target, loom_handle* handle, const tracking_pair& tracking, bool existing) {
        const json message = receive();
        if (message.at("bytes").is_null()) return;
        std::vector<uint8_t> bytes = bytes_of(message.at("bytes"));
        const auto size = static_cast<uint32_t>(bytes.size());
        if (!std::equal(target.luid(), target.luid() + LOOM_LUID_SIZE,
                        bytes.begin() + LOOM_MESSAGE_HEADER_WIRE_SIZE))
            fail("the two builds differ in its luid");
        const reading how = how_read(handle, tracking, existing);
        std::vector<json> expected;
        for (size_t i = 0; i < target.type().parts.size(); ++i) {
            const std::string& part = target.type().parts[i];
            const json before = existing ? view_of_part(target, i, handle) : how.blank(part);
            expected.push_back(received_form(how, part, before, message.at("forms").at(i)));
        }
        bytes.push_back(0xAA);
        uint32_t error = 0;
        expect_equal("end of the reader", size, target.unmarshal(bytes, existing, &error));
        expect_equal("error of the reader", 0u, error);
        for (size_t i = 0; i < expected.size(); ++i)
            expect_same("objects read", expected[i], view_of_part(target, i, handle));
        raise_parts(target, handle);
    }

    void exchange_framed_xml(const carrier_type& type, bool older_writes) {
        const database own;
        begin_step(type.name, older_writes, "framed, XML");
        if (is_writer(older_writes)) {
            const carrier source = carrier::made(type, own, domain);
            fill_options options;
            options.presentable = true;
            std::mt19937 random = this->random();
            fill_parts(source, own, random, options);
            json forms = json::array();
            for (size_t i = 0; i < type.parts.size(); ++i)
                forms.push_back(shared_form(schema_, others_, type.parts[i], view_of_part(source, i, own)));
            channel_.send({{"step", current_step}, {"text", source.to_xml()}, {"forms", forms}});
            return;
        }
        const json message = receive();
        const std::string text = message.at("text");
        carrier target(type, own, domain);
        uint32_t error = 0;
        target.from_xml(xml_text(text), &error);
        expect_equal("error of the XML reader", 0u, error);
        for (size_t i = 0; i < type.parts.size(); ++i)
            expect_shared(message.at("forms").at(i),
                          shared_form(schema_, others_, type.parts[i], view_of_part(target, i, own)), text);
    }

    /// Several rows go from a table into the other build's, in their places if it is ordered. The same row leaves
    /// both tables, and both find the others by their keys, in the same places.
    void exchange_rows(const carrier_type& type, bool older_writes) {
        begin_step(type.name, older_writes, "rows");
        const database own;
        open_table table(type, own, domain);
        if (is_writer(older_writes)) {
            send_rows(type, own, table);
            return;
        }
        const json message = receive();
        std::vector<carrier> rows;
        for (const json& sent : message.at("rows")) {
            rows.emplace_back(type, own, domain);
            uint32_t error = 0;
            rows.back().unmarshal(bytes_of(sent), false, &error);
            expect_equal("error of the reader", 0u, error);
            expect_equal("error of the insert", 0u, table.insert(rows.back()));
        }
        if (!rows.empty()) table.remove(rows.front());
        expect_same("rows that are left", message.at("left"), rows_left(table, rows));
    }

    void send_rows(const carrier_type& type, loom_handle* handle, open_table& table) {
        std::vector<carrier> rows;
        std::mt19937 random = this->random();
        for (uint32_t number = 0; number < 5; ++number) {
            carrier row = carrier::made(type, handle, domain);
            fill_parts(row, handle, random, {});
            if (type.ordered) table.set_place(row, 1 + static_cast<uint32_t>(random() % (table.count() + 1)));
            if (table.insert(row) == 0) rows.push_back(std::move(row)); // keys may meet
        }
        if (type.ordered)
            std::sort(rows.begin(), rows.end(),
                      [&](const carrier& a, const carrier& b) { return table.place(a) < table.place(b); });
        json sent = json::array();
        for (const carrier& row : rows) {
            uint32_t error = 0;
            sent.push_back(digits_of(row.marshal(&error)));
            expect_equal("error of the writer", 0u, error);
        }
        if (!rows.empty()) table.remove(rows.front());
        channel_.send({{"step", current_step}, {"rows", sent}, {"left", rows_left(table, rows)}});
    }

    /// The keys of all rows with their places, 0 for the row that was taken out.
    json rows_left(const open_table& table, const std::vector<carrier>& rows) const {
        json left = json::array();
        for (const carrier& row : rows) {
            const std::vector<uint8_t> key = table.key_of(row);
            const void* found = table.find(key);
            const uint32_t place = row.type().ordered ? table.place(row) : 1;
            left.push_back({digits_of(key), found == row.object() ? place : 0, found == nullptr});
        }
        return left;
    }

    channel channel_;
    schema_description schema_;
    schema_description others_;
    peer_pointer peer_;
    bool is_older_;
    uint32_t seed_;
    uint32_t pass_ = 0;
    int failures_ = 0;
    uint64_t objects_ = 0;
};

/// One end, from loading the library on. The status of a process: 0 or 1.
int run_end(const version& own, const version& other, bool is_older, uint32_t seed, int socket) {
    try {
        build end(own, other, is_older, seed, socket);
        const int failures = end.run();
        if (!is_older && failures == 0)
            std::printf("%llu objects\n", static_cast<unsigned long long>(end.objects()));
        return failures == 0 ? 0 : 1;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "seed %u: the %s build at %s: %s\n", seed, is_older ? "older" : "newer",
                     current_step.c_str(), problem.what());
        return 1;
    }
}

} // namespace
} // namespace trellis::testing

int main(int count, char** arguments) {
    using namespace trellis::testing;
    if (count < 5) {
        std::fputs("usage: skew_exchange OLD_DIRECTORY NEW_DIRECTORY SEED BUNDLE...\n", stderr);
        return 2;
    }
    const std::vector<std::string> bundles(arguments + 4, arguments + count);
    const version older{arguments[1], bundles}, newer{arguments[2], bundles};
    const auto seed = static_cast<uint32_t>(std::stoul(arguments[3]));
    std::signal(SIGABRT, tell_step);
    std::array<int, 2> ends;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) return 2;
    const pid_t child = fork();
    if (child < 0) return 2;
    if (child == 0) {
        close(ends[1]);
        return run_end(older, newer, true, seed, ends[0]);
    }
    close(ends[0]);
    const int status_of_newer = run_end(newer, older, false, seed, ends[1]);
    int status = 0;
    waitpid(child, &status, 0);
    const bool older_is_well = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (WIFSIGNALED(status))
        std::fprintf(stderr, "seed %u: the older build ended by signal %d\n", seed, WTERMSIG(status));
    return status_of_newer == 0 && older_is_well ? 0 : 1;
}
