// The list of modules, the copies of function records, and loading bundles.
//
// A bundle puts its node on loom_module_tot_root when it is loaded. Everything else is found by name in the object
// that holds the node: `<module>_fetch_table_get_vft`, `<module>_typeinfo_initialize` and so on.
#include "runtime/registry/bundle.h"

#include "runtime/export.h"
#include "runtime/handle/open_handle.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

LOOM_EXPORT_DATA loom_module_root loom_module_tot_root = {0, nullptr, &loom_module_tot_root.first};

struct loom_bundle {
    std::string name;
    std::string path;
    void* object = nullptr;
    const loom_module_node* module = nullptr;
    loom_table_get_vft_fn table_get_vft = nullptr;
};

namespace loom {
namespace {
std::mutex vft_mutex;

/// All bundles that this process has asked for, so that tables can be found in any of them.
std::shared_mutex bundles_mutex;
std::vector<loom_bundle*>& bundles() {
    static auto* list = new std::vector<loom_bundle*>;
    return *list;
}

const link_map* map_of_address(const void* address) {
    Dl_info info;
    void* map = nullptr;
    return dladdr1(address, &info, &map, RTLD_DL_LINKMAP) ? static_cast<const link_map*>(map) : nullptr;
}
const link_map* map_of_object(void* object) {
    link_map* map = nullptr;
    return dlinfo(object, RTLD_DI_LINKMAP, &map) == 0 ? map : nullptr;
}

const loom_module_node* find_module(const char* name) {
    for (const loom_module_node* node = loom_module_tot_root.first; node; node = node->next)
        if (std::strcmp(node->name, name) == 0) return node;
    return nullptr;
}

const loom_module_node* find_module_in(void* object) {
    const link_map* map = map_of_object(object);
    for (const loom_module_node* node = loom_module_tot_root.first; map && node; node = node->next)
        if (map_of_address(node) == map) return node;
    return nullptr;
}

/// A new reference to the object that holds the node.
void* open_object_of(const loom_module_node* node) {
    const link_map* map = map_of_address(node);
    if (!map) return nullptr;
    return dlopen(*map->l_name ? map->l_name : nullptr, RTLD_NOW | RTLD_NOLOAD);
}

/// The bundle of an object that is open. Takes over the reference to it.
loom_bundle* make_bundle(void* object, const loom_module_node* node) {
    auto made = std::make_unique<loom_bundle>();
    made->name = node->name;
    made->object = object;
    made->module = node;
    if (const link_map* map = map_of_object(object)) made->path = *map->l_name ? map->l_name : "/proc/self/exe";
    using fetch_fn = loom_table_get_vft_fn (*)();
    const auto fetch = reinterpret_cast<fetch_fn>(dlsym(object, (made->name + "_fetch_table_get_vft").c_str()));
    if (!fetch) {
        fail(ENOENT, "bundle %s: %s_fetch_table_get_vft is not exported", made->path.c_str(), made->name.c_str());
        dlclose(object);
        return nullptr;
    }
    made->table_get_vft = fetch();
    const std::unique_lock guard(bundles_mutex);
    bundles().push_back(made.get());
    return made.release();
}

template <class Function>
Function symbol_of(const loom_bundle* bundle, const char* suffix) {
    return reinterpret_cast<Function>(dlsym(bundle->object, (bundle->name + suffix).c_str()));
}

const loom_table_vft* find_vft_in(const loom_bundle& bundle, loom_handle* handle, const u8* luid) {
    const loom_table_vft* found = nullptr;
    u32 err = 0;
    bundle.table_get_vft(handle, LOOM_DOMAIN_NONE, luid, &found, &err);
    return err ? nullptr : found;
}

const loom_table_vft* find_vft(loom_handle* handle, const u8* luid) {
    const std::shared_lock guard(bundles_mutex);
    for (const loom_bundle* bundle : bundles())
        if (const loom_table_vft* found = find_vft_in(*bundle, handle, luid)) return found;
    return nullptr;
}

std::string luid_text_of(const u8* luid) {
    char text[33];
    for (int i = 0; i < 16; ++i)
        std::snprintf(text + 2 * i, 3, "%02x", luid[i]);
    return text;
}

bool is_known(const loom_module_node* node) {
    const std::shared_lock guard(bundles_mutex);
    for (const loom_bundle* bundle : bundles())
        if (bundle->module == node) return true;
    return false;
}
} // namespace

void* find_symbol_of_module(const char* module, const char* symbol) {
    const loom_module_node* node = find_module(module);
    void* object = node ? open_object_of(node) : nullptr;
    if (!object) return dlsym(RTLD_DEFAULT, symbol);
    void* address = dlsym(object, symbol);
    dlclose(object); // the node keeps the object where it is
    return address;
}

std::string path_of_module(const std::string& module) {
    const loom_module_node* node = find_module(module.c_str());
    const link_map* map = node ? map_of_address(node) : nullptr;
    if (!map) return {};
    return *map->l_name ? map->l_name : "/proc/self/exe";
}
} // namespace loom

