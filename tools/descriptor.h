// SPDX-License-Identifier: Apache-2.0
// A file descriptor that is closed by its destructor.
#ifndef KESTREL_TOOLS_DESCRIPTOR_H
#define KESTREL_TOOLS_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace tool {

class Descriptor {
  public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }

    int get() const { return number_; }
    int release() { return std::exchange(number_, -1); }
    explicit operator bool() const { return number_ >= 0; }

  private:
    int number_;
};

}  // namespace tool

#endif
