// Commands between two processes: send and receive. On a stream socket the receiver first tells what it speaks, so
// that the sender can write the forms it knows; then each record travels as its binary form and is answered.
//
//     receiver: u32 number of manifests, each u32 length and its text
//     sender:   a table record: 27-byte header, 16-byte luid, payload, key     } for each record,
//     receiver: u32, 0 or the error number with which it was refused           } until the sender closes
//
// What is no record is answered too, and the receiver closes behind any refusal: 22 for what is malformed or cut
// short, 90 for what is too large, 110 for what does not come in time.
//
// Numbers travel most significant byte first, as everywhere on the wire.
#include "commands.h"
#include "failure.h"
#include "manifest.h"
#include "stream_socket.h"
#include "table_type.h"
#include "xml_file.h"

#include "frame/wire_sizes.h"

#include <loom/wire.h>

#include <cerrno>
#include <iostream>
#include <memory>

namespace tool {
namespace {

using trellis::wire::header_size;
using trellis::wire::message_frame_size;
constexpr unsigned usual_largest = 16;  // MiB
constexpr unsigned usual_patience = 30; // seconds

/// What a peer may cost at most, by the options.
struct peer_limits {
    explicit peer_limits(const arguments& line)
        : largest(std::size_t{line.number("--largest", 1024, usual_largest)} << 20),
          patience(line.number("--patience", 86400, usual_patience)) {}

    std::size_t largest; // bytes of a message
    unsigned patience;   // seconds for each step
};

// ----------------------------------------------------------------------------------------------------- manifests

void send_manifests(const stream_socket& socket) {
    std::vector<std::string> texts;
    each_module([&](const loom_module_node& module) {
        const std::string path = bundles::library_path(module.name);
        if (!path.empty()) texts.push_back(read_manifest(path).text);
    });
    socket.send_number(static_cast<std::uint32_t>(texts.size()));
    for (const std::string& text : texts) {
        socket.send_number(static_cast<std::uint32_t>(text.size()));
        socket.send_all(std::as_bytes(std::span(text)));
    }
}

using peer_pointer = std::unique_ptr<loom_peer, decltype(&loom_peer_release)>;

peer_pointer receive_manifests(const stream_socket& socket, std::size_t room) {
    constexpr std::uint32_t most_manifests = 1000;
    peer_pointer peer(loom_peer_create("receiver"), &loom_peer_release);
    const std::uint32_t count = socket.receive_number("the receiver's greeting");
    if (count > most_manifests) throw failure("what answers there is no 'loom receive'");
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t length = socket.receive_number("the receiver's manifest");
        if (length > room) throw failure("the receiver's manifests are larger than --largest allows");
        room -= length;
        std::vector<std::byte> text;
        if (length != 0) socket.receive(text, length, "the receiver's manifest");
        if (loom_peer_add_manifest(peer.get(), reinterpret_cast<const char*>(text.data()), text.size()) != 0)
            throw failure(std::string("the receiver's manifest cannot be read: ") + loom_error_text());
    }
    return peer;
}

/// What the other end speaks. It may be any program.
peer_pointer receive_peer(const stream_socket& socket, const peer_limits& limits) {
    try {
        return receive_manifests(socket, limits.largest);
    } catch (const failure& reason) {
        throw failure(reason.what(),
                      "let 'loom receive', or a program that greets as it does, be at the other end");
    }
}

// ------------------------------------------------------------------------------------------------------- sending

/// The records that the command line means: the one with the key, or the whole table.
std::vector<loom_table_record*> wanted_records(context& c, const database& db, const stored_table& stored,
                                               const table_type& type) {
    const std::span<const std::string> words = c.line.from(2);
    if (words.empty()) return type.records(db.handle(), stored.table, std::nullopt);
    const auto key = type.key_record(db.handle(), stored.table, words);
    loom_table_record* found = type.search(db.handle(), stored.table, key.get(), false, 1);
    if (!found)
        throw failure(db.path() + ": " + stored.label() + " has no record with " +
                          type.key_text(db.handle(), stored.table, key.get()),
                      "list the keys with 'loom walk " + db.path() + " " + stored.label() + "'");
    return {found};
}

/// Sends over what `connect` gives; nothing is connected before the records are at hand.
template <class Connect>
void send_all_records(context& c, Connect connect) {
    const database db = database::open(c.line[0]);
    const read_section reading(db);
    const stored_table stored = db.table(c.line[1]);
    const table_type type = table_type::of(stored, db, c.loaded);
    const std::vector<loom_table_record*> records = wanted_records(c, db, stored, type);

    const peer_limits limits(c.line);
    auto&& socket = connect();
    socket.set_patience(limits.patience);
    const peer_pointer peer = receive_peer(socket, limits);
    loom_set_peer(db.handle(), peer.get());
    for (loom_table_record* record : records) {
        check_interruption();
        const std::vector<std::byte> bytes = type.to_bytes(db.handle(), record);
        const std::string key = stored.label() + " " + type.key_text(db.handle(), stored.table, record);
        socket.send_all(bytes);
        const std::uint32_t answer = socket.receive_number("the receiver's answer");
        if (answer != 0) throw failure("the receiver refused " + key + ": error " + error_number_text(answer));
        std::cerr << "sent " << bytes.size() << " bytes: " << key << '\n';
    }
    loom_set_peer(db.handle(), nullptr);
}

// ----------------------------------------------------------------------------------------------------- receiving

/// What came is refused, and the sender hears why.
class refusal : public failure {
  public:
    refusal(std::uint32_t number, const std::string& what, const std::string& cure)
        : failure(what, cure), number_(number) {}
    std::uint32_t number() const { return number_; }

