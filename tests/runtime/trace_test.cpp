// The trace facility: levels, records of many threads, files, and texts from the sections of an object.
#include "tests/runtime/support.h"

#include <loom_runtime/trace.h>

#include <algorithm>
#include <bzlib.h>
#include <csignal>
#include <cstring>
#include <elf.h>
#include <fstream>
#include <map>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {
using namespace runtime_test;

constexpr std::uint32_t level_3 = 0x3000000, level_7 = 0x7000000;
const std::uint8_t unit[16] = {0xAB, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

/// A record with its texts copied.
struct kept_record {
    std::uint32_t index, level, thread;
    std::uint64_t time;
    std::string module, text;
};

std::string describe(const loom_trace_record& record) {
    char text[2000];
    loom_trace_format(nullptr, &record, text, sizeof text);
    const std::string all = text;
    return all.substr(std::min(all.size(), all.find(": ") + 2));
}

struct kept_records {
    std::vector<kept_record> all;
    static void add(const loom_trace_record* record, void* context) {
        static_cast<kept_records*>(context)->all.push_back(
            {record->index, record->level, record->thread, record->time, record->module_name, describe(*record)});
    }
};

struct tracing : testing::Test {
    void SetUp() override {
        loom_trace_drain(nullptr, nullptr);
        loom_trace_set_level(nullptr, 6);
    }
    kept_records drained() {
        kept_records records;
        loom_trace_drain(kept_records::add, &records);
        return records;
    }
    scratch_directory directory;
};

TEST_F(tracing, keeps_arguments_of_every_kind) {
    __SPf_0(unit, 1, 0, level_3);
    __SPf_1(unit, 2, 0, level_3, "text");
    __SPf_1(unit, 3, 0, level_3, nullptr);
    __SPf_4(unit, 4, 0, level_3, 4000000000u);
    __SPf_11(unit, 5, 0, level_3, "a", "");
    __SPf_14(unit, 6, 0, level_3, "a", 7);
    __SPf_44(unit, 7, 0, level_3, 1, 2);
    __SPf_51(unit, 8, 0, level_3, reinterpret_cast<const void*>(0x1234), "b");
    __SPf_111(unit, 9, 0, level_3, "a", "b", "c");
    __SPf_444(unit, 10, 0, level_3, 1, 2, 3);
    const kept_records records = drained();
    ASSERT_EQ(records.all.size(), 10u);
    const char* expected[] = {"",     "text", "(null)",    "4000000000", "a, ",
                              "a, 7", "1, 2", "0x1234, b", "a, b, c",    "1, 2, 3"};
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(records.all[i].index, i + 1);
        EXPECT_EQ(records.all[i].level, 3u);
        EXPECT_EQ(i ? records.all[i].text : "", expected[i]);
    }
}

TEST_F(tracing, cuts_long_texts) {
    const std::string longest(5000, 'x');
    __SPf_111(unit, 1, 0, level_3, longest.c_str(), longest.c_str(), longest.c_str());
    const kept_records records = drained();
    ASSERT_EQ(records.all.size(), 1u);
    EXPECT_EQ(records.all[0].text.size(), 3 * LOOM_TRACE_TEXT_MAX + 4);
}

TEST_F(tracing, levels_are_per_module) {
    std::uint16_t first = 0, second = 0, again = 0;
    std::uint32_t state = 0;
    EXPECT_EQ(spoor_module_init_fn("trace_test_first", &first, &state), 0u);
    EXPECT_EQ(spoor_module_init_fn("trace_test_second", &second, &state), 0u);
    EXPECT_EQ(spoor_module_init_fn("trace_test_first", &again, &state), 0u);
    EXPECT_NE(first, 0u);
    EXPECT_NE(first, second);
    EXPECT_EQ(first, again);
    EXPECT_TRUE(spoor_module_test(first, 6));
    EXPECT_FALSE(spoor_module_test(first, 7));
    EXPECT_TRUE(spoor_module_test(0, 3));
    EXPECT_EQ(loom_trace_set_level("trace_test_first", 7), 0u);
    EXPECT_EQ(loom_trace_set_level("trace_test_unknown", 7), std::uint32_t{ENOENT});
    __SPf_0(unit, 1, first, level_7);
    __SPf_0(unit, 2, second, level_7);
    loom_trace_set_level("trace_test_second", 2);
    __SPf_0(unit, 3, second, level_3);
    const kept_records records = drained();
    ASSERT_EQ(records.all.size(), 1u);
    EXPECT_EQ(records.all[0].module, "trace_test_first");
    trans_avl_trace_init();
    trans_gbt_trace_init();
    EXPECT_EQ(loom_trace_set_level("trans_avl", 6), 0u);
}

