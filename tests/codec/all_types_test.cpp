// Every type of the bundle against the walker, on random instances: what the library writes must be what the
// walker says, what it reads back must be what was written, with state tracking on or off on either side, over new
// objects and over objects in use, in every variant, and in buffers of every length.
#include "tests/codec/codec_fixture.h"

#include <loom_runtime/trace.h>

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <functional>

namespace trellis::testing {
namespace {

constexpr uint32_t rounds = 6;

/// An object of the type under test with its walker.
class subject {
  public:
    subject(const std::string& type, loom_handle* handle)
        : type_(type), operations_(type), handle_(handle), walker_(schema(), handle, domain),
          object_(operations_.create(handle, domain)) {}
    ~subject() {
        // A negative variant would leave the values behind.
        restore_variants();
        operations_.destroy(handle_, domain, object_);
    }
    subject(const subject&) = delete;

    void fill(std::mt19937& random, const fill_options& options) { walker_.fill(type_, object_, random, options); }
    void* object() const { return object_; }
    const model_walker& walker() const { return walker_; }
    const named_type& operations() const { return operations_; }
    loom_handle* handle() const { return handle_; }
    int8_t variant() const { return static_cast<const int8_t*>(object_)[8]; }

    std::vector<uint8_t> marshal(uint32_t* error, loom_handle* by = nullptr) const {
        std::vector<uint8_t> buffer(1u << 20);
        const uint32_t size = operations_.marshal(by == nullptr ? handle_ : by, domain, buffer.data(), object_,
                                                  static_cast<int32_t>(buffer.size()) - 1, error);
        buffer.resize(size);
        return buffer;
    }
    uint32_t unmarshal(const uint8_t* bytes, size_t size, uint32_t existing, uint32_t* error) {
        return operations_.unmarshal(handle_, domain, bytes, object_, static_cast<int32_t>(size), existing, error);
    }
    std::vector<uint8_t> states() const { return walker_.states(type_, object_, walker_.area_of(type_, object_)); }

  private:
    void restore_variants() {
        const auto record = schema().records.find(type_);
        if (record != schema().records.end() && variant() < 0)
            static_cast<int8_t*>(object_)[8] = static_cast<int8_t>(record->second.newest);
    }

