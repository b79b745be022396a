// The error slot of a handle, and what an object's header tells.
#include "runtime/database/error_text.h"
#include "runtime/export.h"

#include <loom/instance.h>

#include <cstring>

using loom::fail;

LOOM_EXPORT void loom_store_err(loom_handle* handle, uint32_t number) {
    if (number) loom::remember_reported_error(number, handle && handle->last_error == number);
    if (handle) handle->last_error = number;
}

LOOM_EXPORT void loom_explain_err(loom_handle*, uint32_t number, const char* text) { fail(number, "%s", text); }

LOOM_EXPORT void loom_clear_last_error(loom_handle* handle) {
    if (handle) handle->last_error = 0;
}

LOOM_EXPORT void loom_store_epoch_err(loom_handle* handle, uint32_t number, uint32_t* err) {
    if (err) *err = number;
    loom_store_err(handle, number);
}

LOOM_EXPORT int8_t loom_get_instance_variant(const void* object, uint32_t, uint32_t) {
    return object ? static_cast<const loom_object*>(object)->loom_variant : static_cast<int8_t>(0);
}

LOOM_EXPORT uint8_t loom_get_instance_obj_flag(const void* object, uint32_t, uint32_t) {
    return object ? static_cast<const loom_object*>(object)->loom_flags : static_cast<uint8_t>(0);
}

LOOM_EXPORT loom_type_info* loom_get_manifested_type_info(const void* object) {
    return static_cast<const loom_object*>(object)->loom_tinfo;
}

LOOM_EXPORT loom_type_info** loom_get_manifested_type_info_ptr_mem(void* object) {
    return &static_cast<loom_object*>(object)->loom_tinfo;
}

LOOM_EXPORT void loom_get_luid(loom_handle* handle, uint32_t, const void* object, uint8_t* luid, uint32_t* err) {
    if (*err) return;
    loom_clear_last_error(handle);
    const loom_type_info* info = object ? static_cast<const loom_object*>(object)->loom_tinfo : nullptr;
    if (!luid || !info || info->magic != LOOM_TYPE_INFO_MAGIC) {
        loom::fail(handle, err, LOOM_EINVAL, "there is no object with a type, or no place for its luid");
        return;
    }
    std::memcpy(luid, info->luid, sizeof info->luid);
}

LOOM_EXPORT uint32_t loomlib_validate_object_flags(const void* object, uint32_t, uint32_t strict) {
    if (!object) return loom::explain(LOOM_EINVAL, "there is no object");
    const uint8_t refused = strict ? OBJ_NESTED | OBJ_EMBEDDED : OBJ_NESTED;
    if (!(static_cast<const loom_object*>(object)->loom_flags & refused)) return 0;
    return loom::explain(LOOM_EPERM, "the object lies in another one; take a clone, or an object of its own");
}
