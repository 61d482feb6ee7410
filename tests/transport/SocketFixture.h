#pragma once

#include <zel/Referenced.h>
#include <zel/ref_ptr.h>
#include <zelNet/NetError.h>
#include <zelNet/TCPServerSocket.h>
#include <zelNet/TCPSocket.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

namespace zelTest {

constexpr zel::uint32 Loopback = 0x0100007FU; // 127.0.0.1

inline const zel::uint8* bytesOf(const std::string& text) {
    return reinterpret_cast<const zel::uint8*>(text.data());
}

/// A class of sockets whose descriptor the test sees.
template <typename Base>
class Open : public Base {
public:
    using Base::Base;
    /// Takes over an open descriptor.
    void adopt(int descriptor) { this->m_socket = descriptor; }
    [[nodiscard]] int descriptor() const { return this->m_socket; }
    /// What assignment does.
    void moveFrom(const Base& other) { Base::operator=(other); }
    /// The descriptor goes to the caller.
    int release() { return std::exchange(this->m_socket, -1); }
    /// Where the socket is bound.
    [[nodiscard]] sockaddr_in local() const {
        sockaddr_in result{};
        socklen_t size = sizeof(result);
        EXPECT_EQ(getsockname(this->m_socket, reinterpret_cast<sockaddr*>(&result), &size), 0);
        return result;
    }
    [[nodiscard]] zel::uint16 port() const { return ntohs(local().sin_port); }
    [[nodiscard]] int option(int level, int name) const {
        int value = -1;
        socklen_t size = sizeof(value);
        EXPECT_EQ(getsockopt(this->m_socket, level, name, &value, &size), 0);
        return value;
    }
    [[nodiscard]] bool isNonBlocking() const { return (fcntl(this->m_socket, F_GETFL) & O_NONBLOCK) != 0; }
    [[nodiscard]] bool closesOnExec() const { return (fcntl(this->m_socket, F_GETFD) & FD_CLOEXEC) != 0; }
};

using OpenSocket = Open<zelNet::TCPSocket>;
using OpenServer = Open<zelNet::TCPServerSocket>;

/// A socket of ours, and a raw descriptor as its peer.
class Pipe {
public:
    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        socket.adopt(ends[0]);
        m_peer = ends[1];
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() { closePeer(); }

    [[nodiscard]] int peer() const { return m_peer; }
    void closePeer() {
        if (m_peer != -1)
            ::close(std::exchange(m_peer, -1));
    }
    void give(const std::string& bytes) const {
        EXPECT_EQ(::send(m_peer, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    /// So many bytes from the peer's side, or fewer if our side closes.
    [[nodiscard]] std::string take(std::size_t size) const {
        std::string bytes(size, '\0');
        std::size_t n = 0;
        while (n < size) {
            const ssize_t got = ::recv(m_peer, bytes.data() + n, size - n, 0);
            if (got <= 0)
                break;
            n += static_cast<std::size_t>(got);
        }
        bytes.resize(n);
        return bytes;
    }
    /// All that our side has written, which is closed.
    [[nodiscard]] std::string takeAll() {
        socket.close();
        return take(1 << 20);
    }
    /// Fills what our side may write to without waiting.
    void fill() const {
        const std::string bytes(4096, 'x');
        while (::send(socket.descriptor(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
    }

    OpenSocket socket;

private:
    int m_peer = -1;
};

/// Two ends of a TCP connection of this machine.
struct Connection {
    Connection() {
        OpenServer server;
        server.open(0, false);
        client.open(zelNet::IPAddress(Loopback, server.port()), false);
        const zel::ref_ptr<zelNet::TCPSocket> accepted(server.accept());
        peer.moveFrom(*accepted);
    }
    OpenSocket client;
    OpenSocket peer;
};

/// The NetError that the function throws.
template <typename Function>
zelNet::NetError errorOf(Function&& function) {
    try {
        std::forward<Function>(function)();
    } catch (const zelNet::NetError& error) {
        return error;
    }
    return zelNet::NetError("no exception");
}

/// Runs the work on a thread where one system call fails with an error.
template <typename Work>
void whileFailing(long call, int error, const Work& work) {
    std::thread([&] {
        std::array<sock_filter, 4> filter{
            sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
            sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<unsigned>(call)},
            sock_filter{BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)},
            sock_filter{BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
        const sock_fprog program{filter.size(), filter.data()};
        ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
        ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
        work();
    }).join();
}

/// Counts the signal while it lives; its handler interrupts system calls.
class SignalCounter {
public:
    explicit SignalCounter(int signal = SIGUSR1) : m_signal(signal) {
        s_count = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++s_count; };
        sigaction(signal, &action, &m_old);
    }
    SignalCounter(const SignalCounter&) = delete;
    SignalCounter& operator=(const SignalCounter&) = delete;
    ~SignalCounter() { sigaction(m_signal, &m_old, nullptr); }
    [[nodiscard]] static int count() { return s_count; }

private:
    static inline std::atomic<int> s_count{0};
    int m_signal;
    struct sigaction m_old {};
};

/// A thread that works with sockets, and can be watched.
class Worker {
public:
    template <typename Work>
    explicit Worker(Work work)
        : m_thread([this, work = std::move(work)] {
            m_id = gettid();
            work();
        }) {
        while (m_id == 0)
            std::this_thread::yield();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() { join(); }

    void join() {
        if (m_thread.joinable())
            m_thread.join();
    }
    void signal(int signal) { EXPECT_EQ(pthread_kill(m_thread.native_handle(), signal), 0); }
    /// Waits until the thread sleeps in the system call.
    void awaitSleepIn(long call) const {
        while (currentCall() != std::to_string(call))
            std::this_thread::yield();
    }
    /// Waits until it does not.
    void awaitWake() const {
        while (currentCall() != "running")
            std::this_thread::yield();
    }

private:
    [[nodiscard]] std::string currentCall() const {
        std::ifstream file("/proc/self/task/" + std::to_string(m_id) + "/syscall");
        std::string number;
        file >> number;
        return number;
    }

    std::atomic<pid_t> m_id{0};
    std::thread m_thread;
};

} // namespace zelTest
