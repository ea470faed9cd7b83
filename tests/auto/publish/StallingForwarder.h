#pragma once
// A loopback TCP forwarder that passes bytes both ways unchanged until it is told to stall:
// then a connection moves no byte in either direction until its client gives up and closes
// it. Plain sockets in a thread of its own, so that the test's blocking calls never stall it
// by accident.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

class StallingForwarder
{
public:
    explicit StallingForwarder(int targetPort)
        : m_target(targetPort)
    {
        m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = Loopback(0);
        socklen_t length = sizeof address;
        if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
            || ::listen(m_listener, 16) != 0
            || ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0
            || ::pipe2(m_wake, O_CLOEXEC) != 0)
            return;
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~StallingForwarder()
    {
        if (m_thread.joinable()) {
            (void)::write(m_wake[1], "x", 1);
            m_thread.join();
        }
        for (int fd : {m_listener, m_wake[0], m_wake[1]}) {
            if (fd >= 0)
                ::close(fd);
        }
    }

    /// 0 when it could not listen.
    int Port() const { return m_port; }

    /// Once \a bytes more have gone towards the target (all connections together), the next
    /// connection with bytes to send stalls; \a times connections do (-1: every one).
    void StallAfter(std::int64_t bytes, int times)
    {
        m_forwarded = 0;
        m_stallAfter = bytes;
        m_stallsLeft = times;
    }
    void Heal() { StallAfter(std::numeric_limits<std::int64_t>::max(), 0); }
    /// Connections stalled so far.
    int Stalled() const { return m_stalled; }

private:
    struct Connection {
        int client = -1;
        int upstream = -1;
        bool stalled = false;
        bool upstreamDone = false;
        std::string up;   // read from the client, not yet sent on
        std::string down; // read from the target, not yet sent back
    };

    static sockaddr_in Loopback(int port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(std::uint16_t(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    // Appends what \a fd has, at most 64 KiB; false at its end or on an error.
    static bool Read(int fd, std::string& buffer)
    {
        char chunk[64 * 1024];
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n > 0)
            buffer.append(chunk, size_t(n));
        return n > 0 || (n < 0 && (errno == EAGAIN || errno == EINTR));
    }

    // Sends what \a fd takes of \a buffer; false on an error.
    static bool Write(int fd, std::string& buffer)
    {
        const ssize_t n = ::send(fd, buffer.data(), buffer.size(), MSG_NOSIGNAL);
        if (n > 0)
            buffer.erase(0, size_t(n));
        return n >= 0 || errno == EAGAIN || errno == EINTR;
    }

    bool StallNow()
    {
        const int left = m_stallsLeft;
        if (left == 0 || m_forwarded < m_stallAfter)
            return false;
        if (left > 0)
            m_stallsLeft = left - 1;
        ++m_stalled;
        return true;
    }

    void Accept(std::vector<Connection>& connections)
    {
        Connection c;
        c.client = ::accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (c.client < 0)
            return;
        c.upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in target = Loopback(m_target);
        if (c.upstream < 0 || ::connect(c.upstream, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0
            || ::fcntl(c.upstream, F_SETFL, O_NONBLOCK) != 0)
            return Close(c);
        connections.push_back(std::move(c));
    }

    static void Close(Connection& c)
    {
        for (int fd : {c.client, c.upstream}) {
            if (fd >= 0)
                ::close(fd);
        }
        c.client = c.upstream = -1;
    }

    void Serve()
    {
        std::vector<Connection> connections;
        std::vector<pollfd> fds;
        for (;;) {
            fds.assign({{m_wake[0], POLLIN, 0}, {m_listener, POLLIN, 0}});
            for (const Connection& c : connections) {
                // A stalled connection is only watched for its client closing.
                const short client = c.stalled ? short(POLLRDHUP)
                                               : short((c.up.empty() && !c.upstreamDone ? POLLIN : 0)
                                                       | (c.down.empty() ? 0 : POLLOUT));
                const short upstream = short((c.down.empty() && !c.upstreamDone ? POLLIN : 0)
                                             | (c.up.empty() ? 0 : POLLOUT));
                fds.push_back({c.client, client, 0});
                fds.push_back({c.stalled || c.upstreamDone ? -1 : c.upstream, upstream, 0});
            }
            if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR)
                break;
            if (fds[0].revents)
                break;
            for (size_t i = 0; i < connections.size(); ++i) {
                Connection& c = connections[i];
                const short fromClient = fds[2 + 2 * i].revents;
                const short fromUpstream = fds[3 + 2 * i].revents;
                bool open = !(c.stalled && fromClient);
                if (!c.stalled && (fromClient & (POLLIN | POLLHUP | POLLERR))) {
                    const size_t before = c.up.size();
                    open = Read(c.client, c.up);
                    if (c.up.size() > before && (c.stalled = StallNow()))
                        continue; // what was read stays here
                    m_forwarded += std::int64_t(c.up.size() - before);
                }
                if (open && (fromClient & POLLOUT))
                    open = Write(c.client, c.down);
                if (open && (fromUpstream & (POLLIN | POLLHUP | POLLERR)))
                    c.upstreamDone = !Read(c.upstream, c.down);
                if (open && (fromUpstream & POLLOUT))
                    open = Write(c.upstream, c.up);
                if (!open || (c.upstreamDone && c.down.empty()))
                    Close(c);
            }
            connections.erase(std::remove_if(connections.begin(), connections.end(),
                                             [](const Connection& c) { return c.client < 0; }),
                              connections.end());
            if (fds[1].revents & POLLIN)
                Accept(connections);
        }
        for (Connection& c : connections)
            Close(c);
    }

    const int m_target;
    int m_listener = -1;
    int m_wake[2] = {-1, -1};
    int m_port = 0;
    std::thread m_thread;
    std::atomic<std::int64_t> m_forwarded{0};
    std::atomic<std::int64_t> m_stallAfter{std::numeric_limits<std::int64_t>::max()};
    std::atomic<int> m_stallsLeft{0};
    std::atomic<int> m_stalled{0};
};
