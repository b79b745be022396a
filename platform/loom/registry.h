/* How bundles make themselves known: the module list and the function records of tables. */
#ifndef LOOM_REGISTRY_H
#define LOOM_REGISTRY_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A bundle's node on the module list: a tail queue entry whose back link points at the forward link that
 *  points here. */
typedef struct loom_module_node {
    const char* name;
    loom_type_info* const* type_infos; /**< closed by a null pointer */
    struct loom_module_node* next;
    struct loom_module_node** previous;
} loom_module_node;

/** Head of the list of loaded modules. */
typedef struct loom_module_root {
    uint32_t count;
    loom_module_node* first;
    loom_module_node** last; /**< address of the last forward link */
} loom_module_root;
extern loom_module_root loom_module_tot_root;

/** The function record of a table: 49 slots, the same order in all bundles. Slot 0 is the luid (16 bytes), slot 1
 *  the name text, the others functions (LOOM_VFT_ names them); slot 37 is null. */
typedef struct loom_table_vft {
    const void* slots[49];
} loom_table_vft;

enum {
    LOOM_VFT_LUID = 0,
    LOOM_VFT_NAME,
    LOOM_VFT_TABLE_OPEN,
    LOOM_VFT_TABLE_OPEN_BY_ID,
    LOOM_VFT_TABLE_OPEN_BY_IOR_WITH_NAME,
    LOOM_VFT_TABLE_OPEN_BY_IOR_WITH_ID,
    LOOM_VFT_TABLE_CLOSE,
    LOOM_VFT_TABLE_FREE,
    LOOM_VFT_RECORD_CREATE_CB,
    LOOM_VFT_RECORD_MODIFY_CB,
    LOOM_VFT_RECORD_DELETE_CB,
    LOOM_VFT_RECORD_CREATE_DM_CB,
    LOOM_VFT_RECORD_DELETE_DM_CB,
    LOOM_VFT_RECORD_GROUPING_CB,
    LOOM_VFT_RECORD_FREE_CB,
    LOOM_VFT_SEARCH,
    LOOM_VFT_SEARCH_W_SRC,
    LOOM_VFT_CREATE_RECORD,
    LOOM_VFT_RECORD_ADD_REF,
    LOOM_VFT_DESTROY_RECORD,
    LOOM_VFT_INSERT,
    LOOM_VFT_DELETE,
    LOOM_VFT_PKEY_INSERT,
    LOOM_VFT_PKEY_DELETE,
    LOOM_VFT_PKEY_GET_NEXT,
    LOOM_VFT_PKEY_GET_PREV,
    LOOM_VFT_PKEY_GET_FIRST,
    LOOM_VFT_PKEY_GET_LAST,
    LOOM_VFT_TABLE_GET_COUNT,
    LOOM_VFT_TABLE_GET_COUNT_BY_SRC,
    LOOM_VFT_PKEY_GET_FIRST_BY_SRC,
    LOOM_VFT_PKEY_GET_FIRST_IGNORE_SRC,
    LOOM_VFT_PKEY_GET_NEXT_BY_SRC,
    LOOM_VFT_PKEY_GET_NEXT_IGNORE_SRC,
    LOOM_VFT_RECORD_PRINT,
    LOOM_VFT_RECORD_TO_XML,
    LOOM_VFT_RECORD_FROM_XML,
    LOOM_VFT_RESERVED,
    LOOM_VFT_REQUEST_RECORD_DESTROY,
    LOOM_VFT_RECORD_MARSHAL,
    LOOM_VFT_RECORD_UNMARSHAL,
    LOOM_VFT_RECORD_LEN,
    LOOM_VFT_PKEY_MARSHAL,
    LOOM_VFT_PKEY_UNMARSHAL,
    LOOM_VFT_PKEY_LEN,
    LOOM_VFT_PKEY_DESTROY,
    LOOM_VFT_GET_NEXT_BY_KEY,
    LOOM_VFT_GET_PREV_BY_KEY,
    LOOM_VFT_PKEY_PRINT,
    LOOM_VFT_SLOTS
};

/** A bundle's lookup from a luid to the function record (`<bundle>_table_get_vft`). */
typedef void (*loom_table_get_vft_fn)(loom_handle* handle, uint32_t domain, const uint8_t* luid,
                                      const loom_table_vft** out, uint32_t* err);

/** Copies `count` records; 0 or an error number. */
uint32_t table_vft_cpy(loom_table_vft* destination, const loom_table_vft* source, uint32_t count);
/** One process-wide lock for the setup of all bundles' registries. */
void loomlib_vft_init_lock(void);
void loomlib_vft_init_unlock(void);

#ifdef __cplusplus
}
static_assert(sizeof(loom_table_vft) == 392, "storage format");
#endif
#endif
