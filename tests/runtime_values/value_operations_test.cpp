// What every value type owes its holders: forms that read back, bounds, announced stores, private copies.
#include "documents.h"
#include "value_families.h"

#include <functional>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t domain = watched_memory::domain;
constexpr uint8_t canary = 0xcd;

/// A block of exactly `size` bytes, so that a sanitizer sees what lies beyond; null for none.
std::unique_ptr<uint8_t[]> exact_block(const void* bytes, size_t size) {
    std::unique_ptr<uint8_t[]> block(new uint8_t[size]);
    if (size) std::memcpy(block.get(), bytes, size);
    return block;
}

template <class F>
class value_operations : public testing::Test {
  protected:
    using type = typename F::type;
    static constexpr uint32_t rounds = 300;

    struct ending {
        loom_handle* handle;
        void operator()(type* value) const { F::destroy_internal(handle, domain, value, 1); }
    };
    /// A value in instance memory, ended with its scope.
    struct held : std::unique_ptr<type, ending> {
        using std::unique_ptr<type, ending>::unique_ptr;
        operator type*() const { return this->get(); }
    };
    held empty_value() { return {memory.place<type>(), ending{handle}}; }
    held random_value() {
        held value = empty_value();
        randomise(memory, random, value.get());
        return value;
    }

    std::vector<uint8_t> wire(const type* value) {
        std::vector<uint8_t> bytes(F::len(handle, domain, value));
        EXPECT_EQ(F::marshal(handle, domain, bytes.data(), value, static_cast<int32_t>(bytes.size()), err),
                  bytes.size());
        EXPECT_EQ(memory.error, 0u);
        return bytes;
    }

    std::string xml(const type* value, uint8_t state = 0) {
        std::vector<char> buffer(8192);
        const uint32_t size = F::to_xml(handle, domain, "value", buffer.data(), value,
                                        static_cast<int32_t>(buffer.size()), state, err);
        EXPECT_EQ(memory.error, 0u);
        return std::string(buffer.data(), size);
    }

    /// Equal in everything that the type says matters.
    bool same(const type* a, const type* b) {
        if constexpr (has_order<F>) {
            if (F::compare(a, b) != 0 || F::compare(b, a) != 0) return false;
        } else if (std::memcmp(a, b, sizeof(type)) != 0) {
            return false;
        }
        return F::hash(a, 99) == F::hash(b, 99);
    }

    void expect_error(uint32_t number) {
        EXPECT_EQ(memory.error, number);
        EXPECT_EQ(handle->last_error, number);
        memory.error = 0;
        handle->last_error = 0;
    }

    random_bits random{test_seed()};
    watched_memory memory;
    loom_handle* const handle = memory.handle();
    uint32_t* const err = &memory.error;
};
TYPED_TEST_SUITE(value_operations, all_families, family_names);

TYPED_TEST(value_operations, read_back_what_they_marshal) {
    using F = TypeParam;
    for (uint32_t i = 0; i < this->rounds; ++i) {
        const auto value = this->random_value();
        const auto copy = this->random_value(); // existing contents are replaced and given back
        const auto bytes = this->wire(value);
        const auto block = exact_block(bytes.data(), bytes.size());
        EXPECT_EQ(F::unmarshal(this->handle, domain, block.get(), copy, static_cast<int32_t>(bytes.size()), i % 2,
                               this->err),
                  bytes.size());
        EXPECT_EQ(this->memory.error, 0u);
        EXPECT_TRUE(this->same(value, copy));
        EXPECT_EQ(this->wire(copy), bytes);
    }
}

