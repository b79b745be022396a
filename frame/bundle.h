// The frame of a bundle: what makes the library known to its surroundings. Generated code holds the data (the
// module node, the list of type information, the function records, the names of siblings) and one line per
// exported function; what those functions do is written here, once, as templates over that data.
//
//   counters.h          one call counter per exported function
//   module_list.h       the node on the runtime's list of loaded modules
//   handler_chain.h     the bundle handler, passed on to sibling bundles
//   type_information.h  bringing type information into a database, the dump of variant sizes
//   direct_forms.h      the runtime's simplest operations done in place, where it offers them
//   registry.h          from a table's luid to its function record
//   export.h            the mark of exported functions
//
// Types of objects, tables and messages do not live here. A generated bundle is described to the templates of all
// families by one struct:
//
//     struct bundle {                                      // in namespace bundle_<bundle>
//         static constexpr char name[] = "<bundle>";
//         static u16 trace_module();                       // 0 until the module is registered
//         static void trace_init();                        // registers it, once
//         static constexpr loom_typeinfo_initialize_fn typeinfo_initialize;
//         template <int Unit> static const u8* trace_unit(); // the unit's 16 hash bytes
//         static void count(u32 function);                 // one call of an exported function
//     };
#pragma once

#include "frame/basic_types.h"
#include "frame/counters.h"
#include "frame/direct_forms.h"
#include "frame/export.h"
#include "frame/handler_chain.h"
#include "frame/module_list.h"
#include "frame/registry.h"
#include "frame/type_information.h"
