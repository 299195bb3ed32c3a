// SPDX-License-Identifier: Apache-2.0
// Hosts whose calls fail, or report what is not true.
#ifndef KESTREL_TESTS_SUPPORT_FAULTY_HOST_H
#define KESTREL_TESTS_SUPPORT_FAULTY_HOST_H

#include <functional>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include "kestrel/hosts.h"
#include "kestrel/kestrel.h"
#include "tests/support/files.h"

// What a host call can come to other than what was asked for.
enum class FaultKind {
    kStatus,   // the call does nothing and returns a status
    kShort,    // a read delivers half of what is wanted, and says so; a write takes half
    kTooMany,  // a read says that it delivered more than was wanted
    kSilent,   // a read succeeds without writing anything, its count included
    // The call works on, or reports, another place in the file:
    kLie,   // one further on, and a read at the current position delivers other bytes
    kBack,  // one before
    kZero,  // its beginning
    kStill  // the same place each time
};

struct Fault {
    const char* name;
    FaultKind kind;
    uint32_t status;  // of kStatus
    bool for_good;    // not once, but from then on

    // Whether nothing that the call said was untrue, so that nothing may be lost.
    bool honest() const { return kind == FaultKind::kStatus || kind == FaultKind::kShort; }
};

inline constexpr Fault kFaults[] = {
    {"once", FaultKind::kStatus, KST_HOST_FAILED, false},
    {"for good", FaultKind::kStatus, KST_HOST_FAILED, true},
    {"not yet", FaultKind::kStatus, KST_HOST_NOT_YET, false},
    {"not yet, for ever", FaultKind::kStatus, KST_HOST_NOT_YET, true},
    {"not yet, the other way", FaultKind::kStatus, KST_IO_NOT_YET_ALSO, false},
    {"short", FaultKind::kShort, KST_HOST_OK, false},
    {"short, for ever", FaultKind::kShort, KST_HOST_OK, true},
    {"too many", FaultKind::kTooMany, KST_HOST_OK, false},
    {"too many, for ever", FaultKind::kTooMany, KST_HOST_OK, true},
    {"elsewhere", FaultKind::kLie, KST_HOST_OK, false},
    {"elsewhere, for ever", FaultKind::kLie, KST_HOST_OK, true},
    {"silent", FaultKind::kSilent, KST_HOST_OK, false},
    {"silent, for ever", FaultKind::kSilent, KST_HOST_OK, true},
    {"back", FaultKind::kBack, KST_HOST_OK, false},
    {"back, for ever", FaultKind::kBack, KST_HOST_OK, true},
    {"at 0, for ever", FaultKind::kZero, KST_HOST_OK, true},
    {"still, for ever", FaultKind::kStill, KST_HOST_OK, true},
};

// Whether a call of the slot can come to that.
bool can_fault(std::string_view slot, FaultKind kind);

// A host over memory whose calls can be made to fail. The statuses it returns are those of
// kst_host.
class FaultyHost {
  public:
    explicit FaultyHost(const Bytes& file);  // which is kept by the caller
    FaultyHost();                            // an empty one, to be written
    explicit FaultyHost(Bytes&&) = delete;
    FaultyHost(const FaultyHost&) = delete;
    FaultyHost& operator=(const FaultyHost&) = delete;
    ~FaultyHost();

    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks() { return &table_; }
    void rewind() { kst_host_rewind(host_); }
    Bytes written() const;

    // From then on, or at that call only, the calls are at fault that can be; repair() ends it.
    void break_at(int call, const Fault& how);
    void repair();

    // Asked before each call with its number, from 0; a status other than KST_HOST_OK is returned
    // in place of the call.
    std::function<uint32_t(int call)> fault;
    // Asked before each read or write that no fault stops; true has it move half of what is wanted.
    std::function<bool(int call)> cut;
    // The same for calls that report too much, nothing, or another place.
    std::function<bool(int call)> overstate;
    std::function<bool(int call)> silent;
    std::function<bool(int call)> lie;
    FaultKind lie_kind = FaultKind::kLie;
    // What IsEOF and CheckStatus say, whatever holds; their calls are not counted.
    std::optional<uint32_t> eof;
    std::optional<uint32_t> classification;
    int calls = 0;
    std::vector<std::string_view> names;  // of the slots called, in order
    std::set<std::string_view> used;      // of all slots called, IsEOF and CheckStatus too

  private:
    struct Slots;
    uint32_t ask(const char* name);

    explicit FaultyHost(kst_host* host);

    kst_host* host_;
    KST_IOSTREAM_CALLBACK_INTERFACE* inner_;
    std::optional<uint32_t> still_;  // the place of kStill
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
};

#endif