    std::string type_;
    named_type operations_;
    loom_handle* handle_;
    model_walker walker_;
    void* object_;
};

/// Whether the last state of a record is that of a reference or list, which wants two bytes of room to be read. Of
/// an older variant any attribute may be the last.
bool ends_with_guarded_state(const std::string& type) {
    const auto record = schema().records.find(type);
    if (record == schema().records.end() || record->second.attributes.empty()) return false;
    const attribute_description& last = record->second.attributes.back();
    return last.shape == attribute_shape::oid || last.shape == attribute_shape::list ||
           ends_with_guarded_state(last.type);
}

class all_types : public ::testing::TestWithParam<std::string> {};
class all_records : public ::testing::TestWithParam<std::string> {};

TEST_P(all_types, binary_form_is_the_walkers_and_comes_back) {
    for (const tracking_pair& tracking : tracking_pairs) {
        const database writing(tracking.writer), reading(tracking.reader);
        for (uint32_t seed = 0; seed < rounds; ++seed) {
            SCOPED_TRACE(::testing::Message()
                         << "tracking " << tracking.writer << " to " << tracking.reader << ", seed " << seed);
            std::mt19937 random(seed);
            const fill_options options{.lower_variants = seed % 3 == 2, .stale_arms = false, .presentable = false};
            subject source(GetParam(), writing);
            source.fill(random, options);

            bool complete;
            const std::vector<uint8_t> expected = source.walker().marshal(GetParam(), source.object(), &complete);
            ASSERT_TRUE(complete);
            uint32_t error = 0;
            const std::vector<uint8_t> bytes = source.marshal(&error);
            ASSERT_EQ(error, 0u);
            ASSERT_EQ(hex(bytes), hex(expected));
            const uint32_t length = source.operations().len(writing, domain, source.object());
            ASSERT_GE(length, bytes.size());
            // State bytes of empty arrays are counted and not written; so are bits of later variants.
            if (tracking.writer != LOOM_TRACKING_ON && !options.lower_variants) {
                ASSERT_EQ(length, bytes.size());
            }

            subject target(GetParam(), reading);
            const bool in_use = seed % 2 == 1;
            std::vector<uint8_t> received = bytes;
            if (in_use || options.lower_variants || ends_with_guarded_state(GetParam())) received.push_back(0xAA);
            if (in_use) target.fill(random, {});
            ASSERT_EQ(target.unmarshal(received.data(), received.size(), in_use, &error), bytes.size());
            ASSERT_EQ(error, 0u);
            ASSERT_EQ(target.variant(), source.variant());
            // Without states, as a handle without tracking writes both.
            const database plain;
            ASSERT_EQ(hex(target.marshal(&error, plain)), hex(source.marshal(&error, plain)));
            if (tracking.writer == LOOM_TRACKING_ON && tracking.reader == LOOM_TRACKING_ON) {
                ASSERT_EQ(hex(target.states()), hex(source.states()));
            }
            const std::vector<uint8_t> again = target.walker().marshal(GetParam(), target.object(), &complete);
            ASSERT_EQ(hex(target.marshal(&error)), hex(again));
        }
    }
}

TEST_P(all_types, nothing_is_left_behind) {
    for (const uint32_t tracking : {LOOM_TRACKING_NONE, LOOM_TRACKING_ON}) {
        const database writing(tracking), reading(tracking);
        // What the database itself keeps is made once, by the first object that has a use for it.
        for (uint32_t seed = 0; seed < rounds; ++seed) {
            std::mt19937 random(seed);
            subject warm_up(GetParam(), reading);
            warm_up.fill(random, {});
        }
        const uint64_t blocks = reading.blocks();
        for (uint32_t seed = 0; seed < rounds; ++seed) {
            std::mt19937 random(seed);
            subject source(GetParam(), writing);
            subject target(GetParam(), reading);
            target.fill(random, {});
            for (uint32_t existing = 0; existing < 2; ++existing) {
                source.fill(random, {});
                uint32_t error = 0;
                const std::vector<uint8_t> bytes = source.marshal(&error);
                target.unmarshal(bytes.data(), bytes.size(), existing, &error);
                ASSERT_EQ(error, 0u);
            }
        }
        EXPECT_EQ(reading.blocks(), blocks) << "tracking " << tracking;
    }
}

TEST_P(all_types, every_store_of_the_reader_is_announced) {
    for (const uint32_t tracking : {LOOM_TRACKING_NONE, LOOM_TRACKING_ON}) {
        const database writing(tracking), reading(tracking);
        std::mt19937 random(1);
        subject source(GetParam(), writing);
        source.fill(random, {});
        subject target(GetParam(), reading);
        target.fill(random, {});
        uint32_t error = 0;
        const std::vector<uint8_t> bytes = source.marshal(&error);
        ASSERT_EQ(loom_debug_arena_start(reading, nullptr, nullptr), 0u);
        for (int twice = 0; twice < 2; ++twice) {
            target.unmarshal(bytes.data(), bytes.size(), 1, &error);
            ASSERT_EQ(error, 0u);
            EXPECT_EQ(loom_debug_arena_check(reading), 0u) << "tracking " << tracking;
        }
        loom_debug_arena_stop(reading);
    }
}

TEST_P(all_types, selected_arms_without_value_are_missed) {
    const database writing(LOOM_TRACKING_ON);
    for (uint32_t seed = 0; seed < rounds; ++seed) {
        std::mt19937 random(seed);
        subject source(GetParam(), writing);
        source.fill(random, {.lower_variants = false, .stale_arms = true, .presentable = false});
        bool complete;
        source.walker().marshal(GetParam(), source.object(), &complete);
        uint32_t error = 0;
        const std::vector<uint8_t> bytes = source.marshal(&error);
        EXPECT_EQ(error, complete ? 0u : 2u);
        EXPECT_LE(bytes.size(), source.operations().len(writing, domain, source.object()));
    }
}

TEST_P(all_types, buffers_of_every_length) {
    for (const uint32_t tracking : {LOOM_TRACKING_NONE, LOOM_TRACKING_ON}) {
        const database writing(tracking), reading(tracking), skipping;
        std::mt19937 random(3);
        subject source(GetParam(), writing);
        source.fill(random, {});
        uint32_t error = 0;
        const std::vector<uint8_t> bytes = source.marshal(&error);
        ASSERT_EQ(error, 0u);
        const size_t step = bytes.size() > 4000 ? 7 : 1;
        const auto try_size = [&](size_t size) {
            exact_buffer buffer(size + 1, 0xAA); // one spare byte
            error = 0;
            const uint32_t written = source.operations().marshal(writing, domain, buffer.data(), source.object(),
                                                                 static_cast<int32_t>(size), &error);
            ASSERT_LE(written, size);
            // Only state bytes go missing without an error.
            if (tracking != LOOM_TRACKING_ON) {
                ASSERT_EQ(error, size < bytes.size() ? 90u : 0u) << "room for " << size;
                ASSERT_TRUE(size < bytes.size() || hex(buffer.data(), written) == hex(bytes));
            }

            const exact_buffer cut(bytes.data(), size);
            for (const database* by : {&reading, &skipping}) {
                subject target(GetParam(), *by);
                error = 0;
                target.unmarshal(cut.data(), size, 0, &error);
            }
        };
        for (size_t size = 1; size < bytes.size(); size += step)
            try_size(size);
        try_size(bytes.size());
    }
}

/// Damaged counts ask for gigabytes: a reader of damaged bytes has this much memory.
constexpr uint64_t little = 16u << 20;

TEST_P(all_types, damaged_bytes_do_no_harm) {
    for (const uint32_t tracking : {LOOM_TRACKING_NONE, LOOM_TRACKING_ON}) {
        const database writing(tracking), reading(tracking, LOOM_DB_PRIVATE, little);
        for (uint32_t seed = 0; seed < 20; ++seed) {
            std::mt19937 random(seed);
            subject source(GetParam(), writing);
            source.fill(random, {});
            uint32_t error = 0;
            std::vector<uint8_t> bytes = source.marshal(&error);
            for (uint32_t damage = 1 + static_cast<uint32_t>(random() % 4); damage > 0; --damage)
                bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
            bytes.resize(1 + random() % bytes.size());
            const exact_buffer cut(bytes.data(), bytes.size());
            subject target(GetParam(), reading);
            if (seed % 2 == 1) target.fill(random, {});
            target.unmarshal(cut.data(), bytes.size(), seed % 2, &error);
            error = 0;
            target.marshal(&error);
        }
    }
}

TEST_P(all_types, jumps_far_behind_the_end_do_no_harm) {
    constexpr uint8_t far[] = {0x7f, 0xff, 0xff, 0xf0};
    for (const uint32_t tracking : {LOOM_TRACKING_NONE, LOOM_TRACKING_ON}) {
        const database writing(tracking), reading(tracking, LOOM_DB_PRIVATE, little),
            skipping(LOOM_TRACKING_NONE, LOOM_DB_PRIVATE, little);
        std::mt19937 random(5);
        subject source(GetParam(), writing);
        source.fill(random, {});
        uint32_t error = 0;
        const std::vector<uint8_t> bytes = source.marshal(&error);
        const size_t step = bytes.size() > 1000 ? 3 : 1;
        for (size_t at = 0; at + sizeof far <= bytes.size(); at += step) {
            const exact_buffer buffer(bytes.data(), bytes.size());
            std::memcpy(buffer.data() + at, far, sizeof far);
            for (const database* by : {&reading, &skipping}) {
                subject target(GetParam(), *by);
                error = 0;
                target.unmarshal(buffer.data(), bytes.size(), 0, &error);
            }
        }
    }
}

TEST_P(all_types, text_is_the_walkers) {
    const database plain;
    for (uint32_t seed = 0; seed < rounds; ++seed) {
        std::mt19937 random(seed);
        subject source(GetParam(), plain);
        source.fill(random, {.lower_variants = seed % 2 == 1, .stale_arms = seed % 3 == 0, .presentable = false});
        for (const int depth : {0, 3}) {
            const std::string expected = source.walker().print(GetParam(), source.object(), "label", depth);
            std::vector<char> buffer(expected.size() + 100);
            uint32_t error = 0;
            const int32_t size =
                source.operations().print(plain, domain, buffer.data(), depth, "label", source.object(),
                                          static_cast<int32_t>(buffer.size()), &error);
            ASSERT_EQ(error, 0u);
            ASSERT_EQ(std::string(buffer.data(), static_cast<size_t>(size)), expected) << "seed " << seed;
        }
        for (int32_t size = 0; size < 200; size += 9) {
            exact_buffer buffer(static_cast<size_t>(size));
            uint32_t error = 0;
            ASSERT_LE(source.operations().print(plain, domain, reinterpret_cast<char*>(buffer.data()), 2, "label",
                                                source.object(), size, &error),
                      size);
        }
    }
}

TEST_P(all_types, xml_is_the_walkers_and_comes_back) {
    for (const uint32_t tracking : {LOOM_TRACKING_NONE, LOOM_TRACKING_ON}) {
        const database handle(tracking);
        for (uint32_t seed = 0; seed < rounds; ++seed) {
            SCOPED_TRACE(::testing::Message() << "tracking " << tracking << ", seed " << seed);
            std::mt19937 random(seed);
            subject source(GetParam(), handle);
            const bool lowered = seed % 3 == 2;
            source.fill(random, {.lower_variants = lowered, .stale_arms = lowered, .presentable = true});
            const std::string expected = source.walker().to_xml(GetParam(), source.object(), "root", 7);
            std::vector<char> buffer(expected.size() + 100);
            uint32_t error = 0;
            const uint32_t size =
                source.operations().to_xml(handle, domain, "root", buffer.data(), source.object(),
                                           static_cast<int32_t>(buffer.size()), 7, &error);
            ASSERT_EQ(error, 0u);
            const std::string text(buffer.data(), size);
            ASSERT_EQ(text, expected);
            if (lowered) continue;

            const xml_text document(text);
            subject target(GetParam(), handle);
            target.operations().from_xml(handle, domain, "//root", document, target.object(), &error);
            ASSERT_EQ(error, 0u);
            ASSERT_EQ(source.walker().compare(GetParam(), source.object(), target.object()), 0)
                << text << "\n"
                << source.walker().to_xml(GetParam(), target.object(), "root", 7);
        }
    }
}

TEST_P(all_types, order_and_hash_are_the_walkers) {
    const database plain;
    for (uint32_t seed = 0; seed < 4 * rounds; ++seed) {
        std::mt19937 random(seed);
        const fill_options options{.lower_variants = false, .stale_arms = seed % 2 == 1, .presentable = false};
        subject a(GetParam(), plain), b(GetParam(), plain);
        a.fill(random, options);
        if (seed % 4 == 0) random.seed(seed);
        b.fill(random, options);
        const auto sign = [](int32_t value) { return (value > 0) - (value < 0); };
        const named_type& type = a.operations();
        const model_walker& walker = a.walker();
        ASSERT_EQ(sign(type.compare(a.object(), b.object())), walker.compare(GetParam(), a.object(), b.object()));
        ASSERT_EQ(sign(type.compare(b.object(), a.object())), walker.compare(GetParam(), b.object(), a.object()));
        ASSERT_EQ(type.compare(a.object(), a.object()), 0);
        ASSERT_EQ(type.hash(a.object(), seed), walker.hash(GetParam(), a.object(), seed));
    }
    subject one(GetParam(), plain);
    EXPECT_EQ(one.operations().compare(nullptr, nullptr), 0);
    EXPECT_LT(one.operations().compare(nullptr, one.object()), 0);
    EXPECT_GT(one.operations().compare(one.object(), nullptr), 0);
    EXPECT_EQ(one.operations().hash(nullptr, 77), 77u);
}

TEST_P(all_records, absent_instance_has_the_length_of_an_empty_one) {
    const database plain;
    const named_type type(GetParam());
    subject empty(GetParam(), plain);
    empty.walker().set_variants(GetParam(), empty.object(), 0);
    uint32_t error = 0;
    const std::vector<uint8_t> bytes = empty.marshal(&error);
    // Where the empty discriminator selects an arm, that arm is missing.
    EXPECT_EQ(type.len(plain, domain, nullptr), type.len(plain, domain, empty.object()));
    if (error == 0) {
        EXPECT_EQ(type.len(plain, domain, nullptr), bytes.size());
    }
}

// ---- Faults -------------------------------------------------------------------------------------------------

/// The texts of the bundle that holds all types.
loom_trace_decoder* decoder() {
    static loom_trace_decoder* const made = [] {
        loom_trace_decoder* of_bundle = loom_trace_decoder_create();
        Dl_info library{};
        dladdr(find_function(type_names().front() + "_create"), &library);
        loom_trace_decoder_add(of_bundle, library.dli_fname);
        return of_bundle;
    }();
    return made;
}

/// What a process said at level 0 before it aborted; "lives" when it did not end so.
std::string last_words(const std::function<void()>& body) {
    std::array<int, 2> ends;
    if (pipe(ends.data()) != 0) return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        const rlimit none{};
        setrlimit(RLIMIT_CORE, &none);
        std::freopen("/dev/null", "w", stderr);
        static int told_to = ends[1];
        loom_trace_set_tap(
            [](const loom_trace_record* record, void*) {
                char text[512];
                loom_trace_format(decoder(), record, text, sizeof text);
                if (record->level == 0 && write(told_to, text, strlen(text)) < 0) _exit(2);
            },
            nullptr);
        body();
        _exit(0);
    }
    close(ends[1]);
    std::string words(512, '\0');
    const ssize_t size = read(ends[0], words.data(), words.size());
    words.resize(size < 0 ? 0 : static_cast<size_t>(size));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT ? words : "lives";
}

/// Whether reading an empty element makes an object that asks how the handle tracks.
bool makes_a_record_from_nothing(const std::string& type) {
    const auto record = schema().records.find(type);
    if (record == schema().records.end()) return false;
    const auto& all = record->second.attributes;
    return std::any_of(all.begin(), all.end(), [](const attribute_description& a) {
        const bool made = a.shape == attribute_shape::variable_array || a.shape == attribute_shape::list ||
                          (a.shape == attribute_shape::arm && a.case_value == 0);
        return made && schema().records.contains(a.type);
    });
}

/// A selected arm that is taken out under a corrupted handle.
void expect_arms_to_end(const std::string& type, const database& on, void* object, const std::string& words) {
    const record_description& record = schema().records.at(type);
    for (const attribute_description& a : record.attributes) {
        if (a.shape != attribute_shape::arm) continue;
        const uint32_t selector = record.attribute(a.discriminator).offset + 12;
        std::memcpy(static_cast<uint8_t*>(object) + selector, &a.case_value, sizeof a.case_value);
        const std::string detach = type + "_" + a.name + "_get_detach";
        EXPECT_EQ(last_words([&] {
                      on.handle()->sttr_block->sttr_mode = 0x1234;
                      uint32_t error = 0;
                      using signature = void*(loom_handle*, uint32_t, void*, uint32_t*);
                      reinterpret_cast<signature*>(find_function(detach))(on, domain, object, &error);
                  }),
                  words)
            << detach;
    }
}

TEST_P(all_types, faults_end_the_process_with_their_trace) {
    const std::string corrupted = "Corrupted LOOM Handle",
                      mismatch = "LOOM handle and object state tracking mis-match",
                      no_type = "tinfo is null or corrupted", lives = "lives";
    const std::string type = GetParam();
    const bool is_record = schema().records.contains(type);
    ASSERT_NE(decoder(), nullptr);
    const database on(LOOM_TRACKING_ON), plain;
    const named_type operations(type);
    void* const object = operations.create(on, domain);
    void* const untracked = operations.create(plain, domain);
    uint32_t error = 0;
    std::vector<uint8_t> bytes(1u << 16), form = bytes;
    const auto room = static_cast<int32_t>(bytes.size());
    const uint32_t size = operations.marshal(on, domain, form.data(), object, room, &error);
    error = 0;
    const xml_text document("<e/>");
    char* const text = reinterpret_cast<char*>(bytes.data());

    const auto under_corrupted_handle = [&](auto&& body) {
        return last_words([&] {
            on.handle()->sttr_block->sttr_mode = 0x1234;
            body();
        });
    };
    const auto read_into = [&](const database& handle, void* into) {
        operations.unmarshal(handle, domain, form.data(), into, static_cast<int32_t>(size), 0, &error);
    };
    const std::string fault = is_record ? corrupted : lives;
    EXPECT_EQ(under_corrupted_handle([&] { operations.len(on, domain, object); }), fault);
    EXPECT_EQ(under_corrupted_handle([&] { operations.marshal(on, domain, bytes.data(), object, room, &error); }),
              fault);
    EXPECT_EQ(under_corrupted_handle([&] { read_into(on, object); }), fault);
    EXPECT_EQ(under_corrupted_handle([&] { operations.to_xml(on, domain, "e", text, object, room, 0, &error); }),
              fault);
    EXPECT_EQ(under_corrupted_handle([&] { operations.create(on, domain); }), fault);
    EXPECT_EQ(under_corrupted_handle([&] { operations.print(on, domain, text, 0, "e", object, room, &error); }),
              lives);
    EXPECT_EQ(under_corrupted_handle([&] { operations.from_xml(on, domain, "/e", document, object, &error); }),
              makes_a_record_from_nothing(type) ? corrupted : lives);
    EXPECT_EQ(last_words([&] { read_into(on, untracked); }), is_record ? mismatch : lives);

    // What ends looks at its type, and nobody else does.
    static const uint64_t no_magic[16] = {0xbeefbeef};
    for (const void* word : {static_cast<const void*>(nullptr), static_cast<const void*>(no_magic)}) {
        std::memcpy(untracked, &word, sizeof word);
        EXPECT_EQ(last_words([&] { operations.destroy(plain, domain, untracked); }), no_type);
    }
    EXPECT_EQ(last_words([&] {
                  operations.len(plain, domain, untracked);
                  operations.marshal(plain, domain, bytes.data(), untracked, room, &error);
                  error = 0;
                  read_into(plain, untracked); // stores the type anew
                  operations.destroy(plain, domain, untracked);
              }),
              lives);
    if (is_record) expect_arms_to_end(type, on, object, corrupted);
}

std::string label(const ::testing::TestParamInfo<std::string>& info) { return info.param; }
INSTANTIATE_TEST_SUITE_P(bundle, all_types, ::testing::ValuesIn(type_names()), label);
INSTANTIATE_TEST_SUITE_P(bundle, all_records, ::testing::ValuesIn(record_names()), label);

} // namespace
} // namespace trellis::testing