TEST_F(tracing, a_tap_sees_records_at_once) {
    kept_records seen;
    loom_trace_set_tap(kept_records::add, &seen);
    __SPf_1(unit, 5, 0, level_3, "now");
    __SPf_1(unit, 6, 0, level_7, "off");
    loom_trace_set_tap(nullptr, nullptr);
    __SPf_1(unit, 7, 0, level_3, "later");
    ASSERT_EQ(seen.all.size(), 1u);
    EXPECT_EQ(seen.all[0].text, "now");
    EXPECT_EQ(drained().all.size(), 2u);
}

/// Each thread's records must arrive whole and in order, whoever empties the buffers meanwhile.
TEST_F(tracing, many_threads_write_while_others_read) {
    constexpr std::uint32_t threads = 6, rounds = 20000;
    const std::string path = directory.file("trace");
    ASSERT_EQ(loom_trace_open(path.c_str()), 0u);
    EXPECT_EQ(loom_trace_open(path.c_str()), std::uint32_t{EEXIST});
    std::atomic<bool> done{false};
    std::thread flusher([&] {
        while (!done)
            loom_trace_flush();
    });
    std::vector<std::thread> writers;
    for (std::uint32_t thread = 0; thread < threads; ++thread)
        writers.emplace_back([thread] {
            for (std::uint32_t i = 0; i < rounds; ++i)
                __SPf_14(unit, thread, 0, level_3, "some text of any length" + i % 20, i);
        });
    std::thread tapper([&] {
        std::atomic<std::uint64_t> seen{0};
        for (int i = 0; i < 20; ++i) {
            loom_trace_set_tap(
                [](const loom_trace_record*, void* count) { ++*static_cast<std::atomic<std::uint64_t>*>(count); },
                &seen);
            std::this_thread::yield();
            loom_trace_set_tap(nullptr, nullptr);
        }
    });
    for (std::thread& each : writers)
        each.join();
    tapper.join();
    done = true;
    flusher.join();
    loom_trace_close();
    struct checked {
        std::map<std::uint32_t, std::uint32_t> next;
        std::uint64_t count = 0;
    } state;
    ASSERT_EQ(loom_trace_read_file(
                  path.c_str(),
                  [](const loom_trace_record* record, void* context) {
                      auto& own = *static_cast<checked*>(context);
                      ++own.count;
                      ASSERT_EQ(record->argument_count, 2u);
                      ASSERT_EQ(record->arguments[1].number, own.next[record->index]++);
                      ASSERT_EQ(std::string(record->arguments[0].text, record->arguments[0].text_length),
                                "some text of any length" + record->arguments[1].number % 20);
                  },
                  &state, nullptr),
              0u)
        << loom_error_text();
    EXPECT_EQ(state.count, threads * rounds);
}

TEST_F(tracing, a_full_buffer_without_a_reader_is_counted) {
    const std::uint64_t before = loom_trace_lost();
    for (int i = 0; i < 20000; ++i)
        __SPf_0(unit, 1, 0, level_3);
    const std::uint64_t kept = drained().all.size();
    EXPECT_EQ(loom_trace_lost() - before + kept, 20000u);
    EXPECT_GT(kept, 0u);
}

TEST_F(tracing, a_damaged_file_is_told_from_a_whole_one) {
    const std::string path = directory.file("trace");
    ASSERT_EQ(loom_trace_open(path.c_str()), 0u);
    for (std::uint32_t i = 0; i < 50; ++i)
        __SPf_1(unit, i, 0, level_3, "record");
    loom_trace_close();
    std::ifstream file(path, std::ios::binary);
    const std::string good((std::istreambuf_iterator<char>(file)), {});
    const auto read = [&](const std::string& contents) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
        kept_records records;
        return loom_trace_read_file(path.c_str(), kept_records::add, &records, nullptr);
    };
    EXPECT_EQ(read(good), 0u);
    EXPECT_EQ(read(good.substr(0, 20)), std::uint32_t{EINVAL});
    EXPECT_EQ(read("x" + good), std::uint32_t{EINVAL});
    EXPECT_EQ(read(good.substr(0, good.size() - 3)), std::uint32_t{EINVAL});
    EXPECT_NE(std::string(loom_error_text()).find("cut short"), std::string::npos);
    // Whatever is in the file, reading ends without harm.
    random_source random(5);
    for (int round = 0; round < 500; ++round) {
        std::string bad = good;
        for (int i = 0; i < 8; ++i)
            bad[32 + random() % (bad.size() - 32)] = static_cast<char>(random());
        read(bad);
    }
}

