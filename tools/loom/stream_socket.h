// Local stream sockets between two processes, and a child process at the other end of a socket pair. What travels
// is told by those who send. Who is at the other end is not trusted: waiting has an end, and memory is taken as
// bytes come, not as they are promised.
#pragma once

#include "failure.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tool {

/// The other end let the time pass.
class timed_out : public failure {
    using failure::failure;
};

class stream_socket {
  public:
    /// Connects to a socket in the file system.
    static stream_socket connected_to(const std::string& path);
    /// Makes a socket in the file system and waits for the first who connects; the file is removed then.
    static stream_socket accepted_at(const std::string& path);
    /// The standard input, which must be a socket.
    static stream_socket standard_input();

    explicit stream_socket(int descriptor) : descriptor_(descriptor) {}
    ~stream_socket();
    stream_socket(stream_socket&& other) noexcept;
    stream_socket& operator=(stream_socket&&) = delete;

    void send_all(std::span<const std::byte> bytes) const;
    void send_number(std::uint32_t number) const;
    /// Appends so many bytes; throws failure, naming `what` and how much of it came, when the other end closes
    /// before.
    void receive(std::vector<std::byte>& bytes, std::size_t size, const std::string& what) const;
    /// The same, but false when the other end closed before the first byte.
    bool receive_or_end(std::vector<std::byte>& bytes, std::size_t size, const std::string& what) const;
    std::uint32_t receive_number(const std::string& what) const;
    /// From now on each of these gives up, throwing timed_out, when it has not done its work after so many
    /// seconds; 0: never.
    void set_patience(unsigned seconds) { patience_ = seconds; }
    /// Nothing more will be sent; with `both_ways` nothing received either, so that nobody waits for this end.
    void shut_down(bool both_ways) const;

  private:
    class deadline;

    int descriptor_;
    unsigned patience_ = 0;
};

/// A program that runs with one end of a socket pair as its standard input.
class child_process {
  public:
    explicit child_process(const std::vector<std::string>& command);
    ~child_process();
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    stream_socket& socket() { return socket_; }
    /// Closes this end and waits; throws failure when the program failed.
    void finish();

  private:
    explicit child_process(const std::vector<std::string>& command, const int (&pair)[2]);
    int wait();

    stream_socket socket_;
    std::string name_;
    pid_t process_ = -1;
};

} // namespace tool
