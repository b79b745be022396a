// Opening and closing handles, their sections, and the functions that bundles find in them.
#include "runtime/handle/open_handle.h"

#include "runtime/export.h"
#include "runtime/handle/peer.h"
#include "runtime/types/type_info_map.h"

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace loom {
namespace {
constexpr u32 default_workspace_size = u32{1} << 20;
constexpr u64 scratch_reserve = u64{1} << 30;

std::atomic<u32> shared_handles{0};
/// Read at every allocation, so its address is found without a call.
[[gnu::tls_model("initial-exec")]] thread_local u32 call_site_tag = 0;

open_handle& of(void* context) { return *static_cast<open_handle*>(context); }

void* alloc(void* context, u32, size_t size) {
    open_handle& handle = of(context);
    if (handle.allocates_at_once()) {
        if (void* block = handle.db->memory.allocate_cached(size)) {
            call_site_tag = 0;
            ++handle.allocations;
            return block;
        }
    }
    return handle.allocate(size);
}
void release(void* context, u32, void* block) {
    open_handle& handle = of(context);
    if (block != nullptr && handle.releases_at_once() && handle.db->memory.release_cached(block)) return;
    handle.release(block);
}

void announce_followed(loom_handle* handle, const void* address, size_t length, u32, const void*) {
    of(handle->alloc_ctx).announce_or_end(address, length);
}
/// The same under the name that bundles know: stores need not be announced while a handle has it. Who has taken it
/// for a hook of his own to call in turn may go on calling it.
void announce_unfollowed(loom_handle* handle, const void* address, size_t length, u32, const void*) {
    of(handle->alloc_ctx).announce_or_end(address, length);
}
void announce_counter_followed(void* context, const void* address, u32, u32) {
    of(context).announce_or_end(address, sizeof(u64));
}
void announce_counter_unfollowed(void* context, const void* address, u32, u32) {
    of(context).announce_or_end(address, sizeof(u64));
}

void fill_view(open_handle& handle, const loom_open_options& options) {
    loom_handle& view = handle.view;
    view.shared_alloc = alloc;
    view.alloc = alloc;
    view.free = release;
    view.write_hook = announce_followed;
    view.counter_hook = announce_counter_followed;
    view.tinfo_insert = insert_type_info;
    view.tinfo_lookup = lookup_type_info;
    view.db_kind = options.kind;
    view.alloc_ctx = view.tinfo_ctx = view.shared_alloc_ctx = &handle;
    view.header_tag = options.header_tag;
    view.cr_domain = options.cr_domain ? options.cr_domain : 1;
    view.pending_totals = &handle.db->root()->pending_totals;
    view.hd_map = &handle.db->root()->tracking;
    view.runtime = &handle;
    handle.db_name = handle.db->memory.header().name;
    view.db_name = handle.db_name.c_str();
    handle.workspace_size = options.workspace_size ? options.workspace_size : default_workspace_size;
    loom_set_peer(&view, nullptr);
    loom_set_tracking(&view, options.tracking);
    handle.choose_hooks();
}

void make_workspace(open_handle& handle) try {
    handle.workspace.resize(size_t{handle.workspace_size} + 1);
} catch (const std::bad_alloc&) {
    explain(ENOMEM, "the process has no memory for a workspace of %u bytes; set a smaller one",
            handle.workspace_size);
    loom_store_err(&handle.view, ENOMEM);
}

/// A database without a root gets one.
u32 make_first_root(open_handle& handle) {
    if (const u32 error = handle.begin_write()) return error;
    const bool made = handle.db->make_root() != nullptr;
    const u32 error = handle.end_write(made);
    return made ? error : fail(ENOMEM, "database %s: no room on the disk", handle.db->path.c_str());
}

/// Gives back what dead processes have made and not handed over. What cannot be swept now is when the next one
/// comes.
void sweep_the_dead(open_handle& handle) {
    const dead_owners dead(*handle.db->files, handle.lock.file());
    if (!dead.any() || handle.begin_write(section_purpose::upkeep) != 0) return;
    sweep(handle.db->memory, dead);
    if (handle.end_write(true, section_purpose::upkeep) == 0) dead.forget();
}

/// Locks for a mapped database, and its root.
u32 prepare_mapped(open_handle& handle) {
    database& db = *handle.db;
    if (db.read_only) {
        // The whole life of the handle is a read section: what it makes lies in memory of its own.
        handle.section = section_kind::read;
        return db.make_root() ? 0 : ENOMEM;
    }
    if (const u32 error = handle.lock.open(db.files->lock_file()))
        return fail(error, "database %s: cannot be opened for locking: %s", db.path.c_str(),
                    words_and_cure_of(static_cast<int>(error)).c_str());
    if (const u32 error = handle.begin_read()) return error;
    const bool has_root = db.root() != nullptr;
    handle.end_read();
    if (!has_root)
        if (const u32 error = make_first_root(handle)) return error;
    sweep_the_dead(handle);
    return 0;
}
} // namespace

const decltype(loom_handle::write_hook) unfollowed_write_hook = announce_unfollowed;
const decltype(loom_handle::counter_hook) unfollowed_counter_hook = announce_counter_unfollowed;

void open_handle::choose_hooks() {
    const bool followed = is_followed();
    if (view.write_hook == announce_followed || view.write_hook == announce_unfollowed)
        view.write_hook = followed ? announce_followed : announce_unfollowed;
    if (view.counter_hook == announce_counter_followed || view.counter_hook == announce_counter_unfollowed)
        view.counter_hook = followed ? announce_counter_followed : announce_counter_unfollowed;
}

u32 open_handle::begin_write(section_purpose purpose) {
    if (db->read_only)
        return fail(EROFS, "database %s: was opened for reading only; open it for writing", db->path.c_str());
    if (section != section_kind::none) return fail(EBUSY, "this handle has a section already");
    if (db->mapped && purpose == section_purpose::changes)
        if (const u32 error = db->files->check_failure()) return error;
    if (shared()) {
        if (db->writer.load() == std::this_thread::get_id())
            return fail(EDEADLK, "this thread has a write section on the database with another handle");
        if (!lock.take_write())
            return fail(static_cast<u32>(errno), "write lock of %s: %s", db->path.c_str(),
                        words_and_cure_of(errno).c_str());
        lock_taken(db.get());
        db->writer = std::this_thread::get_id();
    }
    if (db->needs_recovery() && !db->recover()) {
        give_up_write();
        return EIO;
    }
    db->open_section();
    section = section_kind::write;
    choose_hooks();
    return 0;
}

u32 open_handle::end_write(bool commit, section_purpose purpose) {
    if (section != section_kind::write) return fail(EINVAL, "this handle has no write section");
    u32 error = 0;
    if (!commit) {
        db->abort_section();
    } else {
        const bool with_others = purpose != section_purpose::allocation;
        if (with_others) disown_blocks();
        error = db->commit_section(purpose, with_others ? changed_outside() : std::vector<value_range>{});
        if (!error && with_others) {
            blocks_outside.clear();
            stores_outside.clear();
        }
    }
    const u64 number = db->last_commit();
    section = section_kind::none;
    choose_hooks();
    give_up_write();
    // Others may write while this one waits for the disk.
    if (commit && !error && db->mapped && purpose == section_purpose::changes &&
        db->files->level() == durability::durable)
        error = db->flush(number);
    return error;
}

void open_handle::remember_store(const void* address, u64 size) {
    if (!size || !db->memory.contains(address)) return;
    const u64 offset = db->memory.offset_of(address);
    auto block = blocks_outside.upper_bound(offset);
    if (block != blocks_outside.begin()) {
        --block;
        if (offset + size <= block->first + block->second) return;
    }
    constexpr std::size_t most = 4096;
    if (stores_outside.size() == most) merge_ranges(stores_outside);
    stores_outside.push_back({offset, size});
}

/// With the commit that tells their contents blocks belong to nobody any more.
void open_handle::disown_blocks() {
    for (const auto& [offset, size] : blocks_outside) {
        void* const block = db->memory.base() + offset;
        // Somebody else may have given it back meanwhile.
        if (owner.number() && arena::owner_of(block) == owner.number()) db->memory.set_owner(block, 0);
    }
}

std::vector<value_range> open_handle::changed_outside() const {
    std::vector<value_range> all(stores_outside);
    for (const auto& [offset, size] : blocks_outside)
        all.push_back({offset, size});
    return all;
}

void open_handle::give_up_write() {
    if (!shared()) return;
    db->writer = std::thread::id{};
    lock_given_up(db.get());
    lock.give_up();
}

u32 open_handle::begin_read() {
    if (db->read_only) return 0;
    if (section != section_kind::none) return fail(EBUSY, "this handle has a section already");
    while (shared()) {
        if (db->writer.load() == std::this_thread::get_id())
            return fail(EDEADLK, "this thread has a write section on the database with another handle");
        if (!lock.take_read())
            return fail(static_cast<u32>(errno), "read lock of %s: %s", db->path.c_str(),
                        words_and_cure_of(errno).c_str());
        lock_taken(db.get());
        if (!db->needs_recovery()) break;
        // A writer has died. Only who has the write lock may put its bytes back.
        lock.give_up();
        if (const u32 error = begin_write()) return error;
        end_write(true);
    }
    if (!shared() && db->needs_recovery() && !db->recover()) return EIO;
    section = section_kind::read;
    return 0;
}

u32 open_handle::end_read() {
    if (db->read_only) return 0;
    if (section != section_kind::read) return fail(EINVAL, "this handle has no read section");
    section = section_kind::none;
    if (shared()) {
        lock_given_up(db.get());
        lock.give_up();
    }
    if (!frees_put_off.empty()) {
        const write_scope scope(*this);
        for (void* block : frees_put_off)
            db->memory.release(block);
        frees_put_off.clear();
    }
    return 0;
}

void* open_handle::allocate(u64 size) {
    const u32 tag = std::exchange(call_site_tag, 0);
    ++allocations;
    if (db->mapped && section == section_kind::read)
        return db->memory.fails_now() ? nullptr : scratch_space().memory.allocate(size);
    const bool outside = db->mapped && section == section_kind::none;
    write_scope scope(*this, section_purpose::allocation);
    if (scope.error()) return nullptr;
    db->memory.set_next_tag(tag);
    void* block = db->memory.allocate(size);
    if (!outside || !block) return block;
    db->memory.set_owner(block, owner.take(*db->files, lock.file()));
    if (scope.end() != 0) return nullptr;
    blocks_outside[db->memory.offset_of(block)] = arena::size_of(block);
    return block;
}

void open_handle::release(void* block) {
    if (!block) return;
    database& space = space_of(block);
    if (&space != db.get()) {
        space.memory.release(block);
    } else if (db->mapped && section == section_kind::read) {
        frees_put_off.push_back(block);
    } else {
        if (!blocks_outside.empty()) blocks_outside.erase(space.memory.offset_of(block));
        const write_scope scope(*this, section_purpose::allocation);
        space.memory.release(block);
    }
}

database& open_handle::scratch_space() {
    if (!scratch) {
        scratch = database::make_private(scratch_reserve, "scratch");
        if (!scratch) fatal("%s", error_text().c_str());
    }
    return *scratch;
}

write_scope::write_scope(open_handle& handle, section_purpose purpose) : handle_(handle), purpose_(purpose) {
    if (!handle.db->mapped || handle.section == section_kind::write) return;
    error_ = handle.section == section_kind::read ? u32{EPERM} : handle.begin_write(purpose);
    opened_ = error_ == 0;
}

/// Whoever can do without the right inside a read section does not pay for the words.
u32 write_scope::error() const {
    if (!error_ || handle_.section != section_kind::read) return error_;
    return fail(EPERM, "database %s: is not changed inside a read section; end the section first",
                handle_.db->path.c_str());
}

write_scope::~write_scope() { end(); }

u32 write_scope::end() {
    if (!opened_) return 0;
    opened_ = false;
    return handle_.end_write(true, purpose_);
}

} // namespace loom