TYPED_TEST(value_operations, stay_within_a_short_wire_buffer) {
    using F = TypeParam;
    for (int i = 0; i < 20; ++i) {
        const auto value = this->random_value();
        const auto target = this->random_value();
        const auto bytes = this->wire(value);
        for (int32_t length = -1; length < static_cast<int32_t>(bytes.size()); ++length) {
            std::vector<uint8_t> buffer(bytes.size() + 1, canary);
            EXPECT_EQ(F::marshal(this->handle, domain, buffer.data(), value, length, this->err), 0u);
            this->expect_error(LOOM_EMSGSIZE);
            EXPECT_EQ(buffer, std::vector<uint8_t>(bytes.size() + 1, canary));

            const uint64_t allocations = this->memory.allocations();
            const auto block = exact_block(bytes.data(), length > 0 ? static_cast<size_t>(length) : 0);
            this->memory.watch();
            EXPECT_EQ(F::unmarshal(this->handle, domain, block.get(), target, length, 1, this->err), 0u);
            this->expect_error(LOOM_EMSGSIZE);
            EXPECT_TRUE(this->memory.unchanged());
            EXPECT_EQ(this->memory.allocations(), allocations);
        }
    }
}

TYPED_TEST(value_operations, take_any_bytes_as_input) {
    using F = TypeParam;
    for (uint32_t i = 0; i < 4 * this->rounds; ++i) {
        const auto source = this->random_value();
        auto bytes = this->wire(source);
        bytes.resize(bytes.size() + below(this->random, 4));
        for (uint64_t changes = below(this->random, 4) + 1; changes && !bytes.empty(); --changes)
            bytes[below(this->random, bytes.size())] = static_cast<uint8_t>(this->random());
        const auto block = exact_block(bytes.data(), bytes.size());
        const auto value = this->empty_value();
        const uint64_t allocated = this->memory.allocated_bytes();
        const uint32_t read = F::unmarshal(this->handle, domain, block.get(), value,
                                           static_cast<int32_t>(bytes.size()), 0, this->err);
        EXPECT_LE(this->memory.allocated_bytes() - allocated, bytes.size() + 1);
        if (this->memory.error) {
            EXPECT_TRUE(this->memory.error == LOOM_EMSGSIZE || this->memory.error == LOOM_EINVAL);
            EXPECT_EQ(read, 0u);
            this->memory.error = 0;
        } else {
            // What was accepted is a value: it has one wire form, and that is what was read.
            EXPECT_EQ(this->wire(value), std::vector<uint8_t>(bytes.begin(), bytes.begin() + read));
        }
    }
}

TYPED_TEST(value_operations, read_back_their_xml) {
    using F = TypeParam;
    for (uint32_t i = 0; i < this->rounds; ++i) {
        const auto value = this->random_value();
        const auto copy = this->random_value();
        const auto state = static_cast<uint8_t>(i % 3 ? 0 : this->random());
        const std::string element = this->xml(value, state);
        EXPECT_EQ(element.find(" state=\"" + std::to_string(state) + "\"") != std::string::npos, state != 0);
        const auto document = parse("<record>\n  " + element + "\n</record>\n");
        F::from_xml(this->handle, domain, "record/value[1]", document.get(), copy, this->err, nullptr, 0);
        EXPECT_EQ(this->memory.error, 0u) << element;
        EXPECT_TRUE(this->same(value, copy)) << element;
        EXPECT_EQ(this->xml(copy, state), element);
    }
}

