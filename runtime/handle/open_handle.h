// What the runtime keeps behind a loom_handle, and the access of one handle to its database: sections, memory,
// announcements. The address of this object is also the `alloc_ctx`, `tinfo_ctx` and `shared_alloc_ctx` of the
// handle.
#pragma once

#include "runtime/database/database.h"
#include "runtime/database/error_text.h"
#include "runtime/database/nursery.h"

#include <loom_runtime/arena.h>
#include <loom_runtime/runtime.h>

#include <array>
#include <map>
#include <string>
#include <vector>

namespace loom {

enum class section_kind : u8 { none, write, read };

/// Records handed to readers, latest last; a ring.
struct replication_cache {
    struct seen {
        loom_table* table;
        loom_table_record* record;
    };
    std::array<seen, 256> latest{};
    u64 count = 0;
};

/// One message in an open message bundle.
struct bundled_message {
    std::array<u8, 16> luid;
    std::string name;
    u64 count;
};
struct message_bundle {
    std::string name;
    std::vector<std::array<u8, 16>> allowed;
    std::vector<bundled_message> messages;
    u64 most = 0;
    u64 total = 0;
};

/// Remembers what a lookup by type gave; direct-mapped, keyed by the address of the type information.
struct variant_cache_entry {
    const void* peer = nullptr;
    const loom_type_info* info = nullptr;
    u64 luid_half = 0;
    i8 variant = 0;
};
struct manifest_cache_entry {
    const loom_type_info* info = nullptr;
    u64 luid_half = 0;
    loom_type_info* manifested = nullptr;
};

/// The hooks of handles whose stores nobody follows.
extern const decltype(loom_handle::write_hook) unfollowed_write_hook;
extern const decltype(loom_handle::counter_hook) unfollowed_counter_hook;

struct open_handle {
    loom_handle view{};
    std::shared_ptr<database> db;
    section_lock lock;
    section_kind section = section_kind::none;
    loom_sttr_block tracking{};
    std::string db_name;

    /// What was stored in the database outside of sections since the last commit of this handle: blocks that it
    /// has made, by offset, and stores elsewhere. They are told to the journal with the next commit.
    std::map<u64, u64> blocks_outside;
    block_owner owner; ///< of these blocks
    std::vector<value_range> stores_outside;

    /// Memory of this process for objects that are made while the database may not be changed.
    std::shared_ptr<database> scratch;
    std::vector<void*> frees_put_off;
    u64 allocations = 0;

    std::vector<std::byte> workspace;
    u32 workspace_size = 0;
    u32 suppress_messages = 0;
    loom_peer* peer = nullptr;
    std::array<variant_cache_entry, 256> variants{};
    std::array<manifest_cache_entry, 256> manifests{};
    u64 manifests_rollbacks = 0;
    std::vector<loom_type_info*> unentered_types; ///< made by an initialiser, without room in the map

    loom_report_fn observer = nullptr;
    void* observer_context = nullptr;
    std::array<u64, 4> reports{};
    replication_cache replication;
    std::unique_ptr<message_bundle> messages;
    u64 gc_failures = 0;

    bool shared() const { return db->mapped && !db->exclusive; }

    u32 begin_write(section_purpose purpose = section_purpose::changes);
    u32 end_write(bool commit, section_purpose purpose = section_purpose::changes);
    u32 begin_read();
    u32 end_read();
    void give_up_write();

    /// Bytes are about to change. Only the owner of a section may add to its log: objects that another handle
    /// builds meanwhile are not part of it. False when there is no room.
    bool announce(const void* address, u64 size) {
        if (db->mapped && section != section_kind::write) {
            if (section == section_kind::none) remember_store(address, size);
            return true;
        }
        return db->memory.announce(address, size);
    }
    /// Somebody wants to know of stores: an undo log, the debug arena; outside of sections, the next commit.
    bool is_followed() const { return db->mapped ? section != section_kind::read : db->memory.listened(); }
    /// Bytes outside of a section change, of an object that nobody else can reach yet.
    void remember_store(const void* address, u64 size);
    void disown_blocks();
    /// All that changed outside of sections.
    std::vector<value_range> changed_outside() const;
    /// Lets the view say whether stores and counters must be announced; a hook that is not ours stays.
    void choose_hooks();
    void announce_or_end(const void* address, u64 size) {
        if (!announce(address, size)) fatal("%s", error_text().c_str());
    }

    // Out of line, for their callers have the common case in place.
    [[gnu::noinline]] void* allocate(u64 size);
    [[gnu::noinline]] void release(void* block);
    /// The memory is this process's own: no section, no lock is in question.
    bool releases_at_once() const { return !db->mapped; }
    /// Besides, no allocation is to fail on demand.
    bool allocates_at_once() const { return !db->mapped && !db->memory.fails_some_day(); }
    /// The memory that `address` lies in: the database's, or that of this process.
    database& space_of(const void* address) {
        return !db->mapped || db->memory.contains(address) ? *db : scratch_space();
    }
    database& scratch_space();
};

/// The runtime's part of a handle; null for a handle that another runtime has made.
inline open_handle* opened(loom_handle* handle) { return static_cast<open_handle*>(handle->runtime); }

/// The right to change the database for a few steps: nothing inside a write section or in a private database, a
/// short section of its own otherwise. Inside a read section there is no such right.
class write_scope {
  public:
    explicit write_scope(open_handle& handle, section_purpose purpose = section_purpose::upkeep);
    ~write_scope();
    write_scope(const write_scope&) = delete;
    write_scope& operator=(const write_scope&) = delete;
    explicit operator bool() const { return error_ == 0; }
    /// Why there is no such right, with its text; 0 when there is.
    u32 error() const;
    /// Ends it before its time; 0, or an error number with a text: then nothing was changed.
    u32 end();

  private:
    open_handle& handle_;
    section_purpose purpose_;
    bool opened_ = false;
    u32 error_ = 0;
};

} // namespace loom
