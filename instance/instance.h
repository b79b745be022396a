// The instance model: what an object is in memory and the operations on it. Generated exports call these
// templates, one line each, under the names of the operations. Binary, text and XML forms stand in codec/.
//
//   call.h           handle, domain and error word; the error discipline
//   attribute.h      the shapes of attributes, from which models are made
//   value_types.h    facades through which one type calls another
//   object_access.h  addresses inside an object, variant gate, marks
//   parts.h          values inside a holder: set up and ended
//   lifecycle.h      create, initialize, destroy, sizes, variants
//   accessors.h      values in place, get_all, set_all, moves of whole objects
//   repeated.h       arrays and character arrays
//   lists.h          lists
//   arms.h           arms of unions and choices
//   tracking.h       state flags
//   references.h     object references
//   enumeration.h    enumerations
//   flag_set.h       flag sets
//   clone.h          deep copies
#pragma once

#include "instance/accessors.h"
#include "instance/arms.h"
#include "instance/clone.h"
#include "instance/enumeration.h"
#include "instance/flag_set.h"
#include "instance/lifecycle.h"
#include "instance/lists.h"
#include "instance/references.h"
#include "instance/repeated.h"
#include "instance/tracking.h"