using namespace loom;

LOOM_EXPORT uint32_t table_vft_cpy(loom_table_vft* destination, const loom_table_vft* source, uint32_t count) {
    if (!destination || !source)
        return fail(LOOM_EINVAL, "function records: there is no source or no destination");
    std::memcpy(destination, source, count * sizeof *source);
    return 0;
}
LOOM_EXPORT void loomlib_vft_init_lock(void) { vft_mutex.lock(); }
LOOM_EXPORT void loomlib_vft_init_unlock(void) { vft_mutex.unlock(); }

LOOM_EXPORT loom_bundle* loom_bundle_load(const char* path) {
    void* object = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
    if (!object) {
        fail(ENOENT, "bundle %s: cannot be loaded: %s", path ? path : "", dlerror());
        return nullptr;
    }
    const loom_module_node* node = find_module_in(object);
    if (node) return done(make_bundle(object, node));
    fail(EINVAL, "bundle %s: is no bundle: it has put no module on the list", path);
    dlclose(object);
    return nullptr;
}

LOOM_EXPORT loom_bundle* loom_bundle_find(const char* name) {
    const loom_module_node* node = find_module(name);
    void* object = node ? open_object_of(node) : nullptr;
    if (object) return done(make_bundle(object, node));
    fail(ENOENT, "bundle %s: no such module is loaded", name);
    return nullptr;
}

LOOM_EXPORT void loom_bundle_unload(loom_bundle* bundle) {
    if (!bundle) return;
    {
        const std::unique_lock guard(bundles_mutex);
        std::erase(bundles(), bundle);
    }
    dlclose(bundle->object);
    delete bundle;
}

LOOM_EXPORT const char* loom_bundle_name(const loom_bundle* bundle) { return bundle->name.c_str(); }
LOOM_EXPORT const char* loom_bundle_path(const loom_bundle* bundle) { return bundle->path.c_str(); }
LOOM_EXPORT const loom_module_node* loom_bundle_module(const loom_bundle* bundle) { return bundle->module; }
LOOM_EXPORT loom_table_get_vft_fn loom_bundle_table_get_vft(const loom_bundle* bundle) {
    return bundle->table_get_vft;
}
LOOM_EXPORT void* loom_bundle_symbol(const loom_bundle* bundle, const char* name) {
    void* address = dlsym(bundle->object, name);
    if (!address) fail(ENOENT, "bundle %s: %s is not exported", bundle->path.c_str(), name);
    return done(address);
}

LOOM_EXPORT void* loom_bundle_register_handler(loom_bundle* bundle, void* handler) {
    const auto enter = symbol_of<void* (*)(void*)>(bundle, "_bundle_handler_register");
    return enter ? enter(handler) : nullptr;
}
LOOM_EXPORT void* loom_bundle_unregister_handler(loom_bundle* bundle) {
    const auto leave = symbol_of<void* (*)()>(bundle, "_bundle_handler_unregister");
    return leave ? leave() : nullptr;
}

LOOM_EXPORT uint32_t loom_bundle_manifest(loom_bundle* bundle, loom_handle* handle) {
    if (handle->db_kind == LOOM_DB_PRIVATE) return done();
    const auto initialize = symbol_of<loom_typeinfo_initialize_fn>(bundle, "_typeinfo_initialize");
    if (!initialize)
        return fail(ENOENT, "bundle %s: %s_typeinfo_initialize is not exported", bundle->path.c_str(),
                    bundle->name.c_str());
    const write_scope scope(*opened(handle));
    if (!scope) return scope.error();
    uint32_t err = 0;
    initialize(handle, handle->cr_domain, &err);
    if (!err) return done();
    remember_reported_error(err, true);
    return fail(err, "bundle %s: its type information does not fit into the database: %s", bundle->path.c_str(),
                error_text().c_str());
}

LOOM_EXPORT const loom_table_vft* loom_find_table_vft(loom_handle* handle, const uint8_t luid[16]) {
    const u32 last_error = handle->last_error;
    const loom_table_vft* found = find_vft(handle, luid);
    // A bundle that nobody has asked for by name may still be linked into the program.
    for (const loom_module_node* node = loom_module_tot_root.first; !found && node; node = node->next)
        if (!is_known(node) && loom_bundle_find(node->name)) found = find_vft(handle, luid);
    handle->last_error = last_error;
    if (!found)
        fail(ENOENT, "no loaded bundle has the table %s; load the bundle first", luid_text_of(luid).c_str());
    return done(found);
}

LOOM_EXPORT const loom_type_info* loom_find_type(const char* name) {
    for (const loom_module_node* node = loom_module_tot_root.first; node; node = node->next)
        for (loom_type_info* const* info = node->type_infos; info && *info; ++info)
            if (std::strncmp((*info)->name, name, sizeof(*info)->name) == 0) return done(*info);
    fail(ENOENT, "no loaded bundle has the type %s; load the bundle first", name);
    return nullptr;
}