TYPED_TEST(value_operations, stay_within_a_short_text_buffer) {
    using F = TypeParam;
    for (int i = 0; i < 12; ++i) {
        const auto value = this->random_value();
        loom_handle* const handle = this->handle;
        const auto print = [&](char* buffer, int32_t length) {
            return F::print(handle, domain, buffer, 3, "some_name", value, length, this->err);
        };
        std::vector<char> buffer(8192, static_cast<char>(canary));
        const int32_t size = print(buffer.data(), static_cast<int32_t>(buffer.size()));
        const std::string line(buffer.data(), static_cast<size_t>(size));
        EXPECT_EQ(line.rfind("   some_name@" + std::string(F::name) + ":", 0), 0u) << line;
        EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
        EXPECT_EQ(std::strlen(buffer.data()), line.size());
        for (int32_t length = -1; length <= size + 1; ++length) {
            std::fill(buffer.begin(), buffer.end(), static_cast<char>(canary));
            const int32_t written = print(buffer.data(), length);
            EXPECT_EQ(written, std::max(0, std::min(size, length - 1)));
            EXPECT_EQ(std::string(buffer.data(), static_cast<size_t>(written)),
                      line.substr(0, static_cast<size_t>(written)));
            if (length > 0) {
                EXPECT_EQ(buffer[static_cast<size_t>(written)], '\0');
            }
            EXPECT_EQ(buffer[static_cast<size_t>(std::max(0, length))], static_cast<char>(canary));
            this->expect_error(length > size ? 0 : LOOM_EMSGSIZE);
        }

        const std::string element = this->xml(value, 2);
        for (int32_t length = -1; length <= static_cast<int32_t>(element.size()) + 1; ++length) {
            std::fill(buffer.begin(), buffer.end(), static_cast<char>(canary));
            const uint32_t written =
                F::to_xml(handle, domain, "value", buffer.data(), value, length, 2, this->err);
            const bool fits = length >= static_cast<int32_t>(element.size());
            EXPECT_EQ(written, fits ? element.size() : 0);
            EXPECT_EQ(std::string(buffer.data(), written), fits ? element : "");
            EXPECT_EQ(buffer[static_cast<size_t>(std::max(0, length))], static_cast<char>(canary));
            this->expect_error(fits ? 0 : LOOM_EMSGSIZE);
        }
    }
}

TYPED_TEST(value_operations, say_which_element_they_cannot_read) {
    using F = TypeParam;
    const auto document =
        parse("<record><bad>no such value</bad><coded encoding=\"hex\">0g</coded><odd encoding=\"rot13\">x</odd>"
              "</record>");
    const auto value = this->random_value();
    this->memory.watch();
    char message[64] = "untouched";
    const auto read = [&](const char* path, char* text, uint32_t size) {
        F::from_xml(this->handle, domain, path, document.get(), value, this->err, text, size);
    };
    read("record/absent", message, sizeof message);
    this->expect_error(LOOM_ENOENT);
    EXPECT_STREQ(message, "untouched");
    read("record/coded", message, sizeof message);
    this->expect_error(LOOM_EINVAL);
    EXPECT_STREQ(message, "Failed xpath: record/coded");
    read("record/odd", message, 9);
    this->expect_error(LOOM_EINVAL);
    EXPECT_STREQ(message, "Failed x");
    read("record/coded[0]", nullptr, 0);
    this->expect_error(LOOM_EINVAL);
    constexpr bool any_text = is_counted<F> && !std::is_same_v<F, family::bytestr>;
    if (!any_text) {
        read("record/bad", message, sizeof message);
        this->expect_error(LOOM_EINVAL);
        EXPECT_STREQ(message, "Failed xpath: record/bad");
    }
    EXPECT_TRUE(this->memory.unchanged());
}

TYPED_TEST(value_operations, do_nothing_with_an_error_pending) {
    using F = TypeParam;
    using type = typename F::type;
    loom_handle* const handle = this->handle;
    const auto value = this->random_value();
    const auto other = this->random_value();
    const auto bytes = this->wire(other);
    const auto document = parse("<r>" + this->xml(other) + "</r>");
    const uint64_t allocations = this->memory.allocations();
    uint32_t* const err = this->err;
    *err = LOOM_EIDRM;
    this->memory.watch();

    char buffer[64];
    std::memset(buffer, canary, sizeof buffer);
    EXPECT_EQ(F::marshal(handle, domain, buffer, value, sizeof buffer, err), 0u);
    EXPECT_EQ(F::unmarshal(handle, domain, bytes.data(), value, static_cast<int32_t>(bytes.size()), 0, err), 0u);
    EXPECT_EQ(F::print(handle, domain, buffer, 1, "n", value, sizeof buffer, err), 0);
    EXPECT_EQ(F::to_xml(handle, domain, "n", buffer, value, sizeof buffer, 1, err), 0u);
    F::from_xml(handle, domain, "r/value", document.get(), value, err, nullptr, 0);
    F::set(handle, domain, value, other, err);
    EXPECT_EQ(F::get(handle, domain, value, err), value);
    if constexpr (is_plain<F>) {
        EXPECT_EQ(F::get_value(handle, domain, value, err), type{});
        F::set_value(handle, domain, value, *other, err);
    }
    if constexpr (is_object<F>) {
        type* clone = nullptr;
        F::clone_internal(handle, domain, other, &clone, buffer, sizeof buffer, err);
        EXPECT_EQ(clone, nullptr);
        F::post_copyout_cleanup(handle, domain, value, other, err);
    }

    EXPECT_TRUE(this->memory.unchanged());
    EXPECT_EQ(this->memory.announcements(), 0u);
    EXPECT_EQ(this->memory.allocations(), allocations);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(sizeof buffer, static_cast<char>(canary)));
    EXPECT_EQ(*err, static_cast<uint32_t>(LOOM_EIDRM));
    EXPECT_EQ(handle->last_error, 0u);
}

