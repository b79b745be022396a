// Verification of a database as programs ask for it: files, memory, image against files, and giving back what is
// lost.
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"
#include "runtime/verify/root_walk.h"

#include <cerrno>
#include <sys/stat.h>

namespace loom {
namespace {
constexpr u64 most_lost_told = 20;

/// A read section for as long as the object lives, where the handle has no section.
class looking {
  public:
    explicit looking(open_handle& handle)
        : handle_(handle), opened_(handle.db->mapped && handle.section == section_kind::none) {
        error_ = opened_ ? handle_.begin_read() : 0;
    }
    ~looking() {
        if (opened_ && error_ == 0) handle_.end_read();
    }
    looking(const looking&) = delete;
    looking& operator=(const looking&) = delete;
    u32 error() const { return error_; }

  private:
    open_handle& handle_;
    bool opened_;
    u32 error_;
};

u32 verify_files(database& db, findings& found) {
    if (!db.files) return 0;
    return db.files->verify_files(
        [&](const std::string& place, const std::string& meaning) { found.damage(place, meaning); },
        found.result.pages, found.result.entries);
}

/// Whether the arena's memory is there, and its blocks lead from one to the next.
bool check_arena(const database& db, findings& found) {
    const arena_header& header = db.memory.header();
    struct stat status {};
    if (db.files && fstat(db.files->image(), &status) == 0 && static_cast<u64>(status.st_size) < header.extent) {
        found.damage("image", "is shorter than the " + std::to_string(header.extent) + " bytes that it tells");
        return false;
    }
    const std::string fault = db.memory.verify();
    if (!fault.empty()) found.damage("the blocks of the image", fault);
    return fault.empty();
}

void tell_lost(const root_walk& walk, findings& found) {
    walk.blocks().each_lost([&](void* payload, u64 size) {
        ++found.result.lost_blocks;
        found.result.lost_bytes += size;
        if (found.result.lost_blocks > most_lost_told) return;
        const known_type* type = size >= sizeof(loom_object)
                                     ? walk.types().of(static_cast<loom_object*>(payload)->loom_tinfo)
                                     : nullptr;
        found.lost("the block at offset " + std::to_string(walk.blocks().offset_of(payload)),
                   std::to_string(size) + " bytes" + (type ? ", of type " + type->name : "") +
                       ", are reached from nowhere");
    });
    if (found.result.lost_blocks > most_lost_told)
        found.lost("the blocks of the image",
                   std::to_string(found.result.lost_blocks - most_lost_told) + " more are reached from nowhere");
}

void compare_image(database& db, const block_map& blocks, findings& found) {
    const u32 error = db.compare_with_disk([&](const value_range& range) {
        const void* block = blocks.block_around(db.memory.base() + range.offset);
        found.damage("image, offset " + std::to_string(range.offset),
                     std::to_string(range.length) + " bytes are not what base and journal hold together" +
                         (block ? ", in the block at offset " + std::to_string(blocks.offset_of(block)) : "") +
                         ": they would be lost in a crash of the machine");
    });
    if (error) found.damage("base and journal", error_text());
}

/// Looks at the memory. True when what is lost may be given back.
bool verify_memory(database& db, u32 flags, findings& found, root_walk& walk) {
    if (!walk.walk(db.root())) return false;
    if (walk.knows_all()) tell_lost(walk, found);
    if ((flags & LOOM_VERIFY_DEEP) && db.files && !db.read_only) compare_image(db, walk.blocks(), found);
    return found.result.damaged == 0 && walk.knows_all() && found.result.unchecked == 0;
}

/// Under the right to write: side-table entries of lost objects, their references, and the blocks themselves.
void give_back(database& db, root_walk& walk, findings& found) {
    arena& memory = db.memory;
    if (database_root* root = db.root())
        root->tracking.each([&](tracking_node& node) {
            const void* block = walk.blocks().block_around(node.object);
            if (block && walk.blocks().is_reached(block)) return;
            root->tracking.remove(memory, &node);
            memory.release(&node);
        });
    for (const auto& [mapping, holders] : walk.unheld())
        memory.assign(mapping->count, holders);
    walk.blocks().each_lost([&](void* payload, u64) {
        memory.release(payload);
        ++found.result.reclaimed_blocks;
    });
}

u32 verify(open_handle& own, u32 flags, findings& found) {
    database& db = *own.db;
    const bool reclaims = (flags & LOOM_VERIFY_RECLAIM) != 0;
    if (reclaims && own.shared())
        return fail(EBUSY, "database %s: lost blocks are given back by who has it to himself: open it exclusively",
                    db.path.c_str());
    if (reclaims && own.section != section_kind::none)
        return fail(EINVAL, "database %s: lost blocks are not given back inside of a section", db.path.c_str());
    if (const u32 error = verify_files(db, found)) return error;
    std::unique_ptr<root_walk> walk;
    bool may_reclaim = false;
    {
        const looking section(own);
        if (section.error()) return section.error();
        if (!check_arena(db, found)) return 0;
        walk = std::make_unique<root_walk>(db.memory, found);
        if (own.view.db_kind == LOOM_DB_PRIVATE) walk->take_types_of_bundles();
        may_reclaim = verify_memory(db, flags, found, *walk);
    }
    if (!reclaims || !may_reclaim || (found.result.lost_blocks == 0 && walk->unheld().empty())) return 0;
    write_scope scope(own, section_purpose::changes);
    if (!scope) return scope.error();
    give_back(db, *walk, found);
    return scope.end();
}
} // namespace
} // namespace loom

using namespace loom;

LOOM_EXPORT uint32_t loom_database_verify(loom_handle* handle, uint32_t flags, loom_finding_fn report,
                                          void* context, loom_verify_result* result) {
    findings found;
    const u32 error = verify(*opened(handle), flags, found);
    if (result) *result = found.result;
    if (error) return error;
    if (report) found.tell(report, context);
    return done();
}
