/* Everything a bundle asks of a runtime, in one header. */
#ifndef LOOM_LOOM_H
#define LOOM_LOOM_H
#include <loom/database.h>
#include <loom/handle.h>
#include <loom/instance.h>
#include <loom/messages.h>
#include <loom/oid.h>
#include <loom/registry.h>
#include <loom/text.h>
#include <loom/trace.h>
#include <loom/values.h>
#include <loom/wire.h>
#endif