TYPED_TEST(value_operations, take_null_for_what_it_stands_for) {
    using F = TypeParam;
    using type = typename F::type;
    loom_handle* const handle = this->handle;
    uint32_t* const err = this->err;
    const auto empty = this->empty_value();
    EXPECT_EQ(F::len(handle, domain, nullptr), this->wire(empty).size());
    EXPECT_EQ(F::hash(nullptr, 1234), 1234u);
    EXPECT_EQ(F::get(handle, domain, nullptr, err), nullptr);
    EXPECT_EQ(*err, 0u);
    F::destroy(handle, domain, nullptr);
    F::destroy_internal(handle, domain, nullptr, 0);

    char buffer[64];
    F::set(handle, domain, empty, nullptr, err);
    this->expect_error(LOOM_ENOENT);
    F::marshal(handle, domain, buffer, nullptr, sizeof buffer, err);
    this->expect_error(LOOM_ENOENT);
    F::print(handle, domain, buffer, 0, "n", nullptr, sizeof buffer, err);
    this->expect_error(LOOM_ENOENT);
    F::to_xml(handle, domain, "n", buffer, nullptr, sizeof buffer, 0, err);
    this->expect_error(LOOM_ENOENT);
    if constexpr (is_plain<F>) {
        F::get_value(handle, domain, nullptr, err);
        this->expect_error(LOOM_ENOENT);
    }
    if constexpr (has_order<F>) {
        EXPECT_EQ(F::compare(nullptr, nullptr), 0);
        EXPECT_EQ(F::compare(nullptr, empty), -1);
        EXPECT_EQ(F::compare(empty, nullptr), 1);
    }
    if constexpr (is_object<F>) {
        type* clone = nullptr;
        F::clone_internal(handle, domain, empty, nullptr, buffer, sizeof buffer, err);
        this->expect_error(LOOM_ENOENT);
        F::clone_internal(handle, domain, empty, &clone, nullptr, 0, err);
        this->expect_error(LOOM_ENOENT);
        EXPECT_EQ(clone, nullptr);
        EXPECT_EQ(F::get_oid_count(handle, domain, empty, err), 0u);
    }
}

TYPED_TEST(value_operations, announce_every_store) {
    using F = TypeParam;
    loom_handle* const handle = this->handle;
    uint32_t* const err = this->err;
    for (uint32_t i = 0; i < this->rounds; ++i) {
        const auto value = this->random_value();
        const auto other = this->random_value();
        const auto bytes = this->wire(other);
        const auto document = parse("<r>" + this->xml(other) + "</r>");
        this->memory.watch();
        switch (i % 5) {
        case 0: F::set(handle, domain, value, other, err); break;
        case 1:
            F::unmarshal(handle, domain, bytes.data(), value, static_cast<int32_t>(bytes.size()), 1, err);
            break;
        case 2: F::from_xml(handle, domain, "r/value", document.get(), value, err, nullptr, 0); break;
        case 3:
            if constexpr (is_plain<F>)
                F::set_value(handle, domain, value, *other, err);
            else
                F::set(handle, domain, value, other, err);
            break;
        case 4: F::destroy_internal(handle, domain, value, 0); break;
        }
        EXPECT_EQ(*err, 0u);
        EXPECT_TRUE(this->memory.all_announced()) << "in case " << i % 5;
        if (i % 5 < 4) {
            EXPECT_TRUE(this->same(value, other));
            EXPECT_GT(this->memory.announcements(), 0u);
        }
        // Without a hook the same has to work.
        const auto hook = std::exchange(handle->write_hook, nullptr);
        F::set(handle, domain, value, other, err);
        handle->write_hook = hook;
    }
}