  private:
    std::uint32_t number_;
};

/// The next message, frame included; empty when the sender has closed.
std::vector<std::byte> receive_message(const stream_socket& socket, loom_handle* handle, std::size_t largest) {
    std::vector<std::byte> message;
    if (!socket.receive_or_end(message, message_frame_size, "a record's frame")) return {};
    loom_message_header header{};
    std::uint32_t error = 0;
    _loom_message_header_unmarshal(handle, tool_domain, message.data(), &header, header_size, &error);
    if (error || header.hdr_magic != LOOM_MESSAGE_HEADER_MAGIC || header.hdr_length < message_frame_size)
        throw refusal(LOOM_EINVAL, "what came in is no table record: its header is wrong",
                      "let 'loom send' or a program with the same frame write to this socket");
    if (header.hdr_length > largest)
        throw refusal(LOOM_EMSGSIZE,
                      "a record of " + std::to_string(header.hdr_length) + " bytes is announced, more than the " +
                          std::to_string(largest) + " that are taken",
                      "raise the limit with --largest MIB, if the sender is to be trusted");
    if (header.hdr_length > message_frame_size)
        socket.receive(message, header.hdr_length - message_frame_size, "a record");
    return message;
}

/// Where received records go: to the output, or into a database.
class receiver {
  public:
    explicit receiver(context& c)
        : as_xml_(c.line.has("--xml")), into_(c.line.value("--into")),
          database_(into_ ? database::open(*into_) : database::in_memory()) {}

    loom_handle* handle() const { return database_.handle(); }

    /// 0, or the error number with which the record is refused.
    std::uint32_t take(std::span<const std::byte> message) {
        const auto type = table_type::with_luid(message.data() + header_size, handle());
        if (!type) {
            std::cerr << "loom: a record of a table that no loaded bundle knows was refused\n";
            return LOOM_EBADE;
        }
        return into_ ? insert(*type, message) : print(*type, message);
    }

  private:
    table_type::owned_record record_of(const table_type& type, std::span<const std::byte> message) const try {
        return type.from_bytes(handle(), message);
    } catch (const failure& reason) {
        throw refusal(LOOM_EINVAL, reason.what(), reason.cure());
    }

    std::uint32_t print(const table_type& type, std::span<const std::byte> message) {
        const auto record = record_of(type, message);
        if (as_xml_)
            write_indented(std::cout, type.to_xml(handle(), record.get()), 0);
        else
            std::cout << type.to_text(handle(), record.get());
        return std::cout.flush() ? 0u : static_cast<std::uint32_t>(EIO);
    }

    std::uint32_t insert(const table_type& type, std::span<const std::byte> message) {
        write_section writing(database_);
        loom_table* table = type.open(handle(), type.name());
        auto record = record_of(type, message);
        const std::uint32_t error = type.insert(handle(), table, record);
        if (error == 0) writing.commit();
        return error;
    }

    bool as_xml_;
    std::optional<std::string> into_;
    database database_;
};

} // namespace

int send_records(context& c) {
    const std::vector<std::string> command = c.line.values("--exec");
    const std::optional<std::string> path = c.line.value("--socket");
    if (command.empty() == !path.has_value())
        throw usage_failure("send wants one of --socket PATH and --exec COMMAND...");
    if (path) {
        send_all_records(c, [&] { return stream_socket::connected_to(*path); });
        return exit_good;
    }
    std::optional<child_process> child;
    send_all_records(c, [&]() -> stream_socket& { return child.emplace(command).socket(); });
    child->finish();
    return exit_good;
}

namespace {
/// Nothing is expected of who is refused, not even that he listens.
void answer_refused(const stream_socket& socket, std::uint32_t number) {
    try {
        socket.send_number(number);
    } catch (const failure&) {
        return;
    }
}

/// Takes the next record and answers it, whatever it is; false when the sender has closed.
bool take_next(const stream_socket& socket, receiver& target, std::size_t largest) {
    std::uint32_t unexplained = LOOM_EINVAL; // of what does not come whole
    try {
        const std::vector<std::byte> message = receive_message(socket, target.handle(), largest);
        if (message.empty()) return false;
        unexplained = EIO;
        const std::uint32_t answer = target.take(message);
        if (answer != 0) throw refusal(answer, "a record was refused: error " + error_number_text(answer), {});
        socket.send_number(answer);
        return true;
    } catch (const refusal& reason) {
        answer_refused(socket, reason.number());
        throw;
    } catch (const timed_out&) {
        answer_refused(socket, ETIMEDOUT);
        throw;
    } catch (const std::exception&) {
        answer_refused(socket, unexplained);
        throw;
    }
}
} // namespace

int receive_records(context& c) {
    const peer_limits limits(c.line);
    c.loaded.load_all();
    receiver target(c);
    const std::optional<std::string> path = c.line.value("--socket");
    stream_socket socket = path ? stream_socket::accepted_at(*path) : stream_socket::standard_input();
    socket.set_patience(limits.patience);
    send_manifests(socket);
    unsigned count = 0;
    while (take_next(socket, target, limits.largest))
        ++count;
    if (count == 0) throw failure("the sender closed before it sent a record");
    return exit_good;
}

} // namespace tool
