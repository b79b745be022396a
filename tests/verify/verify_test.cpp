// Verification: a sound database is told as such, and one thing that is damaged is found with its place.
#include <loom_runtime/arena.h>
#include <loom_runtime/runtime.h>
#include <loom_runtime/verify.h>

#include <owners/owners.h>

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {
using testing::HasSubstr;

constexpr uint32_t domain = 1;

/// A mapped database with a table of seven tracked records that own something in every way.
class owners_database {
  public:
    explicit owners_database(uint32_t flags = 0, uint32_t kind = LOOM_DB_MAPPED, uint64_t journal_limit = 0) {
        std::string name = (std::filesystem::temp_directory_path() / "loom-verify-XXXXXX").string();
        if (!mkdtemp(name.data())) std::abort();
        directory_ = name;
        const std::string path = directory_ + "/db";
        loom_open_options options{};
        options.size = sizeof options;
        options.kind = kind;
        options.path = path.c_str();
        options.flags = LOOM_OPEN_CREATE | flags;
        options.tracking = LOOM_TRACKING_ON;
        options.reserve = 64 << 20;
        options.journal_limit = journal_limit;
        handle = loom_open(&options);
        if (!handle) std::abort();
        EXPECT_EQ(loom_write_begin(handle), 0u);
        table = owner_tbl_table_open(handle, domain, "owner_tbl", 0, &err);
        for (uint32_t id = 0; id < records.size(); ++id)
            records[id] = make(id);
        EXPECT_EQ(loom_write_commit(handle), 0u);
        EXPECT_EQ(err, 0u) << loom_error_text();
    }
    ~owners_database() {
        loom_set_tenant(0);
        loom_close(handle);
        std::filesystem::remove_all(directory_);
    }
    owners_database(const owners_database&) = delete;

    owner* operator[](std::size_t i) const { return records[i]->owner; }
    e_avl_node& node(std::size_t i) const { return records[i]->loom_record.avl_node; }

    /// All findings, a line each, without their offsets' digits.
    std::string verify(uint32_t flags = 0) {
        std::string text;
        const auto add = [](const loom_finding* finding, void* context) {
            static_cast<std::string*>(context)->append(std::to_string(finding->kind) + " " + finding->place +
                                                       ": " + finding->meaning + "\n");
        };
        EXPECT_EQ(loom_database_verify(handle, flags, add, &text, &result), 0u) << loom_error_text();
        return text;
    }
    void flip(const char* file, long offset) const {
        std::fstream stream(directory_ + "/db/" + file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekg(offset);
        const int byte = stream.get();
        stream.seekp(offset);
        stream.put(static_cast<char>(byte ^ 4));
    }

    /// Salvages it into a new database beside it, which is opened; all findings.
    std::string salvage() {
        std::string text;
        const auto add = [](const loom_finding* finding, void* context) {
            static_cast<std::string*>(context)->append(std::string(finding->meaning) + "\n");
        };
        loom_close(handle);
        const std::string path = directory_ + "/db", made = directory_ + "/new";
        EXPECT_EQ(loom_database_salvage(path.c_str(), made.c_str(), add, &text, &salvaged), 0u)
            << loom_error_text();
        handle = loom_open_mapped(made.c_str(), 0);
        EXPECT_EQ(loom_read_begin(handle), 0u);
        table = owner_tbl_table_open(handle, domain, "owner_tbl", 1, &err);
        EXPECT_EQ(loom_read_end(handle), 0u);
        return text;
    }

    std::string path() const { return directory_ + "/db"; }

    loom_salvage_result salvaged{};
    loom_handle* handle = nullptr;
    loom_table* table = nullptr;
    std::array<owner_tbl_table_record*, 7> records{};
    loom_verify_result result{};
    uint32_t err = 0;

  private:
    owner_tbl_table_record* make(uint32_t id) {
        owner_tbl_table_record* record = owner_tbl_create_record(handle, domain, &err);
        record->loom_record.tenant_id = id < 2 ? 0 : 3;
        record->owner = owner_create(handle, domain);
        owner* made = record->owner;
        owner_id_set_value(handle, domain, made, id, &err);
        owner_reorder_seq_compact_no_set_value(handle, domain, made, 0xFFFFFFFF, &err);
        set(&made->word, "a word");
        owner_note_set(handle, domain, made, "a note", 6, &err);
        for (uint32_t i = 0; i < 3; ++i) {
            owned_piece* source = piece();
            owner_pieces_set(handle, domain, made, i, source, &err);
            owned_piece_destroy(handle, domain, source);
        }
        set(&made->inner.word, "inner");
        set(&made->pair[1].word, "second of two");
        owner_piece_set(handle, domain, made, piece(), &err);
        loom_vstring* word = loom_vstring_create(handle, domain);
        set(word, "arm");
        owner_arm_word_set(handle, domain, made, word, &err);
        for (int i = 0; i < 2; ++i)
            owner_links_set_last(handle, domain, made, owned_link_create(handle, domain), &err);
        if (id == 5) owner_friend_oid_set_by_ref(handle, domain, made, table, &err);
        owner_tbl_insert(handle, domain, table, record, &err);
        return record;
    }
    void set(loom_vstring* value, const char* text) {
        loom_vstring_assign(handle, domain, value, text, static_cast<uint32_t>(std::string(text).size()), &err);
    }
    owned_piece* piece() {
        owned_piece* made = owned_piece_create(handle, domain);
        set(&made->word, "piece");
        return made;
    }

    std::string directory_;
};

struct damage {
    const char* name;
    void (*inflict)(owners_database& db);
    const char* finding;
    uint32_t flags = 0;
};
void PrintTo(const damage& of, std::ostream* out) { *out << of.name; }

/// The mapping of the table, by the one reference to it.
loom_oid_mapping* mapping_of(owners_database& db) {
    return loomlib_oid_id_mapping_get(db.handle, domain, reinterpret_cast<loom_oid*>(&db[5]->friend_oid), &db.err);
}
void change_count(owners_database& db, uint32_t up) {
    EXPECT_EQ(loom_write_begin(db.handle), 0u);
    loomlib_update_oid_ref_count(db.handle, domain, mapping_of(db), up, &db.err);
    EXPECT_EQ(loom_write_commit(db.handle), 0u);
}
void change_tenant_count(owners_database& db) {
    EXPECT_EQ(loom_write_begin(db.handle), 0u);
    loomdb_update_tenant_counter(db.handle, domain, db.table, 1, 3, 1, &db.err);
    EXPECT_EQ(loom_write_commit(db.handle), 0u);
}
void lose_a_block(owners_database& db) {
    EXPECT_EQ(loom_write_begin(db.handle), 0u);
    db.handle->alloc(db.handle->alloc_ctx, domain, 100);
    EXPECT_EQ(loom_write_commit(db.handle), 0u);
}

const damage damages[] = {
    {"tree_order", [](owners_database& db) { db[3]->id = 99; }, "does not sort behind the record before it"},
    {"tree_parent", [](owners_database& db) { db.node(0).parent = &db.node(6); }, "its parent in the tree"},
    {"tree_balance", [](owners_database& db) { db.node(0).balance = 1; }, "its balance in the tree is 1"},
    {"tree_link", [](owners_database& db) { db.node(0).left = &db.node(0) + 1; }, "leads to no record"},
    {"tree_circle", [](owners_database& db) { db.node(0).left = &db.node(6); }, "is in the tree twice"},
    {"record_count", [](owners_database& db) { ++db.table->record_count; }, "counts 8 records, but has 7"},
    {"tenant_count", change_tenant_count, "1 fewer records of tenant 3 and source 1 than it counts"},
    {"record_of_another_table", [](owners_database& db) { db.records[3]->loom_record.table = nullptr; },
     "names another table as its own"},
    {"ring", [](owners_database& db) { db.records[2]->seq_next = &db.records[5]->seq_next; },
     "its ring leads back to another record"},
    {"ring_astray", [](owners_database& db) { db.records[2]->seq_next = db.records[5]; },
     "its ring leads to something that is no record"},
    {"table_list", [](owners_database& db) { db.table->toc_prev = nullptr; },
     "its link back in the list of tables"},
    {"lost_block", lose_a_block, "104 bytes, are reached from nowhere"},
    {"reference_counted_too_often", [](owners_database& db) { change_count(db, 1); },
     "is counted 2 times, but held 1 times: its object cannot end"},
    {"reference_counted_too_little", [](owners_database& db) { change_count(db, 0); },
     "is counted 0 times, but held 1 times: its object may end"},
    {"text", [](owners_database& db) { db[4]->word.text += 16; }, "attribute word: leads to no block"},
    {"text_of_another", [](owners_database& db) { db[4]->word = db[3]->word; },
     "attribute word: owns the block at offset"},
    {"text_without_block", [](owners_database& db) { db[4]->inner.word.text = nullptr; }, "owned_piece at offset"},
    {"note", [](owners_database& db) { db[4]->note = nullptr; }, "attribute note: counts 6 elements, but has no"},
    {"pieces", [](owners_database& db) { db[4]->pieces_len = 200; }, "attribute pieces: needs"},
    {"piece", [](owners_database& db) { db[4]->pieces[2].word.text += 16; }, "attribute word: leads to no block"},
    {"pair", [](owners_database& db) { db[4]->pair[1].word.text += 16; }, "attribute word: leads to no block"},
    {"arm_type", [](owners_database& db) { db[4]->piece->loom_tinfo = db[4]->loom_tinfo; },
     "has the type word of owner"},
    {"arm_word", [](owners_database& db) { db[4]->arm_word->text += 16; },
     "attribute arm_word: leads to no block"},
    {"list_count", [](owners_database& db) { ++reinterpret_cast<loom_list_head&>(db[4]->links).count; },
     "attribute links: counts 3 elements, but has 2"},
    {"list_link",
     [](owners_database& db) {
         auto* link = static_cast<char*>(reinterpret_cast<loom_list_head&>(db[4]->links).last);
         reinterpret_cast<loom_list_links*>(link + LOOM_LIST_LINKS_OFFSET)->previous = nullptr;
     },
     "whose links lead elsewhere"},
    {"type_word", [](owners_database& db) { db[4]->loom_tinfo = reinterpret_cast<loom_type_info*>(8); },
     "has a type word that leads to no type"},
    {"unannounced_store", [](owners_database& db) { db[4]->note[0] = 'b'; },
     "1 bytes are not what base and journal hold together", LOOM_VERIFY_DEEP},
    {"base_page", [](owners_database& db) { db.flip("base", 1000); }, "base, page 0: does not fit its checksum"},
    {"journal_entry", [](owners_database& db) { db.flip("journal.0", 9000); }, "the entry of commit"},
    {"superblock", [](owners_database& db) { db.flip("superblock", 20); }, "superblock is damaged"},
};
class each_damage : public testing::TestWithParam<damage> {};
INSTANTIATE_TEST_SUITE_P(of, each_damage, testing::ValuesIn(damages),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(each_damage, is_found_with_its_place) {
    owners_database db;
    EXPECT_EQ(db.verify(LOOM_VERIFY_DEEP), "");
    EXPECT_EQ(db.result.records, 7u);
    GetParam().inflict(db);
    EXPECT_THAT(db.verify(GetParam().flags), HasSubstr(GetParam().finding));
    EXPECT_GT(db.result.damaged + db.result.lost, 0u);
}

TEST(verify, lost_blocks_are_given_back_by_who_is_alone) {
    owners_database shared;
    EXPECT_EQ(loom_database_verify(shared.handle, LOOM_VERIFY_RECLAIM, nullptr, nullptr, nullptr), 16u);

    owners_database db(LOOM_OPEN_EXCLUSIVE);
    loom_arena_usage before{}, after{};
    loom_arena_usage_get(db.handle, &before);
    lose_a_block(db);
    change_count(db, 1);
    db.verify(LOOM_VERIFY_RECLAIM);
    EXPECT_EQ(db.result.reclaimed_blocks, 1u);
    EXPECT_EQ(db.verify(LOOM_VERIFY_DEEP), "");
    loom_arena_usage_get(db.handle, &after);
    EXPECT_EQ(after.blocks, before.blocks);

    // Nothing is given back while something is damaged: it may be what leads there.
    lose_a_block(db);
    ++db.table->record_count;
    db.verify(LOOM_VERIFY_RECLAIM);
    EXPECT_EQ(db.result.reclaimed_blocks, 0u);
}

/// The image still opens, but its structures are broken: no record is lost but the one that is.
TEST(salvage, needs_no_tree_and_no_list) {
    owners_database db;
    db.node(0).left = db.node(3).left = db.node(5).parent = nullptr;
    db.table->avl_root = &db.node(6);
    db.table->record_count = 7;
    db.records[1]->seq_next = nullptr;
    db[4]->arm_word->text += 16;
    EXPECT_THAT(db.salvage(), HasSubstr("leads to no block that is in use"));
    EXPECT_EQ(db.salvaged.records, 6u);
    EXPECT_EQ(db.salvaged.lost_records, 1u);
    EXPECT_EQ(db.verify(LOOM_VERIFY_DEEP), "");
    // Order on the ring, tenants, and the reference to the table have come along.
    ASSERT_TRUE(db.table);
    auto* cell = static_cast<char*>(db.table->seq_head);
    for (const uint32_t id : {0u, 1u, 2u, 3u, 5u, 6u}) {
        auto* record =
            reinterpret_cast<owner_tbl_table_record*>(cell - offsetof(owner_tbl_table_record, seq_next));
        EXPECT_EQ(record->owner->id, id);
        EXPECT_EQ(record->loom_record.tenant_id, id < 2 ? 0 : 3);
        EXPECT_EQ(std::string(record->owner->word.text), "a word");
        void* friend_table = owner_friend_oid_get_by_ref(db.handle, domain, record->owner, &db.err);
        EXPECT_EQ(friend_table, id == 5 ? db.table : nullptr);
        cell = static_cast<char*>(record->seq_next);
    }
}

/// Journal files fill up, are absorbed and written again while they are looked through.
TEST(verify, finds_nothing_beside_a_writer) {
    owners_database db(0, LOOM_DB_MAPPED, 16 << 10);
    std::atomic<bool> done = false;
    std::thread writer([&] {
        loom_handle* handle = loom_open_mapped(db.path().c_str(), 0);
        uint32_t err = 0;
        for (uint32_t round = 0; round < 400; ++round) {
            EXPECT_EQ(loom_write_begin(handle), 0u);
            const std::string text(1 + round * 7 % 900, 'x');
            loom_vstring_assign(handle, domain, &db[round % 7]->word, text.data(),
                                static_cast<uint32_t>(text.size()), &err);
            EXPECT_EQ(round % 5 == 4 ? loom_write_abort(handle) : loom_write_commit(handle), 0u);
            if (round % 20 == 0) loom_database_sync(handle);
        }
        EXPECT_EQ(err, 0u);
        loom_close(handle);
        done = true;
    });
    while (!done)
        EXPECT_EQ(db.verify(LOOM_VERIFY_DEEP), "");
    writer.join();
}

/// Whatever bytes a database has, nothing is followed that was not proved.
TEST(verify, survives_any_damage) {
    owners_database db(0, LOOM_DB_PRIVATE_MANIFESTED);
    loom_arena_usage usage{};
    loom_arena_usage_get(db.handle, &usage);
    std::mt19937 random(1);
    constexpr int rounds = 400;
    int told = 0;
    for (int round = 0; round < rounds; ++round) {
        const uint64_t place = usage.base + 4096 + random() % (usage.bytes - 8) / 8 * 8;
        const uint64_t kind = random() % 4, step = random() % 64 * 8;
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            auto* word = reinterpret_cast<uint64_t*>(place);
            *word = kind == 0 ? 0 : kind == 1 ? *word + step : kind == 2 ? usage.base + 4096 + step * 40 : ~*word;
            db.verify();
            _exit(db.result.damaged + db.result.lost + db.result.unchecked != 0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status)) << "round " << round << ", offset " << place - usage.base << ", kind "
                                       << kind;
        told += WEXITSTATUS(status);
    }
    EXPECT_GT(told, rounds / 4);
}

} // namespace