TYPED_TEST(value_operations, copy_privately) {
    using F = TypeParam;
    using type = typename F::type;
    loom_handle* const handle = this->handle;
    uint32_t* const err = this->err;
    for (uint32_t i = 0; i < this->rounds; ++i) {
        auto value = this->random_value();
        const auto copy = this->random_value();
        const auto bytes = this->wire(value);
        F::set(handle, domain, copy, copy, err); // onto itself
        F::set(handle, domain, copy, value, err);
        EXPECT_EQ(this->wire(copy), bytes);
        if constexpr (is_object<F>) {
            // A block copy shares what lies outside until it is cleaned up; also through _set.
            const auto block_copy = this->empty_value();
            std::memcpy(static_cast<void*>(block_copy.get()), value, sizeof *value);
            if (i % 2)
                F::post_copyout_cleanup(handle, domain, block_copy, value, err);
            else
                F::set(handle, domain, block_copy, value, err);
            std::vector<uint8_t> scratch(bytes.size());
            type* clone = nullptr;
            F::clone_internal(handle, domain, value, &clone, scratch.data(), static_cast<int32_t>(scratch.size()),
                              err);
            ASSERT_NE(clone, nullptr);
            EXPECT_EQ(this->wire(block_copy), bytes);
            EXPECT_EQ(this->wire(clone), bytes);
            F::destroy(handle, domain, clone);
        }
        value.reset();
        EXPECT_EQ(this->wire(copy), bytes);
        EXPECT_EQ(*err, 0u);
    }
}

/// Runs `operation` with the first, second, third... allocation failing until it gets by without a failure.
template <class Operation>
void with_each_allocation_failing(watched_memory& memory, Operation operation) {
    for (uint64_t n = 1;; ++n) {
        memory.fail_allocation(n);
        operation();
        if (memory.failure_pending()) break;
        ASSERT_LT(n, 10u);
    }
    memory.fail_allocation(0);
}

TYPED_TEST(value_operations, survive_failed_allocations) {
    using F = TypeParam;
    using type = typename F::type;
    loom_handle* const handle = this->handle;
    uint32_t* const err = this->err;
    for (int i = 0; i < 40; ++i) {
        const auto source = this->random_value();
        const auto bytes = this->wire(source);
        const auto size = static_cast<int32_t>(bytes.size());
        const auto document = parse("<r>" + this->xml(source) + "</r>");
        const std::function<void(type*)> ways[] = {
            [&](type* value) { F::set(handle, domain, value, source, err); },
            [&](type* value) { F::unmarshal(handle, domain, bytes.data(), value, size, 0, err); },
            [&](type* value) { F::from_xml(handle, domain, "r/value", document.get(), value, err, nullptr, 0); },
        };
        for (const auto& way : ways) {
            const auto value = this->random_value();
            with_each_allocation_failing(this->memory, [&] {
                this->memory.watch();
                way(value);
                if (this->memory.error) {
                    this->expect_error(LOOM_ENOMEM);
                    EXPECT_TRUE(this->memory.unchanged());
                    EXPECT_EQ(this->memory.announcements(), 0u);
                }
            });
            EXPECT_TRUE(this->same(value, source));
        }
        with_each_allocation_failing(this->memory, [&] {
            if (type* value = F::create(handle, domain)) {
                EXPECT_EQ(std::memcmp(value, std::vector<char>(sizeof(type)).data(), sizeof(type)), 0);
                F::destroy(handle, domain, value);
            } else {
                EXPECT_EQ(handle->last_error, static_cast<uint32_t>(LOOM_ENOMEM));
                handle->last_error = 0;
            }
        });
        if constexpr (is_object<F>) {
            with_each_allocation_failing(this->memory, [&] {
                std::vector<uint8_t> scratch(bytes.size());
                type* clone = nullptr;
                F::clone_internal(handle, domain, source, &clone, scratch.data(), size, err);
                EXPECT_EQ(clone == nullptr, this->memory.error != 0);
                if (this->memory.error) this->expect_error(LOOM_ENOMEM);
                F::destroy(handle, domain, clone);
            });
            type* clone = nullptr;
            std::vector<uint8_t> scratch(bytes.size());
            F::clone_internal(handle, domain, source, &clone, scratch.data(), size - 1, err);
            EXPECT_EQ(clone, nullptr);
            this->expect_error(LOOM_EMSGSIZE);
        }
    }
}

