// SPDX-License-Identifier: Apache-2.0
// Datagrams to a receiver.
#ifndef KESTREL_TOOLS_SEND_UDP_H
#define KESTREL_TOOLS_SEND_UDP_H

#include <sys/socket.h>

#include <cstdint>
#include <span>
#include <string>

#include "tools/descriptor.h"

namespace tool {

// "127.0.0.1:5004", "[::1]:5004" or "host.example:5004" in its parts. Throws Error for wrong usage.
struct Receiver {
    std::string host;
    uint16_t port = 0;
};
Receiver parse_receiver(const std::string& text);

// An address of the receiver's host.
class UdpAddress {
  public:
    // Resolves the host. Throws Error.
    explicit UdpAddress(const std::string& host);

    // Of the host, or that of this machine from which datagrams go there: "IN IP4 127.0.0.1" as
    // session descriptions have it.
    std::string description() const;
    std::string own_description() const;
    // With the time to live that a description has for a multicast address (RFC 8866, 5.7).
    std::string connection() const;

  private:
    friend class UdpSocket;

    bool is_multicast() const;
    Descriptor connect_to(uint16_t port) const;

    std::string host_;
    sockaddr_storage address_{};
    socklen_t length_ = 0;
};

// Sends to one port.
class UdpSocket {
  public:
    // Throws Error.
    UdpSocket(const UdpAddress& to, uint16_t port);

    // Throws Error when the system does not accept the datagram. Counts that an earlier one was
    // refused; a receiver may start later.
    void send(std::span<const uint8_t> datagram);
    uint64_t refused() const { return refused_; }

  private:
    std::string name_;  // for errors
    Descriptor socket_;
    uint64_t refused_ = 0;
};

}  // namespace tool

#endif
