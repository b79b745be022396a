// Two builds of a bundle, of an older and a newer version of its schema, exchange random objects: one process per
// build, joined by a socket pair, since a process holds one build of a bundle. Both go through the same steps in
// the same order, one as writer and one as reader. The writer sends bytes with the form that they are to have
// (rules.h); the reader has everything at hand to judge what it made of them.
//
//   skew_exchange OLD_LIBRARY OLD_MODEL NEW_LIBRARY NEW_MODEL SEED
//
// prints what failed, with the seed and the step, and ends with 0 when nothing did. A model is the JSON of a
// schema.
#include "tests/skew/rules.h"
#include "tests/support/database.h"
#include "tools/loom/manifest.h"

#include <loom_runtime/xml.h>

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

// ---- The wire between the two
// ------------------------------------------------------------------------------------

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

// ---- One build
// ---------------------------------------------------------------------------------------------------

struct version {
    std::string library;
    std::string model;
};

struct peer_releaser {
    void operator()(loom_peer* peer) const { loom_peer_release(peer); }
};
using peer_pointer = std::unique_ptr<loom_peer, peer_releaser>;

/// What the peer's library says of itself.
peer_pointer peer_of(const version& other) {
    peer_pointer peer(loom_peer_create("the other build"));
    const std::string manifest = tool::read_manifest(other.library).text;
    if (loom_peer_add_manifest(peer.get(), manifest.data(), manifest.size()) != 0)
        throw std::runtime_error(loom_error_text());
    return peer;
}

enum class awareness {
    none,  // the writer takes its peer for a build like its own
    late,  // it learns of the peer when the object is made
    early, // the object is made for the peer
};
constexpr const char* awareness_names[] = {"unaware", "aware late", "aware early"};

struct tracking_pair {
    uint32_t writer, reader;
};
constexpr tracking_pair tracking_pairs[] = {{LOOM_TRACKING_NONE, LOOM_TRACKING_NONE},
                                            {LOOM_TRACKING_OFF, LOOM_TRACKING_ON},
                                            {LOOM_TRACKING_ON, LOOM_TRACKING_OFF},
                                            {LOOM_TRACKING_ON, LOOM_TRACKING_ON}};

std::vector<uint8_t> bytes_of(const std::string& digits) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}
std::string digits_of(const std::vector<uint8_t>& bytes) {
    std::string digits;
    for (const uint8_t byte : bytes) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", byte);
        digits += two;
    }
    return digits;
}

/// The step that this end is at, for a process that aborts as well.
std::string current_step = "start";

void tell_step(int) { std::fprintf(stderr, "aborted at: %s\n", current_step.c_str()); }

/// One build of the two: its library is loaded, its peer is at the other end of the channel.
class build {
  public:
    build(const version& own, const version& other, bool is_older, uint32_t seed, int socket)
        : channel_(socket), schema_(schema_description::read(own.model)),
          others_(schema_description::read(other.model)), peer_(peer_of(other)), is_older_(is_older), seed_(seed) {
        if (dlopen(own.library.c_str(), RTLD_NOW | RTLD_GLOBAL) == nullptr) throw std::runtime_error(dlerror());
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

        std::vector<uint8_t> bytes(1u << 20);
        uint32_t error = 0;
        bytes.resize(source.operations.marshal(handle, domain, bytes.data(), source.object,
                                               static_cast<int32_t>(bytes.size()) - 1, &error));
        expect_equal<uint32_t>("error of the writer", cut_down ? LOOM_EIDRM : 0, error);
        if (source.operations.len(handle, domain, source.object) < bytes.size()) fail("longer than its length");
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
        const reading how{schema_, tracking.reader == LOOM_TRACKING_ON, tracking.writer == LOOM_TRACKING_ON,
                          existing, [&](const std::string& of) { return subject(*this, of, handle).view(); }};
        const json expected = received_form(how, type, target.view(), message.at("form"));

        // Something stands behind the record: a last guarded byte wants two bytes of room.
        bytes.push_back(0xAA);
        uint32_t error = 0;
        const uint32_t end = target.operations.unmarshal(handle, domain, bytes.data(), target.object,
                                                         static_cast<int32_t>(bytes.size()), existing, &error);
        expect_equal("error of the reader", 0u, error);
        expect_equal("end of the reader", size, end);
        expect_same("objects read", expected, target.view());
    }

    // ---- XML -----------------------------------------------------------------------------------------------

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
            loom_xml_document* document = loom_xml_parse(text.data(), text.size(), nullptr);
            if (document == nullptr) {
                fail("no XML: " + text.substr(0, 4000));
                continue;
            }
            here.operations.from_xml(own, domain, "//root", document, here.object, &error);
            loom_xml_free(document);
            expect_equal("error of the XML reader", 0u, error);
            const json shared = shared_form(schema_, others_, type, here.view());
            if (!holds_shared(message.at("form"), shared))
                fail("objects read from XML differ; from written to read: " +
                     json::diff(message.at("form"), shared).dump().substr(0, 2000) + "\n" + text.substr(0, 6000));
        }
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
    if (count != 6) {
        std::fputs("usage: skew_exchange OLD_LIBRARY OLD_MODEL NEW_LIBRARY NEW_MODEL SEED\n", stderr);
        return 2;
    }
    const version older{arguments[1], arguments[2]}, newer{arguments[3], arguments[4]};
    const auto seed = static_cast<uint32_t>(std::stoul(arguments[5]));
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