using namespace loom;

LOOM_EXPORT loom_handle* loom_open(const loom_open_options* options) {
    if (!options || options->size != sizeof *options || options->kind > LOOM_DB_PRIVATE_MANIFESTED ||
        options->tracking > LOOM_TRACKING_ON) {
        fail(EINVAL, "loom_open: the options are not filled in (size, kind, tracking)");
        return nullptr;
    }
    auto handle = std::make_unique<open_handle>();
    const bool mapped = options->kind == LOOM_DB_MAPPED;
    handle->db = mapped ? database::open_mapped(*options)
                        : database::make_private(options->reserve, options->name ? options->name : "private");
    if (!handle->db) return nullptr;
    if (mapped && prepare_mapped(*handle) != 0) {
        database::release(handle->db);
        return nullptr;
    }
    fill_view(*handle, *options);
    if (handle->shared()) ++shared_handles;
    return done(&handle.release()->view);
}

LOOM_EXPORT loom_handle* loom_open_private(void) {
    loom_open_options options{};
    options.size = sizeof options;
    options.kind = LOOM_DB_PRIVATE;
    return loom_open(&options);
}

LOOM_EXPORT loom_handle* loom_open_mapped(const char* path, uint32_t flags) {
    loom_open_options options{};
    options.size = sizeof options;
    options.kind = LOOM_DB_MAPPED;
    options.path = path;
    options.flags = flags;
    return loom_open(&options);
}