/// A file that processes write at once.
class trace_of_many : public tracing {
  protected:
    static constexpr std::uint32_t records = 3000;

    /// A process that writes, and has ended when it is waited for.
    template <class Body>
    static pid_t fork_writer(Body body) {
        const pid_t process = fork();
        if (process == 0) {
            body();
            _exit(0);
        }
        return process;
    }
    static void wait_for(pid_t process) {
        int status = 0;
        ASSERT_EQ(waitpid(process, &status, 0), process);
    }
    static void write_records(std::uint32_t writer, std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i)
            __SPf_4(unit, writer, 0, level_3, i);
    }
    /// Counts each writer's records, which must follow each other from 0.
    std::uint32_t read() {
        counts.clear();
        return loom_trace_read_file(
            path.c_str(),
            [](const loom_trace_record* record, void* context) {
                auto& own = *static_cast<trace_of_many*>(context);
                EXPECT_EQ(record->arguments[0].number, own.counts[record->index]++);
            },
            this, &losses);
    }

    const std::string path = directory.file("trace");
    std::map<std::uint32_t, std::uint64_t> counts;
    loom_trace_losses losses{};
};

TEST_F(trace_of_many, no_record_of_eight_writers_is_lost) {
    std::vector<pid_t> processes;
    const auto start = [&](bool opens) {
        processes.push_back(fork_writer([&, number = static_cast<std::uint32_t>(processes.size())] {
            if (opens) loom_trace_open(path.c_str());
            std::thread other(write_records, 2 * number, records);
            write_records(2 * number + 1, records);
            other.join();
            loom_trace_close();
        }));
    };
    start(true);
    start(true);
    ASSERT_EQ(loom_trace_open(path.c_str()), 0u);
    write_records(100, 1); // not twice, although it is in the buffer of both at the fork
    start(false);
    start(false);
    for (const pid_t each : processes)
        wait_for(each);
    loom_trace_close();
    ASSERT_EQ(read(), 0u) << loom_error_text();
    for (std::uint32_t writer = 0; writer < 8; ++writer)
        EXPECT_EQ(counts[writer], records) << writer;
    EXPECT_EQ(counts[100], 1u);
    EXPECT_EQ(losses.records + losses.blocks + losses.open_writers, 0u);
}

TEST_F(trace_of_many, a_killed_writer_loses_its_last_block_and_this_is_told) {
    constexpr std::uint32_t writers = 6;
    for (std::uint32_t writer = 0; writer < writers; ++writer) {
        const pid_t process = fork_writer([&] {
            loom_trace_open(path.c_str());
            for (std::uint32_t i = 0;; ++i) {
                __SPf_4(unit, writer, 0, level_3, i);
                if (i % 50 != 0) continue;
                loom_trace_flush();
                usleep(200); // the file must not outgrow its reader
            }
        });
        while (read() != 0 || counts[writer] == 0)
            std::this_thread::yield();
        kill(process, SIGKILL);
        wait_for(process);
        ASSERT_EQ(read(), 0u) << loom_error_text();
        EXPECT_EQ(losses.open_writers, writer + 1);
        EXPECT_EQ(losses.records, 0u);
    }
    // What one leaves that dies in the middle of a write, seldom as it is hit.
    const std::uint64_t blocks = losses.blocks;
    std::ofstream(path, std::ios::binary | std::ios::app) << "TBLK and not more of it";
    ASSERT_EQ(read(), 0u);
    EXPECT_EQ(losses.blocks, blocks + 1);
    ASSERT_EQ(loom_trace_open(path.c_str()), 0u);
    write_records(50, records);
    loom_trace_close();
    ASSERT_EQ(read(), 0u) << loom_error_text();
    EXPECT_EQ(losses.blocks, blocks + 1);
    EXPECT_EQ(losses.open_writers, writers);
    EXPECT_EQ(counts[50], records);
}

TEST_F(trace_of_many, what_finds_no_room_is_counted_in_the_file) {
    ASSERT_EQ(loom_trace_open(path.c_str()), 0u);
    const std::uint64_t lost = loom_trace_lost();
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit scarce{1000, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &scarce);
    write_records(1, records);
    loom_trace_flush();
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(loom_trace_lost() - lost, records);
    write_records(2, 5);
    loom_trace_close();
    ASSERT_EQ(read(), 0u) << loom_error_text();
    EXPECT_EQ(counts, (std::map<std::uint32_t, std::uint64_t>{{2, 5}}));
    EXPECT_EQ(losses.records, records);
    EXPECT_EQ(losses.blocks + losses.open_writers, 0u);
}