/// Or two objects would give back one block.
TYPED_TEST(value_operations, without_memory_leave_a_block_copy_empty) {
    using F = TypeParam;
    using type = typename F::type;
    std::vector<void (*)(loom_handle*, uint32_t, type*, const type*, uint32_t*)> ways = {F::set};
    if constexpr (is_object<F>) ways.push_back(F::post_copyout_cleanup);
    const auto empty = this->empty_value();
    for (int i = 0; i < 40; ++i) {
        const auto source = this->random_value();
        const auto bytes = this->wire(source);
        for (const auto way : ways)
            with_each_allocation_failing(this->memory, [&] {
                auto block_copy = this->empty_value();
                std::memcpy(static_cast<void*>(block_copy.get()), source, sizeof *source);
                way(this->handle, domain, block_copy, source, this->err);
                if (this->memory.error) {
                    this->expect_error(LOOM_ENOMEM);
                    EXPECT_TRUE(this->same(block_copy, empty));
                }
                block_copy.reset(); // owns nothing of the source
                EXPECT_EQ(this->wire(source), bytes);
            });
    }
}

TYPED_TEST(value_operations, hash_and_order_agree) {
    using F = TypeParam;
    if constexpr (has_order<F>) {
        std::vector<typename TestFixture::held> values;
        for (int i = 0; i < 60; ++i)
            values.push_back(this->random_value());
        const uint64_t allocations = this->memory.allocations();
        this->memory.watch();
        for (const auto& a : values) {
            for (const auto& b : values) {
                const int32_t result = F::compare(a, b);
                EXPECT_TRUE(result >= -1 && result <= 1);
                EXPECT_EQ(result, -F::compare(b, a));
                if (a == b) {
                    EXPECT_EQ(result, 0);
                }
                if (result == 0) {
                    EXPECT_EQ(F::hash(a, 5), F::hash(b, 5));
                }
                for (const auto& c : values)
                    if (result <= 0 && F::compare(b, c) <= 0) {
                        EXPECT_LE(F::compare(a, c), 0);
                    }
            }
        }
        EXPECT_TRUE(this->memory.unchanged());
        EXPECT_EQ(this->memory.allocations(), allocations);
    }
    const auto value = this->random_value();
    EXPECT_NE(F::hash(value, 1), F::hash(value, 2));
}

TYPED_TEST(value_operations, take_their_told_place_in_a_holder) {
    using F = TypeParam;
    using type = typename F::type;
    loom_handle* const handle = this->handle;
    EXPECT_EQ(F::width(handle, domain), sizeof(type));
    if constexpr (has_order<F>) {
        const auto value = this->empty_value();
        this->memory.watch();
        F::initialize(handle, domain, value, F::type_info, 1, 0, OBJ_NESTED, nullptr, this->err);
        F::set_instance_embedded(handle, domain, value);
        if constexpr (is_object<F>) F::set_all_state_tracking_flag(handle, domain, value, 2);
        F::destroy_internal(handle, domain, value, 0);
        EXPECT_TRUE(this->memory.unchanged());
        EXPECT_EQ(this->memory.error, 0u);
    }
}

} // namespace
