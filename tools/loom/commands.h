// The commands of the tool, one function each; main calls them. Each returns the exit status and throws failure
// for what it cannot do.
#pragma once

#include "arguments.h"
#include "bundles.h"

namespace tool {

/// Exit statuses: what was asked for holds; it does not (not found, not equal) or could not be done; wrong usage.
enum exit_status { exit_good = 0, exit_failed = 1, exit_usage = 2 };

struct context {
    const arguments& line;
    bundles& loaded;
};

// database_commands.cpp
int create_database(context& c);
int list_tables(context& c);
int walk_table(context& c);
int find_record(context& c);
int show_record(context& c);

// backup_commands.cpp
int back_up_database(context& c);
int restore_database(context& c);

// verify_commands.cpp
int verify_database(context& c);
int salvage_database(context& c);

// transfer_commands.cpp
int import_file(context& c);
int export_tables(context& c);
int compare_databases(context& c);

// peer_commands.cpp
int send_records(context& c);
int receive_records(context& c);

// catalogue_commands.cpp
int list_bundles(context& c);
int list_types(context& c);
int decode_trace(context& c);

} // namespace tool