LOOM_EXPORT void loom_close(loom_handle* handle) {
    if (!handle) return;
    open_handle* own = opened(handle);
    if (own->section == section_kind::write) own->end_write(false);
    if (own->section == section_kind::read) own->end_read();
    // What was made outside of sections, and not yet told to the journal.
    if (own->db->mapped && !(own->blocks_outside.empty() && own->stores_outside.empty()) &&
        own->begin_write() == 0)
        own->end_write(true);
    if (own->db->mapped && own->blocks_outside.empty()) own->owner.give_up(*own->db->files);
    loom_set_peer(handle, nullptr);
    if (own->shared()) --shared_handles;
    database::release(own->db);
    delete own;
}

LOOM_EXPORT uint32_t loom_write_begin(loom_handle* handle) { return done(opened(handle)->begin_write()); }
LOOM_EXPORT uint32_t loom_write_commit(loom_handle* handle) { return done(opened(handle)->end_write(true)); }
LOOM_EXPORT uint32_t loom_write_abort(loom_handle* handle) { return done(opened(handle)->end_write(false)); }
LOOM_EXPORT uint32_t loom_read_begin(loom_handle* handle) { return done(opened(handle)->begin_read()); }
LOOM_EXPORT uint32_t loom_read_end(loom_handle* handle) { return done(opened(handle)->end_read()); }