TEST_F(trace_of_many, of_another_version_is_refused_and_left_alone) {
    loom_trace_open(path.c_str());
    loom_trace_close();
    std::fstream(path, std::ios::binary | std::ios::in | std::ios::out).seekp(8).put(3);
    const auto size = std::filesystem::file_size(path);
    for (const std::uint32_t error : {read(), loom_trace_open(path.c_str())}) {
        EXPECT_EQ(error, std::uint32_t{EINVAL});
        EXPECT_NE(
            std::string(loom_error_text()).find("has version 3, this runtime knows version 2: read it with the"),
            std::string::npos)
            << loom_error_text();
    }
    EXPECT_EQ(std::filesystem::file_size(path), size);
}

TEST_F(tracing, a_thread_that_ends_leaves_its_records) {
    std::thread([] { __SPf_0(unit, 77, 0, level_3); }).join();
    const kept_records records = drained();
    ASSERT_EQ(records.all.size(), 1u);
    EXPECT_EQ(records.all[0].index, 77u);
}

// ------------------------------------------------------------------------------------------------- the decoder

/// A shared object with nothing but trace sections.
class object_file {
  public:
    struct unit_section {
        std::uint16_t number;
        std::array<std::uint8_t, 16> hash;
        std::vector<std::string> texts;
    };
    std::uint16_t version = 1;
    std::string store_override;
    bool with_store = true;

    std::string build(const std::vector<unit_section>& units) const {
        std::string names(1, '\0'), body(sizeof(Elf64_Ehdr), '\0'), text;
        std::vector<Elf64_Shdr> headers(1);
        const auto add = [&](const std::string& name, const std::string& contents) {
            Elf64_Shdr header{};
            header.sh_name = static_cast<Elf64_Word>(names.size());
            header.sh_type = SHT_PROGBITS;
            header.sh_offset = body.size();
            header.sh_size = contents.size();
            names += name + '\0';
            body += contents;
            headers.push_back(header);
        };
        std::vector<const unit_section*> ordered;
        for (const unit_section& each : units)
            ordered.push_back(&each);
        std::sort(ordered.begin(), ordered.end(), [](auto* a, auto* b) { return a->number < b->number; });
        for (const unit_section* each : ordered)
            for (const std::string& one : each->texts)
                text += one;
        for (const unit_section& each : units) {
            std::string contents(reinterpret_cast<const char*>(&version), 2);
            contents.append(reinterpret_cast<const char*>(&each.number), 2);
            contents.append(reinterpret_cast<const char*>(each.hash.data()), 16);
            for (const std::string& one : each.texts) {
                const std::uint32_t call = 7;
                const auto length = static_cast<std::uint16_t>(one.size());
                contents.append(reinterpret_cast<const char*>(&call), 4);
                contents.append(reinterpret_cast<const char*>(&length), 2);
            }
            add(".spoor_luids_" + std::to_string(each.number), contents);
        }
        if (with_store) add(".spoor_format_strings", store_override.empty() ? compress(text) : store_override);
        add(".shstrtab", "");
        headers.back().sh_offset = body.size();
        headers.back().sh_size = names.size();
        body += names;
        Elf64_Ehdr head{};
        std::memcpy(head.e_ident, ELFMAG, SELFMAG);
        head.e_ident[EI_CLASS] = ELFCLASS64;
        head.e_ident[EI_DATA] = ELFDATA2LSB;
        head.e_shoff = body.size();
        head.e_shnum = static_cast<Elf64_Half>(headers.size());
        head.e_shstrndx = static_cast<Elf64_Half>(headers.size() - 1);
        std::memcpy(body.data(), &head, sizeof head);
        body.append(reinterpret_cast<const char*>(headers.data()), headers.size() * sizeof headers[0]);
        return body;
    }

  private:
    static std::string compress(const std::string& text) {
        std::string out(text.size() + 1000, '\0');
        auto size = static_cast<unsigned>(out.size());
        EXPECT_EQ(BZ2_bzBuffToBuffCompress(out.data(), &size, const_cast<char*>(text.data()),
                                           static_cast<unsigned>(text.size()), 9, 0, 0),
                  BZ_OK);
        out.resize(size);
        return out;
    }
};

