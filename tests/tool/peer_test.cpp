// Records between two processes: over a socket pair, over a socket in the file system, and with a partner that
// does not keep to the form.
#include "program.h"

#include <array>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace tool_test {
namespace {

class peers : public tool_fixture {
  protected:
    /// Waits until the receiver listens.
    static void wait_for(const std::string& socket) {
        for (int i = 0; i < 1000 && !std::filesystem::is_socket(socket); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
};

/// One end of a socket pair for a test, the other for a program.
struct socket_ends {
    int mine = -1, its = -1;
    socket_ends() {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::runtime_error("no socket pair");
        mine = ends[0];
        its = ends[1];
    }
    ~socket_ends() {
        ::close(mine);
        if (its >= 0) ::close(its);
    }
    void give_away() {
        ::close(its);
        its = -1;
    }
};

TEST_F(peers, a_record_arrives_through_a_socket_pair_as_it_was) {
    const std::string db = greenhouse_database("a.db");
    const std::string sent = loom_good({"show", db, "bed_tbl", "house=1", "row=1", "--xml"}).out;
    const outcome received =
        loom_good({"send", db, "bed_tbl", "house=1", "row=1", "--exec", LOOM_PROGRAM, "receive", "--xml"});
    EXPECT_EQ(received.out, sent);
    EXPECT_TRUE(contains(received.err, "bed_tbl house=1 row=1"));
}

TEST_F(peers, a_whole_table_goes_into_another_database) {
    const std::string db = greenhouse_database("a.db"), other = file("b.db"), socket = file("socket");
    loom_good({"create", other});
    running_program receiver(directory(), {LOOM_PROGRAM, "receive", "--socket", socket, "--into", other});
    wait_for(socket);
    loom_good({"send", db, "bed_tbl", "--socket", socket});
    EXPECT_EQ(receiver.wait().status, 0);
    EXPECT_EQ(loom_good({"compare", db, other}).out, "equal: 3 records of 1 tables\n");
}

TEST_F(peers, a_receiver_refuses_what_it_has) {
    const std::string db = greenhouse_database("a.db"), other = greenhouse_database("b.db");
    expect_refused({"send", db, "bed_tbl", "--exec", LOOM_PROGRAM, "receive", "--into", other},
                   {"the receiver refused bed_tbl house=1 row=1: error 17 (File exists)"});
}

TEST_F(peers, a_receiver_without_the_table_gets_nothing) {
    const std::string db = greenhouse_database("a.db");
    const std::string sibling =
        (std::filesystem::path(GREENHOUSE_LIBRARY).parent_path() / "libnexa_comm.so").string();
    expect_refused({"send", db, "bed_tbl", "--exec", LOOM_PROGRAM, "receive", "--bundle", sibling}, {"error 52"});
}

TEST_F(peers, nobody_there) {
    const std::string db = greenhouse_database("a.db");
    expect_refused({"send", db, "bed_tbl", "--socket", file("socket")}, {"nobody answers"});
    expect_refused({"send", db, "bed_tbl", "--exec", "/no/such/program"}, {});
    EXPECT_TRUE(contains(loom({"receive"}).err, "the standard input is no socket"));
}

/// What a receiver says to these bytes.
outcome told(const std::filesystem::path& directory, const std::string& bytes) {
    socket_ends ends;
    running_program receiver(directory, {LOOM_PROGRAM, "receive"}, ends.its);
    ends.give_away();
    EXPECT_EQ(::send(ends.mine, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    ::shutdown(ends.mine, SHUT_WR);
    // The receiver's manifests must be taken, or it might wait for room.
    std::array<char, 4096> greeting;
    while (::recv(ends.mine, greeting.data(), greeting.size(), 0) > 0) {
    }
    return receiver.wait();
}

TEST_F(peers, what_is_no_record_is_refused) {
    const std::string begin = "\xBC" + std::string(6, '\xFF'), header = begin + std::string(5, '\0');
    // A header that promises more than follows, and one of a table that nobody knows.
    const std::string promise = header + std::string("\0\0\1\0", 4) + std::string(11 + 16 + 20, '\0');
    const std::string unknown = header + std::string("\0\0\0\x2F", 4) + std::string(11 + 16 + 4, '\0');
    const std::pair<std::string, const char*> samples[] = {{std::string(100, 'x'), "its header is wrong"},
                                                           {"", "before it sent a record"},
                                                           {begin, "7 of 43 bytes"},
                                                           {promise, "20 of 213 bytes"},
                                                           {unknown, "no loaded bundle knows"}};
    for (const auto& [bytes, said] : samples) {
        const outcome ended = told(directory(), bytes);
        EXPECT_EQ(ended.status, 1) << said;
        EXPECT_TRUE(contains(ended.err, said));
    }
}

} // namespace
} // namespace tool_test
