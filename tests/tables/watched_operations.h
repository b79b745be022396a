// Runtime operations that the table layer calls, written into the test handle's log and made to fail on demand.
#pragma once

#include "tests/support/test_handle.h"

#include <map>
#include <string>

namespace table_tests {

/// In its scope the operation of that name fails with the number instead of doing its work. For
/// `loom_request_oid_mapping_destroy` the number 0 answers "not yet", for `arbor_set_key` and
/// `loom_oid_mapping_create` any number is a refusal.
class failing {
  public:
    failing(std::string operation, trellis::u32 number);
    ~failing();
    failing(const failing&) = delete;
    failing& operator=(const failing&) = delete;

  private:
    std::string operation_;
};

/// In its scope the process takes the database for a shared one whose write lock is held or not.
class shared_database {
  public:
    explicit shared_database(bool write_locked);
    ~shared_database();
    shared_database(const shared_database&) = delete;
    shared_database& operator=(const shared_database&) = delete;
};

/// In its scope the thread works under that tenant.
class as_tenant {
  public:
    explicit as_tenant(trellis::u16 tenant) { loom_set_tenant(tenant); }
    ~as_tenant() { loom_set_tenant(0); }
    as_tenant(const as_tenant&) = delete;
    as_tenant& operator=(const as_tenant&) = delete;
};

} // namespace table_tests
