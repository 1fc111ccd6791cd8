#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace MR {
struct SessionReport;
}

namespace meru_test {

/// Every test program is linked with a check of the books of every session that it ends: each account balances, and a
/// complete output file holds the packets that were counted as written. Set by tests that make the reading of files
/// fail, or that change them behind the session's back.
extern std::atomic<bool> leave_files_unread;

/// @return how many video packets a file holds; -1 when it cannot be read
int64_t video_packets(const std::string& path);

/// The check itself, for programs that observe the books themselves.
void check_books(const MR::SessionReport& report);

}  // namespace meru_test
