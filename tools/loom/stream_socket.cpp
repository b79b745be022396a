#include "stream_socket.h"

#include "failure.h"
#include "interruption.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace tool {
namespace {

std::string system_error() { return std::strerror(errno); }

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw failure(path + ": is too long for the name of a socket",
                      "take a path of less than " + std::to_string(sizeof address.sun_path) + " bytes");
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

int new_socket() {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) throw failure("there is no socket to be had: " + system_error());
    return descriptor;
}

struct socket_pair {
    int ends[2];
    socket_pair() {
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            throw failure("there is no socket pair to be had: " + system_error());
    }
};

} // namespace

stream_socket stream_socket::connected_to(const std::string& path) {
    const sockaddr_un address = address_of(path);
    stream_socket socket(new_socket());
    if (::connect(socket.descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw failure(path + ": nobody answers: " + system_error(),
                      "start 'loom receive --socket " + path + "' first");
    return socket;
}

stream_socket stream_socket::accepted_at(const std::string& path) {
    const sockaddr_un address = address_of(path);
    const stream_socket listening(new_socket());
    if (::bind(listening.descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw failure(path + ": cannot be made: " + system_error(), "take a path that does not exist yet");
    const int accepted = ::listen(listening.descriptor_, 1) == 0
                             ? ::accept4(listening.descriptor_, nullptr, nullptr, SOCK_CLOEXEC)
                             : -1;
    const std::string reason = system_error();
    ::unlink(path.c_str());
    if (accepted < 0) throw failure(path + ": nobody could be let in: " + reason);
    return stream_socket(accepted);
}

stream_socket stream_socket::standard_input() {
    int type = 0;
    socklen_t size = sizeof type;
    if (::getsockopt(STDIN_FILENO, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM)
        throw failure("the standard input is no socket",
                      "give --socket PATH, or start this command by 'loom send ... --exec loom receive'");
    const int descriptor = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    if (descriptor < 0) throw failure("the standard input cannot be used: " + system_error());
    return stream_socket(descriptor);
}

stream_socket::~stream_socket() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

stream_socket::stream_socket(stream_socket&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), patience_(other.patience_) {}

/// The moment at which one piece of work is given up.
class stream_socket::deadline {
  public:
    explicit deadline(const stream_socket& socket) : socket_(socket) {}

    /// Waits until something can be done; throws when the time is over.
    void wait_for(short event, const std::string& what) const {
        using std::chrono::milliseconds;
        pollfd waiting{socket_.descriptor_, event, 0};
        const auto left = std::chrono::duration_cast<milliseconds>(end() - clock::now()).count();
        const int milliseconds_left = socket_.patience_ == 0 ? -1 : static_cast<int>(std::max<long>(left, 0));
        if (::poll(&waiting, 1, milliseconds_left) == 0)
            throw timed_out(what + " within " + std::to_string(socket_.patience_) + " seconds",
                            "see to the other side, or give more time with --patience SECONDS");
    }

  private:
    using clock = std::chrono::steady_clock;
    clock::time_point end() const { return begun_ + std::chrono::seconds(socket_.patience_); }

    const stream_socket& socket_;
    clock::time_point begun_ = clock::now();
};

void stream_socket::send_all(std::span<const std::byte> bytes) const {
    const deadline limit(*this);
    while (!bytes.empty()) {
        limit.wait_for(POLLOUT, "the other side does not take what is sent");
        const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (sent <= 0) throw failure("the other side is gone: " + system_error());
        bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
}

bool stream_socket::receive_or_end(std::vector<std::byte>& bytes, std::size_t size,
                                   const std::string& what) const {
    constexpr std::size_t piece = std::size_t{64} * 1024;
    const deadline limit(*this);
    std::size_t received = 0;
    const std::size_t before = bytes.size();
    while (received < size) {
        limit.wait_for(POLLIN, what + " does not come");
        const std::size_t wanted = std::min(piece, size - received);
        bytes.resize(before + received + wanted);
        const ssize_t count = ::recv(descriptor_, bytes.data() + before + received, wanted, MSG_DONTWAIT);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (count < 0) throw failure(what + " cannot be received: " + system_error());
        if (count == 0 && received == 0) {
            bytes.resize(before);
            return false;
        }
        if (count == 0)
            throw failure("the other side closed in the middle of " + what + ": " + std::to_string(received) +
                          " of " + std::to_string(size) + " bytes came");
        received += static_cast<std::size_t>(count);
    }
    bytes.resize(before + received);
    return true;
}

void stream_socket::receive(std::vector<std::byte>& bytes, std::size_t size, const std::string& what) const {
    if (!receive_or_end(bytes, size, what))
        throw failure("the other side closed before " + what + " came: 0 of " + std::to_string(size) + " bytes");
}

void stream_socket::send_number(std::uint32_t number) const {
    const std::array bytes{std::byte(number >> 24), std::byte(number >> 16), std::byte(number >> 8),
                           std::byte(number)};
    send_all(bytes);
}

std::uint32_t stream_socket::receive_number(const std::string& what) const {
    std::vector<std::byte> bytes;
    receive(bytes, sizeof(std::uint32_t), what);
    std::uint32_t number = 0;
    for (const std::byte byte : bytes)
        number = number << 8 | std::to_integer<std::uint32_t>(byte);
    return number;
}

void stream_socket::shut_down(bool both_ways) const { ::shutdown(descriptor_, both_ways ? SHUT_RDWR : SHUT_WR); }

// ------------------------------------------------------------------------------------------------------ children

child_process::child_process(const std::vector<std::string>& command)
    : child_process(command, socket_pair().ends) {}

child_process::child_process(const std::vector<std::string>& command, const int (&pair)[2])
    : socket_(pair[0]), name_(command.front()) {
    std::vector<char*> words;
    for (const std::string& word : command)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    process_ = ::fork();
    if (process_ == 0) {
        ::dup2(pair[1], STDIN_FILENO);
        ::execvp(words[0], words.data());
        static constexpr char message[] = "loom: the command of --exec cannot be started\n";
        [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, message, sizeof message - 1);
        ::_exit(127);
    }
    ::close(pair[1]);
    if (process_ < 0) throw failure(name_ + ": cannot be started: " + system_error());
}

child_process::~child_process() {
    if (process_ < 0) return;
    socket_.shut_down(true);
    wait();
}

int child_process::wait() {
    int status = 0;
    if (process_ > 0)
        while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
        }
    process_ = -1;
    return status;
}

void child_process::finish() {
    socket_.shut_down(false);
    const int status = wait();
    if (WIFSIGNALED(status)) throw failure(name_ + ": was ended by signal " + std::to_string(WTERMSIG(status)));
    if (WEXITSTATUS(status) != 0)
        throw failure(name_ + ": failed with status " + std::to_string(WEXITSTATUS(status)));
}

} // namespace tool