LOOM_EXPORT uint32_t loomlib_db_is_shared(void) { return shared_handles.load() != 0; }
LOOM_EXPORT uint32_t loomlib_database_is_write_locked(loom_handle* handle) {
    const open_handle* own = opened(handle);
    return !own->shared() || own->section == section_kind::write;
}

LOOM_EXPORT void loom_database_identity(loom_handle* handle, uint8_t identity[16]) {
    std::memcpy(identity, opened(handle)->db->memory.header().identity, 16);
}
LOOM_EXPORT uint32_t loom_database_sync(loom_handle* handle) { return done(opened(handle)->db->sync()); }

LOOM_EXPORT void loom_set_tracking(loom_handle* handle, uint32_t tracking) {
    open_handle* own = opened(handle);
    own->tracking.sttr_mode = tracking == LOOM_TRACKING_ON ? LOOM_STTR_ON : LOOM_STTR_OFF;
    handle->sttr_block = tracking == LOOM_TRACKING_NONE ? nullptr : &own->tracking;
}
LOOM_EXPORT void loom_set_cr_domain(loom_handle* handle, uint32_t domain) { handle->cr_domain = domain; }
LOOM_EXPORT void loom_set_header_tag(loom_handle* handle, uint32_t tag) { handle->header_tag = tag; }
LOOM_EXPORT void loom_set_suppress_messages(loom_handle* handle, uint32_t suppress) {
    opened(handle)->suppress_messages = suppress;
}
LOOM_EXPORT uint32_t loomlib_suppress_messages_enabled(loom_handle* handle) {
    return handle->runtime ? opened(handle)->suppress_messages : 0;
}

LOOM_EXPORT void loom_set_workspace_size(loom_handle* handle, uint32_t size) {
    open_handle* own = opened(handle);
    own->workspace = {};
    own->workspace_size = size;
}
LOOM_EXPORT void loomlib_get_handle_ws(loom_handle* handle, void** workspace, uint32_t* size) {
    open_handle* own = opened(handle);
    if (own->workspace.empty()) make_workspace(*own);
    *workspace = own->workspace.data();
    *size = own->workspace.empty() ? 0 : own->workspace_size;
}

LOOM_EXPORT void umber_set_callsite_tag(uint32_t tag) { call_site_tag = tag; }
LOOM_EXPORT void* loomlib_malloc(uint32_t, uint32_t, size_t size) {
    void* block = std::malloc(size);
    if (!block) explain(ENOMEM, "the process has no memory for %zu bytes", size);
    return block;
}
LOOM_EXPORT void loomlib_free(uint32_t, uint32_t, void* block) { std::free(block); }
