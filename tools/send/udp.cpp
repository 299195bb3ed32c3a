// SPDX-License-Identifier: Apache-2.0
#include "tools/send/udp.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

#include "tools/support.h"

namespace tool {
namespace {

struct InfoCloser {
    void operator()(addrinfo* info) const { freeaddrinfo(info); }
};

// "IN IP4 ADDRESS"
std::string describe(const sockaddr_storage& address, socklen_t length) {
    char text[NI_MAXHOST] = "";
    getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, text, sizeof text, nullptr, 0,
                NI_NUMERICHOST);
    return std::string(address.ss_family == AF_INET6 ? "IN IP6 " : "IN IP4 ") + text;
}

}  // namespace

Receiver parse_receiver(const std::string& text) {
    const Error wrong("--to needs HOST:PORT, such as 127.0.0.1:5004 or [::1]:5004", kWrongUsage);
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) throw wrong;
    Receiver receiver{text.substr(0, colon), 0};
    std::string& host = receiver.host;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string::npos) {
        throw wrong;
    }
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data() + colon + 1, end, receiver.port);
    if (host.empty() || failure != std::errc() || stop != end || receiver.port == 0) throw wrong;
    return receiver;
}

UdpAddress::UdpAddress(const std::string& host) : host_(host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int failure = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (failure != 0) {
        throw Error(printable(host) + ": " +
                    (failure == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(failure)));
    }
    const std::unique_ptr<addrinfo, InfoCloser> info(found);
    length_ = info->ai_addrlen;
    std::memcpy(&address_, info->ai_addr, length_);
}

bool UdpAddress::is_multicast() const {
    if (address_.ss_family == AF_INET) {
        sockaddr_in address{};
        std::memcpy(&address, &address_, sizeof address);
        return IN_MULTICAST(ntohl(address.sin_addr.s_addr));
    }
    sockaddr_in6 address{};
    std::memcpy(&address, &address_, sizeof address);
    return IN6_IS_ADDR_MULTICAST(&address.sin6_addr);
}

Descriptor UdpAddress::connect_to(uint16_t port) const {
    sockaddr_storage to = address_;
    if (to.ss_family == AF_INET6) {
        reinterpret_cast<sockaddr_in6*>(&to)->sin6_port = htons(port);
    } else {
        reinterpret_cast<sockaddr_in*>(&to)->sin_port = htons(port);
    }
    Descriptor made(socket(to.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!made || connect(made.get(), reinterpret_cast<const sockaddr*>(&to), length_) != 0)
        throw system_error(printable(host_));
    return made;
}

std::string UdpAddress::description() const {
    return describe(address_, length_);
}

std::string UdpAddress::connection() const {
    constexpr const char* kTimeToLive = "/1";  // what the system gives a multicast datagram
    const bool has_time_to_live = address_.ss_family == AF_INET && is_multicast();
    return description() + (has_time_to_live ? kTimeToLive : "");
}

std::string UdpAddress::own_description() const {
    constexpr uint16_t kAnyPort = 9;  // nothing is sent
    const Descriptor made = connect_to(kAnyPort);
    sockaddr_storage own{};
    socklen_t length = sizeof own;
    if (getsockname(made.get(), reinterpret_cast<sockaddr*>(&own), &length) != 0)
        throw system_error(printable(host_));
    return describe(own, length);
}

UdpSocket::UdpSocket(const UdpAddress& to, uint16_t port)
    : name_(printable(to.host_) + " port " + std::to_string(port)), socket_(to.connect_to(port)) {}

void UdpSocket::send(std::span<const uint8_t> datagram) {
    constexpr int kMaxRefusals = 3;  // that one call waits out
    int refusals = 0;
    while (::send(socket_.get(), datagram.data(), datagram.size(), 0) < 0) {
        if (errno == EINTR) continue;
        // The answer to an earlier datagram; this one was not sent.
        if (errno != ECONNREFUSED || ++refusals > kMaxRefusals) throw system_error(name_);
        ++refused_;
    }
}

}  // namespace tool