struct decoding : tracing {
    std::string path = directory.file("object.so");
    std::unique_ptr<loom_trace_decoder, void (*)(loom_trace_decoder*)> decoder{loom_trace_decoder_create(),
                                                                               loom_trace_decoder_release};
    // The second section stands first in the file: texts go by number, not by place.
    std::vector<object_file::unit_section> units = {
        {1,
         {2},
         {" variant %u requested only %u variants present", " negative %d and 100%%", " oid %p. Error %s"}},
        {0, {1}, {" plain", "", " %s twice %s"}}};

    std::uint32_t add(const std::string& contents) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
        return loom_trace_decoder_add(decoder.get(), path.c_str());
    }
    std::string format(std::uint8_t first_byte, std::uint32_t index, std::vector<loom_trace_argument> arguments) {
        loom_trace_record record{};
        record.unit[0] = first_byte;
        record.index = index;
        std::copy(arguments.begin(), arguments.end(), record.arguments);
        record.argument_count = static_cast<std::uint16_t>(arguments.size());
        char text[200];
        loom_trace_format(decoder.get(), &record, text, sizeof text);
        return text;
    }
};

TEST_F(decoding, puts_arguments_into_texts) {
    ASSERT_EQ(add(object_file().build(units)), 0u) << loom_error_text();
    const loom_trace_argument a{1, 1, "a", 0}, null{1, 0, nullptr, 0};
    EXPECT_EQ(format(1, 0, {}), "plain");
    EXPECT_EQ(format(1, 1, {}), "");
    EXPECT_EQ(format(1, 2, {a, null}), "a twice (null)");
    EXPECT_EQ(format(2, 0, {{4, 0, nullptr, 5}, {4, 0, nullptr, 4000000000u}}),
              "variant 5 requested only 4000000000 variants present");
    EXPECT_EQ(format(2, 1, {{4, 0, nullptr, 0xFFFFFFFFu}}), "negative -1 and 100%");
    EXPECT_EQ(format(2, 2, {{5, 0, nullptr, 0xABCD}, a}), "oid 0xabcd. Error a");
    EXPECT_EQ(format(1, 2, {a}), "a twice %s"); // fewer arguments than the text wants
    EXPECT_EQ(format(2, 3, {a}), "statement 3 of unit 02000000000000000000000000000000: a");
    std::uint8_t hash[16];
    EXPECT_EQ(loom_trace_decoder_unit(decoder.get(), 1, hash), 1u);
    EXPECT_EQ(loom_trace_decoder_unit_size(decoder.get(), hash), 3u);
    EXPECT_EQ(loom_trace_decoder_unit(decoder.get(), 2, hash), 0u);
    EXPECT_EQ(add(object_file().build(units)), 0u); // once more changes nothing
    EXPECT_EQ(loom_trace_decoder_unit(decoder.get(), 2, hash), 0u);
}

TEST_F(decoding, refuses_sections_that_contradict_each_other) {
    object_file plain, no_store, other_version, other_store;
    no_store.with_store = false;
    other_version.version = 2;
    other_store.store_override = "this is no bzip2 stream";
    EXPECT_EQ(add("no object at all"), std::uint32_t{ENOENT});
    EXPECT_EQ(add(no_store.build(units)), std::uint32_t{ENOENT});
    EXPECT_EQ(add(other_version.build(units)), std::uint32_t{EINVAL});
    EXPECT_EQ(add(other_store.build(units)), std::uint32_t{EINVAL});
    auto doubled = units;
    doubled[0].number = 0;
    EXPECT_EQ(add(plain.build(doubled)), std::uint32_t{EINVAL});
    EXPECT_NE(std::string(loom_error_text()).find(path), std::string::npos);
    std::uint8_t hash[16];
    EXPECT_EQ(loom_trace_decoder_unit(decoder.get(), 0, hash), 0u);
    const std::string good = plain.build(units);
    random_source random(3);
    for (int round = 0; round < 300; ++round) {
        std::string bad = good.substr(0, random() % 4 ? good.size() : random() % good.size());
        for (int i = 0; i < 6 && !bad.empty(); ++i)
            bad[random() % bad.size()] = static_cast<char>(random());
        add(bad);
    }
}

TEST(tracing_death, a_fatal_record_reaches_the_file_and_the_error_stream) {
    scratch_directory directory;
    const std::string path = directory.file("trace");
    EXPECT_DEATH(
        {
            loom_trace_open(path.c_str());
            __SPf_1(unit, 3, 0, level_3, "before");
            __SPf_0(unit, 9, 0, 0);
            std::abort();
        },
        "loom: fatal: unregistered module: statement 9 of unit ab01");
}
} // namespace
